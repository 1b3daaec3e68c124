// The host's plan for the Management client: which export follows a call,
// given its result and the next action it left, and how long to wait first.
// No clock and no exports here: the loop that calls the exports lives in
// mgmt_loop and hands its times in.
#ifndef VEXO_TOOLS_VEXO_HOST_MGMT_PLAN_H
#define VEXO_TOOLS_VEXO_HOST_MGMT_PLAN_H

#include <string>
#include <string_view>

namespace host {

// The exports the host drives, by the name it prints.
enum class Call { kInit, kKeyRotation, kUidaiCertUpdate, kSoftwareUpdate, kUidaiCertForceUpdate };

// When the next call runs: at once, after the growing retry pause, or at the
// next poll (--mgmt-poll).
enum class When { kNow, kAfterPause, kAtPoll };

struct Step {
  Call call;
  When when;
  bool operator==(const Step&) const = default;
};

// The export's name: "Init", "Key_Rotation", "uidai_cert_update",
// "Software_Update", "uidai_cert_force_update".
const char* call_name(Call call);

// The step after `done` returned rc and left `action` in its next-action
// buffer (the host clears the buffer before each call, so an empty action
// means the call wrote none; Software_Update has no buffer). A failed call is
// followed by Init after the pause: a follow-up is never retried on its own,
// the server names it again when it is still wanted. A successful
// Software_Update is followed by Init at once, as the host does not install
// the package itself.
Step next_step(Call done, int rc, std::string_view action);

// The retry pause: 30 s, doubled after each further failure, at most an hour.
constexpr long long kRetryBaseMs = 30 * 1000;
constexpr long long kRetryMaxMs = 3600 * 1000;

// The pause before retry number `failures` (0 for the first retry):
// base_ms doubled `failures` times, never above max_ms.
long long retry_pause_ms(int failures, long long base_ms = kRetryBaseMs, long long max_ms = kRetryMaxMs);

// The loop's schedule over next_step, with what the plan alone cannot know:
// - failures in a row, which make the retry pause grow until a quiet round
//   (a step at the poll);
// - when each follow-up (Key_Rotation, uidai_cert_update, Software_Update)
//   last started: the same one runs at most once per back-off interval, which
//   grows like the retry pause while the server keeps asking for it;
// - uidai_cert_force_update runs once per run, right after the first
//   successful Init, whose own follow-up comes next.
// Times are milliseconds of any monotonic clock.
class Schedule {
 public:
  struct Next {
    Call call;
    long long wait_ms;
    When when;
  };
  Schedule(long long retry_base_ms, long long poll_ms) : base_ms_(retry_base_ms), poll_ms_(poll_ms) {}
  // The first call of a run: Init at once.
  Next first() const { return {Call::kInit, 0, When::kNow}; }
  // Records that call starts at now_ms.
  void started(Call call, long long now_ms);
  // What follows `done` returning rc and action at now_ms.
  Next after(Call done, int rc, std::string_view action, long long now_ms);
  // A call asked for from outside at now_ms: Init for a changed scanner (at
  // once, the failures forgotten), Software_Update for a capture that found
  // the UIDAI certificate out of date (paced like any follow-up).
  Next request(Call call, long long now_ms);

 private:
  struct FollowUp {
    long long last_start = 0;
    int streak = 0;  // starts since the last quiet round
  };
  Next pace(Step step, long long now_ms);
  FollowUp& follow_up(Call call) { return follow_ups_[static_cast<int>(call)]; }

  long long base_ms_;
  long long poll_ms_;
  int failures_ = 0;
  FollowUp follow_ups_[5];
  bool forced_update_done_ = false;
  Step after_forced_update_{Call::kInit, When::kAtPoll};
};

// A plain explanation for the actions the host cannot act on itself
// ("TIME_STAMP_SYNC", "DEVICE_NOT_REGISTERED"); empty for any other.
std::string action_remark(std::string_view action);

// The download's progress from the resume record "URL|CHECKSUM|SIZE|CURRENT:LAST|STATE|":
// CURRENT*100/LAST (100 for a one-chunk package, whose LAST is 0). Writes
// *percent and returns true; false, leaving *percent, when record is not one.
bool download_percent(std::string_view record, int* percent);

}  // namespace host

#endif  // VEXO_TOOLS_VEXO_HOST_MGMT_PLAN_H
