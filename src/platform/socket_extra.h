// Socket calls that the TLS transport needs beyond platform.h. Defined with the
// other socket functions in posix/socket.cc.
#ifndef VEXO_PLATFORM_SOCKET_EXTRA_H
#define VEXO_PLATFORM_SOCKET_EXTRA_H

#include "platform/platform.h"

namespace platform {

// Switches s to non-blocking (on) or blocking mode. 0, or -1 with errno kept.
int set_nonblocking(socket_t s, bool on);

}  // namespace platform

#endif  // VEXO_PLATFORM_SOCKET_EXTRA_H
