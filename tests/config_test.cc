// The CRC seal, config.ini reading under the scanner lock, the writers, the
// proxy file and the exported setters, all on real files in a temporary folder.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "init/config.h"
#include "common/config_file.h"
#include "common/file_crc.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "semaphore/semaphore_syc.h"
#include "test_sys.h"
#include "test_util.h"
#include "platform/test_seams.h"
#include "vexo.h"

namespace {

using testutil::read_file;
using testutil::write_file;

constexpr char kBase[] = "https://mgmt.example.test:8443/Zelm";

std::uint16_t crc_of(const std::string& s) {
  return crc16_update(0, reinterpret_cast<const std::uint8_t*>(s.data()), s.size());
}

std::string crc_bytes(std::uint16_t crc, bool swapped = false) {
  char lo = static_cast<char>(crc & 0xFF);
  char hi = static_cast<char>(crc >> 8);
  return swapped ? std::string{hi, lo} : std::string{lo, hi};
}

using Keys = std::vector<std::pair<std::string, std::string>>;

Keys full_keys() {
  std::string domain;
  EXPECT_EQ(encrypt_domain_name(kBase, &domain), 0);
  return {{"IS_SSL_ENABLE", "1"},
          {"Verbose", "1"},
          {"RD_VER", "1.0.4"},
          {"DEV_PUB_KEY_VALIDITY", "1440"},
          {"dc", "3f2a-77"},
          {"DOMAIN_NAME", domain},
          {"PROD_REGISTER_URL", "https://prod.example.test/register"},
          {"OFFLINE_GRACE_HOURS", "5"}};
}

void write_sealed_config(const Keys& keys) {
  std::string text = "[config]\n";
  for (const auto& [k, v] : keys) text += k + " = " + v + "\n";
  write_file("config.ini", text);
  ASSERT_EQ(add_crc(1, "./config.ini", "bin_crc.txt"), 0);
}

std::vector<std::string> folder_entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    names.push_back(e.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rd_log_reset_for_test();
    rd_config_update([&](RdConfig& r) { r = RdConfig(); });
    rd_set_verbose(0);
    test_seams::update([&](test_seams::Seams& s) { s.lock_dir = dir_.path(); });
    test_seams::update([&](test_seams::Seams& s) {
      s.scanner_lock_ms = 200;
      s.handheld_lock_ms = 200;
    });
    semaphore_reset_for_test();
    rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Aratek_A600"; });
    ASSERT_EQ(init_semaphore(), 0);
    ASSERT_EQ(zlog_init("rd.log"), 0);
  }
  void TearDown() override {
    semaphore_reset_for_test();
    zlog_fini();
    rd_log_reset_for_test();
    rd_set_verbose(0);
  }
  // The run log so far (flushed by closing and reopening it).
  std::string log() {
    zlog_fini();
    std::string text = read_file("rd.log");
    zlog_init("rd.log");
    return text;
  }
  // True when the scanner lock can be taken (and is then released again).
  static bool lock_is_free() {
    if (Lock_Semaphore() != 0) return false;
    return Unlock_Semaphore() == 0;
  }
  testutil::WorkDir dir_;
};

TEST(Crc16, CheckValueAndBlockwiseFeeding) {
  EXPECT_EQ(crc_of("123456789"), 0x31C3);
  EXPECT_EQ(crc_of(""), 0);
  EXPECT_EQ(crc_of("A"), 0x58E5);
  std::string big(3000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + 3);
  const auto* p = reinterpret_cast<const std::uint8_t*>(big.data());
  std::uint16_t split = crc16_update(crc16_update(0, p, 1000), p + 1000, 2000);
  EXPECT_EQ(split, crc_of(big));
}

