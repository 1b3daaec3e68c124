// The process-local lock around the handheld device's commands.
#include <atomic>

#include "init/rd_log.h"
#include "platform/platform.h"
#include "semaphore/semaphore_syc.h"

namespace {

constexpr unsigned kTavioLockTimeoutMs = 2000;

std::atomic<unsigned> g_tavio_timeout_ms{kTavioLockTimeoutMs};
// Created by start-up before the accept thread exists; read through the atomic.
std::atomic<platform::LocalLock*> g_tavio{nullptr};

}  // namespace

void set_tavio_lock_timeout_for_test(unsigned ms) { g_tavio_timeout_ms.store(ms); }

unsigned tavio_lock_timeout_ms() { return g_tavio_timeout_ms.load(); }

int init_semaphore_Tavio() {
  // Created once; a repeated start-up must not pull it from under a holder.
  if (g_tavio != nullptr) return 0;
  platform::LocalLock* lock = platform::local_lock_create();
  if (lock == nullptr) {
    RD_ERROR("Error in creation of Tavio Semaphore");
    return -1;
  }
  g_tavio.store(lock);
  return 0;
}

int Lock_Semaphore_Tavio() {
  int rc = platform::local_lock_acquire(g_tavio.load(), tavio_lock_timeout_ms());
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
  if (platform::local_lock_release(g_tavio.load()) != 0) {
    RD_ERROR("error at sem_release for Tavio Semaphore");
    return -1;
  }
  return 0;
}

int close_semaphore_Tavio() {
  platform::local_lock_destroy(g_tavio.exchange(nullptr));
  return 0;
}
