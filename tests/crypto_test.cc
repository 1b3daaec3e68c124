// Pid block encryption for UIDAI, the certificate choice and its checksum
// test, the device identity hash and the biometric signatures. Everything the
// library makes is opened again here with OpenSSL: the wrapped key with the
// test's UIDAI private key, Data and Hmac with AES-256-GCM, the signatures
// with the public key.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/hash.h"
#include "common/rd_config.h"
#include "common/rd_status.h"
#include "common/secret.h"
#include "rd_core/dig_sign.h"
#include "rd_core/pid_crypto.h"
#include "test_crypto.h"
#include "test_util.h"

#ifndef _WIN32
#include <sys/mman.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#endif

namespace {

using namespace testcrypto;
using testutil::log_text;

// One RSA-2048 key per test process stands in for UIDAI's and the device's keys.
EVP_PKEY* test_key() {
  static PkeyPtr key(EVP_RSA_gen(2048));
  return key.get();
}

bool contains(const std::string& hay, const std::string& needle) { return hay.find(needle) != std::string::npos; }

class CryptoTest : public testutil::LibraryTest {
 protected:
  // Test certificates over the test key in the working folder, each with its
  // own expiry so that ci shows which one was used.
  static void install_test_certs() {
    std::filesystem::create_directories("cert/uidai");
    const std::pair<UidaiCert, const char*> certs[] = {{UidaiCert::kStage, "20300101000000Z"},
                                                       {UidaiCert::kPreProd, "20300202000000Z"},
                                                       {UidaiCert::kProd, "20300303000000Z"},
                                                       {UidaiCert::kProdOld, "20300404000000Z"}};
    for (const auto& [which, not_after] : certs) {
      install_uidai_cert(which, make_cert_pem(test_key(), "Test UIDAI", "20200101000000Z", not_after));
    }
  }
};

TEST_F(CryptoTest, BuiltInCertificatesAreTheDataFilesByteForByte) {
  const std::pair<UidaiCert, const char*> cases[] = {{UidaiCert::kStage, "stage.pem"},
                                                     {UidaiCert::kPreProd, "preprod.pem"},
                                                     {UidaiCert::kProd, "prod.pem"},
                                                     {UidaiCert::kProdOld, "prod_old.pem"}};
  for (const auto& [which, file] : cases) {
    SCOPED_TRACE(file);
    EXPECT_EQ(uidai_cert_file_name(which), std::string(file));
    EXPECT_EQ(uidai_builtin_cert(which), testutil::read_file(std::string(VEXO_SOURCE_DIR) + "/data/uidai/" + file));
  }
}

// The certificate for each environment, production server and stored
// checksum: its ci (from expiry texts with one- and two-digit days), a fresh
// key each time, and on a wrong checksum 240. That the Skey opens the Pid:
// the capture tests.
TEST_F(CryptoTest, SessionKeyIsWrappedForTheCertificateOfTheEnvironment) {
  // The built-in certificates, or the test ones with one stored checksum wrong.
  enum Certs { kBuiltIn, kWrongProd, kWrongPreProd };
  const std::string ms = "https://ms.example.in/rd/register", stage = "https://stage.example.in/rd/register";
  const std::string switched = "MS URL is production URL, But RD Service request is for stagging";
  const std::string wrong(64, 'f');
  const struct {
    const char* name;
    const char* env;
    bool prod_newer;
    std::string register_url, prod_register_url;
    Certs certs;
    int rc;
    const char* ci;
    bool switched;        // staging switched to the production certificate
    const char* verdict;  // logged
  } cases[] = {
      {"built-in, no env", "", true, "", "", kBuiltIn, 0, "20250923", false, nullptr},
      {"S", "S", true, "", "", kWrongProd, 0, "20300101", false, nullptr},
      {"PP", "PP", true, "", "", kWrongProd, 0, "20300202", false, "Pre-Prod UIDAI Certificate is VAID"},
      {"P", "P", true, "", "", kWrongPreProd, 0, "20300303", false, "Prod UIDAI Certificate is VALID"},
      {"older P", "P", false, "", "", kWrongPreProd, 0, "20300404", false, "Prod UIDAI Certificate is VALID"},
      {"P, wrong checksum", "P", true, "", "", kWrongProd, 240, "", false, "Prod UIDAI Certificate is INVAID"},
      {"PP, wrong checksum", "PP", true, "", "", kWrongPreProd, 240, "", false, "Pre-Prod UIDAI Certificate is INVAID"},
      // Staging takes the production certificate, and its test, only on the production server.
      {"S, staging server", "S", true, stage, ms, kWrongProd, 0, "20300101", false, nullptr},
      {"S, production server", "S", true, ms, ms, kWrongPreProd, 0, "20300303", true, "Prod UIDAI Certificate is VAID"},
      {"S, production server, wrong checksum", "S", true, ms, ms, kWrongProd, 240, "", true, nullptr},
  };
  auto installed_hash = [](UidaiCert which) {
    return hex_lower(sha256(std::string_view(testutil::read_file(uidai_cert_path(which)))));
  };
  std::vector<Bytes> keys;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.certs != kBuiltIn && !std::filesystem::exists("cert/uidai")) install_test_certs();
    set_uidai_prod_cert_newer(c.prod_newer);
    rd_config_update([&](RdConfig& r) {
      r.mgmt_url_register = c.register_url;
      r.prod_register_url = c.prod_register_url;
    });
    const UidaiCert prod = c.prod_newer ? UidaiCert::kProd : UidaiCert::kProdOld;
    if (c.certs != kBuiltIn) {
      set_uidai_prod_checksum(c.certs == kWrongProd ? wrong : installed_hash(prod));
      set_uidai_preprod_checksum(c.certs == kWrongPreProd ? wrong : installed_hash(UidaiCert::kPreProd));
    }
    const std::size_t from = log_text().size();
    std::uint8_t key[32];
    std::string skey = "stale", ci = "stale";
    EXPECT_EQ(GenerateEncandPlainSessionKey(c.env, key, &skey, &ci), c.rc);
    EXPECT_EQ(ci, c.ci);
    const std::string text = log_text().substr(from);
    EXPECT_EQ(contains(text, switched), c.switched);
    EXPECT_TRUE(!c.verdict || contains(text, c.verdict)) << c.verdict;
    // A success without a verdict ran no test of the checksum at all.
    EXPECT_TRUE(c.verdict || c.rc != 0 || c.certs == kBuiltIn || !contains(text, "cert_checksum is"));
    if (c.rc == 0) {
      EXPECT_NE(skey, "stale");
      keys.emplace_back(key, key + 32);
      continue;
    }
    EXPECT_TRUE(skey.empty());
    EXPECT_FALSE(contains(text, "Certificate is VA"));
    // That the host, not this thread, runs the update:
    // ManagementEndToEnd.CaptureLeavesTheSoftwareUpdateToTheHost.
    EXPECT_TRUE(contains(text, ") - Check-Sum Verification failed\n"));
  }
  // A fresh key for every capture.
  for (std::size_t i = 1; i < keys.size(); ++i) EXPECT_NE(keys[i], keys[0]);
}

