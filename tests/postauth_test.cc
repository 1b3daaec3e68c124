// PostAuth commands on the simulated handheld device: the request texts, the
// exact answer bytes over the real listener, the three tries to open the
// port, the status refusals, and the handheld lock held by another process.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "common/rd_config.h"
#include "common/rd_status.h"
#include "postauth/postauth.h"
#include "rd_core/scanner.h"
#include "semaphore/semaphore_syc.h"
#include "sim_control.h"
#include "test_sys.h"
#include "test_util.h"

using namespace testutil;

namespace {

namespace fs = std::filesystem;

std::string body_of(const std::string& p1_name, const std::string& p1_value, const std::string& p2_name) {
  return "<PostAuth><CustOpts><Param1 name=\"" + p1_name + "\" value=\"" + p1_value + "\"/><Param2 name=\"" + p2_name +
         "\" value=\"\"/></CustOpts></PostAuth>";
}
std::string query(const std::string& command) { return body_of("", "", command); }
std::string print(const std::string& text) { return body_of("PRINTER", text, ""); }
std::string request(const std::string& body) {
  return "POSTAUTH /rd/postauth HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A PostAuthResp answer as clients receive it, written out independently.
std::string answer(int port, const std::string& dev_code, const std::string& dev_text, const std::string& value,
                   const std::string& rd_code, const std::string& rd_text, const std::string& status) {
  const std::string body = "<PostAuthResp>\n\t<Device Dev_ErrorCode = \"" + dev_code + "\"  Description = \"" +
                           dev_text + "\"  Response_value = \"" + value + "\" />\n\t<RD RD_ErrorCode = \"" + rd_code +
                           "\"   Description = \"" + rd_text + "\"  RD_Status = \"" + status + "\" />\n</PostAuthResp>";
  return ok_header(port, "/rd/postauth", body.size()) + body;
}
std::string success(int port, const std::string& value) {
  return answer(port, "0", "SUCCESS", value, "0", "SUCCESS", "READY");
}
std::string refusal(int port, const std::string& code, const std::string& text, const std::string& status = "READY") {
  return answer(port, "-1", "Command Not Sent to Device", "(null)", code, text, status);
}

// The simulated libraries are loaded once per process, from one folder that
// outlives every test's working folder.
std::string g_refdll;

class PostAuthTest : public LibraryTest {
 protected:
  static void SetUpTestSuite() {
    static WorkDir libs;
    g_refdll = sim::install_refdll(libs.path());
    rd_identity_update([](RdIdentity& id) { id.scanner_name = "Tavio_TX9"; });
    ASSERT_EQ(dll_loading(g_refdll.c_str()), 0);
  }
  void SetUp() override {
    LibraryTest::SetUp();
    rd_identity_update([](RdIdentity& id) {
      id.scanner_name = "Tavio_TX9";
      id.port_path = "/dev/ttyS5";
    });
    ASSERT_EQ(init_semaphore(), 0);
    seams([](Seams& s) { s.postauth_retry_ms = 100u; });
    control({});
    port_ = start_server();
    ASSERT_NE(port_, 0);
  }
  void TearDown() override {
    sim::remove_control(g_refdll);
    LibraryTest::TearDown();
  }
  // New control keys, with the call log on and emptied.
  static void control(sim::Keys keys) {
    keys.emplace_back("call_log", "1");
    sim::write_control(g_refdll, keys);
    std::error_code ec;
    fs::remove(g_refdll + "/sim_calls.log", ec);
    fs::remove(g_refdll + "/sim_printer.txt", ec);
  }
  std::string post(const std::string& body) { return http_exchange(port_, request(body)); }
  int port_ = 0;
};

// Every command's success and failure, and the printer's status codes, on the
// exact bytes of the answer and the text printed; the port is closed again
// whatever happened.
TEST_F(PostAuthTest, EveryCommandAnswersByteForByte) {
  const int p = port_;
  const std::string a254(254, 'a');
  const struct {
    const char* name;
    sim::Keys keys;
    std::string body, answer, printed = "";  // printed: what the device printed
  } rows[] = {
      // clang-format off
      {"battery", {}, query("GET_BATTERYSTATUS"), success(p, "85")},
      {"firmware", {{"tavio_firmware", "FW 9.9"}}, query("GET_FIRMWAREVERSION"), success(p, "FW 9.9")},
      {"identifiers", {{"tavio_serial", "TX9-777"}}, query("GET_DEVICEID"), success(p, "TX9-777")},
      {"print", {}, print("Rs 10 &amp; &lt;ok&gt;"), success(p, "Printed"), "Rs 10 & <ok>\n"},
      {"long text cut", {}, print(std::string(300, 'x')), success(p, "Printed"), std::string(255, 'x') + "\n"},
      {"cut before a split character", {}, print(a254 + "\xC3\xA9"), success(p, "Printed"), a254 + "\n"},
      // The escaping of control bytes and bytes that are not UTF-8: CaptureEndToEnd.DeviceInfoAnswers.
      {"device text escaped", {{"tavio_battery", "5 & <6> \"x\""}}, query("GET_BATTERYSTATUS"),
       success(p, "5 &amp; &lt;6&gt; &quot;x&quot;")},
      {"battery fails", {{"tavio_battery_result", "-5"}}, query("GET_BATTERYSTATUS"),
       refusal(p, "-20", "Getting Battery Status is Failed from the Device ")},
      {"firmware fails", {{"tavio_firmware_result", "65"}}, query("GET_FIRMWAREVERSION"),
       refusal(p, "-30", "Getting Firmware Version is Failed from the Device")},
      // The device check asks for the identifiers first; the command's call fails.
      {"identifiers fail", {{"tavio_serial_results", "0,-7"}}, query("GET_DEVICEID"),
       refusal(p, "-60", "Getting ID's from Device is failed")},
      {"query name not exact", {}, query("GET_BATTERY"), refusal(p, "-1", "Command Not Sent to Device")},
      {"printer in Param2", {}, body_of("", "", "PRINTER"), refusal(p, "-1", "Command Not Sent to Device")},
      // Only a CustOpts that is the root's first element counts.
      {"CustOpts not first", {}, "<PostAuth><X/><CustOpts><Param1 name=\"PRINTER\" value=\"t\"/></CustOpts></PostAuth>",
       refusal(p, "-1", "Command Not Sent to Device")},
      {"PidOptions root", {}, "<PidOptions ver=\"1.0\"/>",
       refusal(p, "100", "Invalid PidOptions input. XML should strictly adhere to spec.")},
      {"not XML", {}, "<PostAuth", refusal(p, "-1", "Command Not Sent to Device")},
      {"battery low, cover open", {{"tavio_print_result", "73"}}, print("x"),
       refusal(p, "73", "Paper Roll Patch is left Opened and Battery of Device is also Low")},
      {"printer status without a text", {{"tavio_print_result", "15"}}, print("x"), refusal(p, "15", "")},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    control(row.keys);
    EXPECT_EQ(post(row.body), row.answer);
    EXPECT_EQ(sim::printed(g_refdll), row.printed);
    const std::string calls = sim::call_log(g_refdll);
    EXPECT_EQ(count_of(calls, "OpenCom_port 0\n"), 1) << calls;
    EXPECT_TRUE(calls.ends_with("ClosePort 0\n")) << calls;
    EXPECT_EQ(get_rd_status_index(), kRdReady);
  }
  EXPECT_TRUE(log_has("postauth", "Get_Response_From_Device", "Invalid Command from Client"));
  EXPECT_TRUE(log_has("postauth", "PostAuth", "XML_Parsing of client request is failed"));
}

// USED is refused without any device traffic; NOTREADY after the device check.
TEST_F(PostAuthTest, StatusRefusals) {
  const struct {
    void (*set)();
    std::string answer, calls;
    const char* log;
  } rows[] = {
      {set_rd_status_used, refusal(port_, "710", "Being used by another application", "USED"), "",
       "RD Service is in USED state, please wait for some time"},
      {set_rd_status_notready, refusal(port_, "720", "Device not ready", "NOTREADY"),
       "OpenCom_port 0\nGet_SerialNumber 0\nClosePort 0\n",
       "RD Service is in NOTREADY state, please wait for some time"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.log);
    control({});
    row.set();
    EXPECT_EQ(post(query("GET_BATTERYSTATUS")), row.answer);
    EXPECT_EQ(sim::call_log(g_refdll), row.calls);
    EXPECT_TRUE(log_has("postauth", "PostAuth", row.log));
  }
}

// A device that never answers: three tries with the pause after each, one
// report to the front end, NOTREADY; discovery reports it until the device
// answers again.
TEST_F(PostAuthTest, AbsentDeviceCostsThreeTriesThenRecovers) {
  control({{"tavio_present", "0"}});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(post(query("GET_BATTERYSTATUS")),
            refusal(port_, "-10", "Opening COM Port is failed for device", "NOTREADY"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(sim::call_log(g_refdll), "OpenCom_port -1\nOpenCom_port -1\nOpenCom_port -1\n");
  EXPECT_TRUE(log_has("postauth", "Get_Response_From_Device", "OpenCom_port function failed"));
  EXPECT_TRUE(pipe_->wait_for("10000|Connection to Bluetooth failed,|please connect the device again\n"));
  EXPECT_NE(last_status().find(
                " | postauth | Check_Device_status | Connection to Bluetooth failed, please connect the device again"),
            std::string::npos);
  EXPECT_EQ(get_device_detached(), 1);
  EXPECT_EQ(http_exchange(port_, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port_, "NOTREADY"));

  // The link opens at the third try: the device is back.
  control({{"tavio_open_failures", "2"}});
  EXPECT_EQ(http_exchange(port_, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port_, "READY"));
  EXPECT_EQ(sim::call_log(g_refdll),
            "OpenCom_port -1\nOpenCom_port -1\nOpenCom_port 0\nGet_SerialNumber 0\nClosePort 0\n");
  EXPECT_EQ(get_device_detached(), 0);
}

// The host program run for "Tavio_TX9|PORT|SECURITY" in a folder made by
// vexoctl (its locks in a folder of the test) answers POSTAUTH from the
// simulated device; while this process holds the handheld lock, the host's
// POSTAUTH and discovery answer busy after the real 2000 ms wait, without
// touching the device, and the command runs once the lock is free.
TEST(HandheldHostProcess, ServesPostAuthAndYieldsToAnotherHolder) {
  WorkDir dir;
  const testutil::Run init = init_workdir(dir.path(), "Tavio_TX9");
  ASSERT_EQ(init.rc, 0) << init.out;
  const std::string locks = dir.file("locks");
  fs::create_directories(locks);
  write_file("config.ini", read_file("config.ini") + "LOCK_FOLDER = " + locks + "\n");
  ASSERT_EQ(run({program("vexoctl"), "seal", "config.ini"}).rc, 0);
  sim::write_control(dir.file("RefDll"), {{"call_log", "1"}});
  // The host inherits APPDATA from this process while it starts.
  testsys::set_env("APPDATA", dir.file("appdata").c_str());
  testsys::Process host({program("vexo-host"), "--workdir", dir.path(), "--no-mgmt", "Tavio_TX9|ttyS5|PARAM"},
                        "host.out");
  testsys::set_env("APPDATA", nullptr);
  ASSERT_TRUE(host.started());
  ASSERT_TRUE(
      wait_until([] { return read_file("host.out").find("Start_RDservice returned 0") != std::string::npos; }, 20000))
      << read_file("host.out");
  const int port = logged_port("rd.log");
  EXPECT_NE(read_file("rd.log").find("Port is " + platform::serial_port_path("ttyS5") + "\n"), std::string::npos);
  {
    test_seams::update([&](Seams& s) { s.lock_dir = locks; });
    platform::NamedLock* lock = platform::named_lock_open(tavio_lock_name());
    ASSERT_NE(lock, nullptr);
    ASSERT_EQ(platform::named_lock_acquire(lock, 5000), 0);
    const std::string calls_before = sim::call_log(dir.file("RefDll"));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(http_exchange(port, request(query("GET_BATTERYSTATUS"))),
              refusal(port, "710", "Being used by another application", "USED"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
    EXPECT_NE(http_exchange(port, "RDSERVICE / HTTP/1.1\r\n\r\n").find("status=\"USED\""), std::string::npos);
    EXPECT_EQ(sim::call_log(dir.file("RefDll")), calls_before);
    EXPECT_TRUE(has(read_file("rd.log"), "sem_timedwait Tavio timeout"));
    EXPECT_EQ(platform::named_lock_release(lock), 0);
    platform::named_lock_close(lock);
    test_seams::set({});
  }
  EXPECT_EQ(http_exchange(port, request(print("Rs 10 paid"))), success(port, "Printed"));
  EXPECT_EQ(read_file("RefDll/sim_printer.txt"), "Rs 10 paid\n");
  EXPECT_EQ(host.stop(), 0);
}

}  // namespace
