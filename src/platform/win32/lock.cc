// Named locks: the design's named semaphores ("Global\\QDX_WIN_010"), initial
// and maximum count 1, so that threads of one process exclude each other as
// well as processes. A process remembers which of its names it holds, so that
// releasing a lock held by another process gives -1 instead of freeing it.
//
// Unlike the lock files of the POSIX build, a semaphore is not released when
// its holder dies; it goes away only when the last process that has it open
// ends.
#include <map>
#include <memory>

#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/shared.h"
#include "platform/win32/win32_util.h"

namespace platform {

// The locks are named kernel objects, not files: no folder unless one is
// set, and then the design's names unchanged.
std::string default_lock_dir() { return ""; }

namespace {

// What one process knows of one name; shared by every handle of that name.
struct LockState {
  win32::UniqueKernelHandle semaphore;
  Mutex mutex;
  bool held GUARDED_BY(mutex) = false;
};

Mutex g_registry_mutex;
std::map<std::string, std::weak_ptr<LockState>>& registry() REQUIRES(g_registry_mutex) {
  static auto* r = new std::map<std::string, std::weak_ptr<LockState>>();
  return *r;
}

// The object name. A test that moves the lock folder gets names of its own
// (the folder folded into the name), so that parallel test runs on one
// machine do not share locks; kernel object names take no "\\" after the
// namespace.
std::string object_name(const char* name) {
  const std::string dir = lock_dir();
  if (dir.empty()) return name;
  std::string tag = dir;
  for (char& c : tag) {
    if (c == '\\' || c == '/' || c == ':') c = '_';
  }
  return std::string(name) + "@" + tag;
}

// Every user's processes may wait on and release the lock; only the system
// and the administrators may change it.
constexpr const char* kSemaphoreSddl = "D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x00100002;;;AU)";
constexpr DWORD kSemaphoreRights = SYNCHRONIZE | SEMAPHORE_MODIFY_STATE;

HANDLE open_or_create(const std::string& name) {
  HANDLE h = ::OpenSemaphoreA(kSemaphoreRights, FALSE, name.c_str());
  if (h != nullptr || ::GetLastError() != ERROR_FILE_NOT_FOUND) return h;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!win32::descriptor_from_sddl(kSemaphoreSddl, &descriptor)) return nullptr;
  SECURITY_ATTRIBUTES sa{sizeof sa, descriptor, FALSE};
  // Another process may create it between the two calls; CreateSemaphoreA
  // then opens that one.
  h = ::CreateSemaphoreA(&sa, 1, 1, name.c_str());
  const DWORD saved = ::GetLastError();
  ::LocalFree(descriptor);
  ::SetLastError(saved);
  return h;
}

// 0 acquired, 1 time-out, -1 failure.
int wait_for(HANDLE h, unsigned timeout_ms) {
  switch (::WaitForSingleObject(h, timeout_ms)) {
    case WAIT_OBJECT_0:
      return 0;
    case WAIT_TIMEOUT:
      return 1;
    default:
      return -1;
  }
}

}  // namespace

struct NamedLock {
  std::shared_ptr<LockState> state;
};

NamedLock* named_lock_open(const char* name) {
  if (name == nullptr || *name == '\0') {
    ::SetLastError(ERROR_INVALID_NAME);
    return nullptr;
  }
  const std::string full = object_name(name);
  MutexLock guard(&g_registry_mutex);
  std::shared_ptr<LockState> state = registry()[full].lock();
  if (state == nullptr) {
    HANDLE h = open_or_create(full);
    if (h == nullptr) return nullptr;
    state = std::make_shared<LockState>();
    state->semaphore.reset(h);
    registry()[full] = state;
  }
  return new (std::nothrow) NamedLock{state};
}

int named_lock_acquire(NamedLock* lock, unsigned timeout_ms) {
  if (lock == nullptr || lock->state == nullptr) return -1;
  LockState& s = *lock->state;
  const int rc = wait_for(s.semaphore.get(), timeout_ms);
  if (rc == 0) {
    MutexLock guard(&s.mutex);
    s.held = true;
  }
  return rc;
}

int named_lock_release(NamedLock* lock) {
  if (lock == nullptr || lock->state == nullptr) return -1;
  LockState& s = *lock->state;
  MutexLock guard(&s.mutex);
  if (!s.held) return -1;
  if (!::ReleaseSemaphore(s.semaphore.get(), 1, nullptr)) return -1;
  s.held = false;
  return 0;
}

void named_lock_close(NamedLock* lock) { delete lock; }

}  // namespace platform
