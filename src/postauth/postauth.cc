#include "postauth/postauth.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "common/http_frame.h"
#include "common/work_area.h"
#include "common/xml_escape.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/test_seams.h"
#include "postauth/handheld.h"

namespace {

using rd_codes::kRdBatteryFailed;
using rd_codes::kRdFirmwareFailed;
using rd_codes::kRdGetIdsFailed;
using rd_codes::kRdNotSent;
using rd_codes::kRdPortFailed;
using rd_codes::kRdSuccess;

constexpr char kHost[] = "127.0.0.1";
constexpr char kTavioScanner[] = "Tavio_TX9";
constexpr int kOpenTries = 3;
constexpr unsigned kRetryPauseMs = 2000;
// Room for one text answer of the device, NUL included.
constexpr int kDeviceAnswerSize = 256;

// The answer document; the tabs and double blanks are the clients' format.
constexpr char kPostAuthRespFormat[] =
    "<PostAuthResp>\n\t<Device Dev_ErrorCode = \"%d\"  Description = \"%s\"  Response_value = \"%s\" />\n\t<RD "
    "RD_ErrorCode = \"%d\"   Description = \"%s\"  RD_Status = %s />\n</PostAuthResp>";

// Whether this process has the device's port open. g_port_mutex is held for
// a whole open-command-close sequence.
platform::Mutex g_port_mutex;
bool g_port_open GUARDED_BY(g_port_mutex) = false;

// The description of a device or RD code; a code without one gives "".
const char* rd_text(int code) {
  const char* text = rd_codes::code_message(rd_codes::Family::kRd, code);
  return text != nullptr ? text : "";
}

// Writes a PostAuthResp body and its OK header; returns the body length.
// A null value prints as "(null)", as refusals always have.
int write_answer(char* work_area, const char* origin, const char* path, int device_code, const char* value,
                 int rd_code) {
  const std::string escaped = value != nullptr
                                  ? xml_escape_attribute(std::string_view(value, strnlen(value, kDeviceAnswerSize)))
                                  : std::string("(null)");
  int n = std::snprintf(work_area, kRespBodySize, kPostAuthRespFormat, device_code, rd_text(device_code),
                        escaped.c_str(), rd_code, rd_text(rd_code), get_rd_status());
  if (n < 0) n = 0;
  frame_http_ok_header(kHost, service_port(), path, n, origin, work_area + kRespHeaderOffset);
  return n;
}

// A refusal: no command reached the device; the RD part carries rd_code.
int answer_refusal(int rd_code, char* work_area, const char* origin, const char* path) {
  return write_answer(work_area, origin, path, kRdNotSent, nullptr, rd_code);
}

// Opens the port unless it is open, with up to tries attempts and a pause
// after each failure. 0, or -10.
int open_port(const char* caller, int tries) REQUIRES(g_port_mutex) {
  RD_LOG_AS(caller);
  if (g_port_open) return 0;
  const OpenCom_port_t open = tavio_sdk().OpenCom_port;
  // Without the handheld library (another scanner is configured) there is no
  // port to wait for.
  if (open != nullptr) {
    const std::string port = rd_identity_copy().port_path;
    for (int i = 0; i < tries; ++i) {
      if (open(port.c_str()) == 0) {
        g_port_open = true;
        RD_INFO("Port is open for Communication");
        return 0;
      }
      RD_ERROR("OpenCom_port function failed, Trying Again!!");
      platform::sleep_ms(postauth_retry_pause_ms());
    }
  }
  RD_ERROR("OpenCom_port function failed");
  return kRdPortFailed;
}

// Closes the port if it is open. The port counts as closed afterwards either
// way, so the next command opens it afresh.
void close_port(const char* caller) REQUIRES(g_port_mutex) {
  RD_LOG_AS(caller);
  if (!g_port_open) return;
  g_port_open = false;
  const ClosePort_t close = tavio_sdk().ClosePort;
  if (close != nullptr && close() == 0) {
    RD_INFO("Port is Closed Successfully");
  } else {
    RD_ERROR("ClosePort function failed");
  }
}

using QueryFn = int (*)(char*, int);

int query(QueryFn fn, char* answer, int fail_code, const char* fail_log) {
  RD_LOG_AS("Get_Response_From_Device");
  if (fn == nullptr || fn(answer, kDeviceAnswerSize) != 0) {
    RD_ERROR("%s", fail_log);
    return fail_code;
  }
  return 0;
}

// Runs the command of fields; the device's text lands in answer. Queries are
// looked for in Param2 first, then PRINTER in Param1.
int run_command(const PostAuthFields& fields, char* answer) {
  RD_LOG_AS("Get_Response_From_Device");
  const TavioSdk& sdk = tavio_sdk();
  const char* query_name = fields.param2_name;
  // The firmware and printer failures have always logged the battery text.
  if (std::strcmp(query_name, "GET_BATTERYSTATUS") == 0) {
    return query(sdk.Get_BatteryStatus, answer, kRdBatteryFailed, "Getting Battery_Status Failed");
  }
  if (std::strcmp(query_name, "GET_FIRMWAREVERSION") == 0) {
    return query(sdk.Get_FWVersion, answer, kRdFirmwareFailed, "Getting Battery_Status Failed");
  }
  if (std::strcmp(query_name, "GET_DEVICEID") == 0) {
    return query(sdk.Get_SerialNumber, answer, kRdGetIdsFailed, "Getting Device ID's Failed");
  }
  if (std::strcmp(fields.param1_name, "PRINTER") == 0) {
    // A failed print reports the printer's own status code (3..73: paper,
    // temperature, patch, battery), which the answer describes.
    int rc = sdk.Print_Data != nullptr ? sdk.Print_Data(fields.param1_value, answer, kDeviceAnswerSize) : kRdNotSent;
    if (rc != 0) RD_ERROR("Getting Battery_Status Failed");
    return rc;
  }
  RD_ERROR("Invalid Command from Client");
  return kRdNotSent;
}

// Get_Response_From_Device with the number of tries to open the port.
int get_response(const PostAuthFields& fields, char* work_area, const char* origin, const char* path, int open_tries) {
  platform::MutexLock guard(&g_port_mutex);
  int rc = open_port("Get_Response_From_Device", open_tries);
  if (rc != 0) return rc;
  char answer[kDeviceAnswerSize] = {};
  rc = run_command(fields, answer);
  // The port is held for one command only, whatever its result.
  close_port("Get_Response_From_Device");
  if (rc != 0) return rc;
  write_answer(work_area, origin, path, kRdSuccess, answer, kRdSuccess);
  return 0;
}

// Check_Device_status; keep_open leaves an opened port for the command that follows.
int check_device(bool keep_open) {
  RD_LOG_AS("Check_Device_status");
  platform::MutexLock guard(&g_port_mutex);
  RD_INFO("Trying to open the port");
  if (open_port("Check_Device_status", kOpenTries) != 0) {
    RD_STATUS("Connection to Bluetooth failed, please connect the device again");
    RD_PIPE("10000", "Connection to Bluetooth failed,|please connect the device again\n");
    set_device_detached(1);
    set_rd_status_notready();
    return kRdPortFailed;
  }
  int rc = 0;
  char ids[kDeviceAnswerSize] = {};
  const Get_SerialNumber_t get_ids = tavio_sdk().Get_SerialNumber;
  if (get_ids == nullptr || get_ids(ids, kDeviceAnswerSize) != 0) {
    RD_ERROR("Getting Device ID's Failed");
    rc = kRdGetIdsFailed;
  } else if (get_device_detached() != 0 && get_rd_status_index() == kRdNotReady) {
    // The connection that was lost is back.
    set_device_detached(0);
    set_rd_status_ready();
  }
  if (!keep_open) close_port("Check_Device_status");
  return rc;
}

// Closes a port that a request's device check left open, on every path out.
struct PortRelease {
  PortRelease() = default;
  PortRelease(const PortRelease&) = delete;
  PortRelease& operator=(const PortRelease&) = delete;
  ~PortRelease() {
    platform::MutexLock guard(&g_port_mutex);
    close_port("PostAuth");
  }
};

}  // namespace

