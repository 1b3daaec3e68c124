#include <chrono>

#include "platform/platform.h"
#include "platform/win32/win32_util.h"

namespace platform {

namespace {
// Sleep may wake up to one clock tick (10 to 16 ms) early: sleep again for
// what is left, measured on the exact steady clock.
void sleep_until(std::chrono::steady_clock::time_point end) {
  for (auto left = end - std::chrono::steady_clock::now(); left.count() > 0;
       left = end - std::chrono::steady_clock::now()) {
    ::Sleep(static_cast<DWORD>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
  }
}
}  // namespace

void sleep_ms(unsigned ms) { sleep_until(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms)); }

// Beep plays for the given time on a machine with a speaker, but returns at
// once where there is none (and under Wine): the caller still gets its pause.
void beep(unsigned frequency_hz, unsigned duration_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(duration_ms);
  ::Beep(frequency_hz, duration_ms);
  sleep_until(end);
}

// Winsock's WSAGetLastError reads the same per-thread value.
int last_error() { return static_cast<int>(::GetLastError()); }

}  // namespace platform
