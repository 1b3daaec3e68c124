// Pid block encryption for UIDAI, the certificate choice and its checksum
// test, the device identity hash and the biometric signatures. Everything the
// library makes is opened again here with OpenSSL: the wrapped key with the
// test's UIDAI private key, Data and Hmac with AES-256-GCM, the signatures
// with the public key.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <sys/mman.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/secret.h"
#include "common/Base64.h"
#include "common/hash.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "rd_core/dig_sign.h"
#include "rd_core/pid_crypto.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/semaphore_syc.h"
#include "test_crypto.h"
#include "test_util.h"
#include "platform/test_seams.h"
#include "vexo.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using testcrypto::gcm_open;
using testcrypto::private_key_pem;
using testcrypto::public_key_of_cert;
using testcrypto::rsa_sha256_verify;
using testcrypto::rsa_unwrap;
using testutil::read_file;

Bytes bytes_of(const std::string& s) { return Bytes(s.begin(), s.end()); }

// One RSA-2048 key per test process stands in for UIDAI's and the device's keys.
EVP_PKEY* test_key() {
  static PkeyPtr key(EVP_RSA_gen(2048));
  return key.get();
}

// A self-signed certificate over the test key whose not-after is not_after.
std::string make_cert_pem(EVP_PKEY* key, const char* not_after) {
  return testcrypto::make_cert_pem(key, "Test UIDAI", "20200101000000Z", not_after);
}

Bytes decode(const std::string& text) {
  Bytes out;
  EXPECT_EQ(Base64Decode(text, &out), 0) << text;
  return out;
}

bool contains(const std::string& hay, const std::string& needle) { return hay.find(needle) != std::string::npos; }

// Test certificates, each with its own expiry so that ci shows which one was used.
struct TestCert {
  UidaiCert which;
  const char* not_after;
  const char* ci;
};
constexpr TestCert kTestCerts[] = {
    {UidaiCert::kStage, "20300101000000Z", "20300101"},
    {UidaiCert::kPreProd, "20300202000000Z", "20300202"},
    {UidaiCert::kProd, "20300303000000Z", "20300303"},
    {UidaiCert::kProdOld, "20300404000000Z", "20300404"},
};

class CryptoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rd_log_reset_for_test();
    ASSERT_EQ(zlog_init("rd.log"), 0);
    set_uidai_prod_cert_newer(true);
    rd_config_update([](RdConfig& r) { r.mgmt_url_register.clear(); });
    rd_config_update([](RdConfig& r) { r.prod_register_url.clear(); });
  }
  void TearDown() override {
    zlog_fini();
    set_uidai_prod_cert_newer(true);
    test_seams::update([&](test_seams::Seams& s) { s.now = std::nullopt; });
    rd_log_reset_for_test();
  }
  // Places the test certificates as the working-folder copies.
  void install_test_certs() {
    std::filesystem::create_directories("cert/uidai");
    for (const TestCert& c : kTestCerts) {
      testcrypto::install_uidai_cert(c.which, make_cert_pem(test_key(), c.not_after));
    }
  }
  std::string log() { return read_file("rd.log"); }
  std::string cert_hash(UidaiCert which) { return hex_lower(sha256(std::string_view(uidai_cert_in_force(which)))); }
  // The checksum of the test certificate installed for which.
  std::string installed_hash(UidaiCert which) {
    return hex_lower(sha256(std::string_view(read_file(uidai_cert_path(which)))));
  }

  testutil::WorkDir dir_;
};