TEST_F(CryptoTest, UnusableCertificateInForceFails) {
  std::filesystem::create_directories("cert/uidai");
  install_uidai_cert(UidaiCert::kProd, "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
  std::uint8_t key[32];
  std::string skey = "stale", ci;
  EXPECT_EQ(GenerateEncandPlainSessionKey("P", key, &skey, &ci), -1);
  EXPECT_TRUE(skey.empty());
  EXPECT_TRUE(contains(log_text(), "Error at PEM_read_X509"));
}

TEST_F(CryptoTest, DataAndHmacOpenWithTheSessionKey) {
  install_test_certs();
  const std::string ts = "2016-01-21T12:34:56";
  std::uint8_t key[32];
  std::string skey, ci, data, hmac, opened_ts;
  ASSERT_EQ(GenerateEncandPlainSessionKey("P", key, &skey, &ci), 0);
  // Captured Pids open, with their ts, in the end-to-end capture tests; here
  // the empty one, whose Data is the tag alone.
  ASSERT_EQ(GenerateEncPID_EncPIDHash(Bytes{}, key, ts, &data, &hmac), 0);
  std::optional<Bytes> plain = open_pid(test_key(), skey, data, hmac, &opened_ts);
  ASSERT_TRUE(plain.has_value());
  EXPECT_TRUE(plain->empty());
  // A timestamp that is not 19 characters long gives no IV or additional data.
  for (const char* bad_ts : {"2016-01-21T12:34", "2016-01-21T12:34:567"}) {
    data = hmac = "stale";
    EXPECT_EQ(GenerateEncPID_EncPIDHash(Bytes{1, 2}, key, bad_ts, &data, &hmac), 999) << bad_ts;
    EXPECT_EQ(data + hmac, "");
  }
}

TEST_F(CryptoTest, CaptureTimestampIsIst) {
  seams([](testutil::Seams& s) { s.now = 1453359896; });  // 07:04:56 UTC
  std::string ts;
  EXPECT_EQ(capture_timestamp(&ts), 0);
  EXPECT_EQ(ts, "2016-01-21T12:34:56");
  seams([](testutil::Seams& s) { s.now = -1; });  // no clock
  EXPECT_EQ(capture_timestamp(&ts), -1);
  EXPECT_EQ(ts, "");
}

// Each value's part in the hash is checked in the capture tests; here the
// hash follows a newly plugged scanner's serial at once.
TEST_F(CryptoTest, DihHashesTheIdentityAndFollowsTheScanner) {
  rd_identity_update([](RdIdentity& r) { r.dpId = "QDX"; });  // rdsId QDX.WIN.002, mi A600
  rd_config_update([](RdConfig& r) {
    r.rd_ver = "1.0.0";
    r.dc = "dc-uuid";
  });
  // Computed outside the library: base64(sha256(dpId rdsId rdsVer dc mi hex(sha256(srno)))).
  const struct {
    const char* srno;
    const char* dih;
  } cases[] = {{"S123", "2pWslpH9xL8uqIEGXSd+Fe/L5HJwe2aO5i5evA4a6OA="},
               {"S124", "UDXSFk9LogUsVGC5pwlMOVsviytFuG8bcgHc0H3bzms="}};
  for (const auto& c : cases) {
    set_device_serial(c.srno);
    std::string dih;
    EXPECT_EQ(Generate_dih(&dih), 0);
    EXPECT_EQ(dih, c.dih) << c.srno;
  }
}

// Signatures made with the keystore's key verify in the capture tests; here
// keys that cannot sign for UIDAI leave the holder empty.
TEST_F(CryptoTest, KeysThatCannotSignAreRefused) {
  PkeyPtr ec(EVP_EC_gen("P-256"));
  const std::string rsa_pem = private_key_pem(test_key(), true);
  for (const std::string& pem :
       {std::string(), rsa_pem.substr(0, rsa_pem.size() / 2), private_key_pem(ec.get(), true)}) {
    PkeyPtr key;
    ASSERT_EQ(make_keys(rsa_pem, &key), 0);
    EXPECT_EQ(make_keys(pem, &key), -1) << pem;
    EXPECT_FALSE(key);
  }

  PkeyPtr key;
  ASSERT_EQ(make_keys(rsa_pem, &key), 0);
  Bytes sig = {1};
  EXPECT_EQ(sign_it({}, &sig, key.get()), -1);
  EXPECT_TRUE(sig.empty());
  EXPECT_TRUE(contains(log_text(), ") - sign_it invalid parameter passed\n"));
}

#ifndef _WIN32
// The VmFlags of the mapping that holds p, from /proc/self/smaps.
std::string vm_flags_of(const void* p) {
  std::ifstream smaps("/proc/self/smaps");
  const auto at = reinterpret_cast<std::uintptr_t>(p);
  bool inside = false;
  for (std::string line; std::getline(smaps, line);) {
    std::uintptr_t lo = 0, hi = 0;
    if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " ", &lo, &hi) == 2 && line.find(':') > 8) {
      inside = lo <= at && at < hi;
    } else if (inside && line.rfind("VmFlags:", 0) == 0) {
      return line;
    }
  }
  return "";
}

