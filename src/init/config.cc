#include "init/config.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/config_dict.h"
#include "common/config_file.h"
#include "common/file_crc.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "common/Base64.h"
#include "mgmt_core/keystore.h"
#include "common/aes.h"
#include "semaphore/device_lock.h"

namespace {

// The address key is the XOR of these two tables, so it never lies whole in
// the library's image.
constexpr std::array<std::uint8_t, 32> kAddressMaskA = {
    0x5e, 0x21, 0x9c, 0x07, 0xd3, 0x4a, 0x88, 0x1f, 0x62, 0xb5, 0x0e, 0x73, 0xc9, 0x36, 0xaf, 0x54,
    0x19, 0xe2, 0x7d, 0x40, 0x8b, 0x25, 0xf6, 0x6c, 0x03, 0xba, 0x4f, 0x91, 0x2e, 0xd8, 0x67, 0xc1};
constexpr std::array<std::uint8_t, 32> kAddressMaskB = {
    0x2b, 0x97, 0x40, 0xe8, 0x15, 0x6f, 0x3c, 0xa2, 0xd9, 0x04, 0x71, 0xbe, 0x58, 0x83, 0x1a, 0xf7,
    0x6d, 0x30, 0xc4, 0x9b, 0x52, 0xe9, 0x0f, 0x86, 0x7a, 0x45, 0xdc, 0x13, 0xa8, 0x61, 0xf2, 0x3e};

struct Endpoint {
  std::string RdConfig::*field;
  const char* suffix;
};

// The trailing slashes differ between entries on purpose: the server's routes.
constexpr Endpoint kEndpoints[] = {
    {&RdConfig::mgmt_url_register, "/rest/register/"},      {&RdConfig::mgmt_url_keyrotation, "/rest/keyRotation/"},
    {&RdConfig::mgmt_url_uidaiupdate, "/rest/uidaiUpdate"}, {&RdConfig::mgmt_url_updatestatus, "/rest/updateStatus"},
    {&RdConfig::mgmt_url_softupdate, "/rest/softUpdate/"},  {&RdConfig::mgmt_url_getcert_pp, "/rest/getCert/PP"},
    {&RdConfig::mgmt_url_getcert_p, "/rest/getCert/P"},
};

std::array<std::uint8_t, 32> address_key() {
  std::array<std::uint8_t, 32> key{};
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = kAddressMaskA[i] ^ kAddressMaskB[i];
  return key;
}

// OFFLINE_GRACE_HOURS: whole hours up to kOfflineGraceHoursMax; the default
// when the key is absent or holds anything else.
int offline_grace_hours(const char* text) {
  if (text == nullptr) return kOfflineGraceHoursDefault;
  int hours = -1;
  const char* end = text + std::strlen(text);
  const auto [ptr, ec] = std::from_chars(text, end, hours);
  if (ec != std::errc() || ptr != end || hours < 0 || hours > kOfflineGraceHoursMax) {
    RD_LOG_AS("read_config_file");
    RD_ERROR("OFFLINE_GRACE_HOURS is not a number of hours up to %d: %d is used", kOfflineGraceHoursMax,
             kOfflineGraceHoursDefault);
    return kOfflineGraceHoursDefault;
  }
  return hours;
}

// The optional settings of the shared-computer deployment.
void read_settings(dictionary* ini, RdConfig* cfg) {
  cfg->lock_folder = iniparser_getstring(ini, "config:LOCK_FOLDER", "");
  cfg->allowed_origins = iniparser_getstring(ini, "config:ALLOWED_ORIGINS", "");
}

// Finishes a change of the identity or of config.ini that a crash cut short,
// under the lock that a Management operation holds while it changes the pair.
void recover_pending_changes() {
  ScannerLock swap_lock;
  if (swap_lock.held()) {
    recover_staged_identity();
    recover_config_swap();
  }
}

// The keys that have defaults: TLS, verbosity, the production URL, the offline
// grace and the shared-computer settings.
void read_optional_keys(dictionary* ini, RdConfig* cfg) {
  const char* ssl = iniparser_getstring(ini, "config:IS_SSL_ENABLE", nullptr);
  cfg->ssl_enable_text = ssl != nullptr ? std::string(ssl).substr(0, 7) : "0";
  cfg->ssl_enabled = ssl != nullptr ? std::atoi(ssl) : 0;
  const char* verbose = iniparser_getstring(ini, "config:Verbose", nullptr);
  cfg->verbose = verbose != nullptr ? std::atoi(verbose) : 0;
  rd_set_verbose(cfg->verbose);
  cfg->prod_register_url = iniparser_getstring(ini, "config:PROD_REGISTER_URL", "");
  cfg->offline_grace_hours = offline_grace_hours(iniparser_getstring(ini, "config:OFFLINE_GRACE_HOURS", nullptr));
  read_settings(ini, cfg);
}

// RD_VER, DEV_PUB_KEY_VALIDITY and dc (which may be empty: a key rotation is
// then due). kConfigOk, or the code of the first missing key.
int read_device_keys(dictionary* ini, RdConfig* cfg) {
  RD_LOG_AS("read_config_file");
  const char* value = iniparser_getstring(ini, "config:RD_VER", nullptr);
  if (value == nullptr) {
    RD_ERROR("iniparser_getstring Failed For getting RD VER");
    return rd_codes::kConfigNoRdVer;
  }
  cfg->rd_ver = value;
  value = iniparser_getstring(ini, "config:DEV_PUB_KEY_VALIDITY", nullptr);
  if (value == nullptr) {
    RD_ERROR(" iniparser_getstring Failed For getting dev cert validity days");
    return rd_codes::kConfigNoValidity;
  }
  cfg->dev_pub_key_validity = value;
  value = iniparser_getstring(ini, "config:dc", nullptr);
  if (value == nullptr) {
    RD_ERROR(" iniparser_getstring Failed For getting DC");
    return rd_codes::kConfigNoDc;
  }
  cfg->dc = value;
  cfg->dc_missing = 0;
  if (cfg->dc.empty()) {
    RD_INFO("DC value is null");
    cfg->dc_missing = 1;
  }
  return rd_codes::kConfigOk;
}

// DOMAIN_NAME decrypted into the Management server's endpoints. kConfigOk,
// kConfigNoDomain, or kConfigFailed when it does not decrypt or is too long.
int read_endpoints(dictionary* ini, RdConfig* cfg) {
  RD_LOG_AS("read_config_file");
  const char* value = iniparser_getstring(ini, "config:DOMAIN_NAME", nullptr);
  if (value == nullptr) {
    RD_ERROR(" iniparser_getstring Failed For getting DOMAIN_NAME");
    return rd_codes::kConfigNoDomain;
  }
  const std::string hex_data = value;
  RD_VERBOSE("Hex_Data is %s", hex_data.c_str());
  RD_VERBOSE("Hex data length is %d", static_cast<int>(hex_data.size()));
  std::string base;
  std::size_t decoded_len = 0;
  const int decrypt_rc = decrypt_domain_name(hex_data, &base, &decoded_len);
  RD_VERBOSE("Decoded binary data length is %d", static_cast<int>(decoded_len));
  if (decrypt_rc != 0) {
    RD_ERROR("Decryption failed");
    return rd_codes::kConfigFailed;
  }
  RD_DEBUG("URL is: %s\n", base.c_str());
  RD_VERBOSE("URL Length is %d", static_cast<int>(base.size()));
  for (const Endpoint& e : kEndpoints) {
    if (base.size() + std::char_traits<char>::length(e.suffix) >= kEndpointMax) {
      RD_ERROR("Management URL is too long: %d bytes", static_cast<int>(base.size()));
      return rd_codes::kConfigFailed;
    }
  }
  for (const Endpoint& e : kEndpoints) cfg->*e.field = base + e.suffix;
  return rd_codes::kConfigOk;
}

}  // namespace

