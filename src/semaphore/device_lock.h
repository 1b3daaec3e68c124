// Scoped owners of the scanner lock and the handheld lock: the constructor
// waits for the lock, the destructor releases it if it is still held, so no
// path can leave a lock taken.
//
//   ScannerLock lock;                  // Lock_Semaphore()
//   if (!lock.held()) return ...;      // lock.result() is 0, -1 or -2
//   ...
//   if (lock.unlock() != 0) ...;       // release early when the result matters
//
// The owners are the library's only releases of a lock: code that runs under
// a caller's hold (the key read and the key rotation it may force) never
// releases it, so a hold is released once, by the owner that took it.
//
// Thread-safety: an owner is used by the thread that made it.
#ifndef VEXO_SEMAPHORE_DEVICE_LOCK_H
#define VEXO_SEMAPHORE_DEVICE_LOCK_H

#include "semaphore/semaphore_syc.h"

template <int (*LockFn)(), int (*UnlockFn)()>
class ScopedDeviceLock {
 public:
  ScopedDeviceLock() : result_(LockFn()) {}
  ~ScopedDeviceLock() {
    // A failed release here has no caller to report to; callers that must
    // report it call unlock() themselves.
    if (held()) (void)UnlockFn();
  }
  ScopedDeviceLock(const ScopedDeviceLock&) = delete;
  ScopedDeviceLock& operator=(const ScopedDeviceLock&) = delete;

  // The result of the wait: 0 acquired, -1 no lock, -2 time-out or failure.
  int result() const { return result_; }
  bool held() const { return result_ == 0 && !released_; }
  // Releases now. The release's result (0, or -1); -1 also when not held.
  int unlock() {
    if (!held()) return -1;
    released_ = true;
    return UnlockFn();
  }

 private:
  int result_;
  bool released_ = false;
};

using ScannerLock = ScopedDeviceLock<Lock_Semaphore, Unlock_Semaphore>;
using TavioLock = ScopedDeviceLock<Lock_Semaphore_Tavio, Unlock_Semaphore_Tavio>;

#endif  // VEXO_SEMAPHORE_DEVICE_LOCK_H
