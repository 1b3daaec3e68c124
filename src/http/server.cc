#include "http/server.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "http/request_reader.h"
#include "http/work_area.h"
#include "init/rd_config.h"
#include "init/rd_log.h"
#include "init/rd_status.h"
#include "postauth/postauth.h"
#include "rd_core/api.h"
#include "semaphore/semaphore_syc.h"
#include "ssl/sslCommunication.h"

namespace {

constexpr int kFirstPort = 11100;
constexpr int kLastPort = 11120;
constexpr int kListenBacklog = 5;
constexpr int kDefaultAcceptWaitMs = 15000;
// Pause after each connection thread starts: at most ten accepts a second.
constexpr unsigned kAcceptPauseMs = 100;
// A Winsock code that the C runtime's errno never holds, so the second
// wording below is the one that appears, as it always has.
constexpr int kWinsockAddressInUse = 10048;

constexpr char kHost[] = "127.0.0.1";
constexpr char kTavioScanner[] = "Tavio_TX9";
constexpr std::size_t kOriginSize = 1024;
constexpr std::size_t kVerbSize = 16;
constexpr std::size_t kPathSize = 256;
constexpr std::size_t kVersionSize = 16;
constexpr std::size_t kCaptureFieldSize = 56;
constexpr int kMaxCaptureBody = 1024;

constexpr char kCorsBlock[] =
    "\r\nAccess-Control-Allow-Origin: *\r\nAccess-Control-Allow-Methods:RDSERVICE,DEVICEINFO,CAPTURE,"
    "POSTAUTH\r\nACCESS-CONTROL-ALLOW-HEADERS:Content-Type\r\nContent-Type: text/xml; charset=utf-8";
// The errCode 100 answer leaves Resp unclosed and ends with an empty PidData
// element instead of a closing tag; clients have always received it so.
constexpr char kBadPidOptionsBody[] =
    "<PidData>\n<Resp errCode=\"100\" errInfo=\"Invalid input Pid-Options, XML should strictly adhere to "
    "spec\"\n<PidData />\n";
static_assert(sizeof kBadPidOptionsBody - 1 == 114);

// Dispatch helpers log under the name of the thread body they belong to.
constexpr char kDispatchFn[] = "process_incoming_message";
#define PIM_INFO(...) rd_log_write(LogLevel::kInfo, __FILE__, kDispatchFn, __LINE__, __VA_ARGS__)
#define PIM_ERROR(...) rd_log_write(LogLevel::kError, __FILE__, kDispatchFn, __LINE__, __VA_ARGS__)
#define PIM_VERBOSE(...)                      \
  do {                                        \
    if (rd_verbose() != 0) PIM_INFO(__VA_ARGS__); \
  } while (0)
#define PIM_STATUS(...) rd_set_last_status(__FILE__, kDispatchFn, __VA_ARGS__)

std::atomic<int> g_service_port{0};
std::atomic<int> g_accept_wait_ms{kDefaultAcceptWaitMs};

bool is_tavio() { return rd_identity().scanner_name == kTavioScanner; }

// Reads the next word as sscanf's "%s" does (whitespace first skipped) into
// out (size bytes). 1 read; 0 no word left; -1 the word does not fit.
int next_word(const char** p, char* out, std::size_t size) {
  const char* s = *p;
  while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
  const char* start = s;
  while (*s != '\0' && *s != ' ' && !(*s >= '\t' && *s <= '\r')) ++s;
  *p = s;
  std::size_t n = static_cast<std::size_t>(s - start);
  if (n == 0) return 0;
  if (n >= size) return -1;
  std::memcpy(out, start, n);
  out[n] = '\0';
  return 1;
}

struct RequestLine {
  char verb[kVerbSize] = {};
  char path[kPathSize] = {};
  char version[kVersionSize] = {};
};

// Splits the request line like sscanf("%s %s %s"); missing fields stay empty.
// false when a field is longer than its buffer.
bool split_request_line(const char* raw, RequestLine* line) {
  const char* p = raw;
  int r = next_word(&p, line->verb, sizeof line->verb);
  if (r == 1) r = next_word(&p, line->path, sizeof line->path);
  if (r == 1) r = next_word(&p, line->version, sizeof line->version);
  return r != -1;
}

// The Origin header: absent, present without a line feed after it, or a value.
enum class OriginKind { kAbsent, kNoLineEnd, kValue };

// The value starts right after the colon (a blank there is kept) and ends
// before the carriage return; it is cut to fit the 1024-byte origin block.
OriginKind find_origin(const char* raw, std::unique_ptr<char[]>* origin) {
  const char* match = std::strstr(raw, "Origin:");
  if (match == nullptr) return OriginKind::kAbsent;
  const char* lf = std::strchr(match, '\n');
  if (lf == nullptr) return OriginKind::kNoLineEnd;
  const char* start = match + 7;
  const char* end = lf[-2] == '\r' ? lf - 2 : lf - 1;
  std::size_t n = end > start ? static_cast<std::size_t>(end - start) : 0;
  if (n > kOriginSize - 1) n = kOriginSize - 1;
  origin->reset(new (std::nothrow) char[kOriginSize]());
  if (!*origin) return OriginKind::kAbsent;
  std::memcpy(origin->get(), start, n);
  PIM_INFO("Origin value is:%s AND length of origin is:%d", origin->get(), static_cast<int>(n));
  return OriginKind::kValue;
}

// Sends the answer and closes, over plain TCP or TLS.
struct Connection {
  platform::socket_t socket = platform::kInvalidSocket;
  SSL* ssl = nullptr;
  bool tls = false;

