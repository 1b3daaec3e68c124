#include <cerrno>
#include <ctime>

#include "platform/platform.h"

namespace platform {

void sleep_ms(unsigned ms) {
  timespec req{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&req, &req) != 0 && errno == EINTR) {
  }
}

void beep(unsigned /*frequency_hz*/, unsigned duration_ms) { sleep_ms(duration_ms); }

int last_error() { return errno; }

}  // namespace platform
