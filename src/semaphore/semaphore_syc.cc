// The machine-wide lock per scanner model.
#include "semaphore/semaphore_syc.h"

#include <atomic>
#include <cstring>

#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "semaphore/device_lock.h"

using rd_codes::kLockFailed;
using rd_codes::kLockTimeout;
#include "platform/test_seams.h"

namespace {

struct ScannerLockName {
  const char* scanner;
  const char* lock;
};

// 003 belongs to no scanner; the numbering keeps the gap.
constexpr ScannerLockName kLockNames[] = {
    {"UAREU", "Global\\QDX_WIN_001"},       {"FUTRONIC", "Global\\QDX_WIN_002"},
    {"GEMALTO", "Global\\QDX_WIN_004"},     {"MANTRA", "Global\\QDX_WIN_005"},
    {"MORPHO", "Global\\QDX_WIN_006"},      {"SECUGEN", "Global\\QDX_WIN_007"},
    {"TX9", "Global\\QDX_WIN_008"},         {"Tavio_TX9", "Global\\QDX_WIN_009"},
    {"Aratek_A600", "Global\\QDX_WIN_010"}, {"Aratek_A400", "Global\\QDX_WIN_011"},
};

constexpr unsigned kLockTimeoutMs = 20000;

// The handle from creation and the one used for waiting and releasing; both
// name the same lock. Written only by init_semaphore during start-up (before
// the accept thread exists) and by semaphore_reset_for_test; request threads load the
// handle through the atomic. Never closed while the service runs.
platform::NamedLock* g_created = nullptr;
std::atomic<platform::NamedLock*> g_opened{nullptr};
const char* g_opened_name = nullptr;

}  // namespace

DeviceLockName g_scanner_lock;

void report_lock_file(const char* name, const char* failure, const char* module, const char* caller) {
  const int err = platform::last_error();
  RD_LOG_IN(module, caller);
  const std::string path = platform::named_lock_path(name);
  RD_ERROR("%s", failure);
  // A name taken by something else (another user's link or file) stops
  // start-up; the host shows which path to look at.
  RD_ERROR("Lock file %s cannot be used (errno %d)", path.c_str(), err);
  RD_STATUS("Lock file %s cannot be used (errno %d) ", path.c_str(), err);
}

const char* semaphore_name_for_scanner(const char* scanner_name) {
  if (scanner_name == nullptr) return nullptr;
  for (const auto& entry : kLockNames) {
    if (std::strcmp(entry.scanner, scanner_name) == 0) return entry.lock;
  }
  return nullptr;
}

unsigned lock_timeout_ms() { return test_seams::get(&test_seams::Seams::scanner_lock_ms).value_or(kLockTimeoutMs); }

void semaphore_reset_for_test() {
  platform::named_lock_close(g_created);
  platform::named_lock_close(g_opened.exchange(nullptr));
  g_created = nullptr;
  g_opened_name = nullptr;
  close_semaphore_Tavio();
}

int init_semaphore() {
  const std::string scanner = rd_scanner_name();
  const char* name = semaphore_name_for_scanner(scanner.c_str());
  if (name != nullptr && scanner == "Tavio_TX9") {
    if (init_semaphore_Tavio() != 0) return kLockFailed;
  }
  if (name == nullptr) {
    RD_ERROR("FP sensor is not valid sensor");
    return kLockFailed;
  }
  // A repeated start-up keeps the handles other threads may be waiting on.
  if (g_opened != nullptr && g_opened_name == name) return 0;
  platform::NamedLock* created = platform::named_lock_open(name);
  if (created == nullptr) {
    report_lock_file(name, "Create Semaphore Failed", __FILE__, __func__);
    return kLockFailed;
  }
  platform::named_lock_close(g_created);
  g_created = created;
  // The second look-up mirrors opening the object by name for lock and unlock.
  name = semaphore_name_for_scanner(scanner.c_str());
  if (name == nullptr) {
    RD_ERROR("scanner name is not a valid name");
    return kLockFailed;
  }
  // A failed open is only noticed by Lock_Semaphore, as "openSemaphore error".
  platform::NamedLock* opened = platform::named_lock_open(name);
  platform::named_lock_close(g_opened.exchange(opened));
  g_opened_name = opened != nullptr ? name : nullptr;
  return 0;
}

int Lock_Semaphore() {
  platform::NamedLock* lock = g_opened.load();
  if (lock == nullptr) {
    RD_ERROR("openSemaphore error");
    return kLockFailed;
  }
  int rc = platform::named_lock_acquire(lock, lock_timeout_ms());
  if (rc == 1) {
    RD_ERROR("sem_timedwait timeout");
    return kLockTimeout;
  }
  if (rc != 0) {
    RD_ERROR("wait failed");
    return kLockTimeout;
  }
  RD_VERBOSE("wait success");
  return 0;
}

int Unlock_Semaphore() {
  if (platform::named_lock_release(g_opened.load()) != 0) {
    RD_ERROR("error at sem_release");
    return kLockFailed;
  }
  return 0;
}
