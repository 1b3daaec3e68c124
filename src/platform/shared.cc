// The system-neutral half of the platform layer: the clock and adapter list
// with their test seams, the status-pipe path, the lock folder, crash points
// and the arithmetic both systems use.
#include "platform/shared.h"

#include <chrono>
#include <ctime>

#include "platform/mutex.h"
#include "platform/test_seams.h"

namespace platform {

namespace {

Mutex g_pipe_path_mutex;
std::string g_pipe_path GUARDED_BY(g_pipe_path_mutex);  // a test's path

Mutex g_dir_mutex;
std::string g_lock_dir GUARDED_BY(g_dir_mutex);  // the configured folder

}  // namespace

std::time_t now() {
  const std::optional<std::time_t> pinned = test_seams::get(&test_seams::Seams::now);
  return pinned ? *pinned : std::time(nullptr);
}

std::uint64_t monotonic_ms() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

std::string status_pipe_path() {
  {
    MutexLock lock(&g_pipe_path_mutex);
    if (!g_pipe_path.empty()) return g_pipe_path;
  }
  return sys::default_status_pipe_path();
}

void set_status_pipe_path(const std::string& path) {
  MutexLock lock(&g_pipe_path_mutex);
  g_pipe_path = path;
}

std::string lock_dir() {
  std::string test_dir = test_seams::get(&test_seams::Seams::lock_dir);
  if (!test_dir.empty()) return test_dir;
  {
    MutexLock guard(&g_dir_mutex);
    if (!g_lock_dir.empty()) return g_lock_dir;
  }
  return default_lock_dir();
}

void set_lock_dir(const std::string& dir) {
  MutexLock guard(&g_dir_mutex);
  g_lock_dir = dir;
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
  std::optional<std::vector<Adapter>> given = test_seams::get(&test_seams::Seams::adapters);
  if (given) {
    *out = std::move(*given);
    return 0;
  }
  return sys::list_system_adapters(out);
}

unsigned long fold_fsid(const int words[2]) {
  return static_cast<unsigned long>(static_cast<unsigned>(words[0]) ^ static_cast<unsigned>(words[1]));
}

void crash_point() {
  if (test_seams::take(&test_seams::Seams::crash_countdown) == 1) sys::kill_self();
}

namespace sys {

WriteFault write_fault() { return test_seams::get(&test_seams::Seams::write_fault); }

std::size_t guarded_mapping_size(std::size_t size, std::size_t page) { return (size + page - 1) / page * page + page; }

}  // namespace sys

}  // namespace platform
