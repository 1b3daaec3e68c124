// The lock around the handheld device's commands. It is machine-wide, like
// the scanner locks: the serial port serves one process at a time, and a
// host that cannot have the device must answer busy at once.
#include <atomic>

#include "common/rd_log.h"
#include "platform/platform.h"
#include "semaphore/semaphore_syc.h"

namespace {

constexpr unsigned kTavioLockTimeoutMs = 2000;
// Its own name beside the scanner lock "Global\\QDX_WIN_009": a capture on the
// handheld holds this lock and then takes the scanner lock.
constexpr char kTavioLockName[] = "Global\\QDX_WIN_009_Tavio";

std::atomic<unsigned> g_tavio_timeout_ms{kTavioLockTimeoutMs};
// Created by start-up before the accept thread exists; read through the atomic.
std::atomic<platform::NamedLock*> g_tavio{nullptr};

}  // namespace

void set_tavio_lock_timeout_for_test(unsigned ms) { g_tavio_timeout_ms.store(ms); }

unsigned tavio_lock_timeout_ms() { return g_tavio_timeout_ms.load(); }

const char* tavio_lock_name() { return kTavioLockName; }

int init_semaphore_Tavio() {
  // Created once; a repeated start-up must not pull it from under a holder.
  if (g_tavio != nullptr) return 0;
  platform::NamedLock* lock = platform::named_lock_open(kTavioLockName);
  if (lock == nullptr) {
    report_lock_file(kTavioLockName, "Error in creation of Tavio Semaphore", __FILE__, __func__);
    return -1;
  }
  g_tavio.store(lock);
  return 0;
}

int Lock_Semaphore_Tavio() {
  platform::NamedLock* lock = g_tavio.load();
  int rc = lock != nullptr ? platform::named_lock_acquire(lock, tavio_lock_timeout_ms()) : -1;
  if (rc == 1) {
    RD_ERROR("sem_timedwait Tavio timeout");
    return -2;
  }
  if (rc != 0) {
    RD_ERROR("wait failed for Tavio Semaphore");
    return -2;
  }
  RD_VERBOSE("wait success for Tavio Semaphore");
  return 0;
}

int Unlock_Semaphore_Tavio() {
  platform::NamedLock* lock = g_tavio.load();
  if (lock == nullptr || platform::named_lock_release(lock) != 0) {
    RD_ERROR("error at sem_release for Tavio Semaphore");
    return -1;
  }
  return 0;
}

int close_semaphore_Tavio() {
  platform::named_lock_close(g_tavio.exchange(nullptr));
  return 0;
}
