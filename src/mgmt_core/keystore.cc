// Writing the keystore, and reading the device key back with its tamper checks.
#include <openssl/crypto.h>

#include <cstring>

#include "common/adapters.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/hash.h"
#include "mgmt_core/keystore.h"
#include "mgmt_core/keystore_internal.h"
#include "mgmt_core/mgmt_api.h"
#include "platform/platform.h"
#include "common/secret.h"
#include "common/aes.h"

namespace {

using keystore_detail::Mac;
using keystore_detail::Password;
using Stamp = std::array<char, 4>;

constexpr const char* kEncKey = "keystore/enc_private_key";
constexpr const char* kKeyHash = "keystore/key.hash";
constexpr const char* kPdHash = "keystore/pdHash.hash";
constexpr const char* kAccessTimeFile = "last_acces_time_file";

// The key file's last-access time as 32-bit seconds, low byte first. 0 or -1.
int access_stamp(const std::string& path, Stamp* out) {
  long long t = platform::file_access_time(path);
  if (t < 0) return rd_codes::kKeystoreFailed;
  const auto v = static_cast<std::uint32_t>(t);
  for (int i = 0; i < 4; ++i) (*out)[i] = static_cast<char>((v >> (8 * i)) & 0xff);
  return 0;
}

bool same_digest(const std::string& stored, const Sha256Digest& digest) {
  return stored.size() == digest.size() && std::memcmp(stored.data(), digest.data(), digest.size()) == 0;
}

// The key has been tampered with: a new key, made under the caller's hold of
// the scanner lock, which stays the caller's throughout. -100 when the key was
// replaced, else -1.
int forced_key_rotation() {
  RD_LOG_AS("GetDevicePrivateKeyFromFile");
  RD_INFO("Going for Forceful Key rotation");
  if (mgmt_forced_key_rotation() != 0) {
    RD_ERROR("Key rotation function failed");
    return rd_codes::kKeystoreFailed;
  }
  RD_INFO("Forceful Key rotation is successful");
  return rd_codes::kKeystoreTampered;
}

// The dynamic key from this device's node file. A missing node file means a
// key rotation was cut short or the file was removed: the key can never be
// opened again, so it counts as tampered.
int read_dynamic_key(std::string* dynamic_key) {
  RD_LOG_AS("GetPasswordToDecPrivateKey");
  const std::string node = keystore_node_file(rd_identity_copy().rdsId);
  if (node.empty()) {
    RD_ERROR("Invalid RDS_ID");
    return rd_codes::kKeystoreFailed;
  }
  int rc = GetDynamickey_For_Decryption(node, dynamic_key);
  if (rc != 0) {
    RD_ERROR("Getting Dynamic key Failed");
    return platform::file_exists(node) ? rc : rd_codes::kKeystoreTampered;
  }
  return 0;
}

// A keystore file the key reader needs cannot be read: the run log, the last
// status and the user hear of it.
void report_missing(const char* what, const std::string& path) {
  RD_LOG_AS("GetPasswordToDecPrivateKey");
  RD_ERROR("%s", what);
  RD_STATUS("%s : %s ", what, path.c_str());
  RD_PIPE("10000", "File Not Found : %s\n", path.c_str());
}

// Compares the key file's access time with the one recorded when the library
// last read it. 0, kKeystoreFailed, or kKeystoreTampered.
int check_access_stamp() {
  RD_LOG_AS("GetPasswordToDecPrivateKey");
  const std::string key_path = keystore_file_path(kEncKey);
  Stamp current{};
  if (access_stamp(key_path, &current) != 0) {
    report_missing("Error at to reading private key file", key_path);
    return rd_codes::kKeystoreFailed;
  }
  const std::string time_path = keystore_file_path(kAccessTimeFile);
  std::string recorded;
  if (platform::read_file(time_path, &recorded) != 0) {
    report_missing("keystore access time file not exist", time_path);
    return rd_codes::kKeystoreTampered;
  }
  // Anything but the 4 recorded bytes (also a truncated file) means the key
  // file was touched since the library last read it.
  if (recorded.size() < current.size() || std::memcmp(recorded.data(), current.data(), current.size()) != 0) {
    RD_ERROR("key tamper detected");
    RD_STATUS("key tamper detected ");
    return rd_codes::kKeystoreTampered;
  }
  return 0;
}

// Finds, among this machine's adapters (read into *ids), the first whose
// address hashes to the recorded value: the one that made the password.
// *match points into *ids. 0, kKeystoreFailed, or kKeystoreTampered.
int find_recorded_adapter(std::vector<Mac>* ids, const Mac** match) {
  RD_LOG_AS("GetPasswordToDecPrivateKey");
  const std::string pd_path = keystore_file_path(kPdHash);
  std::string pd_hash;
  if (platform::read_file(pd_path, &pd_hash) != 0) {
    report_missing("Error at to open pd_file application", pd_path);
    return rd_codes::kKeystoreFailed;
  }
  if (GetAdapterID(ids) != 0) {
    RD_ERROR("Could not get MAC ID");
    return rd_codes::kKeystoreFailed;
  }
  if (ids->empty()) {
    RD_ERROR("iCount is <= 0");
    RD_ERROR("Unable to get MAC ID");
    return rd_codes::kKeystoreFailed;
  }
  for (const Mac& mac : *ids) {
    if (same_digest(pd_hash, sha256(std::span<const std::uint8_t>(mac.data(), mac.size())))) {
      *match = &mac;
      return 0;
    }
  }
  RD_ERROR("PD didn't match");
  return rd_codes::kKeystoreTampered;
}

}  // namespace

