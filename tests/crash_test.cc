// Every file the library rewrites, killed at every step of the rewrite: a
// child process does the work and kills itself (SIGKILL) at the n-th crash
// point; a fresh child then starts the service as a host would, and must
// succeed. For the keystore, the key must also be readable again, through
// the forced key rotation when the kill left it torn.
#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "common/config_dict.h"
#include "common/openssl_ptr.h"
#include "common/rd_config.h"
#include "mgmt_core/download.h"
#include "common/hash.h"
#include "mgmt_core/keystore.h"
#include "mgmt_server_util.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/device_lock.h"
#include "sim_control.h"
#include "test_crypto.h"
#include "test_util.h"
#include "vexo.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kScanner = "Aratek_A600";
constexpr const char* kSerial = "A600-CRASH-1";

// Runs fn in a child process. Its exit status as waitpid reports it.
int in_child(const std::function<int()>& fn) {
  const pid_t pid = fork();
  if (pid == 0) _exit(fn() == 0 ? 0 : 1);
  int status = -1;
  return pid > 0 && waitpid(pid, &status, 0) == pid ? status : -1;
}

bool killed(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }
bool succeeded(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

// The library fixture in a working folder laid out by vexoctl (with TLS) and
// the simulated scanner kSerial.
class CrashTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(testutil::init_workdir(dir_.path(), kScanner, {"--tls"}).rc, 0);
    sim::write_control(dir_.file("RefDll"), {{"serial", kSerial}, {"capture_wait_ms", "0"}});
  }

  // Kills a child at each crash point of work in turn, until the work runs to
  // its end; after each kill, check must succeed in a fresh child. The
  // number of points tried.
  int kill_at_every_point(
      const std::function<int()>& prepare, const std::function<int()>& work, const std::function<int()>& check,
      const std::function<void()>& before_each = [] {}) {
    int point = 1;
    for (; point < 400; ++point) {
      before_each();
      const int status = in_child([&] {
        if (prepare() != 0) return -1;
        test_seams::update([&](test_seams::Seams& s) { s.crash_countdown = point; });
        return work();
      });
      if (succeeded(status) || !killed(status)) {
        EXPECT_TRUE(succeeded(status)) << "point " << point << " status " << status;
        break;
      }
      EXPECT_TRUE(succeeded(in_child(check))) << "after a kill at point " << point;
    }
    return point;
  }
};

int start() { return Initialize_process(kScanner); }

TEST_F(CrashTest, ConfigProxyUidaiAndSerialRewrites) {
  const std::string pem = testutil::read_file(mgmttest::kMgmtData + "/ca.crt");
  const std::string hex = hex_lower(sha256(std::string_view(pem)));
  struct Row {
    const char* name;
    std::function<int()> prepare;
    std::function<int()> work;
    std::function<int()> check;
    int min_points;
  } rows[] = {
      {"Https_Set_Api", start, [] { return Https_Set_Api("0"); }, start, 8},
      {"Set_Proxy_Api", start, [] { return Set_Proxy_Api("http://127.0.0.1:3128|user|secret"); }, start, 4},
      {"UIDAI certificate", start, [&] { return uidai_install_cert("./", UidaiCert::kProd, pem, hex); },
       [&] {
         if (start() != 0) return 1;
         const std::string in_force = uidai_cert_in_force(UidaiCert::kProd);
         return in_force == pem || in_force == std::string(uidai_builtin_cert(UidaiCert::kProd)) ? 0 : 1;
       },
       8},
      // A new scanner serial: start-up rewrites Serial_number itself.
      {"Serial_number",
       [this] {
         sim::write_control(dir_.file("RefDll"), {{"serial", "A600-CRASH-2"}, {"capture_wait_ms", "0"}});
         return 0;
       },
       start, start, 4},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    const int points = kill_at_every_point(r.prepare, r.work, r.check);
    EXPECT_GE(points, r.min_points);
    EXPECT_TRUE(succeeded(in_child(start)));
    // Temporary files of killed rewrites of config.ini are cleared at start-up.
    for (const auto& e : fs::directory_iterator(".")) {
      EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
    }
  }
}

