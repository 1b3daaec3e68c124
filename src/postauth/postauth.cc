// PostAuth commands for the handheld device.
#include "postauth/postauth.h"

#include <cstdio>

#include "http/server.h"
#include "http/work_area.h"
#include "init/rd_codes.h"
#include "init/rd_log.h"
#include "init/rd_status.h"

namespace {

constexpr char kHost[] = "127.0.0.1";
// The answer document; the tabs and double blanks are the clients' format.
constexpr char kPostAuthRespFormat[] =
    "<PostAuthResp>\n\t<Device Dev_ErrorCode = \"%d\"  Description = \"%s\"  Response_value = \"%s\" />\n\t<RD "
    "RD_ErrorCode = \"%d\"   Description = \"%s\"  RD_Status = %s />\n</PostAuthResp>";

const char* rd_text(int code) {
  const char* text = rd_codes::code_message(rd_codes::Family::kRd, code);
  return text != nullptr ? text : "";
}

// A refusal: no command reached the device, the RD part carries rd_code, and
// the absent response value prints as "(null)" as it always has.
int answer_refusal(int rd_code, char* work_area, const char* origin, const char* path) {
  int n = std::snprintf(work_area, kRespBodySize, kPostAuthRespFormat, rd_codes::kRdNotSent,
                        rd_text(rd_codes::kRdNotSent), "(null)", rd_code, rd_text(rd_code), get_rd_status());
  if (n < 0) n = 0;
  frame_http_ok_header(kHost, service_port(), path, n, origin, work_area + kRespHeaderOffset);
  return n;
}

}  // namespace

int PostAuth(char* work_area, const char* origin, const char* path) {
  if (get_rd_status_index() == kRdUsed) {
    RD_ERROR("RD Service is in USED state, please wait for some time");
    return answer_refusal(rd_codes::kRdBusy, work_area, origin, path);
  }
  // The device commands are not built yet.
  work_area[0] = '\0';
  frame_http_error_header(rd_codes::kHttpNotImplemented, kHost, service_port(), path, 0, origin,
                          work_area + kRespHeaderOffset);
  return 0;
}

int Check_Device_status() { return -1; }
