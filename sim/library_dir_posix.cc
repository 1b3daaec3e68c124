#include <dlfcn.h>

#include <cstdlib>

#include "control.h"

namespace simctl {

// dladdr reports the path given to dlopen; realpath makes it absolute.
std::string find_library_dir() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&find_library_dir), &info) == 0 || info.dli_fname == nullptr) {
    return "";
  }
  char* real = realpath(info.dli_fname, nullptr);
  std::string path = real != nullptr ? real : info.dli_fname;
  std::free(real);
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace simctl
