// One connection: receive the request over plain TCP or TLS, dispatch it,
// send the answer and close.
#define VEXO_LOG_FILE "server"

#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>

#include "http/dispatch.h"
#include "common/request_reader.h"
#include "http/server.h"
#include "common/http_frame.h"
#include "common/work_area.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/socket_extra.h"
#include "platform/unique_handle.h"
#include "ssl/sslCommunication.h"

namespace {

constexpr char kHost[] = "127.0.0.1";
constexpr std::size_t kOriginSize = 1024;

// The value starts right after the colon (a blank there is kept) and ends
// before the carriage return; it is cut to fit the 1024-byte origin block.
// Logs as a step of process_incoming_message.
OriginKind find_origin(const char* raw, std::unique_ptr<char[]>* origin) {
  RD_LOG_AS("process_incoming_message");
  const char* match = std::strstr(raw, "Origin:");
  if (match == nullptr) return OriginKind::kAbsent;
  const char* lf = std::strchr(match, '\n');
  if (lf == nullptr) return OriginKind::kNoLineEnd;
  const char* start = match + 7;
  const char* end = lf[-2] == '\r' ? lf - 2 : lf - 1;
  std::size_t n = end > start ? static_cast<std::size_t>(end - start) : 0;
  if (n > kOriginSize - 1) n = kOriginSize - 1;
  origin->reset(new char[kOriginSize]());
  std::memcpy(origin->get(), start, n);
  RD_INFO("Origin value is:%s AND length of origin is:%d", log_safe(origin->get(), kOriginSize).c_str(),
          static_cast<int>(n));
  return OriginKind::kValue;
}

// Owns the accepted socket, and after the handshake the TLS connection that
// took it over; whatever is still open is closed when it ends.
class Connection {
 public:
  explicit Connection(platform::socket_t s) : socket_(s) {}
  ~Connection() { close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void use_tls(bool tls) { tls_ = tls; }
  bool tls() const { return tls_; }
  platform::socket_t socket() const { return socket_.get(); }
  SSL* ssl() const { return ssl_; }

  // TLS handshake; the TLS connection owns the socket from here on, and on
  // failure makeSSLConnection has closed it already.
  int handshake(std::uint64_t deadline) {
    return makeSSLConnection(socket_.release(), ssl_server_ctx(), &ssl_, deadline);
  }

  void send(const char* header, const char* body) {
    std::size_t header_len = strnlen(header, kRespHeaderSize);
    std::size_t body_len = strnlen(body, kRespBodySize);
    if (tls_) {
      if (ssl_ != nullptr) sendThruSSL(ssl_, header, header_len, body, body_len);
    } else {
      send_thru_tcp_socket(socket_.get(), header, header_len, body, body_len);
    }
  }

  void close() {
    RD_LOG_AS("process_incoming_message");
    if (ssl_ != nullptr) {
      closeSSLConnection(ssl_);
      ssl_ = nullptr;
    } else if (socket_) {
      RD_INFO("Closing Socket");
      socket_.reset();
    }
  }

 private:
  platform::UniqueSocket socket_;
  SSL* ssl_ = nullptr;
  bool tls_ = false;
};

long tcp_read_some(void* ctx, char* buf, std::size_t len) {
  return platform::recv_socket(*static_cast<platform::socket_t*>(ctx), buf, len);
}

int tcp_input_ready(void* ctx, int timeout_ms) {
  return platform::wait_readable(*static_cast<platform::socket_t*>(ctx), timeout_ms);
}

// The line that says what was asked, without what was sent: a body carries
// otp, wadh, names, dates of birth, addresses and print texts, none of which
// belongs in a log. The request line's fields and the origin are cut and
// escaped, as they come from anyone.
void log_request(const char* raw, std::size_t len, const RequestLine& line, const char* origin) {
  RD_LOG_AS("process_incoming_message");
  const char* end = std::strstr(raw, "\r\n\r\n");
  const std::size_t body = end != nullptr ? len - static_cast<std::size_t>(end + 4 - raw) : 0;
  RD_INFO("Request is: %s %s, body of %d bytes, origin:%s", log_safe(line.verb, 16).c_str(),
          log_safe(line.path, 256).c_str(), static_cast<int>(body),
          origin != nullptr ? log_safe(origin, 256).c_str() : " none");
}

// Reads the request into raw, after the TLS handshake when the service runs
// over TLS. *received is its length or a negative reader result; false when
// the handshake failed (the TLS layer has closed the socket then).
bool receive_request(Connection* conn, char* raw, int* received) {
  RD_LOG_AS("process_incoming_message");
  if (!conn->tls()) {
    RD_VERBOSE("Going for recv_thru_tcp_socket");
    *received = recv_thru_tcp_socket(conn->socket(), raw);
    return true;
  }
  // The request's limit starts with the handshake's first wait.
  const std::uint64_t deadline = platform::monotonic_ms() + static_cast<std::uint64_t>(recv_wait_ms());
  if (conn->handshake(deadline) != 0) {
    RD_ERROR("makeSSLConnection Failed");
    RD_STATUS("SSL Connection Failed, please check browser settings ");
    return false;
  }
  RD_VERBOSE("Going for recvFromSSLWithTC");
  int len = 0;
  *received = recvFromSSLWithTC(conn->ssl(), raw, &len, deadline);
  if (*received == 0) *received = len;
  return true;
}

// Ends a connection whose request could not be read: a request too large
// gets its 413 answer, any other failure none. True when it did so.
bool refuse_unread_request(Connection* conn, int received, char* header) {
  RD_LOG_AS("process_incoming_message");
  if (received == kRequestTooLarge) {
    frame_http_error_header(rd_codes::kHttpTooLarge, kHost, service_port(), "", 0, nullptr, header);
    conn->send(header, "");
  } else if (received < 0) {
    RD_ERROR("recv failed : Could not received data bytes");
    RD_STATUS("recv failed : Could not received data bytes ");
  } else {
    return false;
  }
  conn->close();
  RD_INFO("Returning from process_incoming_message");
  return true;
}

// Logs what was asked, answers it from the work area and closes the
// connection; the work area is freed before the socket closes.
void answer_request(Connection* conn, WorkAreaPtr* area, int received) {
  RD_LOG_AS("process_incoming_message");
  char* raw = area->get() + kRawReqOffset;
  std::unique_ptr<char[]> origin;
  OriginKind origin_kind = find_origin(raw, &origin);
  RequestLine line = split_request_line(raw);
  log_request(raw, static_cast<std::size_t>(received), line, origin.get());
  RD_VERBOSE("custom_verb is %.*s\n", static_cast<int>(line.verb.size()), line.verb.data());

  if (logfile_size_check() != 0) {
    RD_ERROR("logfile_size_check failed");
    return;
  }

  dispatch_request(raw, line, origin_kind, origin.get(), area->get());
  conn->send(area->get() + kRespHeaderOffset, area->get());
  RD_INFO("Response Sent Successfully");
  area->reset();
  origin.reset();
  conn->close();
  RD_INFO("Returning from process_incoming_message");
}

}  // namespace

int recv_thru_tcp_socket(platform::socket_t s, char* buf) {
  RD_VERBOSE("Inside recv_thru_tcp_socket");
  // The limit covers the whole request, not only its first byte.
  const std::uint64_t deadline = platform::monotonic_ms() + static_cast<std::uint64_t>(recv_wait_ms());
  int ready = platform::wait_readable(s, recv_wait_ms());
  if (ready < 0) {
    RD_ERROR("Error at the select function");
    return rd_codes::kFailed;
  }
  if (ready == 0) {
    RD_ERROR("Timeout to receive data from client");
    return rd_codes::kFailed;
  }
  RequestSource src{
      tcp_read_some, tcp_input_ready, &s, VEXO_LOG_FILE, __func__, deadline, "Timeout to receive data from client"};
  int len = read_http_request(src, buf);
  if (len >= 0) RD_VERBOSE("Returning from recv_thru_tcp_socket");
  return len;
}

int send_thru_tcp_socket(platform::socket_t s, const char* header, std::size_t header_len, const char* body,
                         std::size_t body_len) {
  // The whole answer goes out within one request limit: a client that stops
  // reading cannot hold the thread and its 3 MB work area.
  const std::uint64_t deadline = platform::monotonic_ms() + static_cast<std::uint64_t>(recv_wait_ms());
  RD_VERBOSE("sending HTTP header to client ");
  if (platform::send_before(s, header, header_len, deadline) != 0) {
    RD_ERROR("Error at sending header data on http");
    return rd_codes::kFailed;
  }
  RD_VERBOSE("sending HTTP Data to client ");
  if (body != nullptr && platform::send_before(s, body, body_len, deadline) != 0) {
    RD_ERROR("Error at sending body data on http");
    return rd_codes::kFailed;
  }
  RD_INFO("Data is Sent to client successfully ");
  return 0;
}

int process_incoming_message(platform::socket_t s) {
  // The connection closes the socket on every path out, exceptions included.
  Connection conn(s);
  // Nothing may leave this thread body: an exception would end the host process.
  try {
    RD_INFO("Entered inside process_incoming_message,socket_fd is: %d", s);
    conn.use_tls(rd_ssl_enabled());
    WorkAreaPtr area = new_work_area();
    if (!area) {
      RD_ERROR("Memory allocation failed\n");
      return 0;
    }
    int received = 0;
    if (!receive_request(&conn, area.get() + kRawReqOffset, &received)) return 0;
    if (refuse_unread_request(&conn, received, area.get() + kRespHeaderOffset)) return 0;
    answer_request(&conn, &area, received);
  } catch (const std::exception& e) {
    RD_ERROR("Request not answered: %s", e.what());
  } catch (...) {
    RD_ERROR("Request not answered");
  }
  return 0;
}