int read_lock_folder() {
  if (verify_crc(kCrc16, kConfigPath, kCrcPath) != 0) return rd_codes::kFailed;
  Dict ini(iniparser_load(kConfigPath));
  if (ini == nullptr) return rd_codes::kFailed;
  RdConfig cfg;
  read_settings(ini.get(), &cfg);
  rd_config_update([&cfg](RdConfig& shared) { shared.lock_folder = cfg.lock_folder; });
  return 0;
}

int read_config_file() {
  recover_pending_changes();
  if (verify_crc(kCrc16, kConfigPath, kCrcPath) != 0) {
    RD_ERROR("verify_crc failed");
    return rd_codes::kConfigFailed;
  }
  RD_INFO("CRC check is passed");
  // Released on every path, failures included, so one bad file cannot stall
  // every other process of the device family for the lock's full wait.
  ScannerLock lock;
  if (!lock.held()) {
    RD_ERROR("Error at lock semaphore");
    return rd_codes::kConfigFailed;
  }
  Dict ini(iniparser_load(kConfigPath));
  if (ini == nullptr) {
    RD_ERROR("Error in opening file %s", kConfigPath);
    return rd_codes::kConfigNotLoadable;
  }
  // The keys are read into a copy in the file's order; the shared record
  // changes only when every key was good, so readers never see half a file.
  // The verbosity applies at once (the reading's own trace lines follow it)
  // and goes back when the reading fails.
  RdConfig cfg = rd_config_copy();
  const int verbose_before = rd_verbose();
  read_optional_keys(ini.get(), &cfg);
  int rc = read_device_keys(ini.get(), &cfg);
  if (rc == rd_codes::kConfigOk) rc = read_endpoints(ini.get(), &cfg);
  ini.reset();
  if (rc == rd_codes::kConfigOk && lock.unlock() != 0) {
    RD_ERROR("Error at Unlock_Semaphore");
    rc = rd_codes::kConfigUnlock;
  }
  if (rc != rd_codes::kConfigOk) {
    rd_set_verbose(verbose_before);
    return rc;
  }
  rd_config_update([&cfg](RdConfig& shared) { shared = std::move(cfg); });
  return rd_codes::kConfigOk;
}

int encrypt_domain_name(const std::string& url, std::string* value) {
  value->clear();
  const auto key = address_key();
  std::vector<std::uint8_t> cipher;
  const auto* p = reinterpret_cast<const std::uint8_t*>(url.data());
  if (aes_encrypt(key, std::span<const std::uint8_t>(p, url.size()), &cipher) != 0) return rd_codes::kFailed;
  if (Base64Encode(cipher, value) != 0) {
    value->clear();
    return rd_codes::kFailed;
  }
  return 0;
}

int decrypt_domain_name(const std::string& value, std::string* url, std::size_t* decoded_len) {
  url->clear();
  std::vector<std::uint8_t> decoded;
  // Text that is not Base64 decodes to nothing, which no key opens.
  if (Base64Decode(value, &decoded) != 0) decoded.clear();
  if (decoded_len != nullptr) *decoded_len = decoded.size();
  std::vector<std::uint8_t> plain;
  const auto key = address_key();
  if (aes_decrypt(key, decoded, &plain) != 0) return rd_codes::kFailed;
  url->assign(plain.begin(), plain.end());
  return 0;
}
