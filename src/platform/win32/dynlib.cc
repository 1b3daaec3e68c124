#include <cstring>
#include <utility>

#include "platform/platform.h"
#include "platform/win32/win32_util.h"

namespace platform {

namespace {

// The loader's last failure on this thread, as dlerror() keeps it.
thread_local std::string t_library_error;

void remember_error(const char* what, const std::string& subject) {
  const DWORD code = ::GetLastError();
  char text[256] = "";
  DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text,
                             sizeof text, nullptr);
  while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' ')) text[--n] = '\0';
  t_library_error = std::string(what) + " " + subject + ": " + text + " (error " + std::to_string(code) + ")";
  ::SetLastError(code);
}

}  // namespace

std::string shared_library_name(const std::string& dll_name) { return dll_name; }

std::string library_path(const std::string& folder, const std::string& dll_name) {
  std::string path = folder;
  for (char& c : path) {
    if (c == '/') c = '\\';
  }
  if (!path.empty() && path.back() != '\\') path += '\\';
  return path + shared_library_name(dll_name);
}

void* library_open(const std::string& path) {
  // A missing dependency must fail the call, not stop the host with a dialog.
  DWORD old_mode = 0;
  ::SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &old_mode);
  HMODULE lib = nullptr;
  if (path.find_first_of("\\/") == std::string::npos) {
    // A bare name, as dlopen takes one: the program's and the system's
    // folders only, never the current folder or PATH.
    lib = ::LoadLibraryExA(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
  } else {
    // The full path, so that the library's own dependencies are looked up
    // in its folder first and a later change of the current folder does
    // not matter.
    char full[MAX_PATH];
    const DWORD n = ::GetFullPathNameA(path.c_str(), sizeof full, full, nullptr);
    if (n == 0 || n >= sizeof full) {
      if (n != 0) ::SetLastError(ERROR_FILENAME_EXCED_RANGE);
    } else {
      lib = ::LoadLibraryExA(full, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    }
  }
  if (lib == nullptr) remember_error("LoadLibrary", path);
  ::SetThreadErrorMode(old_mode, nullptr);
  return reinterpret_cast<void*>(lib);
}

void* library_symbol(void* lib, const char* name) {
  if (lib == nullptr) return nullptr;
  FARPROC f = ::GetProcAddress(static_cast<HMODULE>(lib), name);
  if (f == nullptr) {
    remember_error("GetProcAddress", name);
    return nullptr;
  }
  // Function and object pointers have the same size on Windows.
  void* p;
  static_assert(sizeof p == sizeof f);
  std::memcpy(&p, &f, sizeof p);
  return p;
}

std::string library_error() { return std::exchange(t_library_error, std::string()); }

namespace {
std::string resolve_own_module_path() {
  HMODULE self = nullptr;
  if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&resolve_own_module_path), &self)) {
    return "";
  }
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    DWORD n = ::GetModuleFileNameW(self, path.data(), static_cast<DWORD>(path.size()));
    if (n == 0) return "";
    if (n < path.size()) {
      path.resize(n);
      return win32::narrow(path);
    }
    if (path.size() >= 32768) return "";
    path.resize(path.size() * 2);
  }
}
const std::string g_own_module_path = resolve_own_module_path();
}  // namespace

std::string own_module_path() { return g_own_module_path.empty() ? resolve_own_module_path() : g_own_module_path; }

}  // namespace platform
