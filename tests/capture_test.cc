// Fingerprint acquisition and the whole capture driver through the simulated
// scanner (scripted by its control file), the real keystore and the status
// pipe, with openjpeg to read back the images. The records' signatures and
// their place in the Pid: CaptureEndToEnd.CapturesOpenWithTheUidaiKey.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "common/hash.h"
#include "common/rd_config.h"
#include "common/rd_status.h"
#include "jp2_test_util.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "platform/test_seams.h"
#include "rd_core/pidblock_A600.h"
#include "rd_core/scanner.h"
#include "semaphore/semaphore_syc.h"
#include "sim_control.h"
#include "test_sys.h"
#include "test_util.h"

namespace {

const char kTs[] = "2016-01-21T12:34:56";

// The simulator libraries stay loaded for the life of the process: one copy
// of them per process, in a folder of its own below the system's temporary
// folder, removed when the program ends.
class SimFolder : public ::testing::Environment {
 public:
  void SetUp() override {
    base_ = std::filesystem::temp_directory_path() / ("vexo_capture_sim_" + std::to_string(testsys::process_id()));
    std::filesystem::create_directories(base_);
    refdll = sim::install_refdll(base_.string());
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(base_, ec);
  }
  static inline std::string refdll;

 private:
  std::filesystem::path base_;
};
const auto* const g_sim_env = ::testing::AddGlobalTestEnvironment(new SimFolder);

// value as n big-endian bytes, in hex.
std::string hex_be(std::uint64_t value, int n) {
  char text[17];
  std::snprintf(text, sizeof text, "%0*llx", 2 * n, static_cast<unsigned long long>(value));
  return text;
}

PidOptionsRequest make_request(int fcount, int ftype, std::vector<std::string> positions) {
  PidOptionsRequest r;
  r.ver = "2.0";
  r.finger_requested = fcount > 0 ? 1 : 0;
  r.fCount = fcount;
  r.fType = ftype;
  r.positions = std::move(positions);
  return r;
}

using testutil::count_of;

// The library fixture, plus a device key, the simulated scanner loaded and
// the scanner lock held, as a request holds it during a capture.
class CaptureTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    rd_config_update([&](RdConfig& r) {
      r.dev_pub_key_validity = "1440";
      r.rd_ver = "1.0.0";
    });
    set_device_serial("SIM0000001");
    ASSERT_EQ(init_semaphore(), 0);
    std::string device_cert;
    ASSERT_EQ(GenerateKeyPair(&device_cert), 0) << log();
    refdll_ = SimFolder::refdll;
    ASSERT_EQ(dll_loading(refdll_.c_str()), 0);
    int g = aratek_sdk().GlobalInit();
    ASSERT_TRUE(g == 0 || g == ARAFPSCAN_ERROR_ALREADY_INIT) << g;
    // No beeps or pauses unless a case asks for them.
    seams([](testutil::Seams& s) {
      s.beep_ms = 0u;
      s.recapture_pause_ms = 0u;
    });
    ASSERT_EQ(Lock_Semaphore(), 0);
  }

  void TearDown() override {
    Unlock_Semaphore();
    LibraryTest::TearDown();
  }

  // Scripts the scanner: no wait per capture, plus the given keys.
  void script(sim::Keys keys) {
    keys.emplace_back("capture_wait_ms", "0");
    keys.emplace_back("call_log", "1");
    std::error_code ec;
    std::filesystem::remove(refdll_ + "/sim_calls.log", ec);
    sim::write_control(refdll_, keys);
  }
  std::string calls() { return sim::call_log(refdll_); }
  std::string log() { return testutil::read_file("rd.log"); }
  // Pipe messages so far, once the last one expected has arrived after
  // offset from (an earlier case may have sent the same text).
  std::string pipe_text(const std::string& last, std::size_t from = 0) {
    pipe_->wait_for(last, 5000, from);
    return pipe_->received();
  }

  std::string refdll_;
};

TEST_F(CaptureTest, WaitRule) {
  struct Case {
    int given, timeout, seconds;
  } cases[] = {{0, 5000, 20}, {1, 1999, 1}, {1, 0, 0}, {1, -5, 0}};
  for (const Case& c : cases) {
    PidOptionsRequest r;
    r.timeout_given = c.given;
    r.timeout = c.timeout;
    EXPECT_EQ(capture_wait_seconds(r), c.seconds) << c.given << " " << c.timeout;
  }

  // Through a capture: the wait is logged and the request's time-out is used up.
  script({});
  PidOptionsRequest r = make_request(1, 0, {"UNKNOWN"});
  r.timeout_given = 1;
  r.timeout = 999;
  std::vector<CapturedFinger> fingers;
  ASSERT_EQ(FP_Cap(&fingers, r, kTs), 0);
  EXPECT_EQ(r.timeout_given, 0);
  EXPECT_NE(log().find("Timeout value is 0\n"), std::string::npos);
  ASSERT_EQ(FP_Cap(&fingers, r, kTs), 0);
  EXPECT_NE(log().find("Timeout value is 20\n"), std::string::npos);
}

