// vexoctl run as a child process: its DOMAIN_NAME values, seals and laid-out
// working folders must be what the library itself accepts.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/file_crc.h"
#include "common/openssl_ptr.h"
#include "common/rd_config.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/semaphore_syc.h"
#include "test_crypto.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using testcrypto::cert_of_pem;
using testutil::read_file;
using testutil::write_file;
using testutil::run;
using ToolRun = testutil::Run;

constexpr char kUrl[] = "https://127.0.0.1:9443/Zelm";
const std::string kTool = std::string(VEXO_BUILD_DIR) + "/vexoctl";

X509Ptr load_cert(const std::string& path) { return cert_of_pem(read_file(path)); }
PkeyPtr load_key(const std::string& path) { return testcrypto::private_key_of_pem(read_file(path)); }

// Checks what tls-cert lays out in wd: a server pair that belongs together,
// names localhost, 127.0.0.1 and ::1 (and nothing else) and is no CA, beside
// a CA; both keys readable by the owner only. Returns the CA certificate's PEM
// text. (Browsers accepting the chain: BrowserPage.https.)
std::string expect_local_tls(const std::string& wd) {
  auto cert = load_cert(wd + "/cert/ssl/public.crt");
  auto key = load_key(wd + "/cert/ssl/private.key");
  auto ca = load_cert(wd + "/cert/ssl/ca/ca.crt");
  EXPECT_TRUE(cert && key && ca) << "a certificate or key of " << wd << " is missing";
  if (!cert || !key || !ca) return "";
  EXPECT_EQ(X509_check_private_key(cert.get(), key.get()), 1);
  const struct {
    const char* name;
    bool ip;
    bool matches;
  } names[] = {{"localhost", false, true},    {"127.0.0.1", true, true},  {"::1", true, true},
               {"example.com", false, false}, {"127.0.0.2", true, false}, {"::2", true, false}};
  for (const auto& n : names) {
    int got = n.ip ? X509_check_ip_asc(cert.get(), n.name, 0) : X509_check_host(cert.get(), n.name, 0, 0, nullptr);
    EXPECT_EQ(got == 1, n.matches) << n.name;
  }
  EXPECT_EQ(X509_check_ca(ca.get()), 1);
  EXPECT_EQ(X509_check_ca(cert.get()), 0);
  for (const char* file : {"/cert/ssl/private.key", "/cert/ssl/ca/ca.key", "/cert/ssl/ca"}) {
    EXPECT_EQ(testutil::mode_of(wd + file) & 077, 0) << file;
  }
  return read_file(wd + "/cert/ssl/ca/ca.crt");
}

class VexoctlTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(init_semaphore(), 0);
  }

  // A copy of vexoctl in its own folder, with a RefDll folder beside it when
  // refdll is set, so the test controls what the tool finds there.
  std::string staged_tool(bool refdll) {
    const std::string bin = dir_.file("bin");
    fs::create_directories(bin);
    // With the schema and the library the demonstration keystore is bound to.
    for (const char* file : {"vexoctl", "Final.xsd", "libVexo.so"}) {
      fs::copy_file(std::string(VEXO_BUILD_DIR) + "/" + file, bin + "/" + file, fs::copy_options::overwrite_existing);
    }
    if (refdll) {
      fs::create_directories(bin + "/RefDll");
      write_file(bin + "/RefDll/libAraTrustFinger.so", std::string("\177ELF fake library\0tail", 22));
      write_file(bin + "/RefDll/libTavio.so", "another");
      write_file(bin + "/RefDll/README.txt", "not a library");
    }
    return bin + "/vexoctl";
  }
};

