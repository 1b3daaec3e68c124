// Scripting of the simulated devices. Each simulated library reads the file
// "sim_control.ini" that sits beside it (found through its own address) at
// every entry-point call, so a test or a person can change a device's answers
// while the process runs. Keys may stand at the top of the file or under a
// [sim] section; sim/README.md lists them.
//
// Thread-safety: a ControlCall holds the library's one simulator mutex
// (g_sim_mutex) for its lifetime, so every entry point sees one consistent
// snapshot and its consumption of scripted lists is atomic. The simulated
// devices' state is guarded by the same mutex: entry points reach it in a
// body that guarded() runs, declared REQUIRES(simctl::g_sim_mutex).
#ifndef VEXO_SIM_CONTROL_H
#define VEXO_SIM_CONTROL_H

#include <iniparser.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/config_dict.h"
#include "platform/mutex.h"
#include "sim_codes.h"

namespace simctl {

// The simulator mutex of this library.
extern platform::Mutex g_sim_mutex;

// Absolute folder of the library that contains this code ("" if unknown).
const std::string& library_dir();
// Finds that folder from the loader (library_dir_SYSTEM.cc); called once,
// when the library is loaded.
std::string find_library_dir();

// One entry-point call's view of the control file. The constructor locks the
// simulator and rereads the file; when its content differs from the last one
// seen, every list position and counter starts again from zero.
class SCOPED_CAPABILITY ControlCall {
 public:
  ControlCall() ACQUIRE(g_sim_mutex);
  ~ControlCall() RELEASE() = default;
  ControlCall(const ControlCall&) = delete;
  ControlCall& operator=(const ControlCall&) = delete;

  // The text of key, or def when absent (also without a control file).
  std::string text(const char* key, const char* def) const;
  // The integer value of key; def when absent or not an integer.
  long number(const char* key, long def) const;
  // number() limited to [lo, hi].
  long bounded(const char* key, long def, long lo, long hi) const;
  // Next scripted value: the next unused entry of the comma-separated list
  // under list_key, then the value of single_key, then def.
  long next(const char* list_key, const char* single_key, long def) REQUIRES(g_sim_mutex);
  // A counter that starts at 0 with each new control-file content; returns its
  // value before the increment.
  unsigned long bump(const char* name) REQUIRES(g_sim_mutex);
  // With "call_log = 1", appends "name result\n" to sim_calls.log beside the library.
  void log_call(const char* name, long result) const;

 private:
  platform::MutexLock lock_;
  Dict dict_;
};

// Runs body with a fresh ControlCall and, unless name is null, records the
// call in the call log. Entry points are C functions: nothing escapes them.
template <typename F>
int guarded(const char* name, F&& body) noexcept {
  try {
    ControlCall c;
    const int r = body(c);
    if (name != nullptr) c.log_call(name, r);
    return r;
  } catch (...) {
    return SIM_ERR_BAD_PARAM;
  }
}

// A scripted result for the call named key: the next entry of "<key>_results",
// else "<key>_result", else 0 (no failure scripted).
int scripted(ControlCall& c, const std::string& key) REQUIRES(g_sim_mutex);

// Parses "0, -113,x,5" into {0, -113, 5}: entries that are not integers are skipped.
std::vector<long> parse_list(const std::string& text);

}  // namespace simctl

#endif  // VEXO_SIM_CONTROL_H
