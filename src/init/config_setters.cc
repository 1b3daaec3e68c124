// proxy.ini and the three exported configuration setters.
#define VEXO_LOG_FILE "config"
#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "init/config.h"
#include "common/config_dict.h"
#include "common/config_file.h"
#include "common/file_crc.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/Base64.h"
#include "platform/platform.h"
#include "common/aes.h"
#include "common/secret.h"
#include "vexo.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;

namespace {

constexpr char kProxyPath[] = "./proxy.ini";
constexpr char kAccessTimeFile[] = "./last_acces_time_file";

// Key of the proxy password; the same constant serves writing and reading.
constexpr std::array<std::uint8_t, 32> kProxyKey = {0xa4, 0x1d, 0x6e, 0x93, 0x07, 0xcb, 0x58, 0x32, 0xf1, 0x8a, 0x2c,
                                                    0x75, 0xbe, 0x49, 0x10, 0xd6, 0x63, 0x9f, 0x04, 0xe7, 0x3a, 0x81,
                                                    0x5d, 0xc2, 0x1b, 0x76, 0xe9, 0x28, 0x95, 0x4e, 0xb3, 0x6a};

// Splits "URL|USER|PASSWORD" into three fields; missing ones stay empty and
// anything after a third separator is ignored.
std::array<std::string, 3> split_proxy_text(const std::string& proxy_text) {
  std::array<std::string, 3> fields;
  std::size_t start = 0;
  for (std::size_t i = 0; i < fields.size() && start <= proxy_text.size(); ++i) {
    std::size_t bar = proxy_text.find('|', start);
    fields[i] = proxy_text.substr(start, bar == std::string::npos ? std::string::npos : bar - start);
    if (bar == std::string::npos) break;
    start = bar + 1;
  }
  return fields;
}

// Reads one proxy.ini key into field, refusing values that do not fit. 0 or -1.
int read_proxy_key(dictionary* ini, const char* key, const char* missing, std::string* field) {
  const char* value = iniparser_getstring(ini, key, nullptr);
  if (value == nullptr) {
    RD_ERROR("%s", missing);
    return kFailed;
  }
  std::string text(value);
  if (text.size() >= kProxyFieldMax) {
    RD_ERROR("Proxy field %s is too long: %d bytes", key, static_cast<int>(text.size()));
    return kFailed;
  }
  *field = std::move(text);
  return 0;
}

}  // namespace

int write_config_file_proxy_url(const char* proxy_text) {
  if (proxy_text == nullptr) return kFailed;
  const auto [url, user, password] = split_proxy_text(proxy_text);
  if (url.size() >= kProxyFieldMax || user.size() >= kProxyFieldMax || password.size() >= kProxyFieldMax) {
    RD_ERROR("Proxy field is too long");
    return kFailed;
  }
  if (!ini_value_ok(url) || !ini_value_ok(user) || !ini_value_ok(password)) {
    RD_ERROR("Refused a proxy value with a line break");
    return kFailed;
  }
  // Every field is checked and encrypted before the file is touched, so a
  // refused proxy text leaves the working proxy.ini exactly as it was.
  std::string stored = password;
  // A one-character password is kept as it stands (the reader then refuses it).
  if (password.size() != 1) {
    std::vector<std::uint8_t> cipher;
    const auto* p = reinterpret_cast<const std::uint8_t*>(password.data());
    if (aes_encrypt(kProxyKey, std::span<const std::uint8_t>(p, password.size()), &cipher) != 0) {
      RD_ERROR("Encryption failed\n");
      return kFailed;
    }
    RD_INFO("Encryption success\n");
    if (Base64Encode(cipher, &stored) != 0) {
      RD_ERROR("Encryption failed\n");
      return kFailed;
    }
  }
  Dict ini(dictionary_new(0));
  if (ini == nullptr || iniparser_set(ini.get(), "config", nullptr) != 0) {
    RD_ERROR("cannot create proxy.ini file\n\n");
    return kFailed;
  }
  if (iniparser_set(ini.get(), "config:proxy_url", url.c_str()) != 0) {
    RD_ERROR("Error iniparser_set  to write proxy_url value");
    return kFailed;
  }
  if (iniparser_set(ini.get(), "config:username", user.c_str()) != 0) {
    RD_ERROR("Error iniparser_set to write username value");
    return kFailed;
  }
  if (iniparser_set(ini.get(), "config:password", stored.c_str()) != 0) {
    RD_ERROR("Error iniparser_set  to write password value");
    return kFailed;
  }
  // One atomic replace: the old file stays whole until the new one is complete.
  if (WriteToIniFile(ini.get(), kProxyPath) != 0) {
    RD_ERROR("Error at to write proxy_url, username & password value in ini file");
    return kFailed;
  }
  RD_INFO("proxy.ini file created successfully");
  return 0;
}

