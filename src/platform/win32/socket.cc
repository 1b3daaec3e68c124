// Windows Sockets 2. Winsock is started once, by the first socket made.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <climits>
#include <mutex>

#include "platform/platform.h"
#include "platform/socket_extra.h"
#include "platform/win32/win32_util.h"

namespace platform {
namespace {

// See handle_to_int: socket handles keep within 32 bits, INVALID_SOCKET is -1.
SOCKET to_socket(socket_t s) { return static_cast<SOCKET>(static_cast<std::intptr_t>(s)); }

socket_t from_socket(SOCKET s) {
  if (s == INVALID_SOCKET) return kInvalidSocket;
  if (s > static_cast<SOCKET>(INT_MAX)) {
    ::closesocket(s);
    ::WSASetLastError(WSAEMFILE);
    return kInvalidSocket;
  }
  return static_cast<socket_t>(s);
}

// 0, or the error of WSAStartup (also left as the last error). The first
// call starts Winsock; a failed start is not tried again.
int start_winsock() {
  static std::once_flag once;
  static int result = 0;
  std::call_once(once, [] {
    WSADATA data;
    result = ::WSAStartup(MAKEWORD(2, 2), &data);
  });
  if (result != 0) ::WSASetLastError(result);
  return result;
}

}  // namespace

int socket_startup() { return start_winsock(); }

namespace {

socket_t stream_socket(int family) {
  if (start_winsock() != 0) return kInvalidSocket;
  // Not inherited by child processes, as SOCK_CLOEXEC does on Linux.
  return from_socket(::WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT));
}

timeval to_timeval(int timeout_ms) {
  timeval tv{};
  tv.tv_sec = timeout_ms / 1000;
  tv.tv_usec = (timeout_ms % 1000) * 1000;
  return tv;
}

// A socket that failed or was shut down counts as ready: the next call
// reports it. 1 ready, 0 time-out, -1 error; a negative time-out waits forever.
int wait_event(socket_t s, bool write, int timeout_ms) {
  if (s < 0) {
    ::WSASetLastError(WSAENOTSOCK);
    return -1;
  }
  fd_set wanted;
  fd_set failed;
  FD_ZERO(&wanted);
  FD_ZERO(&failed);
  FD_SET(to_socket(s), &wanted);
  FD_SET(to_socket(s), &failed);
  timeval tv = to_timeval(timeout_ms);
  int n = ::select(0, write ? nullptr : &wanted, write ? &wanted : nullptr, &failed, timeout_ms < 0 ? nullptr : &tv);
  if (n == SOCKET_ERROR) return -1;
  return n > 0 ? 1 : 0;
}

}  // namespace

socket_t tcp_socket() { return stream_socket(AF_INET); }

