// The CRC seal, config.ini reading under the scanner lock, the writers, the
// proxy file and the exported setters, all on real files in a temporary folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <map>
#include <optional>
#include <set>

#include "common/config_file.h"
#include "common/file_crc.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "init/config.h"
#include "semaphore/semaphore_syc.h"
#include "test_util.h"
#include "vexo.h"

namespace {

using testutil::has;
using testutil::log_text;
using testutil::read_file;
using testutil::write_file;

constexpr char kBase[] = "https://mgmt.example.test:8443/Zelm";

// The seal of data: its CRC-16, low byte first (or swapped).
std::string crc_bytes(const std::string& data, bool swapped = false) {
  const std::uint16_t crc = crc16_update(0, reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
  const char lo = static_cast<char>(crc & 0xFF), hi = static_cast<char>(crc >> 8);
  return swapped ? std::string{hi, lo} : std::string{lo, hi};
}

using Keys = std::map<std::string, std::string>;

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

// The keys with key set to value, or left out.
Keys full_keys_with(const std::string& key, const std::optional<std::string>& value, Keys keys = full_keys()) {
  keys.erase(key);
  if (value) keys[key] = *value;
  return keys;
}

void write_sealed_config(const Keys& keys) {
  std::string text = "[config]\n";
  for (const auto& [k, v] : keys) text += k + " = " + v + "\n";
  write_file("config.ini", text);
  ASSERT_EQ(add_crc(1, "./config.ini", "bin_crc.txt"), 0);
}

std::set<std::string> folder_entries() {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(".")) names.insert(e.path().filename().string());
  return names;
}

// The library fixture with the scanner lock opened.
class ConfigTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(init_semaphore(), 0);
  }
  // True when the scanner lock can be taken (and is then released again).
  static bool lock_is_free() { return Lock_Semaphore() == 0 && Unlock_Semaphore() == 0; }
};

TEST(Seal, VerifyTableAndAdd) {
  testutil::WorkDir dir;
  EXPECT_EQ(crc_bytes("123456789"), "\xC3\x31");  // the CRC-16/ARC check value
  const std::string body = "[config]\nRD_VER = 1.0.4\n";
  std::string big(1500, 'x');
  big[700] = 'y';  // the second 512-byte block must count
  const struct {
    const char* name;
    std::optional<std::string> data, crc;  // nullopt: no such file
    std::uint8_t kind;
    int expected;
  } cases[] = {
      {"kind 4", body, crc_bytes(body), 4, 3},
      {"kind 0 opens nothing", std::nullopt, std::nullopt, 0, 0},
      {"bytes swapped", body, crc_bytes(body, true), 1, 3},
      {"longer crc file", body, crc_bytes(body) + "\r\ntrailer", 1, 0},
      {"one-byte crc file", body, crc_bytes(body).substr(0, 1), 1, 3},
      {"no crc file", body, std::nullopt, 1, 3},
      {"no data file", std::nullopt, crc_bytes(""), 1, 3},
      {"one-byte data file", "A", crc_bytes("A"), 1, 3},
      {"two-byte data file", "AB", crc_bytes("AB"), 1, 0},
      {"several blocks", big, crc_bytes(big), 1, 0},
  };
  for (const auto& c : cases) {
    std::remove("data.ini");
    std::remove("crc.bin");
    if (c.data) write_file("data.ini", *c.data);
    if (c.crc) write_file("crc.bin", *c.crc);
    EXPECT_EQ(verify_crc(c.kind, "data.ini", "crc.bin"), c.expected) << c.name;
  }
  EXPECT_EQ(verify_crc(1, nullptr, "crc.bin"), 3);

  // Sealing replaces an old seal entirely, and never changes the data ("ab+").
  write_file("data.ini", body);
  write_file("crc.bin", "0123456789");
  ASSERT_EQ(add_crc(1, "data.ini", "crc.bin"), 0);
  EXPECT_EQ(read_file("crc.bin"), crc_bytes(body));
  EXPECT_EQ(read_file("data.ini"), body);
  EXPECT_EQ(add_crc(0, "absent.ini", "absent.crc"), 0);  // kind 0 touches nothing
  EXPECT_FALSE(platform::file_exists("absent.ini"));
  EXPECT_EQ(add_crc(1, "data.ini", "no/such/dir/crc"), -1);
  // A missing data file is created empty, and then fails the check.
  EXPECT_EQ(add_crc(1, "new.ini", "new.crc"), 3);
  EXPECT_EQ(platform::file_size("new.ini"), 0);
}

