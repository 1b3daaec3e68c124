// Zero-filled memory straight from the system: pages that cost no resident
// memory until they are written, and go back to the system when freed. For
// large blocks that are mostly left untouched (the per-request work area).
// Defined in posix/pages.cc.
//
// Thread-safety: both functions may be called from any thread.
#ifndef VEXO_PLATFORM_PAGES_H
#define VEXO_PLATFORM_PAGES_H

#include <cstddef>

namespace platform {

// A zero-filled block of size bytes whose last byte is followed by an
// inaccessible guard page, so an overrun faults at once. nullptr on failure
// (errno kept). Free it with free_zeroed_pages and the same size.
void* alloc_zeroed_pages(std::size_t size);
// Returns the block to the system. A null block is ignored.
void free_zeroed_pages(void* block, std::size_t size);

}  // namespace platform

#endif  // VEXO_PLATFORM_PAGES_H