TEST(Seal, VerifyTable) {
  testutil::WorkDir dir;
  const std::string body = "[config]\nRD_VER = 1.0.4\n";
  std::string big(1500, 'x');
  big[700] = 'y';  // the second 512-byte block must count
  const struct {
    const char* name;
    bool write_data;
    std::string data;
    bool write_crc;
    std::string crc;
    std::uint8_t kind;
    int expected;
  } cases[] = {
      {"match", true, body, true, crc_bytes(crc_of(body)), 1, 0},
      {"kinds 2 and 3 are the same routine", true, body, true, crc_bytes(crc_of(body)), 2, 0},
      {"kind 3", true, body, true, crc_bytes(crc_of(body)), 3, 0},
      {"kind 4", true, body, true, crc_bytes(crc_of(body)), 4, 3},
      {"kind 0 opens nothing", false, "", false, "", 0, 0},
      {"bytes swapped", true, body, true, crc_bytes(crc_of(body), true), 1, 3},
      {"longer crc file", true, body, true, crc_bytes(crc_of(body)) + "\r\ntrailer", 1, 0},
      {"one-byte crc file", true, body, true, crc_bytes(crc_of(body)).substr(0, 1), 1, 3},
      {"no crc file", true, body, false, "", 1, 3},
      {"no data file", false, "", true, crc_bytes(0), 1, 3},
      {"empty data file", true, "", true, crc_bytes(0), 1, 3},
      {"one-byte data file", true, "A", true, crc_bytes(crc_of("A")), 1, 3},
      {"two-byte data file", true, "AB", true, crc_bytes(crc_of("AB")), 1, 0},
      {"several blocks", true, big, true, crc_bytes(crc_of(big)), 1, 0},
      {"one byte changed", true, body + "x", true, crc_bytes(crc_of(body)), 1, 3},
  };
  for (const auto& c : cases) {
    std::remove("data.ini");
    std::remove("crc.bin");
    if (c.write_data) write_file("data.ini", c.data);
    if (c.write_crc) write_file("crc.bin", c.crc);
    EXPECT_EQ(verify_crc(c.kind, "data.ini", "crc.bin"), c.expected) << c.name;
  }
  EXPECT_EQ(verify_crc(1, nullptr, "crc.bin"), 3);
}

TEST(Seal, AddWritesTwoBytesLowFirst) {
  testutil::WorkDir dir;
  const std::string body = "[config]\ndc = \nRD_VER = 2.0\n";
  write_file("config.ini", body);
  ASSERT_EQ(add_crc(1, "./config.ini", "bin_crc.txt"), 0);
  EXPECT_EQ(read_file("bin_crc.txt"), crc_bytes(crc_of(body)));
  EXPECT_EQ(read_file("config.ini"), body);  // "ab+" never changes the data
  EXPECT_EQ(verify_crc(1, "./config.ini", "bin_crc.txt"), 0);
  // Resealing after an edit replaces the old seal entirely.
  write_file("bin_crc.txt", "0123456789");
  write_file("config.ini", body + "Verbose = 1\n");
  ASSERT_EQ(add_crc(1, "./config.ini", "bin_crc.txt"), 0);
  EXPECT_EQ(read_file("bin_crc.txt").size(), 2u);

  const struct {
    const char* name;
    std::uint8_t kind;
    const char* data;
    const char* crc;
    int expected;
  } failures[] = {
      {"kind 0 touches nothing", 0, "absent.ini", "absent.crc", 0},
      {"kind 4", 4, "./config.ini", "x.crc", 3},
      {"no data path", 1, nullptr, "x.crc", 3},
      {"crc file cannot be created", 1, "./config.ini", "no/such/dir/crc", -1},
      {"missing data is created empty and then fails the check", 1, "new.ini", "new.crc", 3},
  };
  for (const auto& f : failures) {
    EXPECT_EQ(add_crc(f.kind, f.data, f.crc), f.expected) << f.name;
  }
  EXPECT_FALSE(platform::file_exists("absent.ini"));
  EXPECT_FALSE(platform::file_exists("absent.crc"));
  EXPECT_FALSE(platform::file_exists("x.crc"));
  EXPECT_TRUE(platform::file_exists("new.ini"));
  EXPECT_EQ(platform::file_size("new.ini"), 0);
}

