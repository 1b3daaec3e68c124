#define VEXO_LOG_FILE "http_frame"

#include "common/http_frame.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/work_area.h"

namespace {

// Which origins select the origin form: any origin given, or one other than
// exactly "null" (the blank after "Origin:" stays in the value, so a usual
// "Origin: null" is echoed as " null").
enum class OriginRule { kAnyGiven, kNotNull };

// One kind's two forms. Placeholders: {code} {host} {port} {path} {length}
// {origin} {private_network}; no header text has a brace of its own.
struct HeaderForm {
  AnswerKind kind;
  OriginRule rule;
  const char* with_origin;
  const char* without_origin;
};

#define VEXO_CORS_BLOCK                                                                                      \
  "\r\nAccess-Control-Allow-Origin: *\r\nAccess-Control-Allow-Methods:RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH" \
  "\r\nACCESS-CONTROL-ALLOW-HEADERS:Content-Type\r\nContent-Type: text/xml; charset=utf-8"
#define VEXO_OPTIONS_GRANT                                                                           \
  "HTTP/1.1 200 OK\r\nACCESS-CONTROL-ALLOW-HEADERS: Content-Type\r\nACCESS-CONTROL-ALLOW-METHODS: "  \
  "RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH\r\nACCESS-CONTROL-ALLOW-ORIGIN: *\r\nContent-Length: 0\r\n" \
  "Connection: close\r\nContent-Type: text/xml; charset=utf-8\r\n{private_network}\r\n"
#define VEXO_OPTIONS_NO_LINE_END \
  "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close" VEXO_CORS_BLOCK "\r\n{private_network}\r\n"

// The odd bytes are deliberate and clients depend on them: no reason phrase
// in an error status line, a blank after the code only in the origin form,
// the capture's origin line last with a blank and DeviceInfo's first without
// one, and an OPTIONS 405 that ends after a single line break.
constexpr HeaderForm kForms[] = {
    {AnswerKind::kOk, OriginRule::kNotNull,
     "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://{host}:{port}{path}\r\nContent-Length: "
     "{length}\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: {origin}\r\n\r\n",
     "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://{host}:{port}{path}\r\nContent-Length: "
     "{length}\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: "
     "http://{host}:{port}{path}\r\n\r\n"},
    {AnswerKind::kError, OriginRule::kNotNull,
     "HTTP/1.1 {code} \r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://{host}:{port}{path}\r\nContent-Length: "
     "{length}\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: {origin}\r\n\r\n",
     "HTTP/1.1 {code}\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://{host}:{port}{path}\r\nContent-Length: "
     "{length}\r\nContent-Type: text/xml\r\nConnection: close\r\n\r\n"},
    {AnswerKind::kCapture, OriginRule::kAnyGiven,
     "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://{host}:{port}/rd/capture\r\nContent-Length: "
     "{length}\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: {origin}\r\n\r\n",
     "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://{host}:{port}/rd/capture\r\nContent-Length: "
     "{length}\r\nContent-Type: text/xml\r\nConnection: close\r\n\r\n"},
    {AnswerKind::kDeviceInfo, OriginRule::kAnyGiven,
     "HTTP/1.1 200 OK\r\nAccess-Control-Allow-Origin:{origin}\r\nCACHE-CONTROL: no-cache\r\nLOCATION: "
     "http://{host}:{port}/rd/info\r\nContent-Length: {length}\r\nContent-Type: text/xml\r\nConnection: close\r\n\r\n",
     "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://{host}:{port}/rd/info\r\nContent-Length: "
     "{length}\r\nContent-Type: text/xml\r\nConnection: close\r\n\r\n"},
    {AnswerKind::kOptions, OriginRule::kAnyGiven, VEXO_OPTIONS_GRANT, VEXO_OPTIONS_GRANT},
    {AnswerKind::kOptionsNoOrigin, OriginRule::kAnyGiven, "HTTP/1.1 405 \r\nContent-Length: 0" VEXO_CORS_BLOCK "\r\n",
     "HTTP/1.1 405 \r\nContent-Length: 0" VEXO_CORS_BLOCK "\r\n"},
    {AnswerKind::kOptionsNoLineEnd, OriginRule::kAnyGiven, VEXO_OPTIONS_NO_LINE_END, VEXO_OPTIONS_NO_LINE_END},
};

#undef VEXO_CORS_BLOCK
#undef VEXO_OPTIONS_GRANT
#undef VEXO_OPTIONS_NO_LINE_END

// Longest path a header carries: the request line's path buffer less its NUL.
constexpr std::size_t kMaxPath = 255;

const HeaderForm& form_of(AnswerKind kind) {
  for (const HeaderForm& f : kForms) {
    if (f.kind == kind) return f;
  }
  return kForms[0];
}

bool takes_origin(OriginRule rule, const char* origin) {
  return origin != nullptr && (rule == OriginRule::kAnyGiven || std::strcmp(origin, "null") != 0);
}

// The template with its placeholders filled in.
std::string expand(const char* text, const AnswerHead& head, const char* origin) {
  const std::string_view path = head.path.substr(0, kMaxPath);
  // The design prints the port as a short ("%hd").
  const int port = static_cast<short>(head.port != 0 ? head.port : service_port());
  std::string out;
  for (const char* p = text; *p != '\0';) {
    if (*p != '{') {
      out += *p++;
      continue;
    }
    const char* end = std::strchr(p, '}');
    const std::string_view name(p + 1, static_cast<std::size_t>(end - p - 1));
    p = end + 1;
    if (name == "code") out += std::to_string(head.code);
    if (name == "host") out += head.host;
    if (name == "port") out += std::to_string(port);
    if (name == "path") out += path;
    if (name == "length") out += std::to_string(head.body_len);
    if (name == "origin") out += origin != nullptr ? origin : "";
    if (name == "private_network" && head.private_network) out += "Access-Control-Allow-Private-Network: true\r\n";
  }
  return out;
}

}  // namespace

