// The CAPTURE and DEVICEINFO workers called directly with a work area: status
// checks, the three gates, the scanner lock and the exact answers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/work_area.h"
#include "rd_core/api.h"
#include "semaphore/semaphore_syc.h"
#include "test_util.h"

namespace {

constexpr char kCertRaw[] = "0\x82\x01\x0a signed device certificate \xff\x00 tail";
const std::string kCertBytes(kCertRaw, sizeof kCertRaw - 1);                     // binary, with a NUL inside
const std::string kMc = "MIIBCiBzaWduZWQgZGV2aWNlIGNlcnRpZmljYXRlIP8AIHRhaWw=";  // its Base64
const char* kCertPath = "./cert/public/signed_mc.cer";
constexpr const char* kValidBody =
    "<PidOptions ver=\"1.0\"><Opts fCount=\"1\" fType=\"0\" format=\"0\" pidVer=\"2.0\" timeout=\"10000\" "
    "posh=\"UNKNOWN\"/></PidOptions>";

// The head of a worker's answer: DEVICEINFO names the origin first, CAPTURE last.
std::string head_of(const std::string& path, std::size_t len, const char* origin) {
  const bool info = path == "/rd/info";
  const std::string allow =
      origin == nullptr ? "" : std::string("Access-Control-Allow-Origin:") + (info ? "" : " ") + origin + "\r\n";
  return "HTTP/1.1 200 OK\r\n" + (info ? allow : "") + "CACHE-CONTROL: no-cache\r\nLOCATION: http://127.0.0.1:" +
         std::to_string(service_port()) + path + "\r\nContent-Length: " + std::to_string(len) +
         "\r\nContent-Type: text/xml\r\nConnection: close\r\n" + (info ? "" : allow) + "\r\n";
}

class ApiTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    std::filesystem::copy_file(VEXO_SOURCE_DIR "/data/Final.xsd", dir_.file("Final.xsd"));
    std::filesystem::create_directories(dir_.file("cert/public"));
    testutil::write_file(dir_.file("cert/public/signed_mc.cer"), kCertBytes);
    rd_config_update([&](RdConfig& r) {
      r.rd_ver = "1.0.2";
      r.dc = "4f3c1a2b-dc";
    });
    set_device_serial("SN0042");
    ASSERT_EQ(init_semaphore(), 0);
    area_.assign(kWorkAreaSize, '\0');
  }

  // Starts a fresh case: empty last-status line, pipe reopened.
  void fresh_reports() {
    rd_log_reset_for_test();
    ASSERT_EQ(create_Pipe(), 0) << testutil::last_status();
    pipe_mark_ = pipe_->received().size();
    std::fill(area_.begin(), area_.end(), '\0');
  }
  bool piped(const std::string& text) { return pipe_->wait_for(text, 3000, pipe_mark_); }
  std::string body() const { return std::string(area_.data()); }
  std::string head() const { return std::string(area_.data() + kRespHeaderOffset); }

  // The whole PidData body of an error answer: fcount empty scores ("000").
  void expect_pid_data(int code, const std::string& info, int fcount, const std::string& mc, const char* ftype = "0") {
    std::string points;
    for (int i = 0; i < fcount; ++i) points += i == 0 ? "000" : ",000";
    EXPECT_EQ(body(), testutil::fill(testutil::data_file("api_pid_error.xml"),
                                     {{"code", std::to_string(code)},
                                      {"info", info},
                                      {"fCount", std::to_string(fcount)},
                                      {"fType", ftype},
                                      {"points", points},
                                      {"mc", mc}}));
  }

  std::size_t pipe_mark_ = 0;
  std::vector<char> area_;
};