int read_proxy_file() {
  // Most machines have no proxy: skip the loader, which would complain about
  // the missing file on standard error.
  Dict ini(platform::file_exists(kProxyPath) ? iniparser_load(kProxyPath) : nullptr);
  if (ini == nullptr) {
    RD_INFO("opening %s file failed, MEANS local machine is not using proxy", kProxyPath);
    rd_config_update([](RdConfig& c) {
      c.proxy_url.clear();
      c.proxy_username.clear();
      c.proxy_password.clear();
    });
    return 0;
  }
  std::string url, user, password;
  if (read_proxy_key(ini.get(), "config:PROXY_URL", "iniparser_getstring Failed For getting PROXY_URL", &url) != 0 ||
      read_proxy_key(ini.get(), "config:USERNAME", "iniparser_getstring Failed For getting USERNAME", &user) != 0 ||
      read_proxy_key(ini.get(), "config:PASSWORD", "iniparser_getstring Failed For getting PASSWORD", &password) != 0) {
    return kFailed;
  }
  Secret plain_password;
  if (!password.empty()) {
    std::vector<std::uint8_t> decoded;
    if (Base64Decode(password, &decoded) != 0 || aes_decrypt(kProxyKey, decoded, &plain_password) != 0) {
      RD_ERROR("Decryption failed");
      return kFailed;
    }
  }
  rd_config_update([&](RdConfig& c) {
    c.proxy_url = url;
    c.proxy_username = user;
    c.proxy_password.assign(plain_password.data(), plain_password.size());
  });
  return 0;
}

extern "C" VEXO_EXPORT int Https_Set_Api(const char* value) noexcept {
  try {
    if (write_config_file_ssl_enable(value) != 0) {
      RD_ERROR("Error at writing ssl enable to config file");
      RD_STATUS("Error at writing ssl enable to config file ");
      RD_PIPE("10000", "Writing ssl value to config file failed\n");
      return kFailed;
    }
    rd_config_update([value](RdConfig& c) { c.ssl_enable_text = std::string(value).substr(0, 7); });
    RD_INFO("Writing ssl enable to file successful");
    if (seal_config_file() != 0) {
      RD_ERROR("Adding crc on file failed");
      return kFailed;
    }
    RD_INFO("Adding crc to file is done successfully");
    // Without the recorded access time the next key read forces a key rotation.
    if (platform::file_readable(kAccessTimeFile)) std::remove(kAccessTimeFile);
    return 0;
  } catch (...) {
    return kFailed;
  }
}

extern "C" VEXO_EXPORT int Set_Proxy_Api(const char* proxy) noexcept {
  try {
    if (write_config_file_proxy_url(proxy) != 0) {
      RD_ERROR("Error at writing proxy_url to proxy file");
      RD_STATUS("Error at writing proxy_url to proxy file ");
      RD_PIPE("10000", "Write proxy_url to config file failed\n");
      return kFailed;
    }
    RD_INFO("Writing proxy_url, username & password to file successful");
    return 0;
  } catch (...) {
    return kFailed;
  }
}

extern "C" VEXO_EXPORT int Remove_Proxy_Api(void) noexcept {
  try {
    if (platform::file_readable(kProxyPath)) std::remove(kProxyPath);
    RD_INFO("proxy.ini file removed successfully");
  } catch (...) {
  }
  return 0;
}
