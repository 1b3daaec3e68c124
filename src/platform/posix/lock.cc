// Named locks: a lock file per name held with an open-file-description lock,
// which the kernel drops when the holder dies, plus a per-process binary
// semaphore so that threads of one process exclude each other as well (OFD
// locks alone would let two handles of one process conflict, but not two
// threads sharing one handle).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <memory>

#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/shared.h"

namespace platform {

std::string default_lock_dir() {
  struct stat st {};
  return ::stat("/run/vexo", &st) == 0 && S_ISDIR(st.st_mode) ? "/run/vexo" : "/tmp";
}

namespace {

// How often a waiter retries the file lock held by another process.
constexpr unsigned kPollMs = 5;

// The process-local half of a named lock, shared by every handle of one name.
// fd and owner_pid are set before the state is shared, and never change.
struct LockState {
  Mutex mutex;
  CondVar cv;
  bool held GUARDED_BY(mutex) = false;    // acquired and not yet released
  bool taking GUARDED_BY(mutex) = false;  // a thread has the local half and polls the file lock
  int fd = -1;
  pid_t owner_pid = 0;  // the process that opened fd; a forked child reopens
  ~LockState() {
    if (fd >= 0) ::close(fd);
  }
};

Mutex g_registry_mutex;
std::map<std::string, std::weak_ptr<LockState>>& registry() REQUIRES(g_registry_mutex) {
  static auto* r = new std::map<std::string, std::weak_ptr<LockState>>();
  return *r;
}

// Opens the lock file at path without following a symbolic link or blocking
// (a FIFO or a device planted there must not hang start-up). A file made
// here is opened to every user; one that exists is only checked. -1 with
// errno on failure.
int open_lock_file(const std::string& path) {
  constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int fd = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0666);
  if (fd >= 0) {
    // This process made the file: widen what the umask narrowed, so that
    // the services of other users open the same lock. Failing that only
    // limits sharing.
    (void)::fchmod(fd, 0666);
    return fd;
  }
  if (errno != EEXIST) return -1;
  // O_EXCL never follows a link, so a planted link also lands here, and the
  // open below refuses it with ELOOP.
  fd = ::open(path.c_str(), kFlags);
  if (fd < 0) return -1;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1) {
    // A hard link could make another file the lock; anything but a plain
    // file is not ours to use.
    ::close(fd);
    errno = EEXIST;
    return -1;
  }
  return fd;
}

int ofd_lock(int fd, short type) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  return ::fcntl(fd, F_OFD_SETLK, &fl);
}

using Deadline = std::chrono::steady_clock::time_point;

Deadline deadline_after(unsigned timeout_ms) {
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
}

}  // namespace

struct NamedLock {
  std::shared_ptr<LockState> state;
};

NamedLock* named_lock_open(const char* name) {
  if (name == nullptr || *name == '\0') {
    errno = EINVAL;
    return nullptr;
  }
  const std::string path = named_lock_path(name);
  MutexLock guard(&g_registry_mutex);
  auto& reg = registry();
  std::shared_ptr<LockState> state = reg[path].lock();
  if (state == nullptr || state->owner_pid != ::getpid()) {
    int fd = open_lock_file(path);
    if (fd < 0) return nullptr;
    auto fresh = std::make_shared<LockState>();
    fresh->fd = fd;
    fresh->owner_pid = ::getpid();
    // A state inherited across fork shares the parent's open file description
    // and so its lock; the child gets its own. Closing the inherited
    // descriptor later does not drop the parent's lock.
    state = fresh;
    reg[path] = state;
  }
  return new NamedLock{state};
}

namespace {

// A handle inherited across fork shares the parent's open file description;
// using it would take or drop the parent's lock, so it is refused.
bool usable(const NamedLock* lock) {
  return lock != nullptr && lock->state != nullptr && lock->state->owner_pid == ::getpid();
}

}  // namespace

int named_lock_acquire(NamedLock* lock, unsigned timeout_ms) {
  if (!usable(lock)) return -1;
  LockState& s = *lock->state;
  const Deadline deadline = deadline_after(timeout_ms);
  MutexLock guard(&s.mutex);
  while (s.held || s.taking) {
    if (!s.cv.WaitUntil(&s.mutex, deadline) && (s.held || s.taking)) return 1;
  }
  // The local half is ours; now the file lock against other processes.
  s.taking = true;
  for (;;) {
    if (ofd_lock(s.fd, F_WRLCK) == 0) {
      s.taking = false;
      s.held = true;
      return 0;
    }
    int err = errno;
    bool failed = err != EAGAIN && err != EACCES && err != EINTR;
    if (failed || std::chrono::steady_clock::now() >= deadline) {
      s.taking = false;
      s.cv.SignalAll();
      errno = err;
      return failed ? -1 : 1;
    }
    // "taking" keeps other threads out while the mutex is dropped for the
    // pause, so a release on another thread is never blocked by the poll.
    guard.Unlock();
    sleep_ms(kPollMs);
    guard.Lock();
  }
}

int named_lock_release(NamedLock* lock) {
  if (!usable(lock)) return -1;
  LockState& s = *lock->state;
  MutexLock guard(&s.mutex);
  if (!s.held) return -1;
  if (ofd_lock(s.fd, F_UNLCK) != 0) return -1;
  s.held = false;
  s.cv.SignalAll();
  return 0;
}

void named_lock_close(NamedLock* lock) { delete lock; }

}  // namespace platform