TEST(DomainName, RoundTripAndRefusals) {
  const char* urls[] = {kBase, "http://127.0.0.1:9000", "x", "https://h/a%20b?c=d&e=f#g"};
  for (const char* url : urls) {
    std::string value;
    std::string back;
    ASSERT_EQ(encrypt_domain_name(url, &value), 0) << url;
    EXPECT_EQ(value.find(url), std::string::npos) << url;
    ASSERT_EQ(decrypt_domain_name(value, &back), 0) << url;
    EXPECT_EQ(back, url);
  }
  std::string out = "stale";
  EXPECT_EQ(encrypt_domain_name("", &out), -1);
  EXPECT_EQ(out, "");
  const char* bad[] = {"", "not base64!", "QUJDRA==", "AAAAAAAAAAAAAAAAAAAAAA=="};
  for (const char* v : bad) {
    out = "stale";
    EXPECT_EQ(decrypt_domain_name(v, &out), -1) << v;
    EXPECT_EQ(out, "") << v;
  }
}

TEST_F(ConfigTest, ReadsEveryKeyAndBuildsTheEndpoints) {
  write_sealed_config(full_keys());
  testing::internal::CaptureStdout();
  ASSERT_EQ(read_config_file(), 0);
  // The decrypted Management URL never reaches standard output unless
  // debugging output is switched on.
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  const RdConfig c = rd_config_copy();
  EXPECT_EQ(c.ssl_enable_text, "1");
  EXPECT_EQ(c.ssl_enabled, 1);
  EXPECT_EQ(c.verbose, 1);
  EXPECT_EQ(rd_verbose(), 1);
  EXPECT_EQ(c.rd_ver, "1.0.4");
  EXPECT_EQ(c.dev_pub_key_validity, "1440");
  EXPECT_EQ(c.dc, "3f2a-77");
  EXPECT_EQ(c.dc_missing, 0);
  EXPECT_EQ(c.prod_register_url, "https://prod.example.test/register");
  EXPECT_EQ(c.offline_grace_hours, 5);
  const std::string b = kBase;
  EXPECT_EQ(c.mgmt_url_register, b + "/rest/register/");
  EXPECT_EQ(c.mgmt_url_keyrotation, b + "/rest/keyRotation/");
  EXPECT_EQ(c.mgmt_url_uidaiupdate, b + "/rest/uidaiUpdate");
  EXPECT_EQ(c.mgmt_url_updatestatus, b + "/rest/updateStatus");
  EXPECT_EQ(c.mgmt_url_softupdate, b + "/rest/softUpdate/");
  EXPECT_EQ(c.mgmt_url_getcert_pp, b + "/rest/getCert/PP");
  EXPECT_EQ(c.mgmt_url_getcert_p, b + "/rest/getCert/P");
  EXPECT_TRUE(lock_is_free());
  const std::string text = log();
  for (const char* line : {" - CRC check is passed\n", " - Hex_Data is ", " - Hex data length is ",
                           " - Decoded binary data length is 48\n", " - URL Length is 35\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

TEST_F(ConfigTest, OptionalKeysAndEmptyDc) {
  Keys keys = full_keys();
  keys.erase(keys.begin(), keys.begin() + 2);  // no IS_SSL_ENABLE, no Verbose
  keys.resize(keys.size() - 2);                // no PROD_REGISTER_URL, no OFFLINE_GRACE_HOURS
  keys[2].second = "";                         // "dc = "
  write_sealed_config(keys);
  rd_config_update([&](RdConfig& r) { r.ssl_enabled = 7; });
  rd_config_update([&](RdConfig& r) { r.verbose = 7; });
  rd_config_update([&](RdConfig& r) { r.prod_register_url = "old"; });
  testing::internal::CaptureStdout();
  ASSERT_EQ(read_config_file(), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rd_config_copy().ssl_enabled, 0);
  EXPECT_EQ(rd_config_copy().verbose, 0);
  EXPECT_EQ(rd_verbose(), 0);
  EXPECT_EQ(rd_config_copy().prod_register_url, "");
  EXPECT_EQ(rd_config_copy().dc, "");
  EXPECT_EQ(rd_config_copy().dc_missing, 1);
  EXPECT_NE(log().find(" - DC value is null\n"), std::string::npos);
  EXPECT_EQ(rd_config_copy().offline_grace_hours, 72);
  // A grace period that is no whole number of hours up to a year: the default.
  for (const char* hours : {"0", "8760", "-1", "8761", "72h", ""}) {
    Keys with_grace = keys;
    with_grace.push_back({"OFFLINE_GRACE_HOURS", hours});
    write_sealed_config(with_grace);
    rd_config_update([](RdConfig& r) { r.offline_grace_hours = 1; });
    testing::internal::CaptureStdout();
    ASSERT_EQ(read_config_file(), 0) << hours;
    testing::internal::GetCapturedStdout();
    const int expected = std::string(hours) == "0" ? 0 : std::string(hours) == "8760" ? 8760 : 72;
    EXPECT_EQ(rd_config_copy().offline_grace_hours, expected) << hours;
  }
}

TEST_F(ConfigTest, MissingRequiredKeyStopsTheReading) {
  const struct {
    const char* key;
    int expected;
    const char* message;
  } cases[] = {
      {"RD_VER", -4, " - iniparser_getstring Failed For getting RD VER\n"},
      {"DEV_PUB_KEY_VALIDITY", -18, " -  iniparser_getstring Failed For getting dev cert validity days\n"},
      {"dc", -10, " -  iniparser_getstring Failed For getting DC\n"},
      {"DOMAIN_NAME", -13, " -  iniparser_getstring Failed For getting DOMAIN_NAME\n"},
  };
  for (const auto& c : cases) {
    Keys keys = full_keys();
    std::erase_if(keys, [&](const auto& kv) { return kv.first == c.key; });
    write_sealed_config(keys);
    rd_config_update([](RdConfig& r) { r.rd_ver = r.dev_pub_key_validity = r.dc = r.mgmt_url_register = "sentinel"; });
    EXPECT_EQ(read_config_file(), c.expected) << c.key;
    EXPECT_NE(log().find(c.message), std::string::npos) << c.key;
    EXPECT_TRUE(lock_is_free()) << c.key;
    // A file that fails part-way changes nothing: readers never see half of it.
    const RdConfig r = rd_config_copy();
    for (const std::string* got : {&r.rd_ver, &r.dev_pub_key_validity, &r.dc, &r.mgmt_url_register}) {
      EXPECT_EQ(*got, "sentinel") << c.key;
    }
  }
}

TEST_F(ConfigTest, SealLockDecryptionAndLoadFailures) {
  // A hand edit after sealing fails before the lock is taken.
  write_sealed_config(full_keys());
  write_file("config.ini", read_file("config.ini") + "Verbose = 0\n");
  EXPECT_EQ(read_config_file(), -1);
  EXPECT_NE(log().find(" - verify_crc failed\n"), std::string::npos);

  // A DOMAIN_NAME under another key: -1, and the lock is free afterwards.
  Keys keys = full_keys();
  keys[5].second = "AAAAAAAAAAAAAAAAAAAAAA==";
  write_sealed_config(keys);
  rd_config_update([&](RdConfig& r) { r.mgmt_url_register = "sentinel"; });
  EXPECT_EQ(read_config_file(), -1);
  EXPECT_NE(log().find(" - Decryption failed\n"), std::string::npos);
  EXPECT_EQ(rd_config_copy().mgmt_url_register, "sentinel");
  EXPECT_TRUE(lock_is_free());

  // A URL whose endpoints would not fit is refused rather than cut.
  keys = full_keys();
  ASSERT_EQ(encrypt_domain_name("https://h/" + std::string(490, 'p'), &keys[5].second), 0);
  write_sealed_config(keys);
  testing::internal::CaptureStdout();
  EXPECT_EQ(read_config_file(), -1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rd_config_copy().mgmt_url_register, "sentinel");
  EXPECT_TRUE(lock_is_free());

  // An INI line the parser cannot take: -2 and the lock is released.
  keys = full_keys();
  keys.push_back({"COMMENT", std::string(1500, 'c')});
  write_sealed_config(keys);
  EXPECT_EQ(read_config_file(), -2);
  EXPECT_NE(log().find(" - Error in opening file ./config.ini\n"), std::string::npos);
  EXPECT_TRUE(lock_is_free());

  // Another holder of the scanner lock: -1 after the wait.
  write_sealed_config(full_keys());
  ASSERT_EQ(Lock_Semaphore(), 0);
  int rc = 0;
  std::thread([&] { rc = read_config_file(); }).join();
  EXPECT_EQ(rc, -1);
  EXPECT_NE(log().find(" - Error at lock semaphore\n"), std::string::npos);
  EXPECT_EQ(Unlock_Semaphore(), 0);
}

TEST_F(ConfigTest, WritersKeepOtherKeysAndReplaceTheFileWhole) {
  write_sealed_config(full_keys());
  const std::string before = testutil::read_file("config.ini");
  ASSERT_EQ(write_config_file("NEW-DC-9"), 0);
  // The change waits beside the sealed pair until the caller seals it.
  EXPECT_EQ(testutil::read_file("config.ini"), before);
  EXPECT_EQ(verify_crc(1, "./config.ini", "bin_crc.txt"), 0);
  ASSERT_EQ(seal_config_file(), 0);
  ASSERT_EQ(write_config_file_ssl_enable("0123456789"), 0);
  ASSERT_EQ(seal_config_file(), 0);
  EXPECT_EQ(seal_config_file(), 3);  // nothing staged
  testing::internal::CaptureStdout();
  ASSERT_EQ(read_config_file(), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rd_config_copy().dc, "NEW-DC-9");
  EXPECT_EQ(rd_config_copy().ssl_enable_text, "0123456");
  EXPECT_EQ(rd_config_copy().rd_ver, "1.0.4");
  EXPECT_EQ(rd_config_copy().mgmt_url_getcert_p, std::string(kBase) + "/rest/getCert/P");
  // The lock file exists where locks are files (not Windows' named semaphores).
  std::vector<std::string> expected{"bin_crc.txt", "config.ini", "rd.log"};
  if (testsys::kSystemLockDir[0] != '\0') expected.insert(expected.begin(), "Global_QDX_WIN_010.lock");
  EXPECT_EQ(folder_entries(dir_.path()), expected);
  // A value that would end its line is refused before anything is written.
  for (const char* dc : {"a\nb", "a\rb", "a\n[zzz]\ndomain_name = X"}) {
    EXPECT_EQ(write_config_file(dc), -1) << dc;
    EXPECT_EQ(write_config_file_ssl_enable(dc), -1) << dc;
  }
  EXPECT_FALSE(std::filesystem::exists("config.ini.next"));
  std::remove("config.ini");
  EXPECT_EQ(write_config_file("x"), -1);
  EXPECT_EQ(WriteToIniFile(nullptr, "./config.ini"), -1);
}

// The killed process: this program's helper case, in the test's folder (as
// ConfigTest sets it up), armed to kill itself at the crash point that the
// file "crash_point" names.
TEST(DISABLED_ConfigHelper, ChangesDc) {
  rd_set_verbose(0);
  const int point = std::stoi(read_file("crash_point"));
  test_seams::update([&](test_seams::Seams& s) {
    s.lock_dir = std::filesystem::current_path().string();
    s.scanner_lock_ms = 200;
    s.handheld_lock_ms = 200;
  });
  semaphore_reset_for_test();
  rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Aratek_A600"; });
  test_seams::update([&](test_seams::Seams& s) { s.crash_countdown = point; });
  if (write_config_file("NEW-DC") == 0) seal_config_file();
  testsys::end_helper(0);
}

// A process killed at every step of changing dc: the next read of config.ini
// succeeds with the old dc or the new one, and nothing staged is left.
TEST_F(ConfigTest, ChangeOfDcSurvivesAKillAtEveryStep) {
  bool saw_old = false, saw_new = false;
  int point = 1;
  for (;; ++point) {
    SCOPED_TRACE(point);
    write_sealed_config(full_keys());
    write_file("crash_point", std::to_string(point));
    testsys::Process child(testsys::helper_case("DISABLED_ConfigHelper.ChangesDc"), "child.out");
    ASSERT_TRUE(child.started());
    const int code = child.wait();
    if (code == 0) break;  // the change ran to its end: every point was tried
    ASSERT_EQ(code, 137) << "killed at the crash point, as by SIGKILL: " << read_file("child.out");
    testing::internal::CaptureStdout();
    EXPECT_EQ(read_config_file(), 0) << log();
    testing::internal::GetCapturedStdout();
    const std::string dc = rd_config_copy().dc;
    EXPECT_TRUE(dc == "3f2a-77" || dc == "NEW-DC") << dc;
    saw_old = saw_old || dc == "3f2a-77";
    saw_new = saw_new || dc == "NEW-DC";
    EXPECT_EQ(verify_crc(1, "./config.ini", "bin_crc.txt"), 0);
    EXPECT_FALSE(std::filesystem::exists("config.ini.next"));
    EXPECT_FALSE(std::filesystem::exists("bin_crc.txt.next"));
  }
  EXPECT_GE(point, 10);  // the staged file, its seal and both renames each offer several points
  EXPECT_TRUE(saw_old && saw_new);
  // A staged seal that does not match its file is thrown away.
  write_sealed_config(full_keys());
  ASSERT_EQ(write_config_file("OTHER"), 0);
  testutil::write_file("bin_crc.txt.next", "xx");
  testing::internal::CaptureStdout();
  EXPECT_EQ(read_config_file(), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rd_config_copy().dc, "3f2a-77");
  EXPECT_NE(log().find("Discarded an unsealed update of config.ini"), std::string::npos);
}

TEST_F(ConfigTest, HttpsSetApiReseals) {
  testutil::PipeReader pipe(dir_.path());
  ASSERT_EQ(create_Pipe(), 0);
  write_sealed_config(full_keys());
  write_file("last_acces_time_file", "1700000000");
  ASSERT_EQ(Https_Set_Api("0"), 0);
  EXPECT_EQ(rd_config_copy().ssl_enable_text, "0");
  EXPECT_EQ(verify_crc(1, "./config.ini", "bin_crc.txt"), 0);
  EXPECT_FALSE(platform::file_exists("last_acces_time_file"));
  testing::internal::CaptureStdout();
  ASSERT_EQ(read_config_file(), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rd_config_copy().ssl_enabled, 0);
  EXPECT_EQ(rd_config_copy().dc, "3f2a-77");
  const std::string sealed = read_file("config.ini");
  EXPECT_EQ(Https_Set_Api("1\ndc = forged"), -1);
  EXPECT_EQ(read_file("config.ini"), sealed);
  ASSERT_EQ(Https_Set_Api("1"), 0);  // no access-time file: still fine
  testing::internal::CaptureStdout();
  ASSERT_EQ(read_config_file(), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rd_config_copy().ssl_enabled, 1);

  std::remove("config.ini");
  EXPECT_EQ(Https_Set_Api("1"), -1);
  EXPECT_NE(testutil::last_status().find(" | Error at writing ssl enable to config file "), std::string::npos);
  EXPECT_TRUE(pipe.wait_for("10000|Writing ssl value to config file failed\n"));
  EXPECT_EQ(Https_Set_Api(nullptr), -1);
}

TEST_F(ConfigTest, ProxyRoundTrip) {
  testutil::PipeReader pipe(dir_.path());
  ASSERT_EQ(create_Pipe(), 0);
  const std::string long_field(1100, 'u');
  const struct {
    std::string proxy_text;
    int set;
    int read;
    const char* url;
    const char* user;
    const char* password;
  } cases[] = {
      {"http://proxy:3128|bob|s3cret", 0, 0, "http://proxy:3128", "bob", "s3cret"},
      {"http://proxy:3128|bob|s3cret|fourth|fifth", 0, 0, "http://proxy:3128", "bob", "s3cret"},
      {"http://proxy:3128||p;#=ss word", 0, 0, "http://proxy:3128", "", "p;#=ss word"},
      {"http://proxy:3128|bob|", -1, 0, nullptr, nullptr, nullptr},
      {"http://proxy:3128|bob", -1, 0, nullptr, nullptr, nullptr},
      {"http://proxy:3128|bob|x", 0, -1, nullptr, nullptr, nullptr},  // stored plain
      {"http://proxy:3128|" + long_field + "|pw", -1, 0, nullptr, nullptr, nullptr},
      {"http://proxy:3128\n[config]\nproxy_url = http://evil|bob|pw", -1, 0, nullptr, nullptr, nullptr},
      {"http://proxy:3128|bo\rb|pw", -1, 0, nullptr, nullptr, nullptr},
      {"http://proxy:3128|bob|\n", -1, 0, nullptr, nullptr, nullptr},  // kept plain, it would end the line
  };
  // A working proxy is in place before every case: a refused text must leave
  // it byte for byte, so that the next start-up still finds its URL.
  ASSERT_EQ(Set_Proxy_Api("http://working:8080|alice|w0rking"), 0);
  const std::string working = read_file("proxy.ini");
  for (const auto& c : cases) {
    write_file("proxy.ini", working);
    EXPECT_EQ(Set_Proxy_Api(c.proxy_text.c_str()), c.set) << c.proxy_text;
    const std::string file = read_file("proxy.ini");
    if (c.set != 0) {
      EXPECT_EQ(file, working) << c.proxy_text;
      EXPECT_EQ(read_proxy_file(), 0);
      EXPECT_EQ(rd_config_copy().proxy_url, "http://working:8080");
      continue;
    }
    EXPECT_EQ(file.find("\n[config]\n"), 0u) << file;
    rd_config_update([](RdConfig& r) { r.proxy_password = "stale"; });
    EXPECT_EQ(read_proxy_file(), c.read) << c.proxy_text;
    if (c.read != 0) continue;
    EXPECT_EQ(file.find(c.password), std::string::npos) << "password stored in clear: " << file;
    const RdConfig r = rd_config_copy();
    EXPECT_EQ(r.proxy_url, c.url);
    EXPECT_EQ(r.proxy_username, c.user);
    EXPECT_EQ(r.proxy_password, c.password);
  }
  EXPECT_NE(testutil::last_status().find(" | Error at writing proxy_url to proxy file "), std::string::npos)
      << testutil::last_status();
  EXPECT_TRUE(pipe.wait_for("10000|Write proxy_url to config file failed\n"));
  EXPECT_NE(log().find(" - Encryption failed\n"), std::string::npos);
}

TEST_F(ConfigTest, ProxyFileReadingAndRemoval) {
  const struct {
    const char* file;
    int expected;
    const char* password;
  } cases[] = {
      {"[config]\nPROXY_URL = http://p:1\nUSERNAME = u\nPASSWORD = \n", 0, ""},
      {"[config]\nUSERNAME = u\nPASSWORD = \n", -1, nullptr},
      {"[config]\nPROXY_URL = http://p:1\nPASSWORD = \n", -1, nullptr},
      {"[config]\nPROXY_URL = http://p:1\nUSERNAME = u\n", -1, nullptr},
      {"[config]\nPROXY_URL = http://p:1\nUSERNAME = u\nPASSWORD = plain\n", -1, nullptr},
  };
  for (const auto& c : cases) {
    write_file("proxy.ini", c.file);
    EXPECT_EQ(read_proxy_file(), c.expected) << c.file;
    if (c.expected == 0) {
      EXPECT_EQ(rd_config_copy().proxy_password, c.password);
    }
  }
  // Without the file there is no proxy, and removing it again is no error.
  EXPECT_EQ(Remove_Proxy_Api(), 0);
  EXPECT_FALSE(platform::file_exists("proxy.ini"));
  EXPECT_EQ(Remove_Proxy_Api(), 0);
  rd_config_update([](RdConfig& r) { r.proxy_url = "http://old"; });
  EXPECT_EQ(read_proxy_file(), 0);
  EXPECT_EQ(rd_config_copy().proxy_url, "");
  EXPECT_NE(log().find(" - opening ./proxy.ini file failed, MEANS local machine is not using proxy\n"),
            std::string::npos);
}

}  // namespace