int GenerateKeyPair(std::string* cert_pem) {
  recover_staged_identity();
  if (stage_key_pair(cert_pem) != 0) discard_staged_identity();
  // A commit cut short is completed by the next start-up, so what it staged stays.
  if (cert_pem->empty() || commit_staged_identity() != 0) {
    cert_pem->clear();
    return rd_codes::kKeystoreFailed;
  }
  return 0;
}

int stage_key_pair(std::string* cert_pem) {
  cert_pem->clear();
  RD_LOG_AS("GenerateKeyPair");
  RD_INFO("............................Accessing keystore files.......................");
  Secret pem;
  std::string cert;
  if (RSA_Generate_key(&pem, &cert) != 0) return rd_codes::kKeystoreFailed;
  RD_INFO("Key pair generation successful");

  SecretArray<32> password{};
  if (GetPasswordToEncPrivateKey(&password) != 0) {
    RD_ERROR("Error at GetPasswordToEncDecPrivateKey");
    return rd_codes::kKeystoreFailed;
  }
  RD_INFO("Password generated successfully");

  (void)platform::make_dirs(keystore_file_path("keystore"));
  const Sha256Digest key_hash = sha256(pem.view());
  if (platform::write_file_atomic(staged_path(keystore_file_path(kKeyHash)), key_hash.data(), key_hash.size(), 0600) !=
      0) {
    RD_ERROR("Error at to create key.hash file");
    return rd_codes::kKeystoreFailed;
  }
  RD_VERBOSE("Password validation is successful");
  RD_VERBOSE("password creation is completed");

  std::vector<std::uint8_t> encrypted;
  if (aes_encrypt(password, std::span<const std::uint8_t>(pem.bytes(), pem.size()), &encrypted) != 0) {
    RD_ERROR("Error at to do aes encryption of device private key");
    return rd_codes::kKeystoreFailed;
  }
  RD_INFO("Private protection is successful");

  const std::string key_path = keystore_file_path(kEncKey);
  if (platform::write_file_atomic(staged_path(key_path), encrypted.data(), encrypted.size(), 0600) != 0) {
    RD_ERROR("Error at to open enc dev private key file");
    RD_STATUS("File not found %s ", key_path.c_str());
    RD_PIPE("5000", "File not found %s\n", key_path.c_str());
    return rd_codes::kKeystoreFailed;
  }
  Stamp stamp{};
  if (access_stamp(staged_path(key_path), &stamp) != 0) {
    RD_ERROR("error to do stat of private key");
    return rd_codes::kKeystoreFailed;
  }
  // A rename keeps the access time, so the stamp holds once the file is in place.
  if (platform::write_file_atomic(staged_path(keystore_file_path(kAccessTimeFile)), stamp.data(), stamp.size(), 0600) !=
      0) {
    RD_ERROR("Unable to create keystore access time file");
    return rd_codes::kKeystoreFailed;
  }
  RD_INFO(".........................Leaving from keystore............................");
  *cert_pem = std::move(cert);
  return 0;
}

