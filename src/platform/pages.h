// Zero-filled memory straight from the system: pages that cost no resident
// memory until they are written, and go back to the system when freed. For
// large blocks that are mostly left untouched (the per-request work area),
// and for key material that must stay out of core dumps and swap.
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

// Pages for key material: zero-filled, left out of core dumps, and locked in
// memory (never written to swap) when the process's limit on locked memory
// allows; beyond that limit they are only left out of dumps. size is rounded
// up to whole pages; nullptr on failure (errno kept). Free them with
// free_secret_pages and the same size; the caller wipes them first.
void* alloc_secret_pages(std::size_t size);
void free_secret_pages(void* block, std::size_t size);
// The size alloc_secret_pages really maps for size bytes (whole pages).
std::size_t secret_pages_size(std::size_t size);

}  // namespace platform

#endif  // VEXO_PLATFORM_PAGES_H
