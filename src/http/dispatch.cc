// The RD verbs: request-line checks, the hand-over to the capture, DeviceInfo
// and PostAuth workers, and the answers of the checks that fail.
#define VEXO_LOG_FILE "server"

#include "http/dispatch.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "http/server.h"
#include "common/http_frame.h"
#include "common/work_area.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "platform/test_seams.h"
#include "postauth/postauth.h"
#include "rd_core/api.h"
#include "semaphore/device_lock.h"

using rd_codes::kFailed;

namespace {

using rd_codes::kHttpBadRequest;
using rd_codes::kHttpBadVerb;
using rd_codes::kHttpBadVersion;
using rd_codes::kHttpForbidden;
using rd_codes::kHttpNoBody;

constexpr char kHost[] = "127.0.0.1";
constexpr char kTavioScanner[] = "Tavio_TX9";
// Room of the request-line fields, the terminating NUL included.
constexpr std::size_t kVerbSize = 16;
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kVersionSize = 16;
constexpr std::size_t kCaptureFieldSize = 56;
constexpr long kMaxCaptureBody = 1024;

// The errCode 100 answer leaves Resp unclosed and ends with an empty PidData
// element instead of a closing tag; clients have always received it so.
constexpr char kBadPidOptionsBody[] =
    "<PidData>\n<Resp errCode=\"100\" errInfo=\"Invalid input Pid-Options, XML should strictly adhere to "
    "spec\"\n<PidData />\n";
static_assert(sizeof kBadPidOptionsBody - 1 == 114);

// The verb branches are steps of process_incoming_message and log under its name.
constexpr char kDispatchFn[] = "process_incoming_message";

bool is_tavio() { return rd_scanner_name() == kTavioScanner; }

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// While another holder has the handheld device, the status reads USED for
// the request that found it busy; afterwards it goes back to what it was,
// or one busy moment would leave the service USED for good.
class BusyStatus {
 public:
  BusyStatus() : before_(get_rd_status_index()) { set_rd_status_used(); }
  ~BusyStatus() {
    if (before_ != kRdUsed) rd_status_replace(kRdUsed, before_);
  }
  BusyStatus(const BusyStatus&) = delete;
  BusyStatus& operator=(const BusyStatus&) = delete;

