// Workers behind the CAPTURE and DEVICEINFO verbs. Each writes the whole answer
// into the work area (body at its start, header at kRespHeaderOffset) and
// returns 0. origin is the request's Origin value, or null.
#ifndef VEXO_RD_CORE_API_H
#define VEXO_RD_CORE_API_H

int capture(const char* request_body, const char* origin, char* work_area);
int GetDeviceInfo(char* work_area, const char* origin);

#endif  // VEXO_RD_CORE_API_H