  void send(const char* header, const char* body) {
    std::size_t header_len = strnlen(header, kRespHeaderSize);
    std::size_t body_len = strnlen(body, kRespBodySize);
    if (tls) {
      sendThruSSL(ssl, header, header_len, body, body_len);
    } else {
      send_thru_tcp_socket(socket, header, header_len, body, body_len);
    }
  }

  void close() {
    if (tls) {
      if (ssl != nullptr) closeSSLConnection(ssl);
      ssl = nullptr;
    } else {
      PIM_INFO("Closing Socket");
      platform::close_socket(socket);
    }
    socket = platform::kInvalidSocket;
  }
};

// Runs work under the handheld lock; when another process holds the device,
// the status becomes USED and work still runs to give the busy answer.
template <typename Work>
void with_tavio_lock(Work work) {
  if (Lock_Semaphore_Tavio() == 0) {
    work();
    Unlock_Semaphore_Tavio();
  } else {
    set_rd_status_used();
    work();
  }
}

void answer_options(OriginKind kind, char* header) {
  if (kind == OriginKind::kAbsent) {
    // Ends after one line break, with no empty line: the answer has always been so.
    std::snprintf(header, kRespHeaderSize, "HTTP/1.1 405 \r\nContent-Length: 0%s\r\n", kCorsBlock);
  } else if (kind == OriginKind::kValue) {
    std::snprintf(header, kRespHeaderSize,
                  "HTTP/1.1 200 OK\r\nACCESS-CONTROL-ALLOW-HEADERS: Content-Type\r\nACCESS-CONTROL-ALLOW-"
                  "METHODS: RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH\r\nACCESS-CONTROL-ALLOW-ORIGIN: "
                  "%s\r\nContent-Length: 0\r\nConnection: close\r\nContent-Type: text/xml; "
                  "charset=utf-8\r\n\r\n",
                  "*");
  } else {
    std::snprintf(header, kRespHeaderSize, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: %s%s\r\n\r\n",
                  "close", kCorsBlock);
  }
  PIM_INFO("....................Options Successful...................");
}

void answer_discovery(const RequestLine& line, const char* origin, char* area) {
  char* header = area + kRespHeaderOffset;
  PIM_INFO("......................Client Request for Device Discovery......................");
  bool version_ok = std::strcmp(line.version, "HTTP/1.1") == 0;
  if (!version_ok) {
    PIM_ERROR("HTTP VER is wrong");
    frame_http_error_header(505, kHost, service_port(), line.path, 0, origin, header);
    PIM_INFO(".........................Device Discovery Failed.......................");
  }
  // The handheld device is asked for its state even after a version error.
  if (is_tavio() && get_rd_status_index() != kRdUsed) {
    if (Lock_Semaphore_Tavio() == 0) {
      Check_Device_status();
      Unlock_Semaphore_Tavio();
    } else {
      set_rd_status_used();
    }
  }
  if (version_ok) {
    frame_rdservice_response(origin, header, area);
    PIM_INFO(".........................Device Discovery Successful.......................");
  }
}

void answer_capture(const char* raw, const char* origin, char* area) {
  char* header = area + kRespHeaderOffset;
  char* request_body = area + kReqBodyOffset;
  PIM_INFO("......................Client Request for Capture......................");
  int result = ParseHTTP_ReqCapture(raw, request_body);
  if (result == 0) {
    if (is_tavio()) {
      with_tavio_lock([&] { capture(request_body, origin, area); });
    } else {
      capture(request_body, origin, area);
    }
    return;
  }
  PIM_ERROR("Error at ParseHTTP_ReqCapture");
  PIM_STATUS("Error at Parsing the capture request ");
  RD_PIPE("10000", "Error at Parsing the capture request\n");
  if (result == 505 || result == 400) {
    frame_http_error_header(result, kHost, service_port(), "/rd/capture", 0, origin, header);
  } else {
    std::memcpy(area, kBadPidOptionsBody, sizeof kBadPidOptionsBody);
    frame_http_ok_header(kHost, service_port(), "/rd/capture", static_cast<int>(sizeof kBadPidOptionsBody - 1),
                         origin, header);
  }
}

// The path and version rules of DEVICEINFO and POSTAUTH: 0, 400 or 505.
int check_path_and_version(const RequestLine& line, const char* expected_path) {
  bool version_ok = std::strcmp(line.version, "HTTP/1.1") == 0;
  if (std::strcmp(line.path, expected_path) != 0) {
    PIM_ERROR("PATH VALIDATION FAILED");
    if (version_ok) return 400;
    PIM_ERROR("Unsupported HTTP Version");
    return 505;
  }
  if (!version_ok) {
    PIM_ERROR("Unsupported HTTP Version");
    return 505;
  }
  return 0;
}

void answer_device_info(const RequestLine& line, const char* origin, char* area) {
  PIM_INFO("......................Client Requested for Device Info......................");
  int code = check_path_and_version(line, "/rd/info");
  if (code != 0) {
    frame_http_error_header(code, kHost, service_port(), line.path, 0, origin, area + kRespHeaderOffset);
    return;
  }
  GetDeviceInfo(area, origin);
  PIM_INFO("......................Device Info Successful.........................");
}

void answer_postauth(const RequestLine& line, const char* raw, const char* origin, char* area) {
  char* header = area + kRespHeaderOffset;
  PIM_INFO("......................Client Requested Verb is POSTAUTH......................");
  int code = check_path_and_version(line, "/rd/postauth");
  if (code == 0 && Get_PostAuthBody(raw, area + kReqBodyOffset) != 0) code = 422;
  if (code != 0) {
    frame_http_error_header(code, kHost, service_port(), line.path, 0, origin, header);
    return;
  }
  if (is_tavio()) {
    with_tavio_lock([&] { PostAuth(area, origin, line.path); });
  } else {
    PostAuth(area, origin, line.path);
  }
  PIM_INFO("......................POST AUTH Successful.........................");
}

// Picks the verb and leaves the answer's header and body in the work area.
void dispatch(const char* raw, const char* verb, OriginKind origin_kind, const char* origin, char* area) {
  char* header = area + kRespHeaderOffset;
  bool discovery = std::strcmp(verb, "RDSERVICE") == 0;
  bool device_info = std::strcmp(verb, "DEVICEINFO") == 0;
  bool postauth = std::strcmp(verb, "POSTAUTH") == 0;
  RequestLine line;
  if ((discovery || device_info || postauth) && !split_request_line(raw, &line)) {
    PIM_ERROR("Request line field is too long");
    frame_http_error_header(400, kHost, service_port(), "", 0, origin, header);
    return;
  }
  if (std::strcmp(verb, "OPTIONS") == 0) {
    answer_options(origin_kind, header);
  } else if (discovery) {
    answer_discovery(line, origin, area);
  } else if (std::strcmp(verb, "CAPTURE") == 0) {
    answer_capture(raw, origin, area);
  } else if (device_info) {
    answer_device_info(line, origin, area);
  } else if (postauth) {
    answer_postauth(line, raw, origin, area);
  } else {
    // The request line of an unknown verb is not split: the path stays empty.
    PIM_INFO("..................Client Request for Invalid Verb....................");
    frame_http_error_header(405, kHost, service_port(), "", 0, origin, header);
    PIM_INFO("......................Invalid Verb Successful.........................");
  }
}

long tcp_read_some(void* ctx, char* buf, std::size_t len) {
  return platform::recv_socket(*static_cast<platform::socket_t*>(ctx), buf, len);
}

int tcp_input_ready(void* ctx, int timeout_ms) {
  return platform::wait_readable(*static_cast<platform::socket_t*>(ctx), timeout_ms) == 1 ? 1 : 0;
}

int send_all(platform::socket_t s, const char* data, std::size_t len) {
  std::size_t sent = 0;
  while (sent < len) {
    long n = platform::send_socket(s, data + sent, len - sent);
    if (n < 0) return -1;
    sent += static_cast<std::size_t>(n);
  }
  return 0;
}

}  // namespace