TEST_F(CryptoTest, BuiltInCertificatesAreTheDataFilesByteForByte) {
  struct Case {
    UidaiCert which;
    const char* file;
    std::size_t length;
    const char* sha256;
  } cases[] = {
      {UidaiCert::kStage, "stage.pem", 1434, "694265716a6c8d5fcfe8ebb9e3d3fcef77738e58a47608aacb1f266750b52d97"},
      {UidaiCert::kPreProd, "preprod.pem", 2203, "49d93a16760d0adc99c09dcb506b54129fc9e5c8c6581a45d5f6466055e7c939"},
      {UidaiCert::kProd, "prod.pem", 2203, "02fb61de373a363f39b2af9e8d38757febaab6ae15bd2350a80788aceab043c0"},
      {UidaiCert::kProdOld, "prod_old.pem", 2045, "3f874aec46eea0a7f520779567cbf294ffe4f3c2343404bf1d9dc7b5c85f42cb"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    std::string_view built_in = uidai_builtin_cert(c.which);
    EXPECT_EQ(uidai_cert_file_name(c.which), std::string(c.file));
    EXPECT_EQ(built_in.size(), c.length);
    EXPECT_EQ(hex_lower(sha256(built_in)), c.sha256);
    EXPECT_EQ(built_in, read_file(std::string(VEXO_SOURCE_DIR) + "/data/uidai/" + c.file));
    // Without a working-folder copy the built-in text is in force.
    EXPECT_EQ(uidai_cert_in_force(c.which), built_in);
  }
  EXPECT_TRUE(contains(std::string(uidai_builtin_cert(UidaiCert::kStage)), "-----\r\n"));
  EXPECT_NE(uidai_builtin_cert(UidaiCert::kProd).back(), '\n');
}

TEST_F(CryptoTest, BuiltInCertificatesWrapTheKeyAndGiveTheirExpiry) {
  struct Case {
    const char* env;
    bool prod_newer;
    const char* ci;
  } cases[] = {
      {"S", true, "20250825"},  {"PP", true, "20250929"}, {"P", true, "20250923"},
      {"P", false, "20221021"}, {"", true, "20250923"},   {"X", false, "20221021"},
  };
  const Bytes key(32, 0x5a);
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("env ") + c.env);
    set_uidai_prod_cert_newer(c.prod_newer);
    Bytes out;
    std::string ci;
    ASSERT_EQ(uid_rsa_public_encrypt(c.env, key, &out, &ci), 0);
    EXPECT_EQ(ci, c.ci);
    EXPECT_EQ(out.size(), 256u);  // every UIDAI key is RSA-2048
  }
}

TEST_F(CryptoTest, CertificateTimeTextToCi) {
  struct Case {
    const char* text;
    int rc;
    const char* ci;
  } cases[] = {
      {"Jun  1 10:00:00 2027 GMT", 0, "20270601"},
      {"Aug 25 00:00:00 2025 GMT", 0, "20250825"},
      {"Dec 31 23:59:59 9999 GMT", 0, "99991231"},
      {"Jan  9 08:00:00.25 2030 GMT", 0, "20300109"},
      {"jun  1 10:00:00 2027 GMT", -1, ""},
      {"Foo  1 10:00:00 2027 GMT", -1, ""},
      {"Jun 32 10:00:00 2027 GMT", -1, ""},
      {"Jun 1x 10:00:00 2027 GMT", -1, ""},
      {"Jun  1 10:00:00 20x7 GMT", -1, ""},
      {"Jun  1 10:00:00", -1, ""},
      {"", -1, ""},
  };
  for (const Case& c : cases) {
    std::string ci = "stale";
    EXPECT_EQ(cert_time_text_to_ci(c.text, &ci), c.rc) << c.text;
    EXPECT_EQ(ci, c.ci) << c.text;
  }
  // The same through a real certificate: OpenSSL prints its not-after as
  // "Jun  1 10:00:00 2027 GMT".
  std::filesystem::create_directories("cert/uidai");
  testcrypto::install_uidai_cert(UidaiCert::kProd, make_cert_pem(test_key(), "20270601100000Z"));
  Bytes out;
  std::string ci;
  ASSERT_EQ(uid_rsa_public_encrypt("P", Bytes(32, 1), &out, &ci), 0);
  EXPECT_EQ(ci, "20270601");
}

TEST_F(CryptoTest, SessionKeyIsWrappedForTheCertificateOfTheEnvironment) {
  install_test_certs();
  struct Case {
    const char* env;
    bool prod_newer;
    const char* ci;
    const char* logged;
  } cases[] = {
      {"S", true, "20300101", nullptr},
      {"PP", true, "20300202", "Pre-Prod UIDAI Certificate is VAID"},
      {"P", true, "20300303", "Prod UIDAI Certificate is VALID"},
      {"P", false, "20300404", "Prod UIDAI Certificate is VALID"},
  };
  std::vector<Bytes> keys;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("env ") + c.env);
    set_uidai_prod_cert_newer(c.prod_newer);
    std::uint8_t key[32];
    std::string skey, ci;
    ASSERT_EQ(GenerateEncandPlainSessionKey(c.env, key, &skey, &ci), 0);
    EXPECT_EQ(ci, c.ci);
    std::optional<Bytes> unwrapped = rsa_unwrap(test_key(), decode(skey));
    ASSERT_TRUE(unwrapped.has_value());
    EXPECT_EQ(*unwrapped, Bytes(key, key + 32));
    keys.push_back(*unwrapped);
    if (c.logged) {
      EXPECT_TRUE(contains(log(), c.logged));
    }
  }
  // A fresh key for every capture.
  for (std::size_t i = 1; i < keys.size(); ++i) EXPECT_NE(keys[i], keys[0]);

  Bytes out = {9};
  std::string ci = "x";
  EXPECT_EQ(uid_rsa_public_encrypt("P", {}, &out, &ci), -1);
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(contains(log(), "ERROR  (rsa:uid_rsa_public_encrypt:"));
  EXPECT_TRUE(contains(log(), ") - Invalid Input parameters, Either indata or inlen is null\n"));
}