TEST_F(ApiTest, CaptureRefusalsBeforeTheScanner) {
  const std::string schema = "Invalid PidOptions input. XML should strictly adhere to spec.";
  void (*const detached)() = [] {
    set_rd_status_notready();
    set_device_detached(1);
  };
  const struct {
    const char* name;
    void (*setup)();
    std::string body;
    const char* origin;
    int code;
    std::string info;
    int fcount;
    std::string pipe;  // the status-pipe message, also in the last-status line when reported
    bool reported;
  } cases[] = {
      {"used", set_rd_status_used, kValidBody, "http://example.com", 710, "Being used by another application", 0,
       "5000|RD Service is in USED state,|please wait for some time", false},
      {"not ready", set_rd_status_notready, kValidBody, nullptr, 720, "Device not ready", 0,
       "5000|RD Service is in NOTREADY state,|please wait for some time", false},
      {"detached", detached, kValidBody, nullptr, 720, "Device not ready", 0,
       "5000|Device is not connected,|RD Service is in not ready state", true},
      {"other root", nullptr, "<Pid ver=\"1.0\"/>", " http://a.example", 100, schema, 0,
       "5000|Pid options validation failed", true},
      {"image of three", nullptr, "<PidOptions ver=\"1.0\"><Opts fCount=\"3\" fType=\"1\"/></PidOptions>", nullptr, 120,
       "Invalid value for fCount", 3, "5000|Request xml, parameter invalid", true},
      {"no finger", nullptr, "<PidOptions ver=\"1.0\"><Opts fCount=\"0\" pidVer=\"2.0\"/></PidOptions>",
       "http://example.com", -1, "Command Not Sent to Device", 0, "5000|Allowed auth methods failed", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fresh_reports();
    set_rd_status_ready();
    set_device_detached(0);
    if (c.setup) c.setup();
    ASSERT_EQ(capture(c.body.c_str(), c.origin, area_.data()), 0);
    expect_pid_data(c.code, c.info, c.fcount, kMc, c.fcount == 3 ? "1" : "0");
    EXPECT_EQ(head(), head_of("/rd/capture", body().size(), c.origin));
    EXPECT_TRUE(piped(c.pipe + "\n")) << pipe_->received();
    // The line logs the message's parts with a blank for each separator.
    std::string line = c.pipe.substr(5);
    std::replace(line.begin(), line.end(), '|', ' ');
    const std::string status = testutil::last_status();
    EXPECT_TRUE(c.reported ? status.ends_with(" | api | capture | " + line) : status.empty()) << status;
  }
}

TEST_F(ApiTest, CaptureEmptyBodyAndMissingCertificate) {
  std::filesystem::remove(dir_.file("cert/public/signed_mc.cer"));
  fresh_reports();
  ASSERT_EQ(capture("", nullptr, area_.data()), 0);
  // An error answer without the certificate still frames the device block.
  expect_pid_data(100, "Invalid PidOptions input. XML should strictly adhere to spec.", 0, "");
  EXPECT_EQ(head(), head_of("/rd/capture", body().size(), nullptr));
  EXPECT_NE(testutil::read_file("rd.log").find("Request_For_Pidblock is null "), std::string::npos);
}

TEST_F(ApiTest, CaptureLockBusyAndLockMissing) {
  // Another holder keeps the scanner lock: the wait ends in 710.
  ASSERT_EQ(Lock_Semaphore(), 0);
  fresh_reports();
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(capture(kValidBody, nullptr, area_.data()), 0);
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(200));
  expect_pid_data(710, "Being used by another application", 1, kMc);
  EXPECT_TRUE(testutil::last_status().ends_with(" | api | capture | Error at to lock semaphore"));
  ASSERT_EQ(Unlock_Semaphore(), 0);

  // No lock was ever created: an internal error.
  semaphore_reset_for_test();
  fresh_reports();
  ASSERT_EQ(capture(kValidBody, nullptr, area_.data()), 0);
  expect_pid_data(999, "Internal error", 1, kMc);
}

// With the certificate, the answer through the listener: CaptureEndToEnd.DeviceInfoAnswers.
TEST_F(ApiTest, DeviceInfoWithAndWithoutCertificate) {
  std::filesystem::remove(dir_.file("cert/public/signed_mc.cer"));
  fresh_reports();
  ASSERT_EQ(GetDeviceInfo(area_.data(), " null"), 0);
  const std::string expected = testutil::data_file("api_device_info.xml");
  EXPECT_EQ(body(), expected);
  EXPECT_EQ(head(), head_of("/rd/info", expected.size(), " null"));
  EXPECT_TRUE(testutil::last_status().ends_with(
      std::string(" | api | GetDeviceInfo | device public cert is not present : ") + kCertPath + " "))
      << testutil::last_status();
  EXPECT_TRUE(piped(std::string("10000|File Not Found : ") + kCertPath + "\n"));
  // The scanner lock is free again.
  EXPECT_EQ(Lock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore(), 0);
}

TEST_F(ApiTest, OversizedOriginFallsBackToPlainHead) {
  const std::string origin(1023, 'o');
  fresh_reports();
  set_rd_status_used();
  ASSERT_EQ(capture(kValidBody, origin.c_str(), area_.data()), 0);
  EXPECT_EQ(head(), head_of("/rd/capture", body().size(), nullptr));
  ASSERT_EQ(GetDeviceInfo(area_.data(), origin.c_str()), 0);
  EXPECT_EQ(head(), head_of("/rd/info", body().size(), nullptr));
}

}  // namespace
