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
// Thread-safety: an owner is used by the thread that made it. To the
// compiler's thread-safety analysis an owner holds g_scanner_lock (or
// g_tavio_lock) from construction to unlock() or the end of its scope, so a
// second release is refused at compile time. The analysis cannot see a wait
// that timed out: held() is the run-time answer.
#ifndef VEXO_SEMAPHORE_DEVICE_LOCK_H
#define VEXO_SEMAPHORE_DEVICE_LOCK_H

#include "common/rd_codes.h"
#include "platform/thread_annotations.h"
#include "semaphore/semaphore_syc.h"

// The machine-wide locks as the analysis names them; no state of their own.
class CAPABILITY("device lock") DeviceLockName {
 public:
  // Tells the analysis that the caller holds this lock where it cannot see
  // the owner that took it (a hold passed down through a library call).
  void AssertHeld() ASSERT_CAPABILITY(this) {}
};
extern DeviceLockName g_scanner_lock;
extern DeviceLockName g_tavio_lock;
struct ScannerLockFns {
  static int lock() { return Lock_Semaphore(); }
  static int unlock() { return Unlock_Semaphore(); }
  static DeviceLockName& name() RETURN_CAPABILITY(g_scanner_lock) { return g_scanner_lock; }
};
struct TavioLockFns {
  static int lock() { return Lock_Semaphore_Tavio(); }
  static int unlock() { return Unlock_Semaphore_Tavio(); }
  static DeviceLockName& name() RETURN_CAPABILITY(g_tavio_lock) { return g_tavio_lock; }
};

template <typename Fns>
class SCOPED_CAPABILITY ScopedDeviceLock {
 public:
  ScopedDeviceLock() ACQUIRE(Fns::name()) : result_(Fns::lock()) {}
  ~ScopedDeviceLock() RELEASE() {
    // A failed release here has no caller to report to; callers that must
    // report it call unlock() themselves.
    if (held()) (void)Fns::unlock();
  }
  ScopedDeviceLock(const ScopedDeviceLock&) = delete;
  ScopedDeviceLock& operator=(const ScopedDeviceLock&) = delete;

  // The result of the wait: 0 acquired, -1 no lock, -2 time-out or failure.
  int result() const { return result_; }
  bool held() const { return result_ == 0 && !released_; }
  // Releases now. The release's result (0, or -1); -1 also when not held.
  int unlock() RELEASE() {
    if (!held()) return rd_codes::kLockFailed;
    released_ = true;
    return Fns::unlock();
  }

 private:
  int result_;
  bool released_ = false;
};

using ScannerLock = ScopedDeviceLock<ScannerLockFns>;
using TavioLock = ScopedDeviceLock<TavioLockFns>;

#endif  // VEXO_SEMAPHORE_DEVICE_LOCK_H