TEST_F(CryptoTest, StagingUsesTheProductionCertificateOnlyForTheProductionServer) {
  install_test_certs();
  const std::string prod_url = "https://ms.example.in/rd/register";
  struct Case {
    const char* register_url;
    const char* prod_register_url;
    bool wrong_prod_checksum;
    int rc;
    const char* ci;
  } cases[] = {
      // Not the production server: staging certificate, no checksum test at all.
      {"https://stage.example.in/rd/register", "https://ms.example.in/rd/register", true, 0, "20300101"},
      {"", "", true, 0, "20300101"},
      {"https://ms.example.in/rd/register", "", true, 0, "20300101"},
      // The production server: the current production certificate and its test.
      {"https://ms.example.in/rd/register", "https://ms.example.in/rd/register", false, 0, "20300303"},
      {"https://ms.example.in/rd/register", "https://ms.example.in/rd/register", true, 240, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.register_url) + " / " + c.prod_register_url);
    zlog_fini();
    std::filesystem::remove("rd.log");
    ASSERT_EQ(zlog_init("rd.log"), 0);
    rd_config_update([&](RdConfig& r) { r.mgmt_url_register = c.register_url; });
    rd_config_update([&](RdConfig& r) { r.prod_register_url = c.prod_register_url; });
    set_uidai_prod_checksum(c.wrong_prod_checksum ? std::string(64, '0') : installed_hash(UidaiCert::kProd));
    set_uidai_preprod_checksum(std::string(64, '0'));
    Bytes out;
    std::string ci;
    EXPECT_EQ(uid_rsa_public_encrypt("S", Bytes(32, 7), &out, &ci), c.rc);
    EXPECT_EQ(ci, c.ci);
    std::string text = log();
    bool switched = c.ci != std::string("20300101");
    EXPECT_EQ(contains(text, "MS URL is production URL, But RD Service request is for stagging"), switched);
    EXPECT_EQ(contains(text, "Prod UIDAI Certificate is VAID"), switched && c.rc == 0);
    EXPECT_EQ(contains(text, "Check-Sum"), c.rc == 240);
    if (!switched) {
      EXPECT_FALSE(contains(text, "cert_checksum is"));
    }
  }
}

TEST_F(CryptoTest, WrongChecksumGives240AndAsksTheHostForAnUpdate) {
  install_test_certs();
  const std::string wrong(64, 'f');
  struct Case {
    const char* env;
    bool prod_newer;
    bool wrong_prod;
    bool wrong_preprod;
    int rc;
    const char* verdict;
  } cases[] = {
      {"P", true, true, false, 240, "Prod UIDAI Certificate is INVAID"},
      {"P", true, false, true, 0, "Prod UIDAI Certificate is VALID"},
      {"PP", true, false, true, 240, "Pre-Prod UIDAI Certificate is INVAID"},
      {"PP", true, true, false, 0, "Pre-Prod UIDAI Certificate is VAID"},
      {"P", false, true, false, 240, "Prod UIDAI Certificate is INVAID"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("env ") + c.env + (c.wrong_prod ? " wrong prod" : " wrong preprod"));
    zlog_fini();
    std::filesystem::remove("rd.log");
    ASSERT_EQ(zlog_init("rd.log"), 0);
    rd_log_reset_for_test();
    set_uidai_prod_cert_newer(c.prod_newer);
    UidaiCert prod = c.prod_newer ? UidaiCert::kProd : UidaiCert::kProdOld;
    set_uidai_prod_checksum(c.wrong_prod ? wrong : installed_hash(prod));
    set_uidai_preprod_checksum(c.wrong_preprod ? wrong : installed_hash(UidaiCert::kPreProd));

    std::uint8_t key[32];
    std::string skey = "stale", ci;
    EXPECT_EQ(GenerateEncandPlainSessionKey(c.env, key, &skey, &ci), c.rc);
    std::string text = log();
    EXPECT_TRUE(contains(text, c.verdict));
    if (c.rc == 0) {
      EXPECT_FALSE(skey.empty());
      EXPECT_FALSE(contains(text, "Check-Sum"));
      continue;
    }
    EXPECT_TRUE(skey.empty());
    EXPECT_TRUE(ci.empty());
    UidaiCert checked = std::string(c.env) == "PP" ? UidaiCert::kPreProd : prod;
    EXPECT_TRUE(contains(text, "INFO   (rsa:check_valid_cert:"));
    EXPECT_TRUE(contains(text, ") - cert_checksum is " + wrong + "\n"));
    EXPECT_TRUE(contains(text, ") - hash_buf is " + cert_hash(checked) + "\n"));
    EXPECT_TRUE(contains(text, "ERROR  (rsa:check_valid_cert:"));
    EXPECT_TRUE(contains(text, ") - Check-Sum Verification failed\n"));
    EXPECT_TRUE(contains(text, ") - Going To download New version of RD Service\n"));
    EXPECT_TRUE(contains(text, ") - Error at  session key encryption with UIDAI public key \n"));
    // The capture's thread runs no update: the host is asked to.
    EXPECT_TRUE(contains(text, ") - Software_Update is left to the host program\n"));
    EXPECT_FALSE(contains(text, "Trying to send Software_Update"));
  }
}

