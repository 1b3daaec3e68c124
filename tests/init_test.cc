// Start-up, plug events and the host program, on real working folders laid
// out by vexoctl, with the simulated scanner.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "common/file_crc.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "init/init.h"
#include "mgmt_core/keystore.h"
#include "mgmt_server_util.h"
#include "semaphore/semaphore_syc.h"
#include "sim_control.h"
#include "test_util.h"
#include "vexo.h"

namespace {

namespace fs = std::filesystem;
using testutil::count_of;
using testutil::has;
using testutil::last_status;
using testutil::read_file;

// The library fixture in a working folder laid out by vexoctl, with the
// simulated scanner SERIAL-A in RefDll; nothing started yet.
class StartupTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    layout();
  }
  void layout(const std::vector<std::string>& extra = {}) {
    init_reset_for_test();
    semaphore_reset_for_test();
    set_device_serial("");
    ASSERT_EQ(testutil::init_workdir(dir_.path(), "Aratek_A600", extra).rc, 0);
    sim::write_control(refdll_, {{"serial", "SERIAL-A"}, {"capture_wait_ms", "0"}});
    fs::create_directories(dir_.file("appdata"));
  }
  const std::string refdll_ = dir_.file("RefDll");
};

// The library says nothing on standard output or standard error at Verbose 0
// and 1: no URL, no adapter list, no INI dump, no key material. At Verbose 2
// its debugging lines appear, still without key material.
TEST_F(StartupTest, NothingOnStandardOutputUnlessDebugging) {
  for (int verbose : {1, 2}) {
    SCOPED_TRACE(verbose);
    layout();
    testutil::write_file("config.ini", std::regex_replace(read_file("config.ini"), std::regex("Verbose = \\d"),
                                                          "Verbose = " + std::to_string(verbose)));
    ASSERT_EQ(add_crc(1, "./config.ini", "bin_crc.txt"), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::string cert_pem;
    Secret key_pem;
    const bool ran = Initialize_process("Aratek_A600") == 0 && GenerateKeyPair(&cert_pem) == 0 &&
                     GetDevicePrivateKeyFromFile(&key_pem) == 0 && Set_Proxy_Api("http://proxy:3128|bob|s3cret") == 0;
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_TRUE(ran) << last_status();
    EXPECT_TRUE(verbose < 2 ? out.empty() : has(out, "URL is: https://mgmt.test/Zelm")) << out;
    EXPECT_EQ(out.find("PRIVATE KEY"), std::string::npos);
    EXPECT_EQ(out.find("s3cret"), std::string::npos);
  }
}

// A first call that fails resumes at the failed step once repaired; later
// calls skip the one-time steps, and the device-changed flag follows the
// scanner's serial and the device certificate.
TEST_F(StartupTest, CallsResumeSkipOneTimeStepsAndTrackTheScanner) {
  const std::string good = read_file("config.ini");
  testutil::write_file("config.ini", good + "; edited by hand\n");
  ASSERT_EQ(Initialize_process("Aratek_A600"), -5);
  testutil::write_file("config.ini", good);
  fs::create_directories("cert/public");
  testutil::write_file("cert/public/signed_mc.cer", "certificate");
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << last_status();
  EXPECT_TRUE(has(last_status(), " | init | Initialize_process | Initialize_process Success "));
  EXPECT_EQ(read_file("Serial_number"), "SERIAL-A");
  const RdIdentity id = rd_identity_copy();
  EXPECT_EQ(id.rdsId + " " + id.mi + " " + id.dpId, "QDX.WIN.002 QDX.ARA.A600.W KORVANE.QDX");
  EXPECT_EQ(id.clId.size(), 5u);
  EXPECT_EQ(id.device_changed, 1);  // no Serial_number before
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  EXPECT_EQ(rd_identity_copy().device_changed, 0);  // same scanner, device certificate present
  // One-time steps ran once, the failed one again; the scanner is asked every time.
  const std::pair<const char*, int> expected[] = {
      {") - DLL Loading SUCCESS\n", 1},
      {") - Config file reading failed\n", 1},
      {") - Config file reading is successful\n", 1},
      {") - fingerprint is attached, serial number is SERIAL-A\n", 2},
  };
  for (const auto& [text, count] : expected) EXPECT_EQ(count_of(read_file("rd.log"), text), count) << text;

  sim::write_control(refdll_, {{"serial", "SERIAL-B"}});
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  EXPECT_EQ(rd_identity_copy().device_changed, 1);
  EXPECT_EQ(read_file("Serial_number"), "SERIAL-B");
  EXPECT_TRUE(has(read_file("rd.log"), ") - old_serial_number and serial_number are different\n"));
  fs::remove("cert/public/signed_mc.cer");
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  EXPECT_EQ(rd_identity_copy().device_changed, 1);  // no device certificate: Init must run
  EXPECT_TRUE(has(read_file("rd.log"), ") - device public key not present\n"));
}

// Every file and folder the library makes, whichever way, is closed to other
// users. The fixture's files are opened to all first, so that a file the
// library replaced shows as well as a new one.
TEST_F(StartupTest, EveryFileTheLibraryMakesIsClosedToOthers) {
  zlog_fini();
  fs::remove("rd.log");
  std::map<std::string, ino_t> before;  // what was there, and which file it was
  for (const auto& e : fs::recursive_directory_iterator(dir_.path())) {
    struct stat st {};
    ASSERT_EQ(lstat(e.path().c_str(), &st), 0);
    if (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) {
      ASSERT_EQ(chmod(e.path().c_str(), S_ISDIR(st.st_mode) ? 0755 : 0644), 0);
    }
    before[e.path().string()] = st.st_ino;
  }
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << last_status();
  std::string cert_pem;
  ASSERT_EQ(GenerateKeyPair(&cert_pem), 0);
  ASSERT_EQ(Set_Proxy_Api("http://proxy:3128|bob|s3cret"), 0);
  ASSERT_EQ(Https_Set_Api("0"), 0);
  write_error_log("error log line\n");
  rd_set_log_size_limit_kb(0);
  RD_INFO("this line rotates the log");
  std::set<std::string> checked;
  for (const auto& e : fs::recursive_directory_iterator(dir_.path())) {
    struct stat st {};
    ASSERT_EQ(lstat(e.path().c_str(), &st), 0);
    auto old = before.find(e.path().string());
    // Lock files are shared with every user on purpose (lock_test).
    if (S_ISFIFO(st.st_mode) || (old != before.end() && old->second == st.st_ino) ||
        e.path().parent_path() == dir_.file("locks")) {
      continue;
    }
    EXPECT_EQ(st.st_mode & 0777, S_ISDIR(st.st_mode) ? 0700u : 0600u) << e.path();
    checked.insert(fs::relative(e.path(), dir_.path()).string());
  }
  for (const char* made :
       {"rd.log", "rd1.log", "Vexo_Error.log", "Serial_number", "proxy.ini", "config.ini", "bin_crc.txt",
        "keystore/pdHash.hash", "cert/public/DevPubKey", "appdata/korvane/QDX.WIN.002/Vexo_002_Node.txt"}) {
    EXPECT_EQ(checked.count(made), 1u) << made;
  }
}

// Start-up closes the process (no core file) and warns about a working folder
// other users may write to. The locks go to the configured LOCK_FOLDER, and a
// name taken there by something else stops start-up with the path.
TEST_F(StartupTest, ClosesTheProcessAndPlacesTheLocksAsConfigured) {
  const std::string locks = dir_.file("mylocks");
  fs::create_directories(locks);
  testutil::write_file("config.ini", read_file("config.ini") + "LOCK_FOLDER = " + locks + "\n");
  ASSERT_EQ(add_crc(1, "./config.ini", "bin_crc.txt"), 0);
  seams([](testutil::Seams& s) { s.lock_dir = ""; });
  const std::string lock = locks + "/Global_QDX_WIN_010.lock";
  ASSERT_EQ(symlink(dir_.file("config.ini").c_str(), lock.c_str()), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
  EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
  EXPECT_EQ(Initialize_process("Aratek_A600"), -3);
  EXPECT_TRUE(has(last_status(), "Lock file " + lock + " cannot be used (errno " + std::to_string(ELOOP) + ")"));
  EXPECT_EQ(prctl(PR_GET_DUMPABLE), 0);
  EXPECT_EQ(count_of(read_file("rd.log"), "Warning: other users can write to the working folder " + dir_.path()), 1);
  ASSERT_EQ(unlink(lock.c_str()), 0);
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << last_status();
  EXPECT_TRUE(fs::is_regular_file(lock));
  chmod(dir_.path().c_str(), 0700);
}

struct FailureCase {
  const char* name;
  int expected;
  const char* status;  // expected part of the last-status line after its time stamp
  const char* logged;  // expected log line
  const char* path = "";                                     // a file changed first:
  const char* append = nullptr;                              // this text added, or else the file removed
  platform::WriteFault fault = platform::WriteFault::kNone;  // writes that fail
  const char* scanner = "Aratek_A600";
};

using enum platform::WriteFault;
// The status column names the file and function that report (the host shows
// this line).
const FailureCase kFailureCases[] = {
    {"NoStatusPipe", -1, "Create pipe failed, error_code = 2", "", "qdx.win.002"},
    {"NoConfig", -16, " | init | IsFilePresent | File Not Found : config.ini", "", "config.ini"},
    {"UnknownScanner", -3, "", ") - FP sensor is not valid sensor\n", "", nullptr, kNone, "NIKON_X1"},
    {"NoDevice", -10, " | init | Initialize_process | fingerprint device not attached, err_code: -3 ", "",
     "RefDll/sim_control.ini", "present = 0\n"},
    {"VendorLibraryMissing", kDllLoadingFailed, "", "", "RefDll/libAraTrustFinger.so"},
    {"GlobalInitFails", -1, " | init | Initialize_process | Aratek fingerprint scanner: Global init failed ", "",
     "RefDll/sim_control.ini", "global_init_result = -7\n"},
    {"HandEditedConfig", -5, " | init | Initialize_process | Config file reading failed", "", "config.ini", "\n"},
    {"ProxyWithoutUrl", -13, "", "", "proxy.ini", "[config]\nusername = u\npassword = \n"},
    {"SerialNotOpened", -8, "", ") - opening Serial_number file failed\n", "", nullptr, kOpen},
    {"SerialNotWritten", -7, "", ") - writing to serial_number file is failed\n", "", nullptr, kWrite},
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

// Each row runs in a process of its own: the vendor libraries stay loaded once loaded.
class StartupFailureTest : public StartupTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(StartupFailureTest, ReturnsItsCode) {
  const FailureCase& c = GetParam();
  if (c.append) testutil::write_file(c.path, read_file(c.path) + c.append);
  if (!c.append) fs::remove(c.path);
  seams([&](testutil::Seams& s) { s.write_fault = c.fault; });
  EXPECT_EQ(Initialize_process(c.scanner), c.expected);
  EXPECT_TRUE(has(last_status(), c.status));
  EXPECT_TRUE(has(read_file("rd.log"), c.logged));
  EXPECT_TRUE(c.expected != -16 || pipe_->wait_for("10000|File Not Found : config.ini\n"));
  EXPECT_TRUE(c.fault == kNone || !fs::exists("Serial_number"));
}

INSTANTIATE_TEST_SUITE_P(Rows, StartupFailureTest, ::testing::ValuesIn(kFailureCases),
                         [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

// With TLS on the TLS files are checked (every start-up above runs without
// them); a key that does not belong to the certificate fails when the
// service starts.
TEST_F(StartupTest, TlsFilesAndContext) {
  const struct {
    const char* name;
    std::string damage;  // the file removed; "./" first: replaced by a folder, which cannot be read
    int expected;
  } cases[] = {
      {"key missing", "cert/ssl/private.key", -16},
      {"certificate unreadable", "./cert/ssl/public.crt", -14},
      {"key unreadable", "./cert/ssl/private.key", -15},
      {"key of another pair", "", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all("cert");
    layout({"--tls"});
    if (!c.damage.empty()) fs::remove_all(c.damage);
    if (c.damage.starts_with("./")) fs::create_directory(c.damage);
    if (c.damage.empty()) testutil::write_file("cert/ssl/private.key", read_file(mgmttest::kMgmtData + "/ca.key"));
    EXPECT_EQ(Initialize_process("Aratek_A600"), c.expected) << last_status();
    if (c.damage.starts_with("./")) {
      EXPECT_TRUE(has(last_status(), c.damage + " file is not exist in the path"));
      EXPECT_TRUE(pipe_->wait_for("10000|" + c.damage + " file not found\n"));
    }
  }
  EXPECT_EQ(Start_RDservice(), -3);
  EXPECT_TRUE(has(last_status(), " | init | Start_RDservice |  SSL server init failed"));
  EXPECT_TRUE(pipe_->wait_for("5000|SSL server init failed\n"));
}

// The started service's answers are in the capture tests; here the plug events.
TEST_F(StartupTest, StartAndPlugEventsMoveTheStatus) {
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  ASSERT_EQ(Start_RDservice(), 0) << last_status();
  EXPECT_TRUE(has(last_status(), "RD service started successfully"));
  // Pulled out (NOTREADY: CaptureEndToEnd), with the detach notification.
  EXPECT_EQ(detach_device(), 0);
  EXPECT_EQ(get_device_detached(), 1);
  EXPECT_TRUE(has(last_status(), " | detach_device | Fingerprint device not attached "));
  // The same scanner again: 0 and READY.
  EXPECT_EQ(attach_device(), 0);
  EXPECT_EQ(get_device_detached(), 0);
  EXPECT_STREQ(get_rd_status(), "\"READY\"");
  // Another scanner: -10, READY, and the new serial is stored.
  sim::write_control(refdll_, {{"serial", "SERIAL-B"}});
  EXPECT_EQ(attach_device(), -10);
  EXPECT_EQ(get_device_serial(), "SERIAL-B");
  EXPECT_STREQ(get_rd_status(), "\"READY\"");
  // No scanner answers: -1, the status stays, both notifications in order.
  set_rd_status_notready();
  sim::write_control(refdll_, {{"present", "0"}});
  // The notifications so far arrive first, so that only this attach's follow.
  ASSERT_TRUE(pipe_->wait_for(
      "5000|Fingerprint device disconnected\n5000|Fingerprint device connected\n5000|Fingerprint device connected\n"));
  const std::size_t before = pipe_->received().size();
  EXPECT_EQ(attach_device(), -1);
  EXPECT_STREQ(get_rd_status(), "\"NOTREADY\"");
  EXPECT_TRUE(has(last_status(), " | attach_device | fingerprint device not attached "));
  const std::string both = "5000|Fingerprint device connected\n5000|Fingerprint device disconnected\n";
  ASSERT_TRUE(pipe_->wait_for(both, 5000, before));
  EXPECT_EQ(pipe_->received().substr(before), both);
}

// A FIFO path another user took first (a link, a file, a FIFO of theirs that
// would read the messages or inject its own) stops the host before it loads
// the library; what they planted is neither used nor removed.
TEST(HostProcessTest, RefusesAFifoPathTakenByAnother) {
  testutil::WorkDir dir;
  const struct {
    const char* name;
    bool (*plant)(const std::string& path);
  } rows[] = {
      {"link", [](const std::string& p) { return !symlink((p + ".target").c_str(), p.c_str()); }},
      {"plain file", [](const std::string& p) { return creat(p.c_str(), 0666) >= 0; }},
      {"FIFO open to others", [](const std::string& p) { return !mkfifo(p.c_str(), 0666); }},
      {"FIFO of another user", [](const std::string& p) { return !mkfifo(p.c_str(), 0600); }},
  };
  int n = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string folder = testutil::shared_folder(dir, "run" + std::to_string(n++));
    const std::string path = folder + "/qdx.win.002";
    ASSERT_TRUE(testutil::as_other_user([&] { return row.plant(path); }));
    const int mode = testutil::mode_of(path);
    const testutil::Run host =
        testutil::run({testutil::program("vexo-host"), "--status-pipe-dir", folder, "--no-mgmt", "Aratek_A600"});
    EXPECT_EQ(host.rc, 1) << host.out;
    EXPECT_EQ(host.out.rfind("vexo-host: status FIFO " + path + ": ", 0), 0u) << host.out;
    EXPECT_EQ(testutil::mode_of(path), mode);
  }
}

}  // namespace
