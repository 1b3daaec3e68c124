// The test seams at rest: a default record leaves every value that the tests
// shorten or redirect at its real one, as the service runs with it.
#include <ctime>
#include <filesystem>

#include "common/request_reader.h"
#include "http/server.h"
#include "mgmt_core/download.h"
#include "platform/platform.h"
#include "postauth/postauth.h"
#include "rd_core/pidblock_A600.h"
#include "semaphore/semaphore_syc.h"
#include "test_util.h"
#include "web_service/curl_api.h"

namespace {

TEST(TestSeams, DefaultRecordLeavesTheRealValues) {
  test_seams::set({});
  const CaptureTiming t = capture_timing();
  const struct {
    const char* name;
    long long value, real;
  } rows[] = {
      {"request and answer wait", recv_wait_ms(), 60000},
      {"accept wait", accept_wait_ms(), 15000},
      {"pause between accepts", accept_pause_ms(), 100},
      {"first port", first_service_port(), 11100},
      {"last port", last_service_port(), 11120},
      {"scanner lock wait", lock_timeout_ms(), 20000},
      {"handheld lock wait", tavio_lock_timeout_ms(), 2000},
      {"PostAuth pause", postauth_retry_pause_ms(), 2000},
      {"prompt beep", t.prompt_beep_ms, 500},
      {"accepted beep", t.accepted_beep_ms, 900},
      {"low-quality beep", t.low_quality_beep_ms, 900},
      {"re-capture pause", t.recapture_pause_ms, 1500},
      {"pause between fingers", t.between_fingers_ms, 5},
      {"Management time-out", zelm_timeout_seconds(), 90},
      {"download range limit", download_range_seconds(), 60},
  };
  for (const auto& r : rows) EXPECT_EQ(r.value, r.real) << r.name;
  EXPECT_LE(std::abs(platform::now() - std::time(nullptr)), 1);

  // The lock folder: the package's when it exists, else the system's
  // temporary folder.
  EXPECT_EQ(platform::lock_dir(), std::filesystem::is_directory("/run/vexo") ? "/run/vexo" : "/tmp");

  // The system's adapters: index order, no loopback, no all-zero address.
  std::vector<platform::Adapter> real;
  ASSERT_EQ(platform::list_adapters(&real), 0);
  for (std::size_t i = 0; i < real.size(); ++i) {
    EXPECT_NE(real[i].name, "lo");
    EXPECT_FALSE(std::all_of(real[i].address, real[i].address + 6, [](std::uint8_t b) { return b == 0; }));
    if (i > 0) {
      EXPECT_LT(real[i - 1].index, real[i].index);
    }
  }
}

}  // namespace