TEST_F(CryptoTest, UnusableCertificateInForceFails) {
  std::filesystem::create_directories("cert/uidai");
  struct Case {
    const char* content;
    const char* message;
  } cases[] = {
      {"not a certificate", "Error at PEM_read_X509"},
      {"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", "Error at PEM_read_X509"},
  };
  for (const Case& c : cases) {
    testcrypto::install_uidai_cert(UidaiCert::kProd, c.content);
    std::string ci;
    std::string skey = "stale";
    std::uint8_t key[32];
    EXPECT_EQ(GenerateEncandPlainSessionKey("P", key, &skey, &ci), -1);
    EXPECT_TRUE(skey.empty());
    EXPECT_TRUE(contains(log(), c.message));
  }
}

TEST_F(CryptoTest, DataAndHmacOpenWithTheSessionKey) {
  const std::string ts = "2016-01-21T12:34:56";
  const std::string iv = "-21T12:34:56";
  const std::string aad = "6-01-21T12:34:56";
  Bytes big(100000);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 31 + 7);
  const std::vector<Bytes> pids = {
      bytes_of("<Pid ts=\"2016-01-21T12:34:56\" ver=\"2.0\" wadh=\"\"><Bios><Bio type=\"FMR\" posh=\"UNKNOWN\" "
               "bs=\"x\">AAAA</Bio></Bios></Pid>"),
      Bytes{0},
      Bytes{},
      big,
  };
  std::uint8_t key[32];
  ASSERT_EQ(GenerateSessionKey(256, 32, key), 0);
  for (const Bytes& pid : pids) {
    SCOPED_TRACE("pid length " + std::to_string(pid.size()));
    std::string data_text, hmac_text;
    ASSERT_EQ(GenerateEncPID_EncPIDHash(pid, key, ts, &data_text, &hmac_text), 0);

    Bytes data = decode(data_text);
    ASSERT_EQ(data.size(), 19 + pid.size() + 16);
    EXPECT_EQ(std::string(data.begin(), data.begin() + 19), ts);
    Bytes cipher(data.begin() + 19, data.end() - 16);
    Bytes tag(data.end() - 16, data.end());
    std::optional<Bytes> plain = gcm_open(Bytes(key, key + 32), iv, aad, cipher, tag);
    ASSERT_TRUE(plain.has_value());
    EXPECT_EQ(*plain, pid);
    // The tag covers the additional data and the ciphertext.
    EXPECT_FALSE(gcm_open(Bytes(key, key + 32), iv, "7-01-21T12:34:56", cipher, tag).has_value());
    Bytes bad_tag = tag;
    bad_tag[0] ^= 1;
    EXPECT_FALSE(gcm_open(Bytes(key, key + 32), iv, aad, cipher, bad_tag).has_value());

    Bytes hmac = decode(hmac_text);
    ASSERT_EQ(hmac.size(), 48u);
    std::optional<Bytes> digest = gcm_open(Bytes(key, key + 32), iv, aad, Bytes(hmac.begin(), hmac.begin() + 32),
                                           Bytes(hmac.begin() + 32, hmac.end()));
    ASSERT_TRUE(digest.has_value());
    Sha256Digest expected = sha256(pid);
    EXPECT_EQ(*digest, Bytes(expected.begin(), expected.end()));
  }

  // A timestamp that is not 19 characters long gives no IV or additional data.
  for (const char* bad_ts : {"", "2016-01-21T12:34", "2016-01-21T12:34:567"}) {
    std::string data_text = "stale", hmac_text = "stale";
    EXPECT_EQ(GenerateEncPID_EncPIDHash(pids[0], key, bad_ts, &data_text, &hmac_text), 999) << bad_ts;
    EXPECT_TRUE(data_text.empty());
    EXPECT_TRUE(hmac_text.empty());
  }
}

