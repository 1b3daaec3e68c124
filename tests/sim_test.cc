// The simulated device libraries, driven through their control file, and the
// loader that binds their entry points. The libraries stay loaded for the life
// of a process, so CTest runs every case in a process of its own.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "postauth/handheld.h"
#include "rd_core/scanner.h"
#include "sim_codes.h"
#include "sim_control.h"
#include "test_util.h"

namespace {

class SimTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    refdll_ = sim::install_refdll(dir_.path());
  }

  void load(const char* scanner = "Aratek_A600") {
    rd_identity_update([&](RdIdentity& r) { r.scanner_name = scanner; });
    ASSERT_EQ(0, dll_loading("./RefDll"));
  }
  void control(const sim::Keys& keys) { sim::write_control(refdll_, keys); }

  std::string refdll_;
};

// Device 0, opened for the scope.
struct OpenScanner {
  ARAFPSCAN_HANDLE handle = nullptr;
  int rc;
  OpenScanner() : rc(aratek_sdk().OpenDevice(0, &handle)) {}
  ~OpenScanner() {
    if (handle != nullptr) aratek_sdk().CloseDevice(handle);
  }
};

std::vector<unsigned char> capture(ARAFPSCAN_HANDLE h, int* rc) {
  int w = 0, ht = 0, r = 0;
  EXPECT_EQ(0, aratek_sdk().GetImageInfo(h, &w, &ht, &r));
  std::vector<unsigned char> raw(static_cast<std::size_t>(w) * ht);
  *rc = aratek_sdk().CaptureRawData(h, 20, raw.data());
  return raw;
}

TEST_F(SimTest, SerialNumberIsTheDescriptionsLeadingText) {
  load();
  EXPECT_EQ(nullptr, tavio_sdk().OpenCom_port) << "handheld libraries loaded for another scanner";
  const std::string long_word(300, 'S');
  struct Row {
    sim::Keys keys;
    int rc;
    std::string serial;
  } rows[] = {
      {{{"description", "\"  XY-9 model A600\""}}, 0, "XY-9"},
      {{{"description", long_word}}, 0, std::string(ARAFPSCAN_DESCRIPTION_LEN - 1, 'S')},
      {{{"description", "\"\""}}, -3, ""},
      {{{"description_result", "-9"}}, -3, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.keys[0].first + "=" + row.keys[0].second);
    control(row.keys);
    rd_log_reset_for_test();
    std::string serial = "stale";
    EXPECT_EQ(row.rc, getdeviceserialnumber(&serial));
    EXPECT_EQ(row.serial, serial);
    const std::string status = testutil::last_status();
    const std::string failed = " | pidblock_A600 | getdeviceserialnumber | Getting serial number failed ";
    EXPECT_TRUE(row.rc == -3 ? status.find(failed) != std::string::npos : status.empty()) << status;
  }
  EXPECT_NE(std::string::npos, testutil::read_file("rd.log").find("GetDeviceDescription failed"));
}

