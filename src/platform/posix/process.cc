#include <sys/prctl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "platform/platform.h"

namespace platform {

// No dialog here: standard error, and only when the caller's verbose setting allows it.
void alert_box(const char* text, const char* caption, bool console) {
  if (console) std::fprintf(stderr, "%s: %s\n", caption, text);
}

std::string program_path() {
  char path[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path);
  if (n <= 0 || static_cast<std::size_t>(n) >= sizeof path) return "";
  return std::string(path, static_cast<std::size_t>(n));
}

std::string serial_port_path(const std::string& name) { return "/dev/" + name; }
int forbid_core_dumps() { return ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 ? 0 : -1; }

}  // namespace platform
