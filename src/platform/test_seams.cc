#include "platform/test_seams.h"

namespace test_seams {

namespace detail {
std::atomic<bool> g_written{false};

std::mutex& mutex() {
  static std::mutex m;
  return m;
}

Seams& record() {
  static Seams r;
  return r;
}
}  // namespace detail

void set(const Seams& seams) {
  update([&seams](Seams& r) { r = seams; });
}

void update(const std::function<void(Seams&)>& change) {
  std::lock_guard<std::mutex> lock(detail::mutex());
  change(detail::record());
  detail::g_written.store(true, std::memory_order_release);
}

int take(int Seams::*counter) {
  if (!detail::g_written.load(std::memory_order_acquire)) return 0;
  std::lock_guard<std::mutex> lock(detail::mutex());
  int& left = detail::record().*counter;
  if (left <= 0) return 0;
  return left--;
}

}  // namespace test_seams