TEST_F(SimTest, ScannerFollowsItsScriptAndRefusesWhatTheDeviceWould) {
  load();
  ASSERT_EQ(0, aratek_sdk().GlobalInit());
  OpenScanner dev;
  ASSERT_EQ(0, dev.rc);
  // (Scripted result lists, in order and started again by a new control
  // file: CaptureTest's cases.) Unplugged after opening: the capture fails.
  control({{"present", "0"}, {"capture_wait_ms", "0"}});
  std::vector<unsigned char> raw(SIM_DEFAULT_WIDTH * SIM_DEFAULT_HEIGHT);
  EXPECT_EQ(SIM_ERR_NO_DEVICE, aratek_sdk().CaptureRawData(dev.handle, 20, raw.data()));
  EXPECT_EQ(SIM_ERR_BAD_HANDLE, aratek_sdk().CaptureRawData(&raw, 20, raw.data()));
  // Even a capture that ends in a time-out takes the scripted time.
  control({{"capture_wait_ms", "600"}, {"capture_results", "-113"}});
  const std::uint64_t start = platform::monotonic_ms();
  EXPECT_EQ(ARAFPSCAN_ERROR_TIMEOUT, aratek_sdk().CaptureRawData(dev.handle, 20, raw.data()));
  EXPECT_GE(platform::monotonic_ms() - start, 595u);
  EXPECT_EQ(ARAFPSCAN_ERROR_ALREADY_INIT, aratek_sdk().GlobalInit());
  EXPECT_EQ(0, aratek_sdk().CloseDevice(dev.handle));
  EXPECT_EQ(SIM_ERR_BAD_HANDLE, aratek_sdk().CloseDevice(dev.handle));
  dev.handle = nullptr;

  // NFIQ and quality lists are clamped to the scales and fall back to the
  // single value when used up; a scripted failure and refused arguments.
  control({{"nfiq_scores", "9,0"}, {"nfiq", "5"}, {"quality_values", "120,-4"}, {"quality", "61"},
           {"nfiq_results", "0,0,0,-21"}});
  std::fill(raw.begin(), raw.end(), 128);
  const int expected[][2] = {{5, 100}, {1, 0}, {5, 61}};
  for (const auto& [nfiq_want, quality_want] : expected) {
    int nfiq = 0, quality = -1;
    EXPECT_EQ(0, aratek_sdk().GetNFIQScore(SIM_DEFAULT_WIDTH, SIM_DEFAULT_HEIGHT, raw.data(), &nfiq));
    EXPECT_EQ(0, aratek_sdk().ImgQuality(SIM_DEFAULT_WIDTH, SIM_DEFAULT_HEIGHT, raw.data(), &quality));
    EXPECT_EQ(nfiq_want, nfiq);
    EXPECT_EQ(quality_want, quality);
  }
  int v = 0;
  EXPECT_EQ(-21, aratek_sdk().GetNFIQScore(SIM_DEFAULT_WIDTH, SIM_DEFAULT_HEIGHT, raw.data(), &v));
  EXPECT_EQ(SIM_ERR_BAD_PARAM, aratek_sdk().GetNFIQScore(0, SIM_DEFAULT_HEIGHT, raw.data(), &v));
  EXPECT_EQ(SIM_ERR_BAD_PARAM, aratek_sdk().ImgQuality(SIM_DEFAULT_WIDTH, SIM_DEFAULT_HEIGHT, nullptr, &v));
}

unsigned be16(const unsigned char* p) { return (p[0] << 8) | p[1]; }

