#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "platform/platform.h"
#include "platform/socket_extra.h"

namespace platform {
namespace {

// Waits for one poll event; poll instead of select so that descriptors above
// FD_SETSIZE work too. 1 ready, 0 time-out, -1 error.
int wait_event(socket_t s, short events, int timeout_ms) {
  if (s < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd p{s, events, 0};
  for (;;) {
    int n = ::poll(&p, 1, timeout_ms);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n;
    // A hung-up or failed socket counts as ready: the next call reports it.
    if (p.revents & POLLNVAL) {
      errno = EBADF;
      return -1;
    }
    return 1;
  }
}

}  // namespace

int socket_startup() { return 0; }

socket_t tcp_socket() {
  int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return s < 0 ? kInvalidSocket : s;
}

int bind_loopback(socket_t s, std::uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ::bind(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ? 0 : -1;
}

int listen_socket(socket_t s, int backlog) { return ::listen(s, backlog) == 0 ? 0 : -1; }

int wait_readable(socket_t s, int timeout_ms) { return wait_event(s, POLLIN, timeout_ms); }

int wait_writable(socket_t s, int timeout_ms) { return wait_event(s, POLLOUT, timeout_ms); }

socket_t accept_socket(socket_t s) {
  for (;;) {
    int c = ::accept4(s, nullptr, nullptr, SOCK_CLOEXEC);
    if (c >= 0) return c;
    if (errno != EINTR) return kInvalidSocket;
  }
}

long recv_socket(socket_t s, void* buf, std::size_t len) {
  for (;;) {
    ssize_t n = ::recv(s, buf, len, 0);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

long send_socket(socket_t s, const void* buf, std::size_t len) {
  for (;;) {
    ssize_t n = ::send(s, buf, len, MSG_NOSIGNAL);
    if (n >= 0 || errno != EINTR) return static_cast<long>(n);
  }
}

void close_socket(socket_t s) {
  if (s >= 0) ::close(s);
}

int set_nonblocking(socket_t s, bool on) {
  int flags = ::fcntl(s, F_GETFL);
  if (flags < 0) return -1;
  int wanted = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (wanted == flags) return 0;
  return ::fcntl(s, F_SETFL, wanted) == 0 ? 0 : -1;
}

socket_t tcp6_socket() {
  int s = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return kInvalidSocket;
  int one = 1;
  if (::setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one) != 0) {
    int saved = errno;
    ::close(s);
    errno = saved;
    return kInvalidSocket;
  }
  return s;
}

int bind_loopback6(socket_t s, std::uint16_t port) {
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_port = htons(port);
  addr.sin6_addr = in6addr_loopback;
  if (::bind(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return 0;
  return errno == EADDRINUSE ? 1 : -1;
}

int send_before(socket_t s, const void* data, std::size_t len, std::uint64_t deadline_ms) {
  const char* p = static_cast<const char*>(data);
  while (len > 0) {
    const std::uint64_t now = monotonic_ms();
    if (now >= deadline_ms) {
      errno = ETIMEDOUT;
      return -1;
    }
    const std::uint64_t left = deadline_ms - now;
    int ready = wait_event(s, POLLOUT, left > INT_MAX ? INT_MAX : static_cast<int>(left));
    if (ready < 0) return -1;
    if (ready == 0) continue;  // the loop's check reports the deadline
    // MSG_DONTWAIT: room for one byte does not mean room for all of them.
    ssize_t n = ::send(s, p, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      return -1;
    }
    p += n;
    len -= static_cast<std::size_t>(n);
  }
  return 0;
}

int wait_readable_any(const socket_t* sockets, std::size_t count, int timeout_ms) {
  constexpr std::size_t kMaxSockets = 4;
  pollfd p[kMaxSockets];
  std::size_t index[kMaxSockets];
  nfds_t n = 0;
  for (std::size_t i = 0; i < count && n < kMaxSockets; ++i) {
    if (sockets[i] < 0) continue;
    p[n] = pollfd{sockets[i], POLLIN, 0};
    index[n++] = i;
  }
  if (n == 0) {
    errno = EBADF;
    return -2;
  }
  for (;;) {
    int r = ::poll(p, n, timeout_ms);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return -2;
    if (r == 0) return -1;
    for (nfds_t i = 0; i < n; ++i) {
      if (p[i].revents & POLLNVAL) {
        errno = EBADF;
        return -2;
      }
      if (p[i].revents != 0) return static_cast<int>(index[i]);
    }
    return -1;
  }
}

int set_reuse_address(socket_t s) {
  int one = 1;
  return ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 ? 0 : -1;
}

}  // namespace platform