int service_port() { return g_service_port.load(std::memory_order_relaxed); }

int accept_wait_ms() { return g_accept_wait_ms.load(std::memory_order_relaxed); }
void set_accept_wait_ms_for_test(int ms) { g_accept_wait_ms.store(ms, std::memory_order_relaxed); }

int prepare_http_socket(platform::socket_t* server) {
  // POSIX sockets need no start-up call, so the result 1 never occurs here.
  platform::socket_t s = platform::tcp_socket();
  if (s == platform::kInvalidSocket) {
    RD_ERROR("could not create socket for server(ERROR:%d)", platform::last_error());
    return -1;
  }
  // No address-reuse option: a port that another program holds must be skipped.
  int port = kFirstPort;
  for (;; ++port) {
    if (platform::bind_loopback(s, static_cast<std::uint16_t>(port)) == 0) {
      RD_INFO("socket is bound on port: %hd", static_cast<short>(port));
      break;
    }
    if (port == kLastPort) {
      RD_ERROR("binding_tcp_socket : failed on Port %hd\nAll Ports are in use, RD Service Can't Run",
               static_cast<short>(port));
      platform::close_socket(s);
      return -1;
    }
    if (platform::last_error() == kWinsockAddressInUse) {
      RD_ERROR("Port %hd is already in use, Trying for next port", static_cast<short>(port));
    } else {
      RD_ERROR("binding_tcp_socket : failed on port = %hd, Trying for next port", static_cast<short>(port));
    }
  }
  if (platform::listen_socket(s, kListenBacklog) != 0) {
    platform::close_socket(s);
    RD_ERROR("Listen error");
    RD_STATUS("Listen error ");
    RD_PIPE("5000", "Listen error\n");
    return -1;
  }
  *server = s;
  g_service_port.store(port, std::memory_order_relaxed);
  RD_INFO("....................Server Listening On 127.0.0.1 And Port %d...................", port);
  return 0;
}