TEST_F(VexoctlTest, CommandsHaveHelpAndRejectBadUsage) {
  // Help for any command, wherever --help stands.
  ToolRun help = run({kTool, "init-workdir", "wd", "--help"});
  EXPECT_EQ(help.rc, 0);
  EXPECT_EQ(help.out.find("usage: vexoctl init-workdir"), 0u) << help.out;
  const struct {
    std::vector<std::string> args;
    int rc;
  } bad[] = {
      {{kTool}, 2},
      {{kTool, "frobnicate"}, 2},
      {{kTool, "domain-encrypt"}, 2},
      {{kTool, "seal"}, 2},
      {{kTool, "init-workdir", "wd", "--scanner", "Aratek_A600"}, 2},
      {{kTool, "init-workdir", "wd", "--scanner", "Aratek_A600", "--mgmt-url", kUrl, "--bogus"}, 2},
      {{kTool, "init-workdir", "wd", "--scanner", "Nikon_D5", "--mgmt-url", kUrl}, 1},
      {{kTool, "domain-decrypt", "AAAAAAAAAAAAAAAAAAAAAA=="}, 1},
  };
  for (const auto& b : bad) {
    ToolRun r = run(b.args);
    EXPECT_EQ(r.rc, b.rc) << (b.args.size() == 1 ? "(none)" : b.args[1]) << ": " << r.out;
  }
  EXPECT_FALSE(fs::exists("wd"));
  EXPECT_EQ(run({kTool, "--help"}).rc, 0);
}

TEST_F(VexoctlTest, DomainValueDecryptsToTheUrl) {
  ToolRun enc = run({kTool, "domain-encrypt", kUrl});
  ASSERT_EQ(enc.rc, 0) << enc.out;
  ASSERT_TRUE(enc.out.ends_with("\n")) << enc.out;
  ToolRun dec = run({kTool, "domain-decrypt", enc.out.substr(0, enc.out.size() - 1)});
  EXPECT_EQ(dec.rc, 0);
  EXPECT_EQ(dec.out, std::string(kUrl) + "\n");
  // The library's reading of the value init-workdir writes: HostMgmt registers at it.
}

TEST_F(VexoctlTest, UidaiCertInstallsACertificateTheLibraryUses) {
  // A plausible UIDAI certificate, and one that is not (the Management CA):
  // that one only with --force, as a test certificate.
  const std::string pem = testcrypto::make_self_signed("Test UIDAI", "20240101000000Z", "20340101000000Z").cert_pem;
  const std::string ca = testutil::read_file(std::string(VEXO_SOURCE_DIR) + "/data/mgmt/ca.crt");
  write_file("new.pem", pem);
  write_file("ca.pem", ca);
  write_file("junk.pem", "not a certificate");
  const struct {
    std::vector<std::string> args;
    int rc;
  } runs[] = {
      {{kTool, "uidai-cert", "wd", "P"}, 2},
      {{kTool, "uidai-cert", "wd", "PROD", "new.pem"}, 2},
      {{kTool, "uidai-cert", "wd", "P", "junk.pem"}, 1},
      {{kTool, "uidai-cert", "wd", "P", "absent.pem"}, 1},
      {{kTool, "uidai-cert", "wd", "P", "ca.pem"}, 1},
      {{kTool, "uidai-cert", "wd", "S", "ca.pem", "--force"}, 0},
      {{kTool, "uidai-cert", "wd", "PP", "new.pem"}, 0},
  };
  for (const auto& r : runs) {
    ToolRun tool = run(r.args);
    EXPECT_EQ(tool.rc, r.rc) << r.args[3] << ": " << tool.out;
  }
  EXPECT_EQ(testutil::read_file("wd/cert/uidai/stage.pem"), ca);
  EXPECT_EQ(testutil::read_file("wd/cert/uidai/preprod.pem"), pem);
  EXPECT_FALSE(fs::exists("wd/cert/uidai/prod.pem"));
  // The library, working in that folder, takes the installed copy.
  rd_identity_update([](RdIdentity& id) { id.prefix = "wd/"; });
  EXPECT_EQ(uidai_cert_in_force(UidaiCert::kPreProd), pem);
  // An edited copy is no longer vouched for.
  write_file("wd/cert/uidai/preprod.pem", pem + " ");
  EXPECT_EQ(uidai_cert_in_force(UidaiCert::kPreProd), std::string(uidai_builtin_cert(UidaiCert::kPreProd)));
}

