// What the system folders (posix/, win32/) share: each defines the pieces
// declared here that differ between systems, and shared.cc builds the
// system-neutral half of platform.h on them.
//
// Thread-safety: every function may be called from any thread.
#ifndef VEXO_PLATFORM_SHARED_H
#define VEXO_PLATFORM_SHARED_H

#include <cstddef>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace platform::sys {

// The status pipe's path when no test names one.
std::string default_status_pipe_path();

// The system's adapter list, filtered and ordered as list_adapters promises.
int list_system_adapters(std::vector<Adapter>* out);

// Ends the process at once, as a SIGKILL would (a crash point fired).
[[noreturn]] void kill_self();

// The write fault a test armed (test_seams.h).
WriteFault write_fault();

// Bytes to reserve for a block of size bytes: its pages rounded up plus one
// guard page after them.
std::size_t guarded_mapping_size(std::size_t size, std::size_t page);

}  // namespace platform::sys

#endif  // VEXO_PLATFORM_SHARED_H
