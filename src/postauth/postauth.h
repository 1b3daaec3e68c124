// Worker behind the POSTAUTH verb and the handheld device's status check.
//
// Only the refusals that need no device are answered so far: while the
// service is USED the answer is the PostAuthResp with RD code 710; any other
// request gets the 501 error header until the device commands are built.
//
// Thread-safety: the dispatcher calls these under the handheld lock.
#ifndef VEXO_POSTAUTH_POSTAUTH_H
#define VEXO_POSTAUTH_POSTAUTH_H

// Answers one POSTAUTH request: reads the body at kReqBodyOffset of the work
// area and writes the body at its start and the header at kRespHeaderOffset
// (an OK header for path with the body's length). Returns the body length.
int PostAuth(char* work_area, const char* origin, const char* path);
// Opens the handheld device's port and asks for its identifiers. 0 when the
// device answers, otherwise a failure code (-1 until the device is driven).
int Check_Device_status();

#endif  // VEXO_POSTAUTH_POSTAUTH_H