void* client_connection_handler(void* arg) {
  const platform::socket_t server = *static_cast<platform::socket_t*>(arg);
  RD_INFO("...........................Waiting for connection.............................");
  for (;;) {
    int ready = platform::wait_readable(server, accept_wait_ms());
    if (ready != 1) {
      // A failing wait would otherwise spin the loop at full speed.
      if (ready < 0) platform::sleep_ms(kAcceptPauseMs);
      continue;
    }
    platform::socket_t client = platform::accept_socket(server);
    if (client == platform::kInvalidSocket) {
      RD_ERROR("Accept Error");
      // Out of descriptors, accept fails at once every time: keep the log readable.
      platform::sleep_ms(kAcceptPauseMs);
      continue;
    }
    RD_INFO("*********************************");
    RD_INFO("After accepting,socket_fd is: %d", client);
    RD_INFO("*********************************");
    // std::thread plus detach stands in for the detached-attribute steps; the
    // socket goes to the thread by value.
    RD_VERBOSE("pthread_attr_init is success for process_incoming_message");
    RD_VERBOSE("pthread_attr_setdetachstate is success for process_incoming_message");
    try {
      std::thread(process_incoming_message, client).detach();
    } catch (const std::system_error&) {
      platform::close_socket(client);
      RD_ERROR("Pthread_created failed inside client_connection_handler");
      continue;
    }
    RD_VERBOSE("pthread_create is success for process_incoming_message");
    platform::sleep_ms(kAcceptPauseMs);
  }
  return nullptr;
}

