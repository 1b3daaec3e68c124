#include <chrono>
#include <ctime>
#include <mutex>

#include "platform/platform.h"
#include "platform/win32/win32_util.h"

namespace platform {
namespace {
std::mutex g_time_mutex;
std::optional<std::time_t> g_time_override;
}  // namespace

std::time_t now() {
  {
    std::lock_guard<std::mutex> lock(g_time_mutex);
    if (g_time_override) return *g_time_override;
  }
  return std::time(nullptr);
}

void set_time_for_test(std::optional<std::time_t> t) {
  std::lock_guard<std::mutex> lock(g_time_mutex);
  g_time_override = t;
}

std::uint64_t monotonic_ms() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

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