// The round trip: every reading of config.ini below decrypts kBase.
TEST(DomainName, HidesTheUrlAndRefuses) {
  std::string value, out = "stale";
  ASSERT_EQ(encrypt_domain_name(kBase, &value), 0);
  EXPECT_EQ(value.find("example"), std::string::npos) << value;
  EXPECT_EQ(encrypt_domain_name("", &out), -1);
  EXPECT_EQ(out, "");
  // A value under another key: FailedReadingsChangeNothingAndReleaseTheLock.
  for (const char* v : {"", "not base64!", "QUJDRA=="}) {
    out = "stale";
    EXPECT_EQ(decrypt_domain_name(v, &out), -1) << v;
    EXPECT_EQ(out, "") << v;
  }
}

// Every key read, and the defaults of the optional ones; a grace period that
// is no whole number of hours up to a year falls back to 72.
TEST_F(ConfigTest, ReadsEveryKeyAndDefaultsTheOptionalOnes) {
  Keys minimal = full_keys_with("dc", "");
  for (const char* key : {"IS_SSL_ENABLE", "Verbose", "PROD_REGISTER_URL", "OFFLINE_GRACE_HOURS"}) minimal.erase(key);
  const auto grace = [&](const char* hours) { return full_keys_with("OFFLINE_GRACE_HOURS", hours, minimal); };
  const struct {
    const char* name;
    Keys keys;
    std::string fields;  // ssl text|ssl, verbose, log verbose|RD_VER|validity|dc|dc missing|prod URL|grace
  } rows[] = {
      {"every key", full_keys(), "1|111|1.0.4|1440|3f2a-77|0|https://prod.example.test/register|5"},
      {"optional keys left out, dc empty", minimal, "0|000|1.0.4|1440||1||72"},
      {"grace 0", grace("0"), "0|000|1.0.4|1440||1||0"},
      {"grace a year", grace("8760"), "0|000|1.0.4|1440||1||8760"},
      {"grace past a year", grace("8761"), "0|000|1.0.4|1440||1||72"},
      {"grace not a number", grace("72h"), "0|000|1.0.4|1440||1||72"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    write_sealed_config(row.keys);
    rd_config_update([](RdConfig& r) {
      r.ssl_enabled = r.verbose = 7;
      r.prod_register_url = "old";
      r.offline_grace_hours = 1;
    });
    ASSERT_EQ(read_config_file(), 0);
    const RdConfig c = rd_config_copy();
    EXPECT_EQ(c.ssl_enable_text + "|" + std::to_string(c.ssl_enabled) + std::to_string(c.verbose) +
                  std::to_string(rd_verbose()) + "|" + c.rd_ver + "|" + c.dev_pub_key_validity + "|" + c.dc + "|" +
                  std::to_string(c.dc_missing) + "|" + c.prod_register_url + "|" +
                  std::to_string(c.offline_grace_hours),
              row.fields);
    EXPECT_TRUE(lock_is_free());
  }
  EXPECT_TRUE(has(log_text(), " - DC value is null\n"));
}

// Every way a reading fails: its code and log line, the lock released, and
// nothing changed, so that readers never see half a file.
TEST_F(ConfigTest, FailedReadingsChangeNothingAndReleaseTheLock) {
  std::string far;  // a URL whose endpoints would not fit is refused rather than cut
  ASSERT_EQ(encrypt_domain_name("https://h/" + std::string(490, 'p'), &far), 0);
  const struct {
    const char* name;
    Keys keys;
    int expected;
    const char* message;
    bool edit_after_seal = false;
  } cases[] = {
      {"no RD_VER", full_keys_with("RD_VER", {}), -4, " - iniparser_getstring Failed For getting RD VER\n"},
      {"no DEV_PUB_KEY_VALIDITY", full_keys_with("DEV_PUB_KEY_VALIDITY", {}), -18,
       " -  iniparser_getstring Failed For getting dev cert validity days\n"},
      {"no dc", full_keys_with("dc", {}), -10, " -  iniparser_getstring Failed For getting DC\n"},
      {"no DOMAIN_NAME", full_keys_with("DOMAIN_NAME", {}), -13,
       " -  iniparser_getstring Failed For getting DOMAIN_NAME\n"},
      {"hand edit after sealing", full_keys(), -1, " - verify_crc failed\n", true},
      {"DOMAIN_NAME under another key", full_keys_with("DOMAIN_NAME", "AAAAAAAAAAAAAAAAAAAAAA=="), -1,
       " - Decryption failed\n"},
      {"endpoints too long", full_keys_with("DOMAIN_NAME", far), -1, ""},
      {"line the parser cannot take", full_keys_with("COMMENT", std::string(1500, 'c')), -2,
       " - Error in opening file ./config.ini\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write_sealed_config(c.keys);
    if (c.edit_after_seal) write_file("config.ini", read_file("config.ini") + "Verbose = 0\n");
    rd_config_update([](RdConfig& r) { r.rd_ver = r.dev_pub_key_validity = r.dc = r.mgmt_url_register = "sentinel"; });
    rd_set_verbose(5);  // the file says 1
    const std::size_t offset = log_text().size();
    EXPECT_EQ(read_config_file(), c.expected);
    EXPECT_EQ(rd_verbose(), 5);
    EXPECT_TRUE(has(log_text().substr(offset), c.message));
    EXPECT_TRUE(lock_is_free());
    const RdConfig r = rd_config_copy();
    for (const std::string* got : {&r.rd_ver, &r.dev_pub_key_validity, &r.dc, &r.mgmt_url_register}) {
      EXPECT_EQ(*got, "sentinel");
    }
  }
  // Another holder of the scanner lock: -1 after the wait.
  write_sealed_config(full_keys());
  ASSERT_EQ(Lock_Semaphore(), 0);
  EXPECT_EQ(std::async(std::launch::async, read_config_file).get(), -1);
  EXPECT_TRUE(has(log_text(), " - Error at lock semaphore\n"));
  EXPECT_EQ(Unlock_Semaphore(), 0);
}

TEST_F(ConfigTest, WritersKeepOtherKeysAndReplaceTheFileWhole) {
  write_sealed_config(full_keys());
  const std::set<std::string> entries = folder_entries();
  const std::string before = read_file("config.ini");
  ASSERT_EQ(write_config_file("NEW-DC-9"), 0);
  // The change waits beside the sealed pair until the caller seals it.
  EXPECT_EQ(read_file("config.ini"), before);
  EXPECT_EQ(verify_crc(1, "./config.ini", "bin_crc.txt"), 0);
  ASSERT_EQ(seal_config_file(), 0);
  ASSERT_EQ(write_config_file_ssl_enable("0123456789"), 0);
  ASSERT_EQ(seal_config_file(), 0);
  EXPECT_EQ(seal_config_file(), 3);  // nothing staged
  ASSERT_EQ(read_config_file(), 0);
  const RdConfig c = rd_config_copy();
  EXPECT_EQ(c.dc, "NEW-DC-9");
  EXPECT_EQ(c.ssl_enable_text, "0123456");
  EXPECT_EQ(c.mgmt_url_getcert_p, std::string(kBase) + "/rest/getCert/P");
  // The exported setter seals its change itself and drops the key's access
  // stamp; without a stamp it still succeeds.
  write_file("last_acces_time_file", "1700000000");
  ASSERT_EQ(Https_Set_Api("0"), 0);
  EXPECT_EQ(rd_config_copy().ssl_enable_text, "0");
  EXPECT_FALSE(platform::file_exists("last_acces_time_file"));
  ASSERT_EQ(read_config_file(), 0);
  EXPECT_EQ(rd_config_copy().ssl_enabled, 0);
  EXPECT_EQ(rd_config_copy().dc, "NEW-DC-9");
  ASSERT_EQ(Https_Set_Api("1"), 0);
  ASSERT_EQ(read_config_file(), 0);
  EXPECT_EQ(rd_config_copy().ssl_enabled, 1);
  EXPECT_EQ(folder_entries(), entries);  // nothing staged is left behind
  // A value that would end its line is refused before anything is written.
  for (const char* dc : {"a\rb", "a\n[zzz]\ndomain_name = X"}) {
    EXPECT_EQ(write_config_file(dc), -1) << dc;
    EXPECT_EQ(write_config_file_ssl_enable(dc), -1) << dc;
  }
  EXPECT_EQ(folder_entries(), entries);
  std::remove("config.ini");
  EXPECT_EQ(write_config_file("x"), -1);
  EXPECT_EQ(WriteToIniFile(nullptr, "./config.ini"), -1);
  EXPECT_EQ(Https_Set_Api("1"), -1);
  EXPECT_TRUE(has(testutil::last_status(), " | Error at writing ssl enable to config file "));
  EXPECT_TRUE(pipe_->wait_for("10000|Writing ssl value to config file failed\n"));
  EXPECT_EQ(Https_Set_Api(nullptr), -1);
}

// The killed process: this program's helper case, in the test's folder (as
// ConfigTest sets it up), armed to kill itself at the crash point that the
// file "crash_point" names.
TEST(DISABLED_ConfigHelper, ChangesDc) {
  const int point = std::stoi(read_file("crash_point"));
  test_seams::update([&](test_seams::Seams& s) {
    s.lock_dir = (std::filesystem::current_path() / "locks").string();
    s.scanner_lock_ms = 200;
  });
  rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Aratek_A600"; });
  test_seams::update([&](test_seams::Seams& s) { s.crash_countdown = point; });
  if (write_config_file("NEW-DC") == 0) seal_config_file();
  testsys::end_helper(0);
}

// A process killed at every step of changing dc: the next read of config.ini
// succeeds with the old dc or the new one, and nothing staged is left.
TEST_F(ConfigTest, ChangeOfDcSurvivesAKillAtEveryStep) {
  std::set<std::string> seen;
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
    EXPECT_EQ(read_config_file(), 0) << log_text();
    const std::string dc = rd_config_copy().dc;
    EXPECT_TRUE(dc == "3f2a-77" || dc == "NEW-DC") << dc;
    seen.insert(dc);
    EXPECT_EQ(verify_crc(1, "./config.ini", "bin_crc.txt"), 0);
    EXPECT_FALSE(std::filesystem::exists("config.ini.next"));
    EXPECT_FALSE(std::filesystem::exists("bin_crc.txt.next"));
  }
  EXPECT_GE(point, 10);  // the staged file, its seal and both renames each offer several points
  EXPECT_EQ(seen, (std::set<std::string>{"3f2a-77", "NEW-DC"}));
  // A staged seal that does not match its file is thrown away.
  write_sealed_config(full_keys());
  ASSERT_EQ(write_config_file("OTHER"), 0);
  write_file("bin_crc.txt.next", "xx");
  EXPECT_EQ(read_config_file(), 0);
  EXPECT_EQ(rd_config_copy().dc, "3f2a-77");
  EXPECT_TRUE(has(log_text(), "Discarded an unsealed update of config.ini"));
}

// A working proxy is in place before every case: a refused text must leave
// it byte for byte, so that the next start-up still finds its URL. Then the
// reading of files written by hand, and the removal.
TEST_F(ConfigTest, ProxySetReadAndRemove) {
  const struct {
    std::string proxy_text;
    int set, read;
    std::string stored;  // url|user|password read back
  } cases[] = {
      {"http://proxy:3128|bob|s3cret|fourth|fifth", 0, 0, "http://proxy:3128|bob|s3cret"},
      {"http://proxy:3128||p;#=ss word", 0, 0, "http://proxy:3128||p;#=ss word"},
      {"http://proxy:3128|bob|", -1, 0, ""},  // no password: nothing to encrypt
      {"http://proxy:3128|bob|x", 0, -1, ""},  // stored plain
      {"http://proxy:3128|" + std::string(1100, 'u') + "|pw", -1, 0, ""},
      {"http://proxy:3128\n[config]\nproxy_url = http://evil|bob|pw", -1, 0, ""},
      {"http://proxy:3128|bob|\n", -1, 0, ""},  // kept plain, it would end the line
  };
  ASSERT_EQ(Set_Proxy_Api("http://working:8080|alice|w0rking"), 0);
  const std::string working = read_file("proxy.ini");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.proxy_text);
    write_file("proxy.ini", working);
    EXPECT_EQ(Set_Proxy_Api(c.proxy_text.c_str()), c.set);
    const std::string file = read_file("proxy.ini");
    rd_config_update([](RdConfig& r) { r.proxy_password = "stale"; });
    EXPECT_EQ(read_proxy_file(), c.read);
    const RdConfig r = rd_config_copy();
    if (c.set != 0) {
      EXPECT_EQ(file, working);
      EXPECT_EQ(r.proxy_url, "http://working:8080");
    } else if (c.read == 0) {
      EXPECT_EQ(file.find("\n[config]\n"), 0u) << file;
      EXPECT_EQ(file.find(c.stored.substr(c.stored.rfind('|') + 1)), std::string::npos) << "password in clear";
      EXPECT_EQ(r.proxy_url + "|" + r.proxy_username + "|" + r.proxy_password, c.stored);
    }
  }
  EXPECT_TRUE(has(testutil::last_status(), " | Error at writing proxy_url to proxy file "));
  EXPECT_TRUE(pipe_->wait_for("10000|Write proxy_url to config file failed\n"));
  EXPECT_TRUE(has(log_text(), " - Encryption failed\n"));

  // Files as left by hand or by older versions.
  const std::pair<const char*, int> files[] = {
      {"[config]\nPROXY_URL = http://p:1\nUSERNAME = u\nPASSWORD = \n", 0},
      {"[config]\nPROXY_URL = http://p:1\nPASSWORD = \n", -1},
      {"[config]\nPROXY_URL = http://p:1\nUSERNAME = u\n", -1},
  };
  for (const auto& [file, expected] : files) {
    rd_config_update([](RdConfig& r) { r.proxy_password = "stale"; });
    write_file("proxy.ini", file);
    EXPECT_EQ(read_proxy_file(), expected) << file;
    EXPECT_EQ(rd_config_copy().proxy_password, expected == 0 ? "" : "stale") << file;
  }
  // Without the file there is no proxy, and removing it again is no error.
  EXPECT_EQ(Remove_Proxy_Api(), 0);
  EXPECT_FALSE(platform::file_exists("proxy.ini"));
  EXPECT_EQ(Remove_Proxy_Api(), 0);
  rd_config_update([](RdConfig& r) { r.proxy_url = "http://old"; });
  EXPECT_EQ(read_proxy_file(), 0);
  EXPECT_EQ(rd_config_copy().proxy_url, "");
  EXPECT_TRUE(has(log_text(), " - opening ./proxy.ini file failed, MEANS local machine is not using proxy\n"));
}

}  // namespace