int recv_thru_tcp_socket(platform::socket_t s, char* buf) {
  RD_VERBOSE("Inside recv_thru_tcp_socket");
  int ready = platform::wait_readable(s, recv_wait_ms());
  if (ready < 0) {
    RD_ERROR("Error at the select function");
    return -1;
  }
  if (ready == 0) {
    RD_ERROR("Timeout to receive data from client");
    return -1;
  }
  RequestSource src{tcp_read_some, tcp_input_ready, &s, __FILE__, __func__};
  int len = read_http_request(src, buf);
  if (len >= 0) RD_VERBOSE("Returning from recv_thru_tcp_socket");
  return len;
}

int send_thru_tcp_socket(platform::socket_t s, const char* header, std::size_t header_len, const char* body,
                         std::size_t body_len) {
  RD_VERBOSE("sending HTTP header to client ");
  if (send_all(s, header, header_len) != 0) {
    RD_ERROR("Error at sending header data on http");
    return -1;
  }
  RD_VERBOSE("sending HTTP Data to client ");
  if (body != nullptr && send_all(s, body, body_len) != 0) {
    RD_ERROR("Error at sending body data on http");
    return -1;
  }
  RD_INFO("Data is Sent to client successfully ");
  return 0;
}

int process_incoming_message(platform::socket_t s) {
  RD_INFO("Entered inside process_incoming_message,socket_fd is: %d", s);
  Connection conn;
  conn.socket = s;
  conn.tls = rd_config().ssl_enabled != 0;
  std::unique_ptr<char[]> area(new (std::nothrow) char[kWorkAreaSize]());
  if (!area) {
    RD_ERROR("Memory allocation failed\n");
    // Closed rather than left open, so a short of memory does not also leak sockets.
    platform::close_socket(s);
    return 0;
  }
  char* raw = area.get() + kRawReqOffset;
  char* header = area.get() + kRespHeaderOffset;

  int received;
  if (conn.tls) {
    if (makeSSLConnection(s, ssl_server_ctx(), &conn.ssl) != 0) {
      RD_ERROR("makeSSLConnection Failed");
      RD_STATUS("SSL Connection Failed, please check browser settings ");
      return 0;
    }
    RD_VERBOSE("Going for recvFromSSLWithTC");
    int len = 0;
    received = recvFromSSLWithTC(conn.ssl, raw, &len);
    if (received == 0) received = len;
  } else {
    RD_VERBOSE("Going for recv_thru_tcp_socket");
    received = recv_thru_tcp_socket(s, raw);
  }
  if (received == kRequestTooLarge) {
    frame_http_error_header(413, kHost, service_port(), "", 0, nullptr, header);
    conn.send(header, "");
    conn.close();
    RD_INFO("Returning from process_incoming_message");
    return 0;
  }
  if (received < 0) {
    RD_ERROR("recv failed : Could not received data bytes");
    RD_STATUS("recv failed : Could not received data bytes ");
    conn.close();
    RD_INFO("Returning from process_incoming_message");
    return 0;
  }
  RD_INFO("Request is:\n%s", raw);

  std::unique_ptr<char[]> origin;
  OriginKind origin_kind = find_origin(raw, &origin);

  char verb[kVerbSize] = {};
  const char* p = raw;
  bool verb_fits = next_word(&p, verb, sizeof verb) != -1;
  RD_VERBOSE("custom_verb is %s\n", verb);

  if (logfile_size_check() != 0) {
    RD_ERROR("logfile_size_check failed");
    conn.close();
    return 0;
  }

  if (verb_fits) {
    dispatch(raw, verb, origin_kind, origin.get(), area.get());
  } else {
    RD_ERROR("Request line field is too long");
    frame_http_error_header(400, kHost, service_port(), "", 0, origin.get(), header);
  }
  conn.send(header, area.get());
  RD_INFO("Response Sent Successfully");
  area.reset();
  origin.reset();
  conn.close();
  RD_INFO("Returning from process_incoming_message");
  return 0;
}

