// The CAPTURE and DEVICEINFO workers: status checks, the PidOptions gates, the
// scanner lock around the capture driver, and the framed HTTP answers.
#include "rd_core/api.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "common/http_frame.h"
#include "common/work_area.h"
#include "common/xml_escape.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/Base64.h"
#include "platform/platform.h"
#include "postauth/postauth.h"
#include "rd_core/pid_data.h"
#include "rd_core/pidblock.h"
#include "rd_core/xml_parse.h"
#include "semaphore/device_lock.h"

namespace {

constexpr const char* kSignedMcFile = "cert/public/signed_mc.cer";
constexpr const char* kHandheldScanner = "Tavio_TX9";

constexpr const char* kDeviceInfoFormat =
    "<DeviceInfo dpId=\"%s\" rdsId=\"%s\" rdsVer=\"%s\" dc=\"%s\" mi=\"%s\" mc=\"%s\"><additional_info>"
    "<Param name=\"srno\" value=\"%s\"/></additional_info></DeviceInfo>\n";

std::string format_text(const char* fmt, ...) VEXO_PRINTF_FORMAT(1, 2);
std::string format_text(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string text;
  if (n > 0) {
    text.resize(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(text.data(), text.size(), fmt, args);
    text.resize(static_cast<std::size_t>(n));
  }
  va_end(args);
  return text;
}

std::string signed_mc_path() { return rd_identity_copy().prefix + kSignedMcFile; }

// Results of read_signed_mc besides 0.
constexpr int kMcMissing = -1;     // file missing or unreadable
constexpr int kMcNotEncoded = -2;  // Base64 encoding failed

// Base64 of the signed device certificate into *mc: 0, kMcMissing or
// kMcNotEncoded. *mc is empty on failure.
int read_signed_mc(std::string* mc) {
  mc->clear();
  std::string bytes;
  if (platform::read_file(signed_mc_path(), &bytes) != 0) return kMcMissing;
  auto data = std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  if (Base64Encode(data, mc) != 0) {
    mc->clear();
    return kMcNotEncoded;
  }
  return 0;
}

void fill_device_values(PidDataResponse* r) {
  const RdIdentity id = rd_identity_copy();
  const RdConfig config = rd_config_copy();
  r->dpId = id.dpId;
  r->rdsId = id.rdsId;
  r->rdsVer = config.rd_ver;
  r->dc = config.dc;
  r->mi = id.mi;
  r->srno = get_device_serial();
}

void fill_counts(const PidOptionsRequest& request, PidDataResponse* r) {
  r->fCount = static_cast<std::int8_t>(request.fCount);
  r->fType = static_cast<std::int8_t>(request.fType);
  r->pCount = static_cast<std::int8_t>(request.pCount);
  r->type = std::string(1, request.format);
}

// Copies body into the work area with the header of its kind.
void write_answer(AnswerKind kind, const std::string& body, const char* origin, char* work_area) {
  std::memcpy(work_area, body.c_str(), body.size() + 1);
  AnswerHead head{kind, 200, "", static_cast<int>(body.size())};
  frame_answer_header(head, origin, work_area + kRespHeaderOffset);
}

// Frames and writes a PidData answer. Falls back to the internal-error answer
// when the document cannot be made or does not fit the response region.
int send_pid_data(PidDataResponse* r, const char* origin, char* work_area) {
  RD_LOG_AS("capture");
  std::string body;
  if (FramePidOutputOuterXML(*r, &body) != 0 || body.size() >= kRespBodySize) {
    RD_ERROR("Error at FramePidOutputOuterXML");
    set_pid_error(r, rd_codes::kRdInternal);
    if (FramePidOutputOuterXML(*r, &body) != 0) body.clear();
  }
  write_answer(AnswerKind::kCapture, body, origin, work_area);
  return 0;
}

// The scores of the captured fingers into the answer.
void copy_scores(const EncPidBlock& enc, PidDataResponse* r) {
  for (std::size_t i = 0; i < static_cast<std::size_t>(kMaxFingers); ++i) {
    if (i < enc.nmPoints.size()) r->nmPoints[i] = enc.nmPoints[i];
    if (i < enc.qScore.size()) r->qScore[i] = enc.qScore[i];
  }
}

// The PidData error answer: the code, the counts parsed so far and the device
// information (with mc when the certificate can be read).
int answer_error(int code, const PidOptionsRequest& request, const EncPidBlock* enc, const char* origin,
                 char* work_area) {
  PidDataResponse r;
  fill_device_values(&r);
  fill_counts(request, &r);
  read_signed_mc(&r.mc);
  if (enc != nullptr) copy_scores(*enc, &r);
  set_pid_error(&r, code);
  return send_pid_data(&r, origin, work_area);
}

void report_used() {
  RD_LOG_AS("capture");
  RD_ERROR("RD Service is in USED state, please wait for some time");
  RD_PIPE("5000", "RD Service is in USED state,|please wait for some time\n");
}

void report_not_ready() {
  RD_LOG_AS("capture");
  RD_ERROR("RD Service is in NOTREADY state, please wait for some time");
  RD_PIPE("5000", "RD Service is in NOTREADY state,|please wait for some time\n");
}

// The status comes first: a busy or absent device is never touched. 0 when a
// capture may start, else the code to answer (reported).
int status_refusal() {
  RD_LOG_AS("capture");
  if (get_rd_status_index() == kRdUsed) {
    report_used();
    return rd_codes::kRdBusy;
  }
  if (rd_scanner_name() == kHandheldScanner) {
    // The handheld device's own check may move the status; the status says it all.
    Check_Device_status();
  }
  if (get_rd_status_index() != kRdNotReady) return 0;
  if (get_device_detached() != 0) {
    RD_ERROR("RD Service is in NOTREADY state, please wait for some time");
    RD_STATUS("Device is not connected, RD Service is in not ready state");
    RD_PIPE("5000", "Device is not connected,|RD Service is in not ready state\n");
  } else {
    report_not_ready();
  }
  return rd_codes::kRdNotReady;
}

// The code to answer when the status could not be claimed (reported): another
// request took the device, or it went away meanwhile.
int claim_refusal() {
  if (get_rd_status_index() == kRdNotReady) {
    report_not_ready();
    return rd_codes::kRdNotReady;
  }
  report_used();
  return rd_codes::kRdBusy;
}

// The PidOptions gates: the schema, every attribute (filling *request) and the
// authentication kinds. 0, or the code to answer (reported).
int check_options(const char* request_body, PidOptionsRequest* request) {
  RD_LOG_AS("capture");
  if (Pidinput_validate(request_body) != 0) {
    RD_ERROR("Pid options validation failed");
    RD_STATUS("Pid options validation failed");
    RD_PIPE("5000", "Pid options validation failed\n");
    return rd_codes::kRdBadPidOptions;
  }
  const int rc = Parse_XML_Request(request_body, request);
  if (rc != 0) {
    RD_ERROR("Request xml, parameter invalid");
    RD_STATUS("Request xml, parameter invalid");
    RD_PIPE("5000", "Request xml, parameter invalid\n");
    return rc;
  }
  if (Allowed_methods(*request) != 0) {
    RD_STATUS("Allowed auth methods failed");
    RD_PIPE("5000", "Allowed auth methods failed\n");
    // Answered as the RD code of the same value.
    return rd_codes::kRdNotSent;
  }
  return 0;
}

// Captures and encrypts under the scanner lock, and reads the device code and
// certificate under the same hold as the key that signs, so a key rotation
// never mixes an old key with a new dc or mc. Fills *enc and the device values
// and mc of *r. 0, or the code to answer (reported).
int capture_under_lock(PidOptionsRequest& request, EncPidBlock* enc, PidDataResponse* r) {
  RD_LOG_AS("capture");
  int rc = 0;
  int mc_rc = kMcMissing;
  {
    ScannerLock lock;
    if (!lock.held()) {
      RD_ERROR("Error at to lock semaphore");
      RD_STATUS("Error at to lock semaphore");
      return lock.result() == rd_codes::kLockTimeout ? rd_codes::kRdBusy : rd_codes::kRdInternal;
    }
    rc = GenerateEncPIDBlock(request, enc);
    fill_device_values(r);
    mc_rc = read_signed_mc(&r->mc);
    if (lock.unlock() != 0) {
      RD_ERROR("Error at to unlock semaphore");
      return rd_codes::kRdInternal;
    }
  }
  if (rc != 0) {
    RD_ERROR("Error at GenerateEncPIDBlock");
    return rc;
  }
  if (mc_rc == kMcMissing) {
    RD_ERROR("unable to open device public signed cert");
    RD_STATUS("File not found  : %s", signed_mc_path().c_str());
    RD_PIPE("10000", "File Not Found : %s\n", signed_mc_path().c_str());
    return rd_codes::kRdInternal;
  }
  if (mc_rc != 0) {
    RD_ERROR("Error at doing Base64Encode");
    return rd_codes::kRdInternal;
  }
  return 0;
}

}  // namespace

int capture(const char* request_body, const char* origin, char* work_area) {
  PidOptionsRequest request;
  if (request_body == nullptr || request_body[0] == '\0') {
    RD_ERROR("Request_For_Pidblock is null ");
    return answer_error(rd_codes::kRdBadPidOptions, request, nullptr, origin, work_area);
  }
  RD_INFO("Request for pidblock is success");
  if (const int refused = status_refusal(); refused != 0) {
    return answer_error(refused, request, nullptr, origin, work_area);
  }
  // From here the capture holds the device: discovery reports USED, and a
  // second capture or a PostAuth is answered 710 at once instead of waiting
  // on the scanner lock. READY again when the capture ends, on every path.
  RdStatusClaim claim;
  if (!claim.held()) return answer_error(claim_refusal(), request, nullptr, origin, work_area);
  RD_INFO("RD Service is Ready, going for all input validation and capture");
  if (const int invalid = check_options(request_body, &request); invalid != 0) {
    return answer_error(invalid, request, nullptr, origin, work_area);
  }
  EncPidBlock enc;
  PidDataResponse r;
  if (const int failed = capture_under_lock(request, &enc, &r); failed != 0) {
    return answer_error(failed, request, &enc, origin, work_area);
  }
  fill_counts(request, &r);
  copy_scores(enc, &r);
  r.errCode = 0;
  r.errInfo = rd_error_text(0);
  r.ci = enc.ci;
  r.skey = enc.skey;
  r.hmac = enc.hmac;
  r.data = enc.data;
  RD_PIPE("5000", "Capture Success\n");
  return send_pid_data(&r, origin, work_area);
}

int GetDeviceInfo(char* work_area, const char* origin) {
  const RdIdentity id = rd_identity_copy();
  const RdConfig config = rd_config_copy();
  const std::string path = id.prefix + kSignedMcFile;
  std::string bytes;
  bool have_cert = false;
  {
    ScannerLock lock;
    if (!lock.held()) RD_ERROR("Error at to lock semaphore");
    have_cert = platform::read_file(path, &bytes) == 0;
    if (lock.held() && lock.unlock() != 0) RD_ERROR("Error at to unlock semaphore");
  }
  std::string mc;
  if (!have_cert) {
    // Answered all the same, with an empty mc: the client still learns the
    // device's identity and the reports say what is missing.
    RD_ERROR("device public cert is not present");
    RD_STATUS("device public cert is not present : %s ", path.c_str());
    RD_PIPE("10000", "File Not Found : %s\n", path.c_str());
  } else if (Base64Encode(
                 std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
                 &mc) != 0) {
    RD_ERROR("Error at doing Base64Encode");
    mc.clear();
  }

  // The serial number and the device code come from outside (the scanner and
  // the Management server): escaped, so that they can never break the line.
  const std::string srno = xml_escape_attribute(get_device_serial());
  const std::string dc = xml_escape_attribute(config.dc);
  std::string body = format_text(kDeviceInfoFormat, id.dpId.c_str(), id.rdsId.c_str(), config.rd_ver.c_str(),
                                 dc.c_str(), id.mi.c_str(), mc.c_str(), srno.c_str());
  if (body.size() >= kRespBodySize) {
    RD_ERROR("Device certificate is too large for the response");
    body = format_text(kDeviceInfoFormat, id.dpId.c_str(), id.rdsId.c_str(), config.rd_ver.c_str(), dc.c_str(),
                       id.mi.c_str(), "", srno.c_str());
  }
  write_answer(AnswerKind::kDeviceInfo, body, origin, work_area);
  return 0;
}
