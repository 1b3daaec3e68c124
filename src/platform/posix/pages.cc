#include "platform/pages.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/shared.h"

namespace platform {

namespace {

std::size_t page_size() {
  static const std::size_t size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

std::size_t mapping_size(std::size_t size) { return sys::guarded_mapping_size(size, page_size()); }

}  // namespace

// A private anonymous mapping rather than calloc: glibc's calloc clears a
// reused heap block by writing it, so after the first few requests every
// waiting connection would hold its whole block resident again.
void* alloc_zeroed_pages(std::size_t size) {
  if (size == 0 || size > SIZE_MAX / 2) {
    errno = EINVAL;
    return nullptr;
  }
  std::size_t total = mapping_size(size);
  void* base = ::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  char* guard = static_cast<char*>(base) + total - page_size();
  if (::mprotect(guard, page_size(), PROT_NONE) != 0) {
    int saved = errno;
    ::munmap(base, total);
    errno = saved;
    return nullptr;
  }
  // The block ends where the guard page begins.
  return guard - size;
}

void free_zeroed_pages(void* block, std::size_t size) {
  if (block == nullptr) return;
  std::size_t total = mapping_size(size);
  char* guard_end = static_cast<char*>(block) + size + page_size();
  ::munmap(guard_end - total, total);
}

std::size_t secret_pages_size(std::size_t size) {
  std::size_t page = page_size();
  return size == 0 ? page : (size + page - 1) / page * page;
}

void* alloc_secret_pages(std::size_t size) {
  if (size > SIZE_MAX / 2) {
    errno = EINVAL;
    return nullptr;
  }
  std::size_t total = secret_pages_size(size);
  void* block = ::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) return nullptr;
  // Left out of core dumps whatever happens next; locking fails once the
  // process's RLIMIT_MEMLOCK is used up, and the pages then stay swappable.
  (void)::madvise(block, total, MADV_DONTDUMP);
  (void)::mlock(block, total);
  return block;
}

void free_secret_pages(void* block, std::size_t size) {
  if (block == nullptr) return;
  std::size_t total = secret_pages_size(size);
  (void)::munlock(block, total);
  ::munmap(block, total);
}

}  // namespace platform
