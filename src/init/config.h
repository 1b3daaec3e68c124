// config.ini and proxy.ini: reading them into the configuration record, the
// proxy writer, and the DOMAIN_NAME codec (Base64 of the AES-256-ECB ciphertext
// of the Management base URL). The staged, sealed writes of config.ini are in
// common/config_file.h.
//
// Paths are relative to the current folder: "./config.ini", "bin_crc.txt",
// "./proxy.ini", "./last_acces_time_file". Every writer replaces its file
// atomically. Thread-safety: meant for start-up and the host's management
// thread; read_config_file holds the scanner lock while it parses.
#ifndef VEXO_INIT_CONFIG_H
#define VEXO_INIT_CONFIG_H

#include <cstddef>
#include <string>

// Longest endpoint URL and proxy field held in memory, terminator included;
// longer values are refused.
constexpr std::size_t kEndpointMax = 512;
constexpr std::size_t kProxyFieldMax = 1024;

// Checks the seal, then fills the configuration record from config.ini under the scanner
// lock. 0; -1 seal, lock, decryption or overlong URL; -2 file not loadable;
// -4 RD_VER, -18 DEV_PUB_KEY_VALIDITY, -10 dc, -13 DOMAIN_NAME missing;
// -19 unlock failed. The lock is released and the dictionary freed on every path.
int read_config_file();

// Reads LOCK_FOLDER alone into the configuration record (empty when absent),
// for start-up to place the locks before read_config_file, which needs them,
// runs. 0, or -1 when the file is not sealed or not loadable (the record is
// left as it was).
int read_lock_folder();

// Fills the proxy fields of the configuration record from proxy.ini (cleared when there is
// no such file). 0 (also without the file) or -1.
int read_proxy_file();
// Writes proxy.ini from "URL|USER|PASSWORD" (a fourth field is ignored); the
// password is stored encrypted, a one-character one as it stands. 0 or -1.
int write_config_file_proxy_url(const char* proxy_text);

// DOMAIN_NAME value for a Management base URL, and back. 0, or -1 (out cleared).
int encrypt_domain_name(const std::string& url, std::string* value);
int decrypt_domain_name(const std::string& value, std::string* url);

#endif  // VEXO_INIT_CONFIG_H
