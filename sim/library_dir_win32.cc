#include <windows.h>

#include "control.h"

namespace simctl {

// The module that holds this function, by address; the loader keeps its
// full path.
std::string find_library_dir() {
  HMODULE self = nullptr;
  if (!::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCSTR>(&find_library_dir), &self)) {
    return "";
  }
  char path[MAX_PATH];
  const DWORD n = ::GetModuleFileNameA(self, path, sizeof path);
  if (n == 0 || n >= sizeof path) return "";
  const std::string full(path, n);
  const std::size_t slash = full.find_last_of("\\/");
  return slash == std::string::npos ? "." : full.substr(0, slash);
}

}  // namespace simctl