int frame_answer_header(const AnswerHead& head, const char* origin, char* header) {
  const HeaderForm& form = form_of(head.kind);
  std::string text;
  if (takes_origin(form.rule, origin)) {
    text = expand(form.with_origin, head, origin);
    if (text.size() >= kRespHeaderSize) {
      RD_ERROR("Origin value is too long for the response header");
      text.clear();
    }
  }
  if (text.empty()) text = expand(form.without_origin, head, nullptr);
  // The forms without an origin are bounded by the path's 255 bytes.
  const std::size_t n = std::min(text.size(), kRespHeaderSize - 1);
  std::memcpy(header, text.data(), n);
  header[n] = '\0';
  return static_cast<int>(n);
}

int frame_rdservice_response(const char* origin, char* header, char* body) {
  std::string mi = rd_identity_copy().mi;
  int n = std::snprintf(body, kRespBodySize,
                        "<RDService status=%s info=\"Korvane RD service(%s) is running\">\n\t<Interface "
                        "id=\"CAPTURE\" path=\"/rd/capture\" />\n\t<Interface id=\"DEVICEINFO\" "
                        "path=\"/rd/info\" />\n\t<Interface id=\"POSTAUTH\" path=\"/rd/postauth\" "
                        "/>\n</RDService>\n",
                        get_rd_status(), mi.c_str());
  if (n < 0) n = 0;
  if (static_cast<std::size_t>(n) >= kRespBodySize) n = static_cast<int>(kRespBodySize - 1);
  AnswerHead head{AnswerKind::kOk, 200, "/", n};
  frame_answer_header(head, origin, header);
  return 0;
}

int frame_http_ok_header(const char* host, int port, const char* path, int body_len, const char* origin, char* header) {
  AnswerHead head{AnswerKind::kOk, 200, path, body_len, false, host, port};
  return frame_answer_header(head, origin, header);
}

int frame_http_error_header(int code, const char* host, int port, const char* path, int body_len, const char* origin,
                            char* header) {
  AnswerHead head{AnswerKind::kError, code, path, body_len, false, host, port};
  return frame_answer_header(head, origin, header);
}
