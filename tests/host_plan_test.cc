// The host's Management plan: the call after each result and next action, the
// retry pauses with their real values, and the download progress it prints.
#include <gtest/gtest.h>

#include <string>

#include "mgmt_plan.h"

namespace {

using host::Call;
using host::Step;
using host::When;

TEST(HostPlan, NextStepForEveryResultAndAction) {
  struct Row {
    Call done;
    int rc;
    const char* action;
    Step expected;
  };
  const Row rows[] = {
      // Init's answers.
      {Call::kInit, 0, "NO_ACTION_NECESSARY", {Call::kInit, When::kAtPoll}},
      {Call::kInit, 0, "KEY_ROTATION", {Call::kKeyRotation, When::kNow}},
      {Call::kInit, 0, "UIDAI_CERT_UPDATE", {Call::kUidaiCertUpdate, When::kNow}},
      {Call::kInit, 0, "SOFTWARE_UPDATE", {Call::kSoftwareUpdate, When::kNow}},
      {Call::kInit, -5, "TIME_STAMP_SYNC", {Call::kInit, When::kAtPoll}},
      {Call::kInit, -6, "DEVICE_NOT_REGISTERED", {Call::kInit, When::kAtPoll}},
      {Call::kInit, -16, "INIT_RETRY", {Call::kInit, When::kAfterPause}},
      {Call::kInit, -3, "INIT_RETRY", {Call::kInit, When::kAfterPause}},
      {Call::kInit, 0, "SOMETHING_NEW", {Call::kInit, When::kAtPoll}},
      // Key_Rotation: done, followed by what the server queued, or retried.
      {Call::kKeyRotation, 0, "NO_ACTION_NECESSARY", {Call::kInit, When::kAtPoll}},
      {Call::kKeyRotation, 0, "UIDAI_CERT_UPDATE", {Call::kUidaiCertUpdate, When::kNow}},
      {Call::kKeyRotation, 0, "SOFTWARE_UPDATE", {Call::kSoftwareUpdate, When::kNow}},
      {Call::kKeyRotation, -5, "KEY_ROTATION_RETRY", {Call::kKeyRotation, When::kAfterPause}},
      {Call::kKeyRotation, -7, "KEY_ROTATION_RETRY", {Call::kKeyRotation, When::kAfterPause}},
      // uidai_cert_update: a send failure writes no action and is retried too.
      {Call::kUidaiCertUpdate, 0, "NO_ACTION_NECESSARY", {Call::kInit, When::kAtPoll}},
      {Call::kUidaiCertUpdate, 0, "SOFTWARE_UPDATE", {Call::kSoftwareUpdate, When::kNow}},
      {Call::kUidaiCertUpdate, -5, "UIDAI_CERT_UPDATE_RETRY", {Call::kUidaiCertUpdate, When::kAfterPause}},
      {Call::kUidaiCertUpdate, -4, "UIDAI_CERT_UPDATE_RETRY", {Call::kUidaiCertUpdate, When::kAfterPause}},
      {Call::kUidaiCertUpdate, -6, "NO_ACTION_NECESSARY", {Call::kInit, When::kAtPoll}},
      {Call::kUidaiCertUpdate, -2, "", {Call::kUidaiCertUpdate, When::kAfterPause}},
      {Call::kUidaiCertUpdate, 0, "", {Call::kInit, When::kAtPoll}},
      {Call::kUidaiCertUpdate, 0, "UPDATE_STATUS", {Call::kInit, When::kAtPoll}},
      // Software_Update has no next action: Init at once to leave NOTREADY, or tried again.
      {Call::kSoftwareUpdate, 0, "", {Call::kInit, When::kNow}},
      {Call::kSoftwareUpdate, -5, "", {Call::kSoftwareUpdate, When::kAfterPause}},
      {Call::kSoftwareUpdate, -2, "", {Call::kSoftwareUpdate, When::kAfterPause}},
  };
  for (const Row& r : rows) {
    const Step got = host::next_step(r.done, r.rc, r.action);
    EXPECT_EQ(got, r.expected) << host::call_name(r.done) << " -> " << r.rc << ", " << r.action << ": got "
                               << host::call_name(got.call) << " when " << static_cast<int>(got.when);
  }
}

TEST(HostPlan, RefusalsAreExplainedAndOthersAreNot) {
  EXPECT_NE(host::action_remark("TIME_STAMP_SYNC").find("clock"), std::string::npos);
  EXPECT_NE(host::action_remark("DEVICE_NOT_REGISTERED").find("not registered"), std::string::npos);
  for (const char* quiet : {"", "NO_ACTION_NECESSARY", "KEY_ROTATION", "INIT_RETRY"}) {
    EXPECT_EQ(host::action_remark(quiet), "") << quiet;
  }
}

// The real pauses: 30 s, doubling, at most one hour.
TEST(HostPlan, RetryPauseDoublesFromThirtySecondsUpToAnHour) {
  EXPECT_EQ(host::kRetryBaseMs, 30000);
  EXPECT_EQ(host::kRetryMaxMs, 3600000);
  const long long expected[] = {30000, 60000, 120000, 240000, 480000, 960000, 1920000, 3600000, 3600000};
  for (int n = 0; n < 9; ++n) EXPECT_EQ(host::retry_pause_ms(n), expected[n]) << n;
  EXPECT_EQ(host::retry_pause_ms(1000), 3600000);
  // The test seam shortens the base only.
  EXPECT_EQ(host::retry_pause_ms(0, 100), 100);
  EXPECT_EQ(host::retry_pause_ms(3, 100), 800);
}

TEST(HostPlan, DownloadPercentFromTheResumeRecord) {
  struct Row {
    const char* record;
    bool ok;
    int percent;
  };
  const Row rows[] = {
      {"https://127.0.0.1/files/packages/p.zip|0cc175b9c0f1b6a831c399e269772661|250000|0:2|In progress|", true, 0},
      {"https://127.0.0.1/files/packages/p.zip|0cc175b9c0f1b6a831c399e269772661|250000|1:2|In progress|", true, 50},
      {"https://127.0.0.1/files/packages/p.zip|0cc175b9c0f1b6a831c399e269772661|250000|2:2|Completed|\n", true, 100},
      {"u|c|512000|2:5|In progress|", true, 40},
      {"u|c|226|0:0|Completed|", true, 100},
      {"", false, -1},
      {"u|c|226|0:0|Completed", false, -1},
      {"u|c|226|0-0|Completed|", false, -1},
      {"u|c|226|3:2|In progress|", false, -1},
      {"u|c|226|x:2|In progress|", false, -1},
      {"u|c|-1|0:2|In progress|", false, -1},
      {"u|c|226|0:2|In progress|extra|", false, -1},
  };
  for (const Row& r : rows) {
    int percent = -1;
    EXPECT_EQ(host::download_percent(r.record, &percent), r.ok) << r.record;
    EXPECT_EQ(percent, r.percent) << r.record;
  }
}

}  // namespace
