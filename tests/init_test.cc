// Start-up, plug events and the host program, on real working folders laid
// out by vexoctl, with the simulated scanner.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <regex>
#include <thread>

#include "common/work_area.h"
#include "init/init.h"
#include "mgmt_core/keystore.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "platform/platform.h"
#include "semaphore/semaphore_syc.h"
#include "sim_control.h"
#include "test_util.h"
#include "platform/test_seams.h"
#include "vexo.h"

namespace {

namespace fs = std::filesystem;
using testutil::read_file;

using testutil::count_of;

// Runs a command and returns its exit status.
int run(const std::string& command) {
  int rc = std::system(command.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

std::string vexoctl() { return std::string(VEXO_BUILD_DIR) + "/vexoctl"; }

// A working folder laid out by vexoctl, with a status FIFO, a private lock
// folder, a fixed network adapter and APPDATA inside it.
class StartupTest : public ::testing::Test {
 protected:
  void SetUp() override { layout(false); }

  void layout(bool tls) {
    init_reset_for_test();
    semaphore_reset_for_test();
    rd_log_reset_for_test();
    set_rd_status_ready();
    set_device_detached(0);
    set_device_serial("");
    std::string cmd = vexoctl() + " init-workdir " + dir_.path() +
                      " --scanner Aratek_A600 --mgmt-url https://mgmt.test/Zelm" + (tls ? " --tls" : "") +
                      " > /dev/null";
    ASSERT_EQ(run(cmd), 0);
    refdll_ = dir_.file("RefDll");
    sim::write_control(refdll_, {{"serial", "SERIAL-A"}, {"capture_wait_ms", "0"}});
    fs::create_directories(dir_.file("locks"));
    test_seams::update([&](test_seams::Seams& s) { s.lock_dir = dir_.file("locks"); });
    platform::Adapter eth;
    const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x01};
    std::copy(mac, mac + 6, eth.address);
    eth.index = 2;
    eth.ethernet = true;
    eth.name = "eth0";
    test_seams::update([&](test_seams::Seams& s) { s.adapters = std::vector<platform::Adapter>{eth}; });
    first_port_ = testutil::reserve_ports(8);
    ASSERT_NE(first_port_, 0);
    test_seams::update([&](test_seams::Seams& s) {
      s.first_port = first_port_;
      s.last_port = first_port_ + 7;
    });
    setenv("APPDATA", dir_.file("appdata").c_str(), 1);
    fs::create_directories(dir_.file("appdata"));
  }

  void TearDown() override {
    zlog_fini();
    test_seams::set({});
    unsetenv("APPDATA");
  }

  testutil::WorkDir dir_;
  int first_port_ = 0;  // the service's range: first_port_ .. first_port_ + 7
  testutil::PipeReader pipe_{dir_.path()};
  std::string refdll_;
};

// The library says nothing on standard output or standard error at Verbose 0
// and 1: no URL, no adapter list, no INI dump, no key material. At Verbose 2
// its debugging lines appear, still without key material.
TEST_F(StartupTest, NothingOnStandardOutputUnlessDebugging) {
  for (int verbose : {0, 1, 2}) {
    SCOPED_TRACE(verbose);
    layout(false);
    const std::string config = read_file("config.ini");
    const std::size_t at = config.find("Verbose");
    ASSERT_NE(at, std::string::npos) << config;
    std::string edited =
        config.substr(0, at) + "Verbose = " + std::to_string(verbose) + config.substr(config.find('\n', at));
    testutil::write_file("config.ini", edited);
    ASSERT_EQ(run(vexoctl() + " seal config.ini > /dev/null"), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int rc = Initialize_process("Aratek_A600");
    std::string cert_pem;
    Secret key_pem;
    const int key_rc = GenerateKeyPair(&cert_pem);
    const int read_rc = GetDevicePrivateKeyFromFile(&key_pem);
    EXPECT_EQ(Set_Proxy_Api("http://proxy:3128|bob|s3cret"), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    ASSERT_EQ(rc, 0) << testutil::last_status();
    ASSERT_EQ(key_rc, 0);
    ASSERT_EQ(read_rc, 0);
    EXPECT_EQ(err, "");
    if (verbose < 2) {
      EXPECT_EQ(out, "");
    } else {
      EXPECT_NE(out.find("URL is: https://mgmt.test/Zelm"), std::string::npos) << out;
    }
    EXPECT_EQ(out.find("PRIVATE KEY"), std::string::npos);
    EXPECT_EQ(out.find("s3cret"), std::string::npos);
    init_reset_for_test();
    semaphore_reset_for_test();
  }
}

TEST_F(StartupTest, FirstCallSucceedsAndSecondSkipsOneTimeSteps) {
  fs::create_directories("cert/public");
  testutil::write_file("cert/public/signed_mc.cer", "certificate");
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << testutil::last_status();
  EXPECT_NE(testutil::last_status().find(" | init | Initialize_process | Initialize_process Success "),
            std::string::npos)
      << testutil::last_status();
  EXPECT_EQ(read_file("Serial_number"), "SERIAL-A");
  EXPECT_EQ(get_device_serial(), "SERIAL-A");
  EXPECT_EQ(rd_identity_copy().rdsId, "QDX.WIN.002");
  EXPECT_EQ(rd_identity_copy().mi, "QDX.ARA.A600.W");
  EXPECT_EQ(rd_identity_copy().dpId, "KORVANE.QDX");
  EXPECT_EQ(rd_identity_copy().clId.size(), 5u);
  EXPECT_EQ(rd_log_size_limit_kb(), 2048);
  EXPECT_EQ(rd_identity_copy().device_changed, 1);  // no Serial_number before

  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  EXPECT_EQ(rd_identity_copy().device_changed, 0);  // same scanner, device certificate present
  std::string log = read_file("rd.log");
  struct {
    const char* text;
    int count;
  } expected[] = {
      {") - zlog initialized successfully\n", 1},
      {") - Pipe created successfully\n", 1},
      {") - DLL Loading SUCCESS\n", 1},
      {") - init_semaphore success\n", 1},
      {") - Config file reading is successful\n", 1},
      {") - IsFilePresent function success\n", 2},
      {") - fingerprint is attached, serial number is SERIAL-A\n", 2},
      {") - Serial_number file is not there\n", 1},
      {") - old_serial_number is: SERIAL-A\n", 1},
      {") - old_serial_number and serial_number are same\n", 1},
      {") - Returning from Initialize_process\n", 2},
  };
  for (const auto& e : expected) EXPECT_EQ(count_of(log, e.text), e.count) << e.text;
}

// Adds lines to config.ini's [config] section (at its end) and seals it again.
void add_settings(const std::string& lines) {
  testutil::write_file("config.ini", read_file("config.ini") + lines);
  ASSERT_EQ(run(vexoctl() + " seal config.ini > /dev/null"), 0);
}

// Every file and folder the library makes, whichever way, is closed to other
// users. The fixture's files are opened to all first, so that a file the
// library replaced shows as well as a new one.
TEST_F(StartupTest, EveryFileTheLibraryMakesIsClosedToOthers) {
  fs::remove("rd.log");
  fs::remove("Vexo_Error.log");
  std::map<std::string, ino_t> before;  // what was there, and which file it was
  for (const auto& e : fs::recursive_directory_iterator(dir_.path())) {
    struct stat st {};
    ASSERT_EQ(lstat(e.path().c_str(), &st), 0);
    if (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) {
      ASSERT_EQ(chmod(e.path().c_str(), S_ISDIR(st.st_mode) ? 0755 : 0644), 0);
    }
    before[e.path().string()] = st.st_ino;
  }
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << testutil::last_status();
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
  add_settings("LOCK_FOLDER = " + locks + "\n");
  test_seams::update([&](test_seams::Seams& s) { s.lock_dir = ""; });
  const std::string lock = locks + "/Global_QDX_WIN_010.lock";
  ASSERT_EQ(symlink(dir_.file("config.ini").c_str(), lock.c_str()), 0);
  ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
  EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);

  EXPECT_EQ(Initialize_process("Aratek_A600"), -3);
  EXPECT_NE(testutil::last_status().find("Lock file " + lock + " cannot be used (errno " + std::to_string(ELOOP) + ")"),
            std::string::npos)
      << testutil::last_status();
  EXPECT_EQ(prctl(PR_GET_DUMPABLE), 0);
  EXPECT_EQ(count_of(read_file("rd.log"), "Warning: other users can write to the working folder " + dir_.path()), 1);
  ASSERT_EQ(unlink(lock.c_str()), 0);
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << testutil::last_status();
  EXPECT_TRUE(fs::is_regular_file(lock));
  chmod(dir_.path().c_str(), 0700);
}

struct FailureCase {
  const char* name;
  void (*damage)(const std::string& refdll);
  const char* scanner;
  int expected;
  const char* status;  // expected part of the last-status line
};

// The status column is the last-status line after its time stamp: the file
// and function that report must be the design's (the host shows this line).
const FailureCase kFailureCases[] = {
    {"NoSealFile", [](const std::string&) { fs::remove("bin_crc.txt"); }, "Aratek_A600", -16,
     " | init | IsFilePresent | File Not Found : bin_crc.txt"},
    {"NoConfig", [](const std::string&) { fs::remove("config.ini"); }, "Aratek_A600", -16,
     " | init | IsFilePresent | File Not Found : config.ini"},
    {"NoServerCertificate", [](const std::string&) { fs::remove("cert/server.crt"); }, "Aratek_A600", -16,
     " | init | IsFilePresent | File Not Found : cert/server.crt"},
    {"UnknownScanner", [](const std::string&) {}, "NIKON_X1", -3, ""},
    {"NoDevice",
     [](const std::string& refdll) {
       sim::write_control(refdll, {{"present", "0"}});
     },
     "Aratek_A600", -10, " | init | Initialize_process | fingerprint device not attached, err_code: -3 "},
    {"VendorLibraryMissing", [](const std::string& refdll) { fs::remove(refdll + "/libAraTrustFinger.so"); },
     "Aratek_A600", kDllLoadingFailed, ""},
    {"GlobalInitFails",
     [](const std::string& refdll) {
       sim::write_control(refdll, {{"global_init_result", "-7"}});
     },
     "Aratek_A600", -1, " | init | Initialize_process | Aratek fingerprint scanner: Global init failed "},
    {"HandEditedConfig", [](const std::string&) { testutil::write_file("config.ini", read_file("config.ini") + "\n"); },
     "Aratek_A600", -5, " | init | Initialize_process | Config file reading failed"},
    {"ProxyWithoutUrl",
     [](const std::string&) { testutil::write_file("proxy.ini", "[config]\nusername = u\npassword = \n"); },
     "Aratek_A600", -13, ""},
    {"SerialNotOpened",
     [](const std::string&) {
       test_seams::update([&](test_seams::Seams& s) { s.write_fault = platform::WriteFault::kOpen; });
     },
     "Aratek_A600", -8, ""},
    {"SerialNotWritten",
     [](const std::string&) {
       test_seams::update([&](test_seams::Seams& s) { s.write_fault = platform::WriteFault::kWrite; });
     },
     "Aratek_A600", -7, ""},
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

// Each row runs in a process of its own: the vendor libraries stay loaded once loaded.
class StartupFailureTest : public StartupTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(StartupFailureTest, ReturnsItsCode) {
  const FailureCase& c = GetParam();
  c.damage(refdll_);
  EXPECT_EQ(Initialize_process(c.scanner), c.expected);
  if (*c.status) {
    EXPECT_NE(testutil::last_status().find(c.status), std::string::npos) << testutil::last_status();
  }
  if (c.expected == -3) {
    EXPECT_NE(read_file("rd.log").find(") - FP sensor is not valid sensor\n"), std::string::npos);
  }
  if (c.expected == -16) {
    const std::string text = std::string(c.status).substr(std::string(c.status).find("File Not Found"));
    EXPECT_TRUE(pipe_.wait_for("10000|" + text + "\n"));
  }
  if (c.expected == -7 || c.expected == -8) {
    EXPECT_NE(read_file("rd.log").find(c.expected == -7 ? ") - writing to serial_number file is failed\n"
                                                        : ") - opening Serial_number file failed\n"),
              std::string::npos);
    EXPECT_FALSE(fs::exists("Serial_number"));
  }
  test_seams::update([&](test_seams::Seams& s) { s.write_fault = platform::WriteFault::kNone; });
}

INSTANTIATE_TEST_SUITE_P(Rows, StartupFailureTest, ::testing::ValuesIn(kFailureCases),
                         [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

TEST_F(StartupTest, NoStatusPipeFailsWithMinusOne) {
  platform::set_status_pipe_path(dir_.file("absent_fifo"));
  EXPECT_EQ(Initialize_process("Aratek_A600"), -1);
  EXPECT_NE(testutil::last_status().find("Create pipe failed, error_code = 2"), std::string::npos);
}

TEST_F(StartupTest, ResumesAtTheFailedStepAfterRepair) {
  const std::string good = read_file("config.ini");
  testutil::write_file("config.ini", good + "; edited by hand\n");
  ASSERT_EQ(Initialize_process("Aratek_A600"), -5);
  testutil::write_file("config.ini", good);
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << testutil::last_status();
  std::string log = read_file("rd.log");
  EXPECT_EQ(count_of(log, ") - zlog initialized successfully\n"), 1);
  EXPECT_EQ(count_of(log, ") - DLL Loading SUCCESS\n"), 1);
  EXPECT_EQ(count_of(log, ") - Config file reading failed\n"), 1);
  EXPECT_EQ(count_of(log, ") - Config file reading is successful\n"), 1);
}

TEST_F(StartupTest, ChangedScannerSetsTheDeviceChangedFlag) {
  fs::create_directories("cert/public");
  testutil::write_file("cert/public/signed_mc.cer", "certificate");
  testutil::write_file("Serial_number", "SERIAL-A");
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  EXPECT_EQ(rd_identity_copy().device_changed, 0);
  sim::write_control(refdll_, {{"serial", "SERIAL-B"}});
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  EXPECT_EQ(rd_identity_copy().device_changed, 1);
  EXPECT_EQ(read_file("Serial_number"), "SERIAL-B");
  EXPECT_NE(read_file("rd.log").find(") - old_serial_number and serial_number are different\n"), std::string::npos);
  fs::remove("cert/public/signed_mc.cer");
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  EXPECT_EQ(rd_identity_copy().device_changed, 1);  // no device certificate: Init must run
  EXPECT_NE(read_file("rd.log").find(") - device public key not present\n"), std::string::npos);
}

TEST_F(StartupTest, TlsFilesAreCheckedOnlyWithTlsOn) {
  // TLS off: a missing cert/ssl folder is no error.
  fs::remove_all("cert/ssl");
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);

  struct Case {
    const char* name;
    const char* damage;  // the file to remove, or to replace by a folder
    bool folder;
    int expected;
  } cases[] = {
      {"key missing", "cert/ssl/private.key", false, -16},
      {"certificate missing", "cert/ssl/public.crt", false, -16},
      {"certificate unreadable", "cert/ssl/public.crt", true, -14},
      {"key unreadable", "cert/ssl/private.key", true, -15},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testutil::WorkDir fresh;
    testutil::PipeReader pipe(fresh.path());
    ASSERT_EQ(run(vexoctl() + " init-workdir " + fresh.path() +
                  " --scanner Aratek_A600 --mgmt-url https://mgmt.test/Zelm --tls > /dev/null"),
              0);
    init_reset_for_test();
    semaphore_reset_for_test();
    rd_log_reset_for_test();
    fs::remove(c.damage);
    if (c.folder) fs::create_directory(c.damage);
    EXPECT_EQ(Initialize_process("Aratek_A600"), c.expected);
    if (c.expected != -16) {
      EXPECT_NE(testutil::last_status().find(std::string("./") + c.damage + " file is not exist in the path"),
                std::string::npos)
          << testutil::last_status();
      EXPECT_TRUE(pipe.wait_for(std::string("10000|./") + c.damage + " file not found\n"));
    }
    zlog_fini();
  }
}

TEST_F(StartupTest, StartServesDiscoveryAndPlugEventsMoveTheStatus) {
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0);
  ASSERT_EQ(Start_RDservice(), 0) << testutil::last_status();
  EXPECT_NE(testutil::last_status().find("RD service started successfully"), std::string::npos);
  const int port = service_port();
  ASSERT_EQ(port, first_port_);
  const std::string request = "RDSERVICE / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  std::string answer = testutil::http_exchange(port, request);
  EXPECT_NE(answer.find("<RDService status=\"READY\" info=\"Korvane RD service(QDX.ARA.A600.W) is running\">"),
            std::string::npos)
      << answer;

  // Pulled out: NOTREADY, with the detach notification.
  EXPECT_EQ(detach_device(), 0);
  EXPECT_EQ(get_device_detached(), 1);
  EXPECT_NE(testutil::last_status().find(" | detach_device | Fingerprint device not attached "), std::string::npos);
  answer = testutil::http_exchange(port, request);
  EXPECT_NE(answer.find("status=\"NOTREADY\""), std::string::npos);

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
  ASSERT_TRUE(
      pipe_.wait_for("5000|Fingerprint device disconnected\n5000|Fingerprint device connected\n"
                     "5000|Fingerprint device connected\n"));
  const std::size_t before = pipe_.received().size();
  EXPECT_EQ(attach_device(), -1);
  EXPECT_STREQ(get_rd_status(), "\"NOTREADY\"");
  EXPECT_NE(testutil::last_status().find(" | attach_device | fingerprint device not attached "), std::string::npos);
  ASSERT_TRUE(pipe_.wait_for("5000|Fingerprint device connected\n5000|Fingerprint device disconnected\n"));
  EXPECT_EQ(pipe_.received().substr(before),
            "5000|Fingerprint device connected\n5000|Fingerprint device disconnected\n");
}

TEST_F(StartupTest, TlsContextFailureReportsSslServerInitFailed) {
  testutil::WorkDir fresh;
  testutil::PipeReader pipe(fresh.path());
  ASSERT_EQ(run(vexoctl() + " init-workdir " + fresh.path() +
                " --scanner Aratek_A600 --mgmt-url https://mgmt.test/Zelm --tls > /dev/null"),
            0);
  // A key of another pair: the modulus check fails before any context is made.
  ASSERT_EQ(run("openssl genrsa -out cert/ssl/private.key 2048 2>/dev/null"), 0);
  init_reset_for_test();
  semaphore_reset_for_test();
  rd_log_reset_for_test();
  ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << testutil::last_status();
  EXPECT_EQ(Start_RDservice(), -3);
  EXPECT_NE(testutil::last_status().find(" | init | Start_RDservice |  SSL server init failed"), std::string::npos)
      << testutil::last_status();
  EXPECT_TRUE(pipe.wait_for("5000|SSL server init failed\n"));
}

// The host program in a folder made by vexoctl: serves discovery on a real
// socket, reports plug events from signals and exits 0 on SIGTERM.
TEST(HostProcessTest, ServesDiscoveryAndStopsOnSigterm) {
  testutil::WorkDir dir;
  ASSERT_EQ(run(vexoctl() + " init-workdir " + dir.path() +
                " --scanner Aratek_A600 --mgmt-url https://mgmt.test/Zelm > /dev/null"),
            0);
  fs::create_directories(dir.file("appdata"));
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    setenv("APPDATA", dir.file("appdata").c_str(), 1);
    mkdir(dir.file("run").c_str(), 0700);
    setenv("XDG_RUNTIME_DIR", dir.file("run").c_str(), 1);
    std::string host = std::string(VEXO_BUILD_DIR) + "/vexo-host";
    execl(host.c_str(), host.c_str(), "--workdir", dir.path().c_str(), "--no-mgmt", "Aratek_A600", nullptr);
    _exit(127);
  }
  close(out[1]);
  const std::string fifo = dir.file("run/qdx.win.002");  // in the child's XDG_RUNTIME_DIR
  auto read_until = [&](const std::string& needle, std::string* got) {
    char buf[4096];
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (got->find(needle) == std::string::npos && std::chrono::steady_clock::now() < end) {
      ssize_t n = read(out[0], buf, sizeof buf);
      if (n <= 0) break;
      got->append(buf, static_cast<std::size_t>(n));
    }
    return got->find(needle) != std::string::npos;
  };
  std::string output;
  ASSERT_TRUE(read_until("Start_RDservice returned 0", &output)) << output;
  EXPECT_EQ(testutil::mode_of(fifo), 0600);
  EXPECT_TRUE(fs::is_fifo(fifo));
  std::smatch m;
  std::string log = read_file(dir.file("rd.log"));
  ASSERT_TRUE(std::regex_search(log, m, std::regex(R"(Server Listening On 127\.0\.0\.1 And Port (\d+))")));
  const int port = std::stoi(m[1]);
  std::string answer = testutil::http_exchange(port, "RDSERVICE / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
  EXPECT_NE(answer.find("status=\"READY\""), std::string::npos);

  kill(pid, SIGUSR2);
  ASSERT_TRUE(read_until("detach_device returned 0", &output)) << output;
  EXPECT_NE(testutil::http_exchange(port, "RDSERVICE / HTTP/1.1\r\n\r\n").find("status=\"NOTREADY\""),
            std::string::npos);
  kill(pid, SIGUSR1);
  ASSERT_TRUE(read_until("attach_device returned 0", &output)) << output;
  // The pipe reader prints on a thread of its own, so its line may come later.
  EXPECT_TRUE(read_until("pipe: 5000|Fingerprint device connected", &output)) << output;

  kill(pid, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(fs::exists(fifo));  // the host removes the FIFO it made
  close(out[0]);
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
    const std::string& text = host.out;
    EXPECT_EQ(host.rc, 1) << text;
    EXPECT_EQ(text.rfind("vexo-host: status FIFO " + path + ": ", 0), 0u) << text;
    EXPECT_EQ(testutil::mode_of(path), mode);
  }
}

}  // namespace
