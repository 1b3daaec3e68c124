// The host's Management loop: Init after start-up, uidai_cert_force_update
// once after the first successful Init, then the call each next action names
// (mgmt_plan), and Init again every poll and after a changed scanner is
// attached. A capture that wants Software_Update makes the next Init name it.
// Each call is printed on one line with its result and next action; a
// running Software_Update prints the download's progress.
//
// Thread-safety: the loop runs on a thread of its own, the only one that calls
// the Management exports; request_init and stop may be called from any thread.
#ifndef VEXO_TOOLS_VEXO_HOST_MGMT_LOOP_H
#define VEXO_TOOLS_VEXO_HOST_MGMT_LOOP_H

#include <memory>

namespace host {

// The library's exports the loop calls.
struct MgmtExports {
  int (*Init)(char*) = nullptr;
  int (*Key_Rotation)(char*, const char*) = nullptr;
  int (*Software_Update)() = nullptr;
  int (*uidai_cert_update)(char*) = nullptr;
  int (*uidai_cert_force_update)(char*) = nullptr;
  int (*Get_Last_RDservice_Status)(char*) = nullptr;
};

struct MgmtOptions {
  long long poll_ms = 21600LL * 1000;  // Init again after this long
  long long retry_base_ms = 0;         // first retry pause; 0 takes kRetryBaseMs
};

// The loop's wake-up flags, shared by the loop's thread and its owner.
struct MgmtLoopState;

class MgmtLoop {
 public:
  // Starts the loop; its first call is Init. REQUIRES: every export bound.
  MgmtLoop(const MgmtExports& exports, const MgmtOptions& options);
  // Stops the loop (see stop).
  ~MgmtLoop();
  MgmtLoop(const MgmtLoop&) = delete;
  MgmtLoop& operator=(const MgmtLoop&) = delete;

  // A different scanner was attached: Init at once, instead of any wait or
  // retry that was due.
  void request_init();
  // Ends the loop at its next wait. A call in progress (an exchange may take
  // 90 s) is not waited for: the process may end under it, as under the
  // library's own threads.
  void stop();

 private:
  std::shared_ptr<MgmtLoopState> shared_;
};

}  // namespace host

#endif  // VEXO_TOOLS_VEXO_HOST_MGMT_LOOP_H
