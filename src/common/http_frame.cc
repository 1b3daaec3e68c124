#include "common/http_frame.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "common/work_area.h"
#include "common/rd_config.h"
#include "common/rd_status.h"

namespace {

constexpr char kHost[] = "127.0.0.1";
// Longest path a header carries: the request line's path buffer less its NUL.
constexpr int kMaxPath = 255;

// snprintf's would-be length, cut to what fits in a buffer of size bytes.
int clamp_length(int n, std::size_t size) {
  if (n < 0) return 0;
  return static_cast<std::size_t>(n) >= size ? static_cast<int>(size - 1) : n;
}

bool has_origin(const char* origin) { return origin != nullptr && std::strcmp(origin, "null") != 0; }

int path_length(const char* path) { return static_cast<int>(strnlen(path, kMaxPath)); }

// How much of origin fits in a header whose other bytes take fixed: the echo
// is cut so that the header's closing blank line is never lost.
int origin_length(int fixed, const char* origin) {
  int room = static_cast<int>(kRespHeaderSize) - 1 - fixed;
  if (room <= 0) return 0;
  std::size_t n = strnlen(origin, static_cast<std::size_t>(room));
  return static_cast<int>(n);
}

constexpr char kOkOriginFormat[] =
    "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%.*s\r\nContent-Length: "
    "%d\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: %.*s\r\n\r\n";
constexpr char kErrorOriginFormat[] =
    "HTTP/1.1 %d \r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%.*s\r\nContent-Length: "
    "%d\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: %.*s\r\n\r\n";

}  // namespace

int frame_rdservice_response(const char* origin, char* header, char* body) {
  std::string mi = rd_identity_copy().mi;
  int n = std::snprintf(body, kRespBodySize,
                        "<RDService status=%s info=\"Korvane RD service(%s) is running\">\n\t<Interface "
                        "id=\"CAPTURE\" path=\"/rd/capture\" />\n\t<Interface id=\"DEVICEINFO\" "
                        "path=\"/rd/info\" />\n\t<Interface id=\"POSTAUTH\" path=\"/rd/postauth\" "
                        "/>\n</RDService>\n",
                        get_rd_status(), mi.c_str());
  frame_http_ok_header(kHost, service_port(), "/", clamp_length(n, kRespBodySize), origin, header);
  return 0;
}

int frame_http_ok_header(const char* host, int port, const char* path, int body_len, const char* origin,
                         char* header) {
  short p = static_cast<short>(port);
  int path_len = path_length(path);
  int n;
  if (has_origin(origin)) {
    int fixed = std::snprintf(nullptr, 0, kOkOriginFormat, host, p, path_len, path, body_len, 0, "");
    n = std::snprintf(header, kRespHeaderSize, kOkOriginFormat, host, p, path_len, path, body_len,
                      origin_length(fixed, origin), origin);
  } else {
    n = std::snprintf(header, kRespHeaderSize,
                      "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%.*s\r\nContent-Length: "
                      "%d\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: "
                      "http://%s:%hd%.*s\r\n\r\n",
                      host, p, path_len, path, body_len, host, p, path_len, path);
  }
  return clamp_length(n, kRespHeaderSize);
}

int frame_http_error_header(int code, const char* host, int port, const char* path, int body_len,
                            const char* origin, char* header) {
  short p = static_cast<short>(port);
  int path_len = path_length(path);
  int n;
  // The status line has no reason phrase; only the origin form has a blank
  // after the code. Clients have always seen both forms so.
  if (has_origin(origin)) {
    int fixed = std::snprintf(nullptr, 0, kErrorOriginFormat, code, host, p, path_len, path, body_len, 0, "");
    n = std::snprintf(header, kRespHeaderSize, kErrorOriginFormat, code, host, p, path_len, path, body_len,
                      origin_length(fixed, origin), origin);
  } else {
    n = std::snprintf(header, kRespHeaderSize,
                      "HTTP/1.1 %d\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%.*s\r\nContent-Length: "
                      "%d\r\nContent-Type: text/xml\r\nConnection: close\r\n\r\n",
                      code, host, p, path_len, path, body_len);
  }
  return clamp_length(n, kRespHeaderSize);
}