TEST_F(VexoctlTest, SealAndVerifyMatchTheLibrary) {
  fs::create_directories("sub");
  const std::string body = "[config]\nRD_VER = 9\n";
  write_file("sub/config.ini", body);
  ToolRun seal = run({kTool, "seal", "sub/config.ini"});
  ASSERT_EQ(seal.rc, 0) << seal.out;
  EXPECT_EQ(verify_crc(1, "sub/config.ini", "sub/bin_crc.txt"), 0);
  EXPECT_FALSE(fs::exists("bin_crc.txt"));
  ToolRun ok = run({kTool, "verify", "sub/config.ini"});
  EXPECT_EQ(ok.rc, 0);
  EXPECT_EQ(ok.out, "seal ok: sub/config.ini\n");
  write_file("sub/config.ini", body + "dc = x\n");
  ToolRun broken = run({kTool, "verify", "sub/config.ini"});
  EXPECT_EQ(broken.rc, 1);
  EXPECT_EQ(broken.out.find("seal broken: sub/config.ini"), 0u) << broken.out;
  EXPECT_EQ(std::count(broken.out.begin(), broken.out.end(), '\n'), 1);
  EXPECT_EQ(run({kTool, "verify", "sub/absent.ini"}).rc, 1);
}

TEST_F(VexoctlTest, InitWorkdirLaysOutAStartableFolder) {
  const std::string wd = dir_.file("wd");
  // Without a RefDll folder beside the tool there is nothing to lay out.
  ToolRun r = run({staged_tool(false), "init-workdir", wd, "--scanner", "Aratek_A600", "--mgmt-url", kUrl});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("no RefDll folder beside vexoctl (" + dir_.file("bin") + "/RefDll)"), std::string::npos)
      << r.out;
  const std::string tool = staged_tool(true);
  write_file("junk.crt", "hello");
  EXPECT_EQ(run({tool, "init-workdir", wd, "--scanner", "Aratek_A600", "--mgmt-url", kUrl, "--mgmt-ca", "junk.crt"}).rc,
            1);
  r = run({tool, "init-workdir", wd, "--scanner", "Aratek_A600", "--mgmt-url", kUrl});
  ASSERT_EQ(r.rc, 0) << r.out;
  // The library starting in such a folder, again over an existing one
  // (StartupTest), and registering at its URL with its key (HostMgmt).
  EXPECT_EQ(read_file(wd + "/RefDll/libAraTrustFinger.so"), read_file(dir_.file("bin/RefDll/libAraTrustFinger.so")));
  EXPECT_EQ(read_file(wd + "/RefDll/libTavio.so"), "another");
  EXPECT_FALSE(fs::exists(wd + "/RefDll/README.txt"));
  EXPECT_FALSE(fs::exists(wd + "/cert/ssl"));
  // The demonstration keystore's certificate, in DER as the Management
  // server would send it, and in PEM. (Captures signed with its key and
  // checked against the schema: CaptureEndToEnd.)
  EXPECT_TRUE(fs::exists(wd + "/last_acces_time_file"));
  const std::string der = read_file(wd + "/cert/public/signed_mc.cer");
  const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
  X509Ptr device(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  auto dev_pem = load_cert(wd + "/cert/public/DevPubKey");
  ASSERT_TRUE(device && dev_pem);
  EXPECT_EQ(X509_cmp(device.get(), dev_pem.get()), 0);
  EXPECT_TRUE(fs::exists(dir_.file("appdata/korvane/QDX.WIN.002/Vexo_002_Node.txt")));

}

