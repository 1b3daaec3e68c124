#include "mgmt_plan.h"

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
    {"KEY_ROTATION_RETRY", {Call::kKeyRotation, When::kAfterPause}},
    {"UIDAI_CERT_UPDATE", {Call::kUidaiCertUpdate, When::kNow}},
    {"UIDAI_CERT_UPDATE_RETRY", {Call::kUidaiCertUpdate, When::kAfterPause}},
    {"SOFTWARE_UPDATE", {Call::kSoftwareUpdate, When::kNow}},
    {"INIT_RETRY", {Call::kInit, When::kAfterPause}},
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
  }
  return "?";
}

Step next_step(Call done, int rc, std::string_view action) {
  if (done == Call::kSoftwareUpdate) {
    // Software_Update leaves the service NOTREADY for the package to be
    // installed; this host installs nothing, so Init at once puts it back.
    return rc == 0 ? Step{Call::kInit, When::kNow} : Step{Call::kSoftwareUpdate, When::kAfterPause};
  }
  if (action.empty()) return rc == 0 ? Step{Call::kInit, When::kAtPoll} : Step{done, When::kAfterPause};
  for (const ActionRow& row : kActions) {
    if (row.action == action) return row.step;
  }
  // An action this host does not know: ask again at the next poll.
  return {Call::kInit, When::kAtPoll};
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
      !to_number(chunks.substr(0, colon), &current) || !to_number(chunks.substr(colon + 1), &last) ||
      current > last) {
    return false;
  }
  *percent = last == 0 ? 100 : static_cast<int>(current * 100 / last);
  return true;
}

}  // namespace host