 private:
  unsigned before_;
};

// Runs work under the handheld lock; when another holder has the device,
// work still runs, with the status USED, to give the busy answer.
template <typename Work>
void with_tavio_lock(Work work) {
  TavioLock lock;
  std::optional<BusyStatus> busy;
  if (!lock.held()) busy.emplace();
  work();
}

void error_header(int code, std::string_view path, const char* origin, char* area) {
  std::string p(path);
  frame_http_error_header(code, kHost, service_port(), p.c_str(), 0, origin, area + kRespHeaderOffset);
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

std::string_view trim_blanks(std::string_view v) {
  while (!v.empty() && is_blank(v.front())) v.remove_prefix(1);
  while (!v.empty() && (is_blank(v.back()) || v.back() == '\r')) v.remove_suffix(1);
  return v;
}

// True when a header line of the request (before its blank line) is
// "Access-Control-Request-Private-Network: true": a browser's pre-flight from a
// public page asking whether this local service may be reached. The name is
// matched without regard to case, as HTTP header names are.
bool asks_private_network(std::string_view raw) {
  std::size_t pos = raw.find('\n');
  while (pos != std::string_view::npos) {
    std::size_t start = pos + 1;
    std::size_t end = raw.find('\n', start);
    std::string_view line = raw.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (trim_blanks(line).empty()) return false;  // the header ends at the blank line
    std::size_t colon = line.find(':');
    if (colon != std::string_view::npos &&
        equals_ignoring_case(line.substr(0, colon), "Access-Control-Request-Private-Network") &&
        trim_blanks(line.substr(colon + 1)) == "true") {
      return true;
    }
    pos = end;
  }
  return false;
}

// True when the configured origin list names origin (compared without regard
// to case, as browsers write scheme and host in lower case anyway). "null",
// the origin of every sandboxed frame and local file, is never on it: any
// page can make its requests carry it.
bool origin_listed(std::string_view list, std::string_view origin) {
  origin = trim_blanks(origin);
  if (origin.empty() || equals_ignoring_case(origin, "null")) return false;
  std::size_t pos = 0;
  while (pos < list.size()) {
    std::size_t end = list.find_first_of(", \t", pos);
    if (end == std::string_view::npos) end = list.size();
    std::string_view entry = list.substr(pos, end - pos);
    if (!entry.empty() && equals_ignoring_case(entry, origin)) return true;
    pos = end + 1;
  }
  return false;
}

// With an origin list configured, a request that names an origin not on it
// (or an "Origin:" whose value cannot be read) comes from a page the operator
// did not allow. Requests without an origin come from programs, not pages.
bool origin_refused(OriginKind kind, const char* origin) {
  if (kind == OriginKind::kAbsent) return false;
  const std::string list = rd_config_copy().allowed_origins;
  if (list.find_first_not_of(", \t") == std::string::npos) return false;
  return kind != OriginKind::kValue || !origin_listed(list, origin);
}

void answer_options(OriginKind kind, const char* raw, char* header) {
  RD_LOG_AS(kDispatchFn);
  AnswerHead head;
  head.kind = kind == OriginKind::kValue    ? AnswerKind::kOptions
              : kind == OriginKind::kAbsent ? AnswerKind::kOptionsNoOrigin
                                            : AnswerKind::kOptionsNoLineEnd;
  // Only a pre-flight that asks for it gets the private-network permission;
  // every other answer keeps its bytes.
  head.private_network = kind != OriginKind::kAbsent && asks_private_network(raw);
  frame_answer_header(head, nullptr, header);
  RD_INFO("....................Options Successful...................");
}

void answer_discovery(const RequestLine& line, const char* origin, char* area) {
  RD_LOG_AS(kDispatchFn);
  RD_INFO("......................Client Request for Device Discovery......................");
  bool version_ok = line.version == "HTTP/1.1";
  if (!version_ok) {
    RD_ERROR("HTTP VER is wrong");
    error_header(kHttpBadVersion, line.path, origin, area);
    RD_INFO(".........................Device Discovery Failed.......................");
  }
  // The handheld device is asked for its state even after a version error.
  std::optional<BusyStatus> busy;
  if (is_tavio() && get_rd_status_index() != kRdUsed) {
    TavioLock lock;
    if (lock.held()) {
      Check_Device_status();
    } else {
      busy.emplace();
    }
  }
  if (version_ok) {
    frame_rdservice_response(origin, area + kRespHeaderOffset, area);
    RD_INFO(".........................Device Discovery Successful.......................");
  }
}

void answer_capture(const char* raw, const char* origin, char* area) {
  RD_LOG_AS(kDispatchFn);
  char* request_body = area + kReqBodyOffset;
  RD_INFO("......................Client Request for Capture......................");
  int result = ParseHTTP_ReqCapture(raw, request_body);
  if (result == 0) {
    if (is_tavio()) {
      with_tavio_lock([&] { capture(request_body, origin, area); });
    } else {
      capture(request_body, origin, area);
    }
    return;
  }
  RD_ERROR("Error at ParseHTTP_ReqCapture");
  RD_STATUS("Error at Parsing the capture request ");
  RD_PIPE("10000", "Error at Parsing the capture request\n");
  if (result == kHttpBadVersion || result == kHttpBadRequest) {
    error_header(result, "/rd/capture", origin, area);
  } else {
    std::memcpy(area, kBadPidOptionsBody, sizeof kBadPidOptionsBody);
    frame_http_ok_header(kHost, service_port(), "/rd/capture", static_cast<int>(sizeof kBadPidOptionsBody - 1), origin,
                         area + kRespHeaderOffset);
  }
}

// The path and version rules of DEVICEINFO and POSTAUTH: 0, 400 or 505.
int check_path_and_version(const RequestLine& line, std::string_view expected_path) {
  RD_LOG_AS(kDispatchFn);
  bool version_ok = line.version == "HTTP/1.1";
  if (line.path != expected_path) {
    RD_ERROR("PATH VALIDATION FAILED");
    if (version_ok) return kHttpBadRequest;
    RD_ERROR("Unsupported HTTP Version");
    return kHttpBadVersion;
  }
  if (!version_ok) {
    RD_ERROR("Unsupported HTTP Version");
    return kHttpBadVersion;
  }
  return 0;
}

void answer_device_info(const RequestLine& line, const char* origin, char* area) {
  RD_LOG_AS(kDispatchFn);
  RD_INFO("......................Client Requested for Device Info......................");
  int code = check_path_and_version(line, "/rd/info");
  if (code != 0) {
    error_header(code, line.path, origin, area);
    return;
  }
  GetDeviceInfo(area, origin);
  RD_INFO("......................Device Info Successful.........................");
}

void answer_postauth(const RequestLine& line, const char* raw, const char* origin, char* area) {
  RD_LOG_AS(kDispatchFn);
  RD_INFO("......................Client Requested Verb is POSTAUTH......................");
  int code = check_path_and_version(line, "/rd/postauth");
  if (code == 0 && Get_PostAuthBody(raw, area + kReqBodyOffset) != 0) code = kHttpNoBody;
  if (code != 0) {
    error_header(code, line.path, origin, area);
    return;
  }
  std::string path(line.path);
  if (is_tavio()) {
    with_tavio_lock([&] { PostAuth(area, origin, path.c_str()); });
  } else {
    PostAuth(area, origin, path.c_str());
  }
  RD_INFO("......................POST AUTH Successful.........................");
}

}  // namespace

RequestLine split_request_line(std::string_view request) {
  RequestLine line;
  std::string_view first = request.substr(0, request.find_first_of("\r\n"));
  std::string_view* fields[] = {&line.verb, &line.path, &line.version};
  std::size_t pos = 0;
  for (std::string_view* field : fields) {
    while (pos < first.size() && is_blank(first[pos])) ++pos;
    std::size_t end = pos;
    while (end < first.size() && !is_blank(first[end])) ++end;
    if (end == pos) break;
    *field = first.substr(pos, end - pos);
    ++line.fields;
    pos = end;
  }
  return line;
}

void dispatch_request(const char* raw, const RequestLine& line, OriginKind origin_kind, const char* origin,
                      char* area) {
  RD_LOG_AS(kDispatchFn);
  if (test_seams::take(&test_seams::Seams::dispatch_faults) > 0) throw std::bad_alloc();
  const std::string_view verb = line.verb;
  bool known_line_verb = verb == "RDSERVICE" || verb == "DEVICEINFO" || verb == "POSTAUTH";
  // Fields longer than the request line's buffers are refused; an unknown
  // verb's path and version are never looked at.
  if (verb.size() >= kVerbSize ||
      (known_line_verb && (line.path.size() >= kPathSize || line.version.size() >= kVersionSize))) {
    RD_ERROR("Request line field is too long");
    error_header(kHttpBadRequest, "", origin, area);
    return;
  }
  if (origin_refused(origin_kind, origin)) {
    RD_ERROR("Origin%s is not in ALLOWED_ORIGINS: no CORS grant",
             origin != nullptr ? log_safe(origin, 256).c_str() : ":");
    // Discovery stays open; the device verbs and the pre-flight are refused.
    // No answer echoes the origin.
    origin = nullptr;
    if (verb == "OPTIONS" || verb == "CAPTURE" || verb == "DEVICEINFO" || verb == "POSTAUTH") {
      error_header(kHttpForbidden, verb == "OPTIONS" ? std::string_view() : line.path, nullptr, area);
      return;
    }
    origin_kind = OriginKind::kAbsent;
  }
  if (verb == "OPTIONS") {
    answer_options(origin_kind, raw, area + kRespHeaderOffset);
  } else if (verb == "RDSERVICE") {
    answer_discovery(line, origin, area);
  } else if (verb == "CAPTURE") {
    answer_capture(raw, origin, area);
  } else if (verb == "DEVICEINFO") {
    answer_device_info(line, origin, area);
  } else if (verb == "POSTAUTH") {
    answer_postauth(line, raw, origin, area);
  } else {
    // The request line of an unknown verb is not split: the path stays empty.
    RD_INFO("..................Client Request for Invalid Verb....................");
    error_header(kHttpBadVerb, "", origin, area);
    RD_INFO("......................Invalid Verb Successful.........................");
  }
}

int ParseHTTP_ReqCapture(const char* raw_request, char* request_body) {
  const char* lt = std::strchr(raw_request, '<');
  if (lt == nullptr) return kFailed;
  // The header part is the text before "<" less its last character.
  std::size_t header_len = static_cast<std::size_t>(lt - raw_request);
  if (header_len > 0) --header_len;
  if (header_len > kRawReqSize) header_len = kRawReqSize;
  std::string_view header(raw_request, header_len);
  std::size_t body_len = strnlen(lt, kReqBodySize - 1);
  std::memcpy(request_body, lt, body_len);
  request_body[body_len] = '\0';

  RequestLine line = split_request_line(header);
  for (std::string_view field : {line.verb, line.path, line.version}) {
    if (field.size() >= kCaptureFieldSize) {
      RD_ERROR("Request line field is too long");
      return kHttpBadRequest;
    }
  }
  if (line.fields < 3) return kFailed;
  if (line.version.find("HTTP/1.1") == std::string_view::npos) {
    RD_ERROR("Unsupported HTTP Version");
    return kHttpBadVersion;
  }
  if (line.path != "/rd/capture") {
    RD_ERROR("Capture path is wrong");
    return kHttpBadRequest;
  }

  // The first header line naming Content-Length gives the body's length.
  std::size_t at = header.find("Content-Length");
  if (at == std::string_view::npos) return kFailed;
  std::size_t line_start = header.rfind('\n', at);
  line_start = line_start == std::string_view::npos ? 0 : line_start + 1;
  std::string_view header_line = header.substr(line_start, header.find('\n', at) - line_start);
  std::size_t colon = header_line.find(':');
  std::string value(colon == std::string_view::npos ? "" : header_line.substr(colon + 1, 15));
  long content_length = std::strtol(value.c_str(), nullptr, 10);
  if (content_length > kMaxCaptureBody) {
    RD_ERROR("Body data is too high, which is not valid\n");
    return kFailed;
  }
  if (content_length != static_cast<long>(body_len)) {
    RD_ERROR("Content-Length and Body Length is not matching\n");
    return kFailed;
  }
  return 0;
}

int Get_PostAuthBody(const char* raw_request, char* request_body) {
  const char* lt = std::strchr(raw_request, '<');
  if (lt == nullptr) {
    RD_ERROR("Post Auth request doesn't have Body");
    return kFailed;
  }
  std::size_t n = strnlen(lt, kReqBodySize - 1);
  std::memcpy(request_body, lt, n);
  request_body[n] = '\0';
  return 0;
}