TEST_F(CaptureTest, PromptsNameEachFinger) {
  // The prompts on the pipe, and "Remove Finger" only between two fingers.
  struct Prompts {
    std::vector<std::string> positions;
    std::string expected;
  } runs[] = {
      {{}, "10000|Put Finger\n"},
      {{"LEFT_INDEX"}, "10000|Put Left Index Finger\n"},
      {{"RIGHT_LITTLE", "LEFT_THUMB"},
       "10000|Put Right Little Finger\n10000|Remove Finger\n10000|Put Left Thumb Finger\n"},
  };
  std::string before;
  for (const Prompts& p : runs) {
    script({});
    PidOptionsRequest r = make_request(p.positions.empty() ? 1 : static_cast<int>(p.positions.size()), 0, p.positions);
    std::vector<CapturedFinger> fingers;
    ASSERT_EQ(FP_Cap(&fingers, r, kTs), 0);
    std::string all = pipe_text(p.expected, before.size());
    EXPECT_EQ(all.substr(before.size()), p.expected);
    before = all;
    ASSERT_EQ(fingers.size(), r.positions.empty() ? 1u : r.positions.size());
    EXPECT_EQ(fingers[0].position, p.positions.empty() ? "UNKNOWN" : p.positions[0]);
  }
}

TEST_F(CaptureTest, FailuresGiveTheirCodesAndCloseTheDevice) {
  struct Case {
    sim::Keys keys;
    int rc;
    const char* log_line;
    const char* pipe;  // "" when nothing is piped after the prompt
    bool opened;
  } cases[] = {
      {{{"capture_results", "-113"}}, 700, "Image capture got timed out", "5000|Capture Timeout\n", true},
      {{{"capture_results", "-5"}},
       730,
       "capturing Raw data is failed with error code -5",
       "5000|Capture Failed\n",
       true},
      {{{"open_result", "-1"}},
       -1,
       "opening fp device failed",
       "5000|Aratek fingerprint scanner:|opening fp device failed\n",
       false},
      {{{"image_info_result", "-9"}}, -1, "Getting Image info is failed", "5000|Getting Image info failed\n", true},
      {{{"led_results", "-7"}}, -1, "Turn_On_Green light failed", "", true},
      {{{"led_results", "0,-7"}}, -1, "Turn_Off_Green light failed", "", true},
      {{{"nfiq_result", "-4"}}, -1, "Getting Nfiq value failed", "", true},
      {{{"quality_result", "-4"}}, -1, "Getting Image quality failed", "", true},
      {{{"extract_result", "-4"}}, -1, "Extracting ISO Features failed", "", true},
      {{{"feature_length_result", "-4"}}, -1, "Extracting ISO Features failed", "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log_line);
    script(c.keys);
    PidOptionsRequest r = make_request(2, 2, {"LEFT_INDEX", "RIGHT_INDEX"});
    std::vector<CapturedFinger> fingers(1);
    EXPECT_EQ(FP_Cap(&fingers, r, kTs), c.rc);
    EXPECT_TRUE(fingers.empty());
    EXPECT_NE(log().find(std::string(c.log_line) + "\n"), std::string::npos);
    if (*c.pipe != '\0') {
      EXPECT_TRUE(pipe_->wait_for(c.pipe)) << pipe_->received();
    }
    const std::string trace = calls();
    if (c.opened) {
      EXPECT_NE(trace.find("ARAFPSCAN_CloseDevice 0\n"), std::string::npos) << trace;
    } else {
      EXPECT_EQ(trace.find("ARAFPSCAN_CloseDevice"), std::string::npos) << trace;
    }
  }
  EXPECT_NE(
      testutil::last_status().find(" | pidblock_A600 | FP_Cap | Aratek fingerprint scanner: opening fp device failed"),
      std::string::npos);
}

TEST_F(CaptureTest, LowNfiqIsCapturedAgainUpToThreeTimes) {
  // NFIQ 4 then 3: one re-capture, accepted.
  script({{"nfiq_scores", "4,3"}});
  PidOptionsRequest r = make_request(1, 0, {"LEFT_RING"});
  std::vector<CapturedFinger> fingers;
  ASSERT_EQ(FP_Cap(&fingers, r, kTs), 0);
  ASSERT_EQ(fingers.size(), 1u);
  EXPECT_EQ(fingers[0].nfiq, 3);
  EXPECT_EQ(count_of(calls(), "ARAFPSCAN_CaptureRawData 0"), 2);
  EXPECT_EQ(count_of(pipe_text("3000|Low Quality Image\n"), "3000|Low Quality Image\n"), 1);
  EXPECT_NE(log().find("Nfiq value is 4, going for re-capture\n"), std::string::npos);

  // Three NFIQ 4 images: -1 after two pauses.
  const unsigned kPause = 150;
  seams([&](testutil::Seams& s) { s.recapture_pause_ms = kPause; });
  script({{"nfiq_scores", "4,5,4,2"}});
  const std::uint64_t start = platform::monotonic_ms();
  EXPECT_EQ(FP_Cap(&fingers, r, kTs), -1);
  const std::uint64_t elapsed = platform::monotonic_ms() - start;
  // Two pauses, each right after its re-capture log line; none after the last
  // rejected image. (No upper bound on the time: the machine may be busy.)
  EXPECT_GE(elapsed, 2 * kPause);
  EXPECT_EQ(count_of(log(), "going for re-capture\n"), 1 + 2);
  EXPECT_TRUE(testutil::wait_until([&] { return count_of(pipe_->received(), "3000|Low Quality Image\n") == 1 + 3; }));
  EXPECT_TRUE(fingers.empty());
  EXPECT_EQ(count_of(calls(), "ARAFPSCAN_CaptureRawData 0"), 3);
  EXPECT_NE(log().find("Quality of finger is too low, failed to capture bio data\n"), std::string::npos);
  EXPECT_NE(testutil::last_status().find(
                " | pidblock_A600 | FP_Cap | Quality of fingerprint image is too low, failed to capture bio data "),
            std::string::npos)
      << testutil::last_status();
}

// An image-only request: one FIR record per finger with the scanner's quality
// and no minutiae; its header and its JPEG 2000. (Minutiae records, and both
// kinds in order: CaptureEndToEnd.CapturesOpenWithTheUidaiKey.)
TEST_F(CaptureTest, ImageRecordsCarryTheScannerValues) {
  script({{"minutiae_count", "25"},
          {"quality", "64"},
          {"image_width", "300"},
          {"image_height", "400"},
          {"resolution", "1000"}});
  PidOptionsRequest r = make_request(2, 1, {"LEFT_INDEX", "RIGHT_THUMB"});
  std::vector<CapturedFinger> fingers;
  ASSERT_EQ(FP_Cap(&fingers, r, kTs), 0);
  ASSERT_EQ(fingers.size(), 2u);
  for (const CapturedFinger& f : fingers) {
    EXPECT_EQ(f.qScore, 64);
    EXPECT_EQ(f.nmPoints, 0);
    ASSERT_EQ(f.records.size(), 1u);
    EXPECT_TRUE(f.records[0].image);
    const std::vector<std::uint8_t>& b = f.records[0].bytes;
    ASSERT_GT(b.size(), kFirHeaderSize);
    const std::size_t image_len = b.size() - kFirHeaderSize;
    // The 46-byte header: "FIR", "010", the record's length, device 0,
    // acquisition level 30, one finger, in ppi: 1000 four times, 8 bits,
    // JPEG 2000 (4); then the view: its length, position 0, view 1 of 1,
    // quality 64, impression 0, 300 x 400.
    const std::string header = "4649520030313000" + hex_be(b.size(), 6) + "0000001e010103e803e803e803e80804" + "0000" +
                               hex_be(14 + image_len, 4) + "00010140" + "00012c019000";
    EXPECT_EQ(hex_lower(std::span(b.data(), kFirHeaderSize)), header);
    jp2test::DecodedImage img;
    ASSERT_TRUE(jp2test::decode_jp2(b.data() + kFirHeaderSize, image_len, &img));
    EXPECT_EQ(img.width, 300);
    EXPECT_EQ(img.height, 400);
  }
}

TEST_F(CaptureTest, NoFingersAndUnreadableKey) {
  // fCount 0: the device is opened and closed, nothing captured.
  script({});
  PidOptionsRequest none = make_request(0, 0, {});
  std::vector<CapturedFinger> fingers;
  EXPECT_EQ(FP_Cap(&fingers, none, kTs), 0);
  EXPECT_TRUE(fingers.empty());
  EXPECT_EQ(calls().find("ARAFPSCAN_CaptureRawData"), std::string::npos);
  EXPECT_NE(calls().find("ARAFPSCAN_CloseDevice 0"), std::string::npos);

  // Without the device key no record can be signed.
  std::filesystem::remove("keystore/enc_private_key");
  script({});
  PidOptionsRequest one = make_request(1, 0, {"LEFT_INDEX"});
  EXPECT_EQ(FP_Cap(&fingers, one, kTs), -1);
  EXPECT_TRUE(fingers.empty());
  EXPECT_NE(log().find("Error at to generate bio-sign\n"), std::string::npos);
  EXPECT_NE(calls().find("ARAFPSCAN_CloseDevice 0"), std::string::npos);
}

}  // namespace
