// Temporary workers for the verbs whose modules are not built yet. Each answers
// the error header with 501 and an empty body. Delete a worker here when its
// module defines it.
#include <cstdio>

#include "http/server.h"
#include "http/work_area.h"
#include "postauth/postauth.h"
#include "rd_core/api.h"

namespace {
int answer_not_implemented(char* work_area, const char* path, const char* origin) {
  work_area[0] = '\0';
  frame_http_error_header(501, "127.0.0.1", service_port(), path, 0, origin, work_area + kRespHeaderOffset);
  return 0;
}
}  // namespace

int PostAuth(char* work_area, const char* origin, const char* path) {
  answer_not_implemented(work_area, path, origin);
  return 0;
}

int Check_Device_status() { return -1; }