// tls-cert keeps the CA of an earlier run, so a browser that trusts it
// accepts each new server certificate; without a CA key it makes a new CA.
TEST_F(VexoctlTest, TlsCertKeepsItsCaAndSignsNewServerCerts) {
  const std::string wd = dir_.file("tls");
  ToolRun first = run({kTool, "tls-cert", wd});
  ASSERT_EQ(first.rc, 0) << first.out;
  const std::string ca = expect_local_tls(wd);
  EXPECT_NE(first.out.find("made local CA \"Vexo local RD service CA "), std::string::npos) << first.out;
  const std::string server = read_file(wd + "/cert/ssl/public.crt");

  ToolRun second = run({kTool, "tls-cert", wd});
  ASSERT_EQ(second.rc, 0) << second.out;
  EXPECT_NE(second.out.find("kept local CA"), std::string::npos) << second.out;
  EXPECT_EQ(expect_local_tls(wd), ca);
  EXPECT_NE(read_file(wd + "/cert/ssl/public.crt"), server);

  fs::remove(wd + "/cert/ssl/ca/ca.key");
  ASSERT_EQ(run({kTool, "tls-cert", wd}).rc, 0);
  EXPECT_NE(expect_local_tls(wd), ca);

  // A CA key that does not belong to the CA certificate is refused.
  write_file(wd + "/cert/ssl/ca/ca.key", read_file(wd + "/cert/ssl/private.key"));
  ToolRun mismatched = run({kTool, "tls-cert", wd});
  EXPECT_EQ(mismatched.rc, 1);
  EXPECT_NE(mismatched.out.find("do not belong together"), std::string::npos) << mismatched.out;
  EXPECT_EQ(run({kTool, "tls-cert"}).rc, 2);
}

// trust-tls puts the CA into the NSS database of $HOME (made when missing)
// and of each Firefox profile, under the name it prints; the printed command
// takes it out again. HOME is a temporary folder: the user's database is
// untouched. (Chromium trusting it for servers: BrowserPage.https.)
TEST_F(VexoctlTest, TrustTlsAddsTheCaToTheUsersNssDatabase) {
  if (::access("/usr/bin/certutil", X_OK) != 0) GTEST_SKIP() << "certutil (libnss3-tools) is not installed";
  const std::string home = dir_.file("home"), wd = dir_.file("tls");
  fs::create_directories(home);
  const std::vector<std::string> env = {"HOME=" + home};
  ToolRun none = run({kTool, "trust-tls", wd}, env);
  EXPECT_EQ(none.rc, 1);
  EXPECT_NE(none.out.find("run vexoctl tls-cert " + wd + " first"), std::string::npos) << none.out;
  EXPECT_FALSE(fs::exists(home + "/.pki"));

  ASSERT_EQ(run({kTool, "tls-cert", wd}).rc, 0);
  // A Firefox profile with its own database, and a folder that is none.
  const std::string profile = home + "/.mozilla/firefox/abcd1234.default-release";
  fs::create_directories(profile);
  fs::create_directories(home + "/.mozilla/firefox/Crash Reports");
  ASSERT_EQ(run({"/usr/bin/certutil", "-N", "-d", "sql:" + profile, "--empty-password"}).rc, 0);
  ToolRun r = run({kTool, "trust-tls", wd}, env);
  ASSERT_EQ(r.rc, 0) << r.out;
  auto ca = load_cert(wd + "/cert/ssl/ca/ca.crt");
  ASSERT_NE(ca, nullptr);
  char cn[256] = {};
  ASSERT_GT(X509_NAME_get_text_by_NID(X509_get_subject_name(ca.get()), NID_commonName, cn, sizeof cn), 0);
  const std::string db = "sql:" + home + "/.pki/nssdb";
  EXPECT_NE(r.out.find("to remove it: certutil -D -d " + db + " -n \"" + std::string(cn) + "\""), std::string::npos)
      << r.out;
  ToolRun listed = run({"/usr/bin/certutil", "-L", "-d", db});
  EXPECT_NE(listed.out.find(std::string(cn)), std::string::npos) << listed.out;
  ToolRun in_profile = run({"/usr/bin/certutil", "-L", "-d", "sql:" + profile});
  EXPECT_NE(in_profile.out.find(std::string(cn)), std::string::npos) << in_profile.out;
  EXPECT_FALSE(fs::exists(home + "/.mozilla/firefox/Crash Reports/cert9.db"));
  // The same CA again is no error and no second entry.
  ASSERT_EQ(run({kTool, "trust-tls", wd}, env).rc, 0) << r.out;
  listed = run({"/usr/bin/certutil", "-L", "-d", db});
  EXPECT_EQ(listed.out.find(std::string(cn)), listed.out.rfind(std::string(cn))) << listed.out;
}

}  // namespace
