// Socket calls that the listener and the TLS transport need beyond platform.h.
// Defined with the other socket functions in posix/socket.cc.
#ifndef VEXO_PLATFORM_SOCKET_EXTRA_H
#define VEXO_PLATFORM_SOCKET_EXTRA_H

#include <cstddef>
#include <cstdint>

#include "platform/platform.h"

namespace platform {

// Switches s to non-blocking (on) or blocking mode. 0, or -1 with errno kept.
int set_nonblocking(socket_t s, bool on);

// Lets s bind a port whose earlier connections linger in TIME_WAIT; a port
// that another socket listens on is still refused. 0, or -1 with errno kept.
// REQUIRES: s not yet bound.
int set_reuse_address(socket_t s);

// IPv6 stream socket that accepts IPv6 only (so it never claims an IPv4
// port), or kInvalidSocket.
socket_t tcp6_socket();
// Binds s to [::1]:port. 0 bound; 1 another socket holds the port there;
// -1 any other failure, errno kept (a machine without ::1 gives this).
int bind_loopback6(socket_t s, std::uint16_t port);

// Sends all len bytes before the monotonic time deadline_ms
// (platform::monotonic_ms): a client that stops reading cannot hold the
// sender longer. 0 all sent; -1 a send error or the deadline passed (errno
// ETIMEDOUT), with part of the data perhaps sent. Never raises SIGPIPE.
int send_before(socket_t s, const void* data, std::size_t len, std::uint64_t deadline_ms);

// Waits until one of the count sockets is readable; sockets equal to
// kInvalidSocket are skipped. The index of a ready socket (the lowest one),
// -1 on a time-out, -2 on an error (errno kept).
int wait_readable_any(const socket_t* sockets, std::size_t count, int timeout_ms);

}  // namespace platform

#endif  // VEXO_PLATFORM_SOCKET_EXTRA_H
