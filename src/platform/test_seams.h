// TEST-ONLY. Test seams: every value a test shortens, redirects or makes
// fail, in one record. Production code reads it; only tests write it (through
// the fixture of tests/test_util.h), and the service never does.
//
// A default-constructed record is the production behaviour: each field's
// default is its type's empty value (nullopt, "", 0, kNone), which leaves the
// module's real value in force. The module's own accessor (recv_wait_ms(),
// lock_timeout_ms(), ...) reports the value in force, and the tests assert the
// real ones through it.
//
// Thread-safety: the record is guarded by one mutex, and readers copy only
// the field they need. Until a test first writes the record no reader takes
// the mutex.
#ifndef VEXO_PLATFORM_TEST_SEAMS_H
#define VEXO_PLATFORM_TEST_SEAMS_H

#include <atomic>
#include <ctime>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace test_seams {

struct Seams {
  // ---------------------------------------------------------------- platform
  std::optional<std::time_t> now{};                                // platform::now(); -1 an unreadable clock
  std::string lock_dir{};                                          // wins over the configured lock folder
  std::optional<std::vector<platform::Adapter>> adapters{};        // instead of the system's list
  platform::WriteFault write_fault = platform::WriteFault::kNone;  // write_file_atomic fails there
  int crash_countdown = 0;  // the process kills itself (SIGKILL) at this crash point from now
  // ---------------------------------------------------------------- local service
  int first_port = 0;  // the listener's port range; 0: 11100..11120
  int last_port = 0;
  std::optional<int> recv_wait_ms{};          // a whole request (and an answer) must arrive within
  std::optional<int> accept_wait_ms{};        // the accept loop's select
  std::optional<unsigned> accept_pause_ms{};  // after each connection thread starts
  int dispatch_faults = 0;                    // the next dispatches throw std::bad_alloc
  // ---------------------------------------------------------------- devices
  std::optional<unsigned> scanner_lock_ms{};     // wait for the scanner lock
  std::optional<unsigned> handheld_lock_ms{};    // wait for the handheld lock
  std::optional<unsigned> postauth_retry_ms{};   // pause between tries to open the handheld's port
  std::optional<unsigned> beep_ms{};             // every beep of a capture
  std::optional<unsigned> recapture_pause_ms{};  // before a capture is taken again
  // ---------------------------------------------------------------- Management
  std::optional<long> mgmt_timeout_s{};      // a whole POST or GET to the server
  std::optional<long> download_timeout_s{};  // connect and range limits of a download
};

namespace detail {
extern std::atomic<bool> g_written;
std::mutex& mutex();
Seams& record();
}  // namespace detail

// Replaces the whole record; Seams{} restores production behaviour.
void set(const Seams& seams);
// Changes part of the record under its mutex.
void update(const std::function<void(Seams&)>& change);

// A copy of one field: get(&Seams::recv_wait_ms).
template <typename T>
T get(T Seams::*field) {
  if (!detail::g_written.load(std::memory_order_acquire)) return T{};
  std::lock_guard<std::mutex> lock(detail::mutex());
  return detail::record().*field;
}

// Counts a fault counter down by one while it is positive. Its value before
// the call: 0 when it had run out (or was never set).
int take(int Seams::*counter);

}  // namespace test_seams

#endif  // VEXO_PLATFORM_TEST_SEAMS_H
