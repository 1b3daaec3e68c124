// Path rules that differ between systems.
//
// Thread-safety: may be called from any thread.
#ifndef VEXO_PLATFORM_PATHS_H
#define VEXO_PLATFORM_PATHS_H

#include <string>

namespace platform {

// Whether path names one place whatever the current folder: "/..." on POSIX;
// "X:\\...", "\\\\server\\..." or "\\\\.\\pipe\\..." on Windows.
bool is_absolute_path(const std::string& path);

}  // namespace platform

#endif  // VEXO_PLATFORM_PATHS_H
