#include "platform/pages.h"

#include <cstdint>

#include "platform/shared.h"
#include "platform/win32/win32_util.h"

namespace platform {

namespace {

std::size_t page_size() {
  static const std::size_t size = [] {
    SYSTEM_INFO info;
    ::GetSystemInfo(&info);
    return static_cast<std::size_t>(info.dwPageSize);
  }();
  return size;
}

std::size_t mapping_size(std::size_t size) { return sys::guarded_mapping_size(size, page_size()); }

}  // namespace

// Committed pages cost no memory until they are first written, and
// VirtualAlloc hands them out zero-filled.
void* alloc_zeroed_pages(std::size_t size) {
  if (size == 0 || size > SIZE_MAX / 2) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  const std::size_t total = mapping_size(size);
  void* base = ::VirtualAlloc(nullptr, total, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (base == nullptr) return nullptr;
  char* guard = static_cast<char*>(base) + total - page_size();
  DWORD old = 0;
  if (!::VirtualProtect(guard, page_size(), PAGE_NOACCESS, &old)) {
    const DWORD saved = ::GetLastError();
    ::VirtualFree(base, 0, MEM_RELEASE);
    ::SetLastError(saved);
    return nullptr;
  }
  // The block ends where the guard page begins.
  return guard - size;
}

void free_zeroed_pages(void* block, std::size_t size) {
  if (block == nullptr) return;
  const std::size_t total = mapping_size(size);
  char* guard_end = static_cast<char*>(block) + size + page_size();
  ::VirtualFree(guard_end - total, 0, MEM_RELEASE);
}

}  // namespace platform

namespace platform {

std::size_t secret_pages_size(std::size_t size) {
  const std::size_t page = page_size();
  return size == 0 ? page : (size + page - 1) / page * page;
}

// Locked with VirtualLock (kept out of the paging file) while the working
// set allows; Windows has no per-page exclusion from crash dumps, so nothing
// is done for dumps here.
void* alloc_secret_pages(std::size_t size) {
  if (size > SIZE_MAX / 2) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  const std::size_t total = secret_pages_size(size);
  void* block = ::VirtualAlloc(nullptr, total, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (block == nullptr) return nullptr;
  (void)::VirtualLock(block, total);
  return block;
}

void free_secret_pages(void* block, std::size_t size) {
  if (block == nullptr) return;
  (void)::VirtualUnlock(block, secret_pages_size(size));
  ::VirtualFree(block, 0, MEM_RELEASE);
}

}  // namespace platform
