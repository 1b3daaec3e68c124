// The mutex, scoped lock and condition variable of the library: std::mutex
// with the thread-safety attributes that libstdc++ leaves off, so that Clang
// checks every GUARDED_BY record against them.
//
//   platform::Mutex g_mutex;
//   std::string g_name GUARDED_BY(g_mutex);
//   ...
//   platform::MutexLock lock(&g_mutex);   // held until the scope ends
//   g_name = name;
//
// Thread-safety: a Mutex may be used from any thread; a MutexLock belongs to
// the thread that made it.
#ifndef VEXO_PLATFORM_MUTEX_H
#define VEXO_PLATFORM_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/thread_annotations.h"

namespace platform {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() { mu_.lock(); }
  void Unlock() RELEASE() { mu_.unlock(); }
  // Tells the analysis that the caller holds the mutex, where it cannot see
  // the lock taken (an object that holds it for its lifetime). No run-time check.
  void AssertHeld() ASSERT_CAPABILITY(this) {}

 private:
  friend class CondVar;
  std::mutex mu_;
};

// Holds the mutex from construction to the end of the scope. Unlock() gives
// it back early and Lock() takes it again; the destructor releases it only
// while it is held.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex* mu) ACQUIRE(mu) : mu_(mu) { mu_->Lock(); }
  ~MutexLock() RELEASE() {
    if (held_) mu_->Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Unlock() RELEASE() {
    held_ = false;
    mu_->Unlock();
  }
  void Lock() ACQUIRE() {
    mu_->Lock();
    held_ = true;
  }

 private:
  Mutex* const mu_;
  bool held_ = true;
};

// A condition variable; every wait names the mutex it releases, which the
// caller holds.
class CondVar {
 public:
  CondVar() = default;
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  // Releases mu while it waits and holds it again on return; false when the
  // deadline passed first. Wake-ups may be spurious: callers loop.
  bool WaitUntil(Mutex* mu, std::chrono::steady_clock::time_point deadline) REQUIRES(mu) {
    std::unique_lock<std::mutex> lock(mu->mu_, std::adopt_lock);
    const bool woken = cv_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return woken;
  }
  void Signal() { cv_.notify_one(); }
  void SignalAll() { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace platform

#endif  // VEXO_PLATFORM_MUTEX_H
