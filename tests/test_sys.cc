// The helpers of test_sys.h that both systems share: the sockets, written once
// over the calls POSIX and Winsock have in common (only a new socket and the
// name of the send half differ), and those built on the others.
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include "test_sys.h"

namespace testsys {

namespace {

#ifdef _WIN32
constexpr int kSendHalf = SD_SEND;
platform::socket_t new_socket(int family) {
  if (platform::socket_startup() != 0) return platform::kInvalidSocket;
  const SOCKET s = ::WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
  return s == INVALID_SOCKET ? platform::kInvalidSocket : static_cast<platform::socket_t>(s);
}
#else
constexpr int kSendHalf = SHUT_WR;
platform::socket_t new_socket(int family) { return ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0); }
#endif

sockaddr_in loopback4(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

platform::socket_t connect_to(const sockaddr* addr, socklen_t len) {
  const platform::socket_t s = new_socket(addr->sa_family);
  if (s != platform::kInvalidSocket && ::connect(s, addr, len) != 0) {
    platform::close_socket(s);
    return platform::kInvalidSocket;
  }
  return s;
}

}  // namespace

platform::socket_t connect_loopback(int port) {
  const sockaddr_in addr = loopback4(port);
  return connect_to(reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
}

platform::socket_t connect_loopback6(int port) {
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_port = htons(static_cast<std::uint16_t>(port));
  addr.sin6_addr = in6addr_loopback;
  return connect_to(reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
}

platform::socket_t bind_port(int port, bool reuse) {
  const platform::socket_t s = new_socket(AF_INET);
  if (s == platform::kInvalidSocket) return s;
  const int one = 1;
  if (reuse) ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one), sizeof one);
  const sockaddr_in addr = loopback4(port);
  if (::bind(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return s;
  platform::close_socket(s);
  return platform::kInvalidSocket;
}

void shutdown_send(platform::socket_t s) { ::shutdown(s, kSendHalf); }

int local_port(platform::socket_t s) {
  sockaddr_storage a{};
  socklen_t len = sizeof a;
  if (::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
  return a.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&a)->sin6_port)
                                 : ntohs(reinterpret_cast<sockaddr_in*>(&a)->sin_port);
}

bool set_access_time(const std::string& path, long long seconds) {
  FileTimes times;
  if (!file_times(path, &times)) return false;
  times.access_ns = seconds * 1000000000LL;
  return set_file_times(path, times);
}

std::vector<std::string> helper_case(const std::string& test_name) {
  return {platform::program_path(), "--gtest_filter=" + test_name, "--gtest_also_run_disabled_tests"};
}

}  // namespace testsys
