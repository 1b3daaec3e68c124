// A canned HTTP server of a test, on a free port of 127.0.0.1, that answers
// exactly the bytes a case needs, and a port with nothing listening on it.
#ifndef VEXO_TESTS_CANNED_SERVER_H
#define VEXO_TESTS_CANNED_SERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

// An answer of the given status with a JSON body, and RD_DRT when drt is given.
inline std::string http_response(const std::string& status, const std::string& body, const std::string* drt) {
  std::string r("HTTP/1.1 ");
  r += status;
  r += "\r\nContent-Type: application/json\r\nContent-Length: ";
  r += std::to_string(body.size());
  r += "\r\n";
  if (drt != nullptr) {
    r += "RD_DRT: ";
    r += *drt;
    r += "\r\n";
  }
  r += "Connection: close\r\n\r\n";
  r += body;
  return r;
}

// An HTTP server on a free port of 127.0.0.1 that answers each request with
// what the handler makes of the request's RD_DRT header and body; an empty
// answer closes the connection unanswered. Without a handler it reads and
// never answers (a stalled server).
class CannedServer {
 public:
  using Handler = std::function<std::string(const std::string& drt, const std::string& body)>;
  explicit CannedServer(Handler handler) : handler_(std::move(handler)) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd_, 8) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0 || ::pipe(stop_) != 0) {
      throw std::runtime_error("canned server not started");
    }
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~CannedServer() {
    (void)!::write(stop_[1], "x", 1);
    thread_.join();
    for (int fd : {fd_, stop_[0], stop_[1]}) ::close(fd);
  }
  std::string url(const char* path = "/Zelm/rest/register/") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  // The RD_DRT and body of the last request that arrived.
  std::pair<std::string, std::string> last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return {last_drt_, last_body_};
  }
  int requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  bool wait(int fd) {
    pollfd p[2] = {{fd, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    return ::poll(p, 2, -1) > 0 && (p[1].revents & POLLIN) == 0;
  }
  void serve() {
    while (wait(fd_)) {
      int c = ::accept(fd_, nullptr, nullptr);
      if (c < 0) continue;
      std::string in;
      char buf[8192];
      std::size_t need = std::string::npos;
      bool continued = false;
      while (wait(c)) {
        ssize_t n = ::read(c, buf, sizeof buf);
        if (n <= 0) break;
        in.append(buf, static_cast<std::size_t>(n));
        const std::size_t end = in.find("\r\n\r\n");
        if (end == std::string::npos) continue;
        if (need == std::string::npos) {
          const std::size_t cl = in.find("Content-Length: ");
          need = end + 4 + (cl < end ? std::stoul(in.substr(cl + 16)) : 0);
        }
        if (!continued && in.find("Expect: 100-continue") < end) {
          continued = true;
          (void)!::send(c, "HTTP/1.1 100 Continue\r\n\r\n", 25, MSG_NOSIGNAL);
        }
        if (in.size() < need || !handler_) continue;
        std::string drt;
        const std::size_t at = in.find("\r\nRD_DRT: ");
        if (at < end) drt = in.substr(at + 10, in.find("\r\n", at + 10) - at - 10);
        const std::string body = in.substr(end + 4);
        {
          std::lock_guard<std::mutex> lock(mutex_);
          last_drt_ = drt;
          last_body_ = body;
          ++requests_;
        }
        const std::string out = handler_(drt, body);
        for (std::size_t sent = 0; sent < out.size();) {
          ssize_t n2 = ::send(c, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
          if (n2 <= 0) break;
          sent += static_cast<std::size_t>(n2);
        }
        break;
      }
      ::close(c);
    }
  }

  Handler handler_;
  int fd_ = -1;
  int stop_[2] = {-1, -1};
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::string last_drt_, last_body_;
  int requests_ = 0;
};

// A free port with nothing listening on it.
inline int closed_port() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

#endif  // VEXO_TESTS_CANNED_SERVER_H