// A capture is a finger with ridges, another one each time (a fresh control
// file replays the first); its minutiae make an ISO record of the scripted
// count, clamped to one byte.
TEST_F(SimTest, CaptureGivesARidgedImageAndAnIsoRecord) {
  load();
  control({{"capture_wait_ms", "0"}});
  OpenScanner dev;
  ASSERT_EQ(0, dev.rc);
  std::vector<unsigned char> record(1568, 0xEE);
  EXPECT_EQ(SIM_ERR_NO_IMAGE, aratek_sdk().ExtractISOFeature(dev.handle, 0, record.data()));
  const int w = SIM_DEFAULT_WIDTH, h = SIM_DEFAULT_HEIGHT;
  int rc = 1;
  const std::vector<unsigned char> first = capture(dev.handle, &rc);
  ASSERT_EQ(0, rc);
  const double mean = std::accumulate(first.begin(), first.end(), 0.0) / first.size();
  const double square = std::inner_product(first.begin(), first.end(), first.begin(), 0.0) / first.size();
  EXPECT_GT(square - mean * mean, 1000.0) << "a flat image";
  EXPECT_GT(first[0], 200) << "the corner is background";
  // Across the middle of the finger the row crosses its mean at every ridge:
  // a ridge every 8 to 10.5 pixels gives about 20 crossings per 100 pixels.
  const unsigned char* row = first.data() + static_cast<std::size_t>(h / 2) * w;
  const double row_mean = std::accumulate(row + w / 2 - 50, row + w / 2 + 50, 0.0) / 100;
  int crossings = 0;
  for (int x = w / 2 - 50; x < w / 2 + 49; ++x) {
    if ((row[x] < row_mean) != (row[x + 1] < row_mean)) ++crossings;
  }
  EXPECT_GE(crossings, 12);
  EXPECT_LE(crossings, 60) << "noise, not ridges";
  EXPECT_NE(first, capture(dev.handle, &rc));
  control({{"capture_wait_ms", "0"}});
  EXPECT_EQ(first, capture(dev.handle, &rc));

  for (const auto& [count, n] : {std::pair{"999", 255}, {"-3", 0}}) {
    SCOPED_TRACE(count);
    control({{"capture_wait_ms", "0"}, {"quality", "73"}, {"minutiae_count", count}});
    capture(dev.handle, &rc);
    ASSERT_EQ(0, rc);
    std::fill(record.begin(), record.end(), 0xEE);
    ASSERT_EQ(0, aratek_sdk().ExtractISOFeature(dev.handle, 0, record.data()));
    int length = 0;
    ASSERT_EQ(0, aratek_sdk().GetISOFeatureLength(record.data(), &length));
    const unsigned char* r = record.data();
    EXPECT_EQ(30 + 6 * n, length);
    EXPECT_EQ(0, std::memcmp(r, "FMR\0 20\0", 8));
    EXPECT_EQ(static_cast<unsigned>(length), (be16(r + 8) << 16) | be16(r + 10));
    // Image size, 500 ppi in pixels per centimetre both ways, one view, its quality and count.
    EXPECT_EQ((std::vector<unsigned>{be16(r + 14), be16(r + 16), be16(r + 18), be16(r + 20), r[22], r[26], r[27]}),
              (std::vector<unsigned>{SIM_DEFAULT_WIDTH, SIM_DEFAULT_HEIGHT, 197, 197, 1, 73, unsigned(n)}));
    for (int i = 0; i < n; ++i) {
      const unsigned char* m = r + 28 + 6 * i;
      const unsigned type = m[0] >> 6;
      EXPECT_TRUE(type == 1 || type == 2) << "minutia " << i;
      EXPECT_LT(be16(m) & 0x3FFF, unsigned{SIM_DEFAULT_WIDTH}) << "minutia " << i;
      EXPECT_LT(be16(m + 2) & 0x3FFF, unsigned{SIM_DEFAULT_HEIGHT}) << "minutia " << i;
    }
    EXPECT_EQ(0u, be16(r + length - 2));  // no extended data
    EXPECT_EQ(0xEE, r[length]);           // nothing written past the record
  }
  // Refused: another mode and a record that is not one.
  EXPECT_EQ(SIM_ERR_BAD_PARAM, aratek_sdk().ExtractISOFeature(dev.handle, 1, record.data()));
  const unsigned char junk[32] = {'F', 'M', 'X'};
  int length = 5;
  EXPECT_EQ(SIM_ERR_BAD_PARAM, aratek_sdk().GetISOFeatureLength(junk, &length));
  EXPECT_EQ(0, length);
}

// Scripted answers and failures are checked through PostAuth; here, what a
// caller that skips opening the port, closes it twice or gives a short buffer
// gets.
TEST_F(SimTest, HandheldAnswersOnlyWhileThePortIsOpen) {
  load("Tavio_TX9");
  const TavioSdk& t = tavio_sdk();
  char out[64] = "stale";
  EXPECT_EQ(SIM_ERR_NO_DEVICE, t.Get_BatteryStatus(out, sizeof out));
  EXPECT_STREQ("", out);
  ASSERT_EQ(0, t.OpenCom_port("/dev/rfcomm0"));
  EXPECT_EQ(0, t.Get_FWVersion(out, 3));
  EXPECT_STREQ("TX", out);
  EXPECT_EQ(SIM_ERR_BAD_PARAM, t.Get_FWVersion(out, 0));
  EXPECT_EQ(0, t.ClosePort());
  EXPECT_EQ(SIM_ERR_NO_DEVICE, t.ClosePort());
  EXPECT_EQ(SIM_ERR_NO_DEVICE, t.Print_Data("Receipt 42", out, sizeof out));
  EXPECT_EQ("", sim::printed(refdll_));
}

