// The host's Management plan: the call after each result and next action, the
// retry pauses with their real values, and the download progress it prints.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

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
  // One row per branch; the actions the schedule below meets (NO_ACTION_NECESSARY,
  // KEY_ROTATION, SOFTWARE_UPDATE, INIT_RETRY, KEY_ROTATION_RETRY) are left to it.
  const Row rows[] = {
      {Call::kInit, 0, "UIDAI_CERT_UPDATE", {Call::kUidaiCertUpdate, When::kNow}},
      {Call::kInit, -5, "TIME_STAMP_SYNC", {Call::kInit, When::kAtPoll}},
      {Call::kInit, -6, "DEVICE_NOT_REGISTERED", {Call::kInit, When::kAtPoll}},
      {Call::kInit, 0, "SOMETHING_NEW", {Call::kInit, When::kAtPoll}},
      // A follow-up: the action alone decides, except that no action after a failure means the pause.
      {Call::kUidaiCertUpdate, -5, "UIDAI_CERT_UPDATE_RETRY", {Call::kInit, When::kAfterPause}},
      {Call::kUidaiCertUpdate, -18, "", {Call::kInit, When::kAfterPause}},
      {Call::kUidaiCertUpdate, 0, "", {Call::kInit, When::kAtPoll}},
      {Call::kUidaiCertUpdate, 0, "UPDATE_STATUS", {Call::kInit, When::kAtPoll}},
      // Software_Update has no next action: Init at once to leave NOTREADY, or after the pause.
      {Call::kSoftwareUpdate, -5, "", {Call::kInit, When::kAfterPause}},
  };
  for (const Row& r : rows) {
    const Step got = host::next_step(r.done, r.rc, r.action);
    EXPECT_EQ(got, r.expected) << host::call_name(r.done) << " -> " << r.rc << ", " << r.action << ": got "
                               << host::call_name(got.call) << " when " << static_cast<int>(got.when);
  }
}

// The loop against servers that never let go, on a clock that moves only by
// the waits, with the real pause and poll: each call made, as "NAME@SECONDS".
TEST(HostPlan, ScheduleNeitherLoopsNorStalls) {
  using Answer = std::pair<int, std::string>;
  struct Row {
    const char* name;
    std::function<Answer(Call)> server;
    const char* calls;
  };
  auto ok = [](const char* init, const char* follow_up) {
    return [=](Call c) { return c == Call::kInit ? Answer{0, init} : Answer{0, follow_up}; };
  };
  auto failing = [](const char* init, const char* retry) {
    return [=](Call c) { return c == Call::kInit ? Answer{0, init} : Answer{-18, retry}; };
  };
  const Row rows[] = {
      {"a quiet server", ok("NO_ACTION_NECESSARY", ""),
       "Init@0 uidai_cert_force_update@0 Init@21600 Init@43200 Init@64800 Init@86400 Init@108000 Init@129600 "},
      {"a software update asked for again and again", ok("SOFTWARE_UPDATE", ""),
       "Init@0 uidai_cert_force_update@0 Software_Update@0 Init@0 Software_Update@30 Init@30 Software_Update@90 "
       "Init@90 "},
      {"a key rotation asked for again and again", ok("KEY_ROTATION", "KEY_ROTATION"),
       "Init@0 uidai_cert_force_update@0 Key_Rotation@0 Key_Rotation@30 Key_Rotation@90 Key_Rotation@210 "
       "Key_Rotation@450 Key_Rotation@930 "},
      {"a key rotation that keeps failing", failing("KEY_ROTATION", "KEY_ROTATION_RETRY"),
       "Init@0 uidai_cert_force_update@0 Key_Rotation@0 Init@30 Key_Rotation@30 Init@90 Key_Rotation@90 Init@210 "},
      {"no server",
       [](Call) {
         return Answer{-18, "INIT_RETRY"};
       },
       "Init@0 Init@30 Init@90 Init@210 Init@450 Init@930 Init@1890 Init@3810 "},
  };
  for (const Row& r : rows) {
    host::Schedule schedule(host::kRetryBaseMs, 21600 * 1000);
    host::Schedule::Next next = schedule.first();
    long long now = 0;
    std::string calls;
    for (int i = 0; i < 8; ++i) {
      now += next.wait_ms;
      schedule.started(next.call, now);
      calls += std::string(host::call_name(next.call)) + "@" + std::to_string(now / 1000) + " ";
      const auto [rc, action] = r.server(next.call);
      next = schedule.after(next.call, rc, action, now);
    }
    EXPECT_EQ(calls, r.calls) << r.name;
  }
}

// The real pauses double from 30 s (the schedule above, up to 1920 s) up to an
// hour; the test seam shortens the base only.
TEST(HostPlan, RetryPauseStopsAtAnHour) {
  EXPECT_EQ(host::retry_pause_ms(7), 3600000);
  EXPECT_EQ(host::retry_pause_ms(1000), 3600000);
  EXPECT_EQ(host::retry_pause_ms(3, 100), 800);
}

TEST(HostPlan, DownloadPercentFromTheResumeRecord) {
  struct Row {
    const char* record;
    bool ok;
    int percent;
  };
  const Row rows[] = {
      {"u|c|250000|1:2|In progress|", true, 50},
      {"u|c|250000|2:2|Completed|\n", true, 100},
      {"u|c|226|0:0|Completed|", true, 100},
      {"u|c|226|0:0|Completed", false, -1},
      {"u|c|226|0-0|Completed|", false, -1},
      {"u|c|226|3:2|In progress|", false, -1},
      {"u|c|-1|0:2|In progress|", false, -1},
  };
  for (const Row& r : rows) {
    int percent = -1;
    EXPECT_EQ(host::download_percent(r.record, &percent), r.ok) << r.record;
    EXPECT_EQ(percent, r.percent) << r.record;
  }
}

}  // namespace
