#include "platform/platform.h"
#include "platform/win32/win32_util.h"

namespace platform {

// Windows has no switch like PR_SET_DUMPABLE; this turns off the crash
// reporting dialog and its report (with memory) for this process instead.
int forbid_core_dumps() {
  ::SetErrorMode(::GetErrorMode() | SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  return 0;
}

void alert_box(const char* text, const char* caption, bool /*console*/) { ::MessageBoxA(nullptr, text, caption, MB_OK); }

std::string program_path() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD n = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (n == 0) return "";
    if (n < path.size()) {
      path.resize(n);
      return win32::narrow(path);
    }
    if (path.size() >= 32768) return "";
    path.resize(path.size() * 2);
  }
}

std::string serial_port_path(const std::string& name) { return "//./" + name; }

}  // namespace platform
