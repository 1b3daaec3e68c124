#include <cerrno>
#include <ctime>

#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/test_seams.h"

namespace platform {

std::time_t now() {
  const std::optional<std::time_t> pinned = test_seams::get(&test_seams::Seams::now);
  return pinned ? *pinned : std::time(nullptr);
}

std::uint64_t monotonic_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

void sleep_ms(unsigned ms) {
  timespec req{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&req, &req) != 0 && errno == EINTR) {
  }
}

void beep(unsigned /*frequency_hz*/, unsigned duration_ms) { sleep_ms(duration_ms); }

int last_error() { return errno; }

}  // namespace platform
