// The peers of the Management client's tests: the reference Management
// server as a child process (registry commands run to their end, `serve` on a
// free port for a test's life), a canned HTTP(S) server in a thread that
// answers exactly the bytes a case needs, and certificates made for a case.
// The server is a Linux program; the Windows tests, run under Wine, start the
// Linux build of it.
#ifndef VEXO_TESTS_MGMT_SERVER_UTIL_H
#define VEXO_TESTS_MGMT_SERVER_UTIL_H

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/openssl_ptr.h"
#include "platform/platform.h"

namespace mgmttest {

// The server binary and the project's demonstration CA and data.
extern const std::string kServer;
extern const std::string kMgmtData;

// What each system does for the server (mgmt_server_util_SYSTEM.cc): the
// current folder as the Linux side names it ("" when none), and a command
// line started there in the background; false when it did not start.
std::string linux_cwd();
bool run_linux(const std::string& command);

// Runs a registry command to its end; its exit status.
int run_command(const std::vector<std::string>& args, std::string* output = nullptr);

// `serve` on port 0 for the life of the object, with the data folder "data"
// and the registry "registry.db" of the current folder; the port comes from
// the first output line.
class Server {
 public:
  explicit Server(bool tls, const std::vector<std::string>& extra = {});
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  int port() const { return port_; }
  // "http(s)://127.0.0.1:PORT/Zelm"
  std::string base() const;
  std::string log() const;

 private:
  bool tls_;
  std::string out_;  // the server's output, a file of its own
  pid_t pid_ = -1;
  int port_ = 0;
};

// The value of the first header called name (any case) in an HTTP head; empty when none.
std::string header_of(const std::string& head, const std::string& name);

// One request as the canned server read it.
struct CannedRequest {
  std::string method;
  std::string head;  // request line and headers
  std::string body;
  std::string header(const std::string& name) const { return header_of(head, name); }
};

// What the canned server sends back on one connection.
struct Reply {
  Reply(std::string text = {}) : bytes(std::move(text)) {}  // NOLINT: a plain answer
  std::string bytes;       // sent at once; empty: no answer, the client is held until it leaves
  std::size_t filler = 0;  // then this many bytes of 'x' ...
  int trickle_ms = 0;      // ... one every trickle_ms (0: as fast as the client takes them)
  bool hang_up = false;    // close the connection at once, unanswered
};

// "HTTP/1.1 STATUS" with the given header lines (each ending in CRLF), a
// Content-Length of the body, "Connection: close", and the body.
std::string http_reply(const std::string& status, const std::string& headers, const std::string& body);

// An HTTP server of the test on a free port of 127.0.0.1, in a thread of its
// own, one request per connection. With a certificate and key (PEM files) it
// speaks TLS, choosing h2 through ALPN when a client offers it, as an HTTP/2
// server does.
class CannedServer {
 public:
  using Handler = std::function<Reply(const CannedRequest&)>;
  explicit CannedServer(Handler handler, const std::string& cert_file = {}, const std::string& key_file = {});
  ~CannedServer();
  CannedServer(const CannedServer&) = delete;
  CannedServer& operator=(const CannedServer&) = delete;
  // "http(s)://127.0.0.1:PORT" followed by path.
  std::string url(const std::string& path) const;
  int connections() { return locked(connections_); }
  std::vector<CannedRequest> requests() { return locked(requests_); }
  // Bytes sent on the last connection.
  std::size_t sent() { return locked(sent_); }

 private:
  template <typename T>
  T locked(const T& field) {
    std::lock_guard<std::mutex> lock(mutex_);
    return field;
  }
  void serve();
  void answer(platform::socket_t fd, SSL* ssl);

  Handler handler_;
  std::unique_ptr<SSL_CTX, SslCtxFree> tls_;
  platform::socket_t fd_ = platform::kInvalidSocket;
  std::atomic<bool> stop_{false};
  int port_ = 0;
  std::mutex mutex_;
  int connections_ = 0;
  std::vector<CannedRequest> requests_;
  std::size_t sent_ = 0;
  std::thread thread_;
};

// A port of 127.0.0.1 with nothing listening on it.
int closed_port();

// A P-256 key and a certificate for it with CN=cn and the given extensions
// (OpenSSL configuration values by NID), valid from a day ago for a year and
// signed by issuer, or by itself when issuer is null.
struct Issued {
  PkeyPtr key;
  std::string cert_pem;
  std::string key_pem;
};
Issued issue_cert(const char* cn, const std::vector<std::pair<int, const char*>>& extensions, const Issued* issuer);

}  // namespace mgmttest

#endif  // VEXO_TESTS_MGMT_SERVER_UTIL_H
