// Socket calls that the listener and the TLS transport need beyond platform.h.
// Defined with the other socket functions in posix/socket.cc.
#ifndef VEXO_PLATFORM_SOCKET_EXTRA_H
#define VEXO_PLATFORM_SOCKET_EXTRA_H

#include "platform/platform.h"

namespace platform {

// Switches s to non-blocking (on) or blocking mode. 0, or -1 with errno kept.
int set_nonblocking(socket_t s, bool on);

// Lets s bind a port whose earlier connections linger in TIME_WAIT; a port
// that another socket listens on is still refused. 0, or -1 with errno kept.
// REQUIRES: s not yet bound.
int set_reuse_address(socket_t s);

}  // namespace platform

#endif  // VEXO_PLATFORM_SOCKET_EXTRA_H