TEST_F(CryptoTest, CaptureTimestampIsIst) {
  struct Case {
    std::time_t now;
    int rc;
    const char* ts;
  } cases[] = {
      {0, 0, "1970-01-01T05:30:00"},
      {1453359896, 0, "2016-01-21T12:34:56"},  // 07:04:56 UTC
      {-1, -1, ""},
  };
  for (const Case& c : cases) {
    test_seams::update([&](test_seams::Seams& s) { s.now = c.now; });
    std::string ts = "stale";
    EXPECT_EQ(capture_timestamp(&ts), c.rc);
    EXPECT_EQ(ts, c.ts);
  }
}

TEST_F(CryptoTest, DihHashesTheSixIdentityValues) {
  struct Identity {
    std::string dpId = "QDX", rdsId = "QDX.WIN.002", rdsVer = "1.0.0", dc = "dc-uuid", mi = "A600", srno = "S123";
  };
  auto apply = [](const Identity& v) {
    rd_identity_update([&](RdIdentity& r) { r.dpId = v.dpId; });
    rd_identity_update([&](RdIdentity& r) { r.rdsId = v.rdsId; });
    rd_config_update([&](RdConfig& r) { r.rd_ver = v.rdsVer; });
    rd_config_update([&](RdConfig& r) { r.dc = v.dc; });
    rd_identity_update([&](RdIdentity& r) { r.mi = v.mi; });
    set_device_serial(v.srno);
  };
  Identity base;
  apply(base);
  std::string dih;
  ASSERT_EQ(Generate_dih(&dih), 0);
  // Computed outside the library: base64(sha256(dpId rdsId rdsVer dc mi hex(sha256(srno)))).
  EXPECT_EQ(dih, "2pWslpH9xL8uqIEGXSd+Fe/L5HJwe2aO5i5evA4a6OA=");
  EXPECT_TRUE(contains(log(), "INFO   (bio_sign:Generate_dih:"));

  std::vector<std::pair<const char*, Identity>> changes;
  Identity v;
  v = base;
  v.dpId = "QDY";
  changes.push_back({"dpId", v});
  v = base;
  v.rdsId = "QDX.WIN.001";
  changes.push_back({"rdsId", v});
  v = base;
  v.rdsVer = "1.0.1";
  changes.push_back({"rdsVer", v});
  v = base;
  v.dc = "dc-uuie";
  changes.push_back({"dc", v});
  v = base;
  v.mi = "A400";
  changes.push_back({"mi", v});
  v = base;
  v.srno = "S124";
  changes.push_back({"srno", v});
  for (const auto& [field, values] : changes) {
    apply(values);
    std::string other;
    ASSERT_EQ(Generate_dih(&other), 0) << field;
    EXPECT_EQ(other.size(), 44u) << field;
    EXPECT_NE(other, dih) << field;
  }
}

