// Worker behind the POSTAUTH verb and the handheld device's status check.
#ifndef VEXO_POSTAUTH_POSTAUTH_H
#define VEXO_POSTAUTH_POSTAUTH_H

// Answers one POSTAUTH request: reads the body at kReqBodyOffset of the work
// area and writes header and body into it. Returns the body length.
int PostAuth(char* work_area, const char* origin, const char* path);
// Opens the handheld device's port and asks for its identifiers. 0 when the
// device answers, otherwise a failure code.
int Check_Device_status();

#endif  // VEXO_POSTAUTH_POSTAUTH_H