// Key material lives in pages of its own that a core dump leaves out and
// that are locked in memory while the limit allows, however the Secret was
// filled; moving it keeps the bytes, and adopting cleanses the source.
TEST(SecretTest, BytesStayOutOfCoreDumpsAndSwap) {
  Secret grown;
  for (int i = 0; i < 3000; ++i) grown.append("key-");  // past one page, so it moves
  std::string text = "short pw";
  Secret adopted = Secret::adopt(std::move(text));
  EXPECT_EQ(text, "");
  Secret moved(std::move(grown));
  EXPECT_TRUE(grown.empty());
  EXPECT_EQ(moved.size(), 12000u);
  EXPECT_EQ(moved.view().substr(11996), "key-");
  EXPECT_EQ(std::string(adopted.c_str()), "short pw");
  // Whether this process can lock a page at all (its limit, or a sanitizer
  // that turns mlock into nothing, may say no).
  void* probe = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(probe, MAP_FAILED);
  const bool can_lock = mlock(probe, 4096) == 0 && vm_flags_of(probe).find(" lo") != std::string::npos;
  munmap(probe, 4096);
  for (const Secret* s : {&moved, &adopted}) {
    const std::string flags = vm_flags_of(s->data());
    EXPECT_NE(flags.find(" dd"), std::string::npos) << flags;
    EXPECT_EQ(flags.find(" lo") != std::string::npos, can_lock) << flags;
  }
}
#endif

}  // namespace