TEST_F(CrashTest, KeystoreAndKeyRotation) {
  fs::create_directories("data/uidai");
  testutil::write_file("cert/server.crt", testutil::read_file(mgmttest::kMgmtData + "/ca.crt"));
  mgmttest::Server server(true);
  ASSERT_GT(server.port(), 0) << server.log();
  ASSERT_EQ(mgmttest::run_command({"add-device", kSerial, "--registry", "registry.db"}), 0);
  const std::string base = server.base();
  auto prepare = [&] {
    if (start() != 0) return -1;
    rd_config_update([&base](RdConfig& c) {
      c.mgmt_url_register = base + "/rest/register/";
      c.mgmt_url_keyrotation = base + "/rest/keyRotation/";
    });
    return 0;
  };
  auto rotate = [] {
    char next_action[VEXO_NEXT_ACTION_LEN] = {};
    return Key_Rotation(next_action, "KEY_ROTATION");
  };
  // What was in force before the child was killed.
  std::string old_dc, old_mc;
  auto snapshot = [&] {
    Dict ini(iniparser_load("./config.ini"));
    old_dc = ini ? iniparser_getstring(ini.get(), "config:dc", "") : "";
    old_mc = testutil::read_file("cert/public/signed_mc.cer");
  };
  // Start-up succeeds and one identity is whole: the old one, or the new one
  // the server issued. The key opens at once (no forced rotation) and belongs
  // to the signed certificate that goes with the device code.
  auto check = [&] {
    if (prepare() != 0) return 1;
    ScannerLock lock;
    Secret key_pem;
    if (!lock.held() || GetDevicePrivateKeyFromFile(&key_pem) != 0) return 1;
    const std::string mc = testutil::read_file("cert/public/signed_mc.cer");
    const std::string dc = rd_config_copy().dc;
    std::string listed;
    if (mgmttest::run_command({"list", "--registry", "registry.db"}, &listed) != 0) return 1;
    const bool old_whole = dc == old_dc && mc == old_mc;
    const bool new_whole = dc != old_dc && mc != old_mc && listed.find("dc=" + dc) != std::string::npos;
    PkeyPtr key = testcrypto::private_key_of_pem(std::string(key_pem.view()));
    const auto* p = reinterpret_cast<const unsigned char*>(mc.data());
    X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(mc.size())));
    return (old_whole || new_whole) && key && cert && X509_check_private_key(cert.get(), key.get()) == 1 ? 0 : 1;
  };
  // A first rotation makes a keystore this test program can read.
  ASSERT_TRUE(succeeded(in_child([&] { return prepare() == 0 ? rotate() : 1; }))) << testutil::last_status();
  const int points = kill_at_every_point(prepare, rotate, check, snapshot);
  EXPECT_GE(points, 40);
  snapshot();
  EXPECT_TRUE(succeeded(in_child(check)));
}

TEST_F(CrashTest, DownloadResumeRecord) {
  fs::create_directories("data/packages");
  std::string package(250000, '\0');
  for (std::size_t i = 0; i < package.size(); ++i) package[i] = static_cast<char>((i * 13 + i / 17) & 0xff);
  testutil::write_file("data/packages/pkg.zip", package);
  testutil::write_file("pkg.md5", package);
  std::string md5;
  ASSERT_EQ(MD5_Generate("pkg.md5", &md5), 0);
  testutil::write_file("cert/server.crt", testutil::read_file(mgmttest::kMgmtData + "/ca.crt"));
  mgmttest::Server server(true);
  ASSERT_GT(server.port(), 0);
  const std::string url = server.base() + "/files/packages/pkg.zip";
  auto download = [&] { return download_manager(url, md5, "./DownloadSW/Installer.zip"); };
  auto check = [&] { return download() == 0 && testutil::read_file("DownloadSW/Installer.zip") == package ? 0 : 1; };
  const int points = kill_at_every_point([] { return 0; }, download, check);
  EXPECT_GE(points, 12);  // three records of four points each at least
}

}  // namespace
