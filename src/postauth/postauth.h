// PostAuth commands for the handheld device ("Tavio_TX9"): battery state,
// firmware version, device identifiers and printing, answered with a
// PostAuthResp document. The device is reached through the handheld library
// (Tavio.dll) loaded at start-up; the port is opened for a command (three
// tries, 2000 ms apart) and closed after it.
//
// Thread-safety: the dispatcher calls PostAuth and Check_Device_status under
// the handheld lock; the port state has its own mutex besides.
#ifndef VEXO_POSTAUTH_POSTAUTH_H
#define VEXO_POSTAUTH_POSTAUTH_H

#include "postauth/PostAuth_xml_parse.h"

// Answers one POSTAUTH request: reads the body at kReqBodyOffset of the work
// area and writes the PostAuthResp body at its start and the OK header for
// path at kRespHeaderOffset. Returns the body length.
int PostAuth(char* work_area, const char* origin, const char* path);

// Runs the command of fields on the device (opening the port if it is not
// open) and on success writes the SUCCESS answer (body and header) into the
// work area. 0 success; otherwise the code for the answer's RD part: -1
// unknown command, -10 port not opened, -20 battery, -30 firmware, -60
// identifiers, or the printer's own status code (3..73) when printing fails.
int Get_Response_From_Device(const PostAuthFields& fields, char* work_area, const char* origin, const char* path);

// Opens the port (same tries) and asks for the identifiers, then closes it.
// 0 when the device answers; -10 port not opened (reported to the front end,
// device-detached flag set, status NOTREADY); -60 identifiers not read. A
// device that answers again after a lost connection makes the service READY.
int Check_Device_status();

// The pause between two tries to open the port: 2000 ms unless a test
// shortened it.
unsigned postauth_retry_pause_ms();

#endif  // VEXO_POSTAUTH_POSTAUTH_H
