// Framing of the answers' headers and of the discovery document. The texts
// are the wire format clients depend on, byte for byte.
#include <cstdio>
#include <cstring>

#include "http/server.h"
#include "http/work_area.h"
#include "init/rd_config.h"
#include "init/rd_status.h"

namespace {

constexpr char kHost[] = "127.0.0.1";

// snprintf's would-be length, cut to what fits in a buffer of size bytes.
int clamp_length(int n, std::size_t size) {
  if (n < 0) return 0;
  return static_cast<std::size_t>(n) >= size ? static_cast<int>(size - 1) : n;
}

bool has_origin(const char* origin) { return origin != nullptr && std::strcmp(origin, "null") != 0; }

}  // namespace

int frame_rdservice_response(const char* origin, char* header, char* body) {
  int n = std::snprintf(body, kRespBodySize,
                        "<RDService status=%s info=\"Korvane RD service(%s) is running\">\n\t<Interface "
                        "id=\"CAPTURE\" path=\"/rd/capture\" />\n\t<Interface id=\"DEVICEINFO\" "
                        "path=\"/rd/info\" />\n\t<Interface id=\"POSTAUTH\" path=\"/rd/postauth\" "
                        "/>\n</RDService>\n",
                        get_rd_status(), rd_identity().mi.c_str());
  frame_http_ok_header(kHost, service_port(), "/", clamp_length(n, kRespBodySize), origin, header);
  return 0;
}

int frame_http_ok_header(const char* host, int port, const char* path, int body_len, const char* origin,
                         char* header) {
  short p = static_cast<short>(port);
  int n;
  if (has_origin(origin)) {
    n = std::snprintf(header, kRespHeaderSize,
                      "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%s\r\nContent-Length: "
                      "%d\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: "
                      "%s\r\n\r\n",
                      host, p, path, body_len, origin);
  } else {
    n = std::snprintf(header, kRespHeaderSize,
                      "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%s\r\nContent-Length: "
                      "%d\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: "
                      "http://%s:%hd%s\r\n\r\n",
                      host, p, path, body_len, host, p, path);
  }
  return clamp_length(n, kRespHeaderSize);
}

int frame_http_error_header(int code, const char* host, int port, const char* path, int body_len,
                            const char* origin, char* header) {
  short p = static_cast<short>(port);
  int n;
  // The status line has no reason phrase; only the origin form has a blank
  // after the code. Clients have always seen both forms so.
  if (has_origin(origin)) {
    n = std::snprintf(header, kRespHeaderSize,
                      "HTTP/1.1 %d \r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%s\r\nContent-Length: "
                      "%d\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: "
                      "%s\r\n\r\n",
                      code, host, p, path, body_len, origin);
  } else {
    n = std::snprintf(header, kRespHeaderSize,
                      "HTTP/1.1 %d\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://%s:%hd%s\r\nContent-Length: "
                      "%d\r\nContent-Type: text/xml\r\nConnection: close\r\n\r\n",
                      code, host, p, path, body_len);
  }
  return clamp_length(n, kRespHeaderSize);
}