int GetPasswordToDecPrivateKey(std::array<std::uint8_t, 32>* password) {
  password->fill(0);
  std::string dynamic_key;
  if (const int rc = read_dynamic_key(&dynamic_key); rc != 0) return rc;
  if (const int rc = check_access_stamp(); rc != 0) return rc;

  std::array<std::uint8_t, 32> digest;
  if (GetHashRDservice(&digest) != 0) {
    RD_ERROR("Error at password validation");
    return rd_codes::kKeystoreFailed;
  }
  RD_VERBOSE("password validation is successful");

  std::vector<Mac> ids;
  const Mac* match = nullptr;
  if (const int rc = find_recorded_adapter(&ids, &match); rc != 0) return rc;
  *password = keystore_detail::derive_password(digest, *match, dynamic_key);
  RD_VERBOSE("Password generated successfully");
  return 0;
}

int GetDevicePrivateKeyFromFile(Secret* pem) {
  pem->clear();
  RD_VERBOSE("Accessing Keystore to get device private key");

  SecretArray<32> password{};
  int rc = GetPasswordToDecPrivateKey(&password);
  if (rc == rd_codes::kKeystoreTampered) return forced_key_rotation();
  if (rc != 0) {
    RD_ERROR("Failed to get Password");
    return rc;
  }

  const std::string key_path = keystore_file_path(kEncKey);
  std::string encrypted;
  if (platform::read_file(key_path, &encrypted) != 0) {
    RD_ERROR("failed to open device private key file");
    RD_STATUS("failed to open device private key file : %s ", key_path.c_str());
    RD_PIPE("10000", "File not found %s\n", key_path.c_str());
    return rd_codes::kKeystoreFailed;
  }
  RD_VERBOSE("Encrypted private key reading successful");

  // The plain key is only ever written into its owner.
  Secret plain;
  if (aes_decrypt(
          password,
          std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(encrypted.data()), encrypted.size()),
          &plain) != 0) {
    // A node file made after the key (a rotation cut short) opens nothing.
    RD_ERROR("Decryption of private key is failed");
    return forced_key_rotation();
  }
  RD_VERBOSE("decryption of Enc private key is success");

  const Sha256Digest key_hash = sha256(std::span<const std::uint8_t>(plain.bytes(), plain.size()));
  const std::string hash_path = keystore_file_path(kKeyHash);
  std::string recorded_hash;
  if (platform::read_file(hash_path, &recorded_hash) != 0) {
    RD_ERROR("Failed to open private key validation info");
    RD_STATUS("File not found : %s ", hash_path.c_str());
    RD_PIPE("10000", "File not found %s\n", hash_path.c_str());
    return rd_codes::kKeystoreFailed;
  }
  RD_VERBOSE("Got private key validation info");
  if (!same_digest(recorded_hash, key_hash)) {
    RD_ERROR("validation failed, Private key might be tampered");
    RD_STATUS("validation failed, Private key might be tampered ");
    // The second "|" is the front end's line break.
    RD_PIPE("10000", "validation failed, Private key might|be tampered\n");
    return forced_key_rotation();
  }

  // Record the access this read has just made, so it is not taken for tampering.
  Stamp stamp{};
  if (access_stamp(key_path, &stamp) != 0) {
    RD_ERROR("error to do stat of private key");
    return rd_codes::kKeystoreFailed;
  }
  const std::string time_path = keystore_file_path(kAccessTimeFile);
  if (!platform::file_exists(time_path) ||
      platform::write_file_atomic(time_path, stamp.data(), stamp.size(), 0600) != 0) {
    RD_ERROR("Tamper detection failed");
    return rd_codes::kKeystoreFailed;
  }
  *pem = std::move(plain);
  return 0;
}