TEST_F(CryptoTest, SignaturesVerifyWithThePublicKey) {
  const Bytes message = bytes_of("message to sign");
  for (bool pkcs8 : {true, false}) {
    SCOPED_TRACE(pkcs8 ? "PKCS#8" : "PKCS#1");
    PkeyPtr key;
    ASSERT_EQ(make_keys(private_key_pem(test_key(), pkcs8), &key), 0);
    ASSERT_TRUE(key);
    Bytes sig = {1, 2, 3};
    ASSERT_EQ(sign_it(message, &sig, key.get()), 0);
    EXPECT_EQ(sig.size(), 256u);
    EXPECT_TRUE(rsa_sha256_verify(test_key(), message, sig));
    EXPECT_FALSE(rsa_sha256_verify(test_key(), bytes_of("message to sigm"), sig));
  }

  // Keys that cannot sign for UIDAI leave the holder empty.
  PkeyPtr ec(EVP_EC_gen("P-256"));
  std::string rsa_pem = private_key_pem(test_key(), true);
  const std::string bad_pems[] = {"", "garbage", rsa_pem.substr(0, rsa_pem.size() / 2),
                                  private_key_pem(ec.get(), true)};
  for (const std::string& pem : bad_pems) {
    PkeyPtr key;
    ASSERT_EQ(make_keys(rsa_pem, &key), 0);
    EXPECT_EQ(make_keys(pem, &key), -1) << pem;
    EXPECT_FALSE(key);
  }
  EXPECT_EQ(make_keys(rsa_pem, nullptr), -1);

  PkeyPtr key;
  ASSERT_EQ(make_keys(rsa_pem, &key), 0);
  Bytes sig = {1};
  EXPECT_EQ(sign_it({}, &sig, key.get()), -1);
  EXPECT_TRUE(sig.empty());
  EXPECT_EQ(sign_it(message, &sig, nullptr), -1);
  EXPECT_EQ(sign_it(message, nullptr, key.get()), -1);
  EXPECT_TRUE(contains(log(), ") - sign_it invalid parameter passed\n"));
}

// Generate_bio_sign against a real keystore made by GenerateKeyPair.
class BioSignTest : public CryptoTest {
 protected:
  void SetUp() override {
    CryptoTest::SetUp();
    std::filesystem::create_directories("locks");
    std::filesystem::create_directories("node");
    test_seams::update([&](test_seams::Seams& s) { s.lock_dir = dir_.file("locks"); });
    rd_identity_update([&](RdIdentity& r) { r.appdata = dir_.file("node"); });
    platform::Adapter nic;
    const std::uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x01};
    std::copy(mac, mac + 6, nic.address);
    nic.ethernet = true;
    nic.name = "eth0";
    test_seams::update([&](test_seams::Seams& s) { s.adapters = std::vector<platform::Adapter>{nic}; });
    rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Aratek_A600"; });
    rd_identity_update([&](RdIdentity& r) { r.rdsId = "QDX.WIN.002"; });
    rd_config_update([&](RdConfig& r) { r.dev_pub_key_validity = "1440"; });
    rd_config_update([&](RdConfig& r) { r.dc = "8e1f7c3a-dc"; });
    semaphore_reset_for_test();
    ASSERT_EQ(init_semaphore(), 0);
  }
  void TearDown() override {
    test_seams::update([&](test_seams::Seams& s) { s.adapters = std::nullopt; });
    semaphore_reset_for_test();
    CryptoTest::TearDown();
  }
};

TEST_F(BioSignTest, BioSignVerifiesOverRecordDigestTsAndDc) {
  // No keystore yet: no signature.
  ASSERT_EQ(Lock_Semaphore(), 0);
  std::string bs = "stale";
  EXPECT_EQ(Generate_bio_sign(bytes_of("record"), "2016-01-21T12:34:56", &bs), -1);
  EXPECT_TRUE(bs.empty());
  EXPECT_TRUE(contains(log(), ") - Error at to GetDevicePrivateKeyFromFile\n"));
  Unlock_Semaphore();

  std::string cert_pem;
  ASSERT_EQ(GenerateKeyPair(&cert_pem), 0);
  PkeyPtr device_public = public_key_of_cert(cert_pem);
  ASSERT_TRUE(device_public);

  const Bytes record = bytes_of("FMR\x01\x02\x03 minutiae bytes");
  struct Case {
    const char* ts;
  } cases[] = {{"2016-01-21T12:34:56"}, {"2016-01-21T12:34:57"}};
  std::vector<std::string> signatures;
  for (const Case& c : cases) {
    ASSERT_EQ(Lock_Semaphore(), 0);
    int rc = Generate_bio_sign(record, c.ts, &bs);
    Unlock_Semaphore();
    ASSERT_EQ(rc, 0) << c.ts;
    Sha256Digest digest = sha256(record);
    Bytes signed_bytes(digest.begin(), digest.end());
    const std::string tail = std::string(c.ts) + rd_config_copy().dc;
    signed_bytes.insert(signed_bytes.end(), tail.begin(), tail.end());
    EXPECT_TRUE(rsa_sha256_verify(device_public.get(), signed_bytes, decode(bs))) << c.ts;
    signatures.push_back(bs);
  }
  EXPECT_NE(signatures[0], signatures[1]);
  EXPECT_TRUE(contains(log(), ") - Generation of bio-sign is successful\n"));
}

}  // namespace

namespace {

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

}  // namespace