// The system's file name of a library the design calls NAME.dll.
std::string lib(const char* dll) { return platform::shared_library_name(dll); }

TEST_F(SimTest, LoadingFailsOnAMissingLibraryOrEntryPoint) {
  namespace fs = std::filesystem;
  struct Row {
    const char* scanner;
    const char* dll;
    const char* incomplete;  // the folder of its incomplete copy; nullptr: the library is removed
    const char* log_line;
  } rows[] = {
      {"Aratek_A600", "AraNFIQ.dll", nullptr, "Loading AraNFIQ.dll failed"},
      {"Aratek_A600", "AraTrustFinger.dll", nullptr, "Loading AraTrustFinger.dll failed"},
      {"Aratek_A600", "AraTrustFinger.dll", "scanner",
       "Entry point ARAFPSCAN_GetNFIQScore not found in AraTrustFinger.dll"},
      // The scanner libraries of these rows load; the handheld ones do not.
      {"Tavio_TX9", "Tavio.dll", nullptr, "Loading Tavio.dll failed"},
      {"Tavio_TX9", "Tavio.dll", "handheld", "Entry point TavioLogs_Init not found in Tavio.dll"},
      {"Tavio_TX9", "BT_Hmac.dll", nullptr, "Loading BT_Hmac.dll failed"},
  };
  for (std::size_t r = 0; r < std::size(rows); ++r) {
    SCOPED_TRACE(rows[r].log_line);
    // Each row in a folder of its own, so that no earlier load is reused.
    const fs::path folder = fs::path(dir_.path()) / ("case" + std::to_string(r));
    const fs::path target = fs::path(sim::install_refdll(folder.string())) / lib(rows[r].dll);
    if (rows[r].incomplete == nullptr) {
      fs::remove(target);
    } else {
      fs::copy_file(std::string(SIM_INCOMPLETE_DIR "/") + rows[r].incomplete + "/" + lib(rows[r].dll), target,
                    fs::copy_options::overwrite_existing);
    }
    rd_identity_update([&](RdIdentity& id) { id.scanner_name = rows[r].scanner; });
    EXPECT_EQ(-1, dll_loading((folder / "RefDll").string().c_str()));
    const std::string log = testutil::read_file("rd.log");
    EXPECT_NE(std::string::npos, log.find(rows[r].log_line));
    EXPECT_EQ(std::string::npos, log.find("DLL Loading SUCCESS"));
    EXPECT_EQ(nullptr, tavio_sdk().OpenCom_port);
    EXPECT_TRUE(std::string(rows[r].scanner) == "Tavio_TX9" || aratek_sdk().GetNFIQScore == nullptr);
  }

  // Complete libraries load; a second call neither reloads nor looks at its folder.
  ASSERT_EQ(0, dll_loading("./RefDll"));
  EXPECT_NE(std::string::npos, testutil::read_file("rd.log").find("DLL Loading SUCCESS"));
  const Initialize_BT_Security_t security = tavio_sdk().Initialize_BT_Security;
  ASSERT_NE(nullptr, security);
  EXPECT_NE(nullptr, aratek_sdk().GetNFIQScore);
  EXPECT_EQ(0, dll_loading("./nowhere"));
  EXPECT_EQ(security, tavio_sdk().Initialize_BT_Security);
}

}  // namespace
