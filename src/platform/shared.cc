// The system-neutral half of the platform layer: the test seams (clock,
// status-pipe path, lock folder, adapter list, crash points, write faults),
// the monotonic clock and the arithmetic both systems use.
#include "platform/shared.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <mutex>

namespace platform {

namespace {

std::mutex g_time_mutex;
std::optional<std::time_t> g_time_override;

std::mutex g_pipe_path_mutex;
std::string g_pipe_path;  // named by the host; guarded by g_pipe_path_mutex

std::mutex g_dir_mutex;
std::string g_lock_dir;       // the configured folder; guarded by g_dir_mutex
std::string g_test_lock_dir;  // a test's folder, which wins; guarded by g_dir_mutex

std::mutex g_adapters_mutex;
std::optional<std::vector<Adapter>> g_test_adapters;

std::atomic<WriteFault> g_write_fault{WriteFault::kNone};
std::atomic<int> g_crash_countdown{0};

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

std::string status_pipe_path() {
  {
    std::lock_guard<std::mutex> lock(g_pipe_path_mutex);
    if (!g_pipe_path.empty()) return g_pipe_path;
  }
  return sys::default_status_pipe_path();
}

void set_status_pipe_path(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_pipe_path_mutex);
  g_pipe_path = path;
}

std::string lock_dir() {
  {
    std::lock_guard<std::mutex> guard(g_dir_mutex);
    if (!g_test_lock_dir.empty()) return g_test_lock_dir;
    if (!g_lock_dir.empty()) return g_lock_dir;
  }
  return default_lock_dir();
}

void set_lock_dir(const std::string& dir) {
  std::lock_guard<std::mutex> guard(g_dir_mutex);
  g_lock_dir = dir;
}

void set_lock_dir_for_test(const std::string& dir) {
  std::lock_guard<std::mutex> guard(g_dir_mutex);
  g_test_lock_dir = dir;
}

std::string named_lock_path(const char* name) {
  std::string file(name);
  for (char& c : file) {
    if (c == '\\' || c == '/') c = '_';
  }
  return lock_dir() + "/" + file + ".lock";
}

int list_adapters(std::vector<Adapter>* out) {
  out->clear();
  {
    std::lock_guard<std::mutex> lock(g_adapters_mutex);
    if (g_test_adapters) {
      *out = *g_test_adapters;
      return 0;
    }
  }
  return sys::list_system_adapters(out);
}

void set_adapters_for_test(std::optional<std::vector<Adapter>> adapters) {
  std::lock_guard<std::mutex> lock(g_adapters_mutex);
  g_test_adapters = std::move(adapters);
}

unsigned long fold_fsid(const int words[2]) {
  return static_cast<unsigned long>(static_cast<unsigned>(words[0]) ^ static_cast<unsigned>(words[1]));
}

void set_crash_point_for_test(int n) { g_crash_countdown.store(n); }

void crash_point() {
  if (g_crash_countdown.load(std::memory_order_relaxed) > 0 && g_crash_countdown.fetch_sub(1) == 1) {
    sys::kill_self();
  }
}

void set_write_fault_for_test(WriteFault fault) { g_write_fault.store(fault); }

namespace sys {

WriteFault write_fault() { return g_write_fault.load(); }

std::size_t guarded_mapping_size(std::size_t size, std::size_t page) { return (size + page - 1) / page * page + page; }

}  // namespace sys

}  // namespace platform
