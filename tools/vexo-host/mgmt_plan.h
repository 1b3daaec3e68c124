// The host's plan for the Management client: which export follows a call,
// given its result and the next action it left, and how long to wait first.
// Pure functions without state; the loop that calls the exports lives in
// mgmt_loop.
#ifndef VEXO_TOOLS_VEXO_HOST_MGMT_PLAN_H
#define VEXO_TOOLS_VEXO_HOST_MGMT_PLAN_H

#include <string>
#include <string_view>

namespace host {

// The exports the host drives, by the name it prints.
enum class Call { kInit, kKeyRotation, kUidaiCertUpdate, kSoftwareUpdate };

// When the next call runs: at once, after the growing retry pause, or at the
// next poll (--mgmt-poll).
enum class When { kNow, kAfterPause, kAtPoll };

struct Step {
  Call call;
  When when;
  bool operator==(const Step&) const = default;
};

// The export's name: "Init", "Key_Rotation", "uidai_cert_update", "Software_Update".
const char* call_name(Call call);

// The step after `done` returned rc and left `action` in its next-action
// buffer (the host clears the buffer before each call, so an empty action
// means the call wrote none; Software_Update has no buffer). A failed call
// that named no retry of its own (a send failure) is retried after the pause;
// Software_Update is retried until its package is in place, and then Init
// follows at once, as the host does not install the package itself.
Step next_step(Call done, int rc, std::string_view action);

// A plain explanation for the actions the host cannot act on itself
// ("TIME_STAMP_SYNC", "DEVICE_NOT_REGISTERED"); empty for any other.
std::string action_remark(std::string_view action);

// The retry pause: 30 s, doubled after each further failure, at most an hour.
constexpr long long kRetryBaseMs = 30 * 1000;
constexpr long long kRetryMaxMs = 3600 * 1000;

// The pause before retry number `failures` (0 for the first retry):
// base_ms doubled `failures` times, never above max_ms.
long long retry_pause_ms(int failures, long long base_ms = kRetryBaseMs, long long max_ms = kRetryMaxMs);

// The download's progress from the resume record "URL|CHECKSUM|SIZE|CURRENT:LAST|STATE|":
// CURRENT*100/LAST (100 for a one-chunk package, whose LAST is 0). Writes
// *percent and returns true; false, leaving *percent, when record is not one.
bool download_percent(std::string_view record, int* percent);

}  // namespace host

#endif  // VEXO_TOOLS_VEXO_HOST_MGMT_PLAN_H
