// One request as a client would send it: the bytes go down a connected socket
// to process_incoming_message, which reads the request (header, then
// Content-Length bytes), takes the Origin header, splits the request line,
// dispatches the verb and answers. The service is NOTREADY, so CAPTURE and
// POSTAUTH stop after their request checks and no device is touched. The
// capture-body and PostAuth-body parsers also run directly on the raw area.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_env.h"
#include "http/server.h"
#include "common/work_area.h"
#include "common/rd_status.h"

namespace {

// Reads and drops the answer so the peer socket never fills.
void drain(int fd) {
  char buf[4096];
  while (recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
  }
}

}  // namespace

void fuzz_setup() { set_rd_status_notready(); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The socket buffer takes the whole input before the server starts reading.
  if (size > 16384) return 0;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fuzz_fail("socketpair");
  std::size_t sent = 0;
  while (sent < size) {
    ssize_t n = send(fds[1], data + sent, size - sent, MSG_NOSIGNAL);
    if (n <= 0) fuzz_fail("send to the server socket");
    sent += static_cast<std::size_t>(n);
  }
  // The client has said everything: a short request ends in "recv failed".
  shutdown(fds[1], SHUT_WR);
  process_incoming_message(fds[0]);  // closes fds[0]
  drain(fds[1]);
  close(fds[1]);

  // The raw-request area as the reader leaves it: at most 2047 bytes and a NUL.
  std::string raw = fuzz_text(data, size, kRawReqSize - 1);
  raw.resize(kRawReqSize, '\0');
  std::string body(kReqBodySize, '\0');
  ParseHTTP_ReqCapture(raw.data(), body.data());
  if (std::memchr(body.data(), '\0', body.size()) == nullptr) fuzz_fail("capture body not terminated");
  std::string post(kReqBodySize, '\0');
  Get_PostAuthBody(raw.data(), post.data());
  if (std::memchr(post.data(), '\0', post.size()) == nullptr) fuzz_fail("PostAuth body not terminated");
  return 0;
}