int bind_loopback(socket_t s, std::uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ::bind(to_socket(s), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ? 0 : -1;
}

int listen_socket(socket_t s, int backlog) { return ::listen(to_socket(s), backlog) == 0 ? 0 : -1; }

int wait_readable(socket_t s, int timeout_ms) { return wait_event(s, false, timeout_ms); }

int wait_writable(socket_t s, int timeout_ms) { return wait_event(s, true, timeout_ms); }

socket_t accept_socket(socket_t s) {
  socket_t c = from_socket(::accept(to_socket(s), nullptr, nullptr));
  if (c == kInvalidSocket) return c;
  // A Windows socket inherits the listener's non-blocking mode; the
  // connection threads expect a blocking socket, as accept gives on Linux.
  u_long blocking = 0;
  ::ioctlsocket(to_socket(c), FIONBIO, &blocking);
  ::SetHandleInformation(reinterpret_cast<HANDLE>(to_socket(c)), HANDLE_FLAG_INHERIT, 0);
  return c;
}

long recv_socket(socket_t s, void* buf, std::size_t len) {
  const int n = len > INT_MAX ? INT_MAX : static_cast<int>(len);
  return ::recv(to_socket(s), static_cast<char*>(buf), n, 0);
}

long send_socket(socket_t s, const void* buf, std::size_t len) {
  const int n = len > INT_MAX ? INT_MAX : static_cast<int>(len);
  return ::send(to_socket(s), static_cast<const char*>(buf), n, 0);
}

void close_socket(socket_t s) {
  if (s >= 0) ::closesocket(to_socket(s));
}

int set_nonblocking(socket_t s, bool on) {
  u_long mode = on ? 1 : 0;
  return ::ioctlsocket(to_socket(s), FIONBIO, &mode) == 0 ? 0 : -1;
}

// Nothing to set: Windows already binds a port whose old connections linger
// in TIME_WAIT. SO_REUSEADDR would do harm here, since on Windows it lets a
// socket take over a port that another one listens on.
int set_reuse_address(socket_t /*s*/) { return 0; }

socket_t tcp6_socket() {
  socket_t s = stream_socket(AF_INET6);
  if (s == kInvalidSocket) return s;
  DWORD one = 1;
  if (::setsockopt(to_socket(s), IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&one), sizeof one) != 0) {
    const int saved = ::WSAGetLastError();
    ::closesocket(to_socket(s));
    ::WSASetLastError(saved);
    return kInvalidSocket;
  }
  return s;
}

int bind_loopback6(socket_t s, std::uint16_t port) {
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_port = htons(port);
  addr.sin6_addr = in6addr_loopback;
  if (::bind(to_socket(s), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return 0;
  return ::WSAGetLastError() == WSAEADDRINUSE ? 1 : -1;
}

int send_before(socket_t s, const void* data, std::size_t len, std::uint64_t deadline_ms) {
  // Non-blocking for the call: room for one byte does not mean room for all.
  if (set_nonblocking(s, true) != 0) return -1;
  const char* p = static_cast<const char*>(data);
  int rc = 0;
  while (len > 0) {
    const std::uint64_t now = monotonic_ms();
    if (now >= deadline_ms) {
      ::WSASetLastError(WSAETIMEDOUT);
      rc = -1;
      break;
    }
    const std::uint64_t left = deadline_ms - now;
    const int ready = wait_event(s, true, left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left));
    if (ready < 0) {
      rc = -1;
      break;
    }
    if (ready == 0) continue;  // the loop's check reports the deadline
    const int chunk = len > 0x100000 ? 0x100000 : static_cast<int>(len);
    const int n = ::send(to_socket(s), p, chunk, 0);
    if (n == SOCKET_ERROR) {
      if (::WSAGetLastError() == WSAEWOULDBLOCK) continue;
      rc = -1;
      break;
    }
    p += n;
    len -= static_cast<std::size_t>(n);
  }
  const int saved = ::WSAGetLastError();
  (void)set_nonblocking(s, false);
  ::WSASetLastError(saved);
  return rc;
}

int wait_readable_any(const socket_t* sockets, std::size_t count, int timeout_ms) {
  fd_set ready;
  fd_set failed;
  FD_ZERO(&ready);
  FD_ZERO(&failed);
  std::size_t watched = 0;
  for (std::size_t i = 0; i < count && watched < FD_SETSIZE; ++i) {
    if (sockets[i] < 0) continue;
    FD_SET(to_socket(sockets[i]), &ready);
    FD_SET(to_socket(sockets[i]), &failed);
    ++watched;
  }
  if (watched == 0) {
    ::WSASetLastError(WSAENOTSOCK);
    return -2;
  }
  timeval tv = to_timeval(timeout_ms);
  int n = ::select(0, &ready, nullptr, &failed, timeout_ms < 0 ? nullptr : &tv);
  if (n == SOCKET_ERROR) return -2;
  if (n == 0) return -1;
  for (std::size_t i = 0; i < count; ++i) {
    if (sockets[i] < 0) continue;
    if (FD_ISSET(to_socket(sockets[i]), &ready) || FD_ISSET(to_socket(sockets[i]), &failed)) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

}  // namespace platform
