#include <dlfcn.h>
#include <stdlib.h>

#include "platform/platform.h"

namespace platform {

std::string shared_library_name(const std::string& dll_name) {
  const std::string ext = ".dll";
  if (dll_name.size() > ext.size() && dll_name.compare(dll_name.size() - ext.size(), ext.size(), ext) == 0) {
    return "lib" + dll_name.substr(0, dll_name.size() - ext.size()) + ".so";
  }
  return dll_name;
}

std::string library_path(const std::string& folder, const std::string& dll_name) {
  std::string path = folder;
  for (char& c : path) {
    if (c == '\\') c = '/';
  }
  if (!path.empty() && path.back() != '/') path += '/';
  return path + shared_library_name(dll_name);
}

void* library_open(const std::string& path) { return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL); }

void* library_symbol(void* lib, const char* name) { return lib ? dlsym(lib, name) : nullptr; }

std::string library_error() {
  const char* e = dlerror();
  return e ? e : "";
}

namespace {
// The loader may report the relative path it was given, which a later change
// of the current folder would break: resolve it once, when the code is loaded.
std::string resolve_own_module_path() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&resolve_own_module_path), &info) == 0 || !info.dli_fname) return "";
  char* resolved = realpath(info.dli_fname, nullptr);
  if (resolved == nullptr) return info.dli_fname;
  std::string path = resolved;
  free(resolved);
  return path;
}
const std::string g_own_module_path = resolve_own_module_path();
}  // namespace

std::string own_module_path() { return g_own_module_path.empty() ? resolve_own_module_path() : g_own_module_path; }

}  // namespace platform
