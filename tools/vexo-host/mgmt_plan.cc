#include "mgmt_plan.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace host {

namespace {

struct ActionRow {
  std::string_view action;
  Step step;
};

// What the host calls for each next action the server (or the library) names.
constexpr ActionRow kActions[] = {
    {"KEY_ROTATION", {Call::kKeyRotation, When::kNow}},
    {"UIDAI_CERT_UPDATE", {Call::kUidaiCertUpdate, When::kNow}},
    {"SOFTWARE_UPDATE", {Call::kSoftwareUpdate, When::kNow}},
    // A retry goes through Init: the server names the follow-up again when
    // it still wants it.
    {"INIT_RETRY", {Call::kInit, When::kAfterPause}},
    {"KEY_ROTATION_RETRY", {Call::kInit, When::kAfterPause}},
    {"UIDAI_CERT_UPDATE_RETRY", {Call::kInit, When::kAfterPause}},
    {"NO_ACTION_NECESSARY", {Call::kInit, When::kAtPoll}},
    // Neither is mended by asking again at once: the clock or the registry
    // has to change first.
    {"TIME_STAMP_SYNC", {Call::kInit, When::kAtPoll}},
    {"DEVICE_NOT_REGISTERED", {Call::kInit, When::kAtPoll}},
    // uidai_cert_update reports the status itself; seen here it ends the round.
    {"UPDATE_STATUS", {Call::kInit, When::kAtPoll}},
};

bool to_number(std::string_view text, long long* out) {
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return ec == std::errc() && end == text.data() + text.size() && *out >= 0;
}

}  // namespace

const char* call_name(Call call) {
  switch (call) {
    case Call::kInit:
      return "Init";
    case Call::kKeyRotation:
      return "Key_Rotation";
    case Call::kUidaiCertUpdate:
      return "uidai_cert_update";
    case Call::kSoftwareUpdate:
      return "Software_Update";
    case Call::kUidaiCertForceUpdate:
      return "uidai_cert_force_update";
  }
  return "?";
}

Step next_step(Call done, int rc, std::string_view action) {
  if (done == Call::kSoftwareUpdate) {
    // Software_Update leaves the service NOTREADY for the package to be
    // installed; this host installs nothing, so Init at once puts it back.
    return {Call::kInit, rc == 0 ? When::kNow : When::kAfterPause};
  }
  if (action.empty()) return {Call::kInit, rc == 0 ? When::kAtPoll : When::kAfterPause};
  for (const ActionRow& row : kActions) {
    if (row.action == action) return row.step;
  }
  // An action this host does not know: ask again at the next poll.
  return {Call::kInit, When::kAtPoll};
}

void Schedule::started(Call call, long long now_ms) {
  if (call == Call::kInit || call == Call::kUidaiCertForceUpdate) return;
  FollowUp& f = follow_up(call);
  f.last_start = now_ms;
  ++f.streak;
}

Schedule::Next Schedule::after(Call done, int rc, std::string_view action, long long now_ms) {
  if (done == Call::kInit && rc == 0 && !forced_update_done_) {
    forced_update_done_ = true;
    after_forced_update_ = next_step(done, rc, action);
    return {Call::kUidaiCertForceUpdate, 0, When::kNow};
  }
  return pace(done == Call::kUidaiCertForceUpdate ? after_forced_update_ : next_step(done, rc, action), now_ms);
}

Schedule::Next Schedule::request_init() {
  failures_ = 0;
  return {Call::kInit, 0, When::kNow};
}

Schedule::Next Schedule::pace(Step step, long long now_ms) {
  long long wait_ms = 0;
  if (step.when == When::kAfterPause) {
    wait_ms = retry_pause_ms(failures_++, base_ms_);
  } else if (step.when == When::kAtPoll) {
    // A quiet round: what failed or repeated before is forgotten.
    wait_ms = poll_ms_;
    failures_ = 0;
    for (FollowUp& f : follow_ups_) f.streak = 0;
  }
  // A follow-up asked for again within its back-off interval waits for the rest of it.
  if (step.call != Call::kInit && step.call != Call::kUidaiCertForceUpdate) {
    const FollowUp& f = follow_up(step.call);
    if (f.streak > 0) wait_ms = std::max(wait_ms, f.last_start + retry_pause_ms(f.streak - 1, base_ms_) - now_ms);
  }
  return {step.call, wait_ms, step.when};
}

std::string action_remark(std::string_view action) {
  if (action == "TIME_STAMP_SYNC") {
    return "this computer's clock differs from the Management server's; correct it, Init follows at the next poll";
  }
  if (action == "DEVICE_NOT_REGISTERED") {
    return "this scanner is not registered with the Management server; Init follows at the next poll";
  }
  return {};
}

long long retry_pause_ms(int failures, long long base_ms, long long max_ms) {
  long long pause = base_ms;
  for (int i = 0; i < failures && pause < max_ms; ++i) pause *= 2;
  return pause < max_ms ? pause : max_ms;
}

bool download_percent(std::string_view record, int* percent) {
  while (!record.empty() && (record.back() == '\n' || record.back() == '\r')) record.remove_suffix(1);
  std::vector<std::string_view> fields;
  for (std::size_t start = 0;;) {
    const std::size_t bar = record.find('|', start);
    if (bar == std::string_view::npos) {
      fields.push_back(record.substr(start));
      break;
    }
    fields.push_back(record.substr(start, bar - start));
    start = bar + 1;
  }
  // URL, checksum, size, "current:last", state and the empty text after the last bar.
  if (fields.size() != 6 || !fields[5].empty()) return false;
  const std::string_view chunks = fields[3];
  const std::size_t colon = chunks.find(':');
  long long size = 0, current = 0, last = 0;
  if (colon == std::string_view::npos || !to_number(fields[2], &size) ||
      !to_number(chunks.substr(0, colon), &current) || !to_number(chunks.substr(colon + 1), &last) || current > last) {
    return false;
  }
  *percent = last == 0 ? 100 : static_cast<int>(current * 100 / last);
  return true;
}

}  // namespace host