int ParseHTTP_ReqCapture(const char* raw_request, char* request_body) {
  const char* lt = std::strchr(raw_request, '<');
  if (lt == nullptr) return -1;
  std::size_t header_len = static_cast<std::size_t>(lt - raw_request);
  if (header_len > 0) --header_len;
  if (header_len > kRawReqSize) header_len = kRawReqSize;
  std::string header(raw_request, header_len);
  std::size_t body_len = strnlen(lt, kReqBodySize - 1);
  std::memcpy(request_body, lt, body_len);
  request_body[body_len] = '\0';

  // The request line, split at blanks into method, path and version.
  std::string first = header.substr(0, header.find_first_of("\r\n"));
  std::string fields[3];
  std::size_t pos = 0;
  for (std::string& field : fields) {
    pos = first.find_first_not_of(' ', pos);
    if (pos == std::string::npos) return -1;
    std::size_t end = first.find(' ', pos);
    field = first.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    pos = end == std::string::npos ? first.size() : end;
    if (field.size() >= kCaptureFieldSize) {
      RD_ERROR("Request line field is too long");
      return 400;
    }
  }
  if (fields[2].find("HTTP/1.1") == std::string::npos) {
    RD_ERROR("Unsupported HTTP Version");
    return 505;
  }
  if (fields[1] != "/rd/capture") {
    RD_ERROR("Capture path is wrong");
    return 400;
  }

  std::size_t line_start = 0;
  bool found = false;
  long content_length = 0;
  while (line_start < header.size()) {
    std::size_t line_end = header.find('\n', line_start);
    std::string header_line = header.substr(line_start, line_end == std::string::npos ? std::string::npos
                                                                                       : line_end - line_start);
    if (header_line.find("Content-Length") != std::string::npos) {
      std::size_t colon = header_line.find(':');
      std::string value = colon == std::string::npos ? "" : header_line.substr(colon + 1, 15);
      content_length = std::strtol(value.c_str(), nullptr, 10);
      found = true;
      break;
    }
    if (line_end == std::string::npos) break;
    line_start = line_end + 1;
  }
  if (!found) return -1;
  if (content_length > kMaxCaptureBody) {
    RD_ERROR("Body data is too high, which is not valid\n");
    return -1;
  }
  if (content_length != static_cast<long>(body_len)) {
    RD_ERROR("Content-Length and Body Length is not matching\n");
    return -1;
  }
  return 0;
}

int Get_PostAuthBody(const char* raw_request, char* request_body) {
  const char* lt = std::strchr(raw_request, '<');
  if (lt == nullptr) {
    RD_ERROR("Post Auth request doesn't have Body");
    return -1;
  }
  std::size_t n = strnlen(lt, kReqBodySize - 1);
  std::memcpy(request_body, lt, n);
  request_body[n] = '\0';
  return 0;
}