unsigned postauth_retry_pause_ms() {
  return test_seams::get(&test_seams::Seams::postauth_retry_ms).value_or(kRetryPauseMs);
}

int PostAuth(char* work_area, const char* origin, const char* path) {
  const char* body = work_area + kReqBodyOffset;
  if (body[0] == '\0') {
    RD_ERROR("Request_For_Pidblock is null ");
    return answer_refusal(rd_codes::kRdInvalidXml, work_area, origin, path);
  }
  if (get_rd_status_index() == kRdUsed) {
    RD_ERROR("RD Service is in USED state, please wait for some time");
    return answer_refusal(rd_codes::kRdBusy, work_area, origin, path);
  }
  PortRelease release;
  // The check's result does not stop the request. When it could not open the
  // port, the command is answered -10 without a second round of tries, so an
  // absent device costs three tries in all.
  bool port_failed = false;
  if (rd_scanner_name() == kTavioScanner) port_failed = check_device(true) == kRdPortFailed;
  if (!port_failed && get_rd_status_index() == kRdNotReady) {
    RD_ERROR("RD Service is in NOTREADY state, please wait for some time");
    return answer_refusal(rd_codes::kRdNotReady, work_area, origin, path);
  }
  PostAuthFields fields;
  int rc = PostAuth_Request_XML_Parse(body, &fields);
  if (rc != 0) {
    RD_ERROR("XML_Parsing of client request is failed");
    return answer_refusal(rc, work_area, origin, path);
  }
  rc = get_response(fields, work_area, origin, path, port_failed ? 0 : kOpenTries);
  if (rc != 0) {
    RD_ERROR("Getting Response for PostAuth call from Device is failed");
    return answer_refusal(rc, work_area, origin, path);
  }
  return static_cast<int>(strnlen(work_area, kRespBodySize));
}

int Get_Response_From_Device(const PostAuthFields& fields, char* work_area, const char* origin, const char* path) {
  return get_response(fields, work_area, origin, path, kOpenTries);
}

int Check_Device_status() { return check_device(false); }
