// The keystore password's three ingredients (node-file identity, adapter
// address, service digest) and the encryption-side password.
#define VEXO_LOG_FILE "keystore"
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <span>

#include "common/adapters.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/hash.h"
#include "mgmt_core/keystore.h"
#include "mgmt_core/keystore_internal.h"
#include "platform/platform.h"
#include "common/secret.h"

namespace {

std::mutex g_base_mutex;
std::string g_base_for_test;

// Node-file location below the base folder, per RD service identifier.
constexpr const char* kNodeFiles[][2] = {
    {"QDX.WIN.001", "/korvane/QDX.WIN.001/Vexo_001_Node.txt"},
    {"QDX.WIN.002", "/korvane/QDX.WIN.002/Vexo_002_Node.txt"},
    {"QDX.WIN.003", "/korvane/QDX.WIN.003/Vexo_003_Node.txt"},
    {"QDX.WIN.007", "/korvane/QDX.WIN.007/Vexo_007_Node.txt"},
    {"QDX.WIN.009", "/korvane/QDX.WIN.009/Vexo_009_Node.txt"},
};

std::string dynamic_key_text(const platform::FileIdentity& id) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "%lu%lu%lu", id.volume_serial, id.index_high, id.index_low);
  return buf;
}

std::string parent_folder(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

}  // namespace

namespace keystore_detail {

Password derive_password(const std::array<std::uint8_t, 32>& digest, const Mac& address,
                         const std::string& dynamic_key) {
  Secret input;
  input.append(std::string_view(reinterpret_cast<const char*>(digest.data()), digest.size()));
  input.append(std::string_view(reinterpret_cast<const char*>(address.data()), address.size()));
  input.append(dynamic_key);
  Sha256Digest hash = sha256(input.view());
  Password password{};
  std::copy(hash.begin(), hash.end(), password.begin());
  cleanse(hash.data(), hash.size());
  return password;
}

}  // namespace keystore_detail

using keystore_detail::Mac;
using keystore_detail::Password;

std::string keystore_node_base() {
  {
    std::lock_guard<std::mutex> lock(g_base_mutex);
    if (!g_base_for_test.empty()) return g_base_for_test;
  }
  const std::string appdata = rd_identity_copy().appdata;
  if (!appdata.empty()) return appdata;
  return platform::appdata_dir();
}

void set_keystore_node_base_for_test(const std::string& dir) {
  std::lock_guard<std::mutex> lock(g_base_mutex);
  g_base_for_test = dir;
}

std::string keystore_node_file(const std::string& rds_id) {
  for (const auto& row : kNodeFiles) {
    if (rds_id == row[0]) return keystore_node_base() + row[1];
  }
  return "";
}

std::string keystore_file_path(const char* rel) { return rd_identity_copy().prefix + rel; }

int GetDynamickey_For_Encryption(const std::string& node_path, std::string* key) {
  key->clear();
  // A missing folder is reported by the create below.
  (void)platform::make_dirs(parent_folder(node_path));
  platform::FileIdentity id;
  if (platform::file_identity(node_path, true, &id) != 0) {
    RD_ERROR("CreateFile for Vexo_Node.txt file Failed");
    RD_ERROR("GetLastError Returning %lu", static_cast<unsigned long>(platform::last_error()));
    return -1;
  }
  RD_INFO("Vexo_Node.txt File Created Successfully");
  *key = dynamic_key_text(id);
  return 0;
}

int GetDynamickey_For_Decryption(const std::string& node_path, std::string* key) {
  key->clear();
  platform::FileIdentity id;
  if (platform::file_identity(node_path, false, &id) != 0) {
    RD_ERROR("Opening Vexo_Node.txt Failed");
    RD_ERROR("GetLastError Returning %lu", static_cast<unsigned long>(platform::last_error()));
    return -1;
  }
  *key = dynamic_key_text(id);
  return 0;
}

namespace {
std::mutex g_module_path_mutex;  // guards g_module_path_override and the digest cache
std::string g_module_path_override;
}  // namespace

void set_service_module_path(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_module_path_mutex);
  g_module_path_override = path;
}

int GetHashRDservice(std::array<std::uint8_t, 32>* digest) {
  digest->fill(0);
  std::lock_guard<std::mutex> lock(g_module_path_mutex);
  std::string path = g_module_path_override.empty() ? platform::own_module_path() : g_module_path_override;
  if (path.empty()) return -1;
  // Every key read needs the digest; hashing the whole program file each time
  // would dominate a capture. It is kept while the file's size and
  // modification time stay the same, so a replaced program is hashed anew.
  static std::string cached_path;
  static long long cached_size = -1, cached_mtime = -1;
  static Sha256Digest cached{};
  const long long size = platform::file_size(path), mtime = platform::file_modify_time_ns(path);
  if (size < 0 || mtime < 0) return -1;
  if (path != cached_path || size != cached_size || mtime != cached_mtime) {
    Sha256Digest fresh{};
    if (sha256_file(path, &fresh) != 0) return -1;
    cached = fresh;
    cached_path = path;
    cached_size = size;
    cached_mtime = mtime;
  }
  std::copy(cached.begin(), cached.end(), digest->begin());
  return 0;
}

int GetPasswordToEncPrivateKey(std::array<std::uint8_t, 32>* password) {
  password->fill(0);
  const std::string node = keystore_node_file(rd_identity_copy().rdsId);
  if (node.empty()) {
    RD_ERROR("Invalid RDS ID");
    return -1;
  }
  // The new node file is made beside the one in force, which keeps opening
  // the current key until the commit renames the new one over it (a rename
  // keeps the file's identity, and with it the password).
  const std::string staged = staged_path(node);
  if (platform::file_exists(staged)) {
    if (std::remove(staged.c_str()) != 0) {
      RD_ERROR("Removing Vexo_Node.txt file failed");
      return -1;
    }
    RD_INFO("Vexo_Node.txt file Deleted Successfully");
  } else {
    RD_INFO("Vexo_Node File Already Deleted");
  }

  std::string dynamic_key;
  if (GetDynamickey_For_Encryption(staged, &dynamic_key) != 0) {
    RD_ERROR("Getting Dynamic key Failed");
    return -1;
  }
  std::array<std::uint8_t, 32> digest;
  if (GetHashRDservice(&digest) != 0) {
    RD_ERROR("Error at to get RD Service hash");
    return -1;
  }
  std::vector<Mac> ids;
  if (GetAdapterID(&ids) != 0) {
    RD_ERROR("Getting MAC ID Failed");
    return -1;
  }
  if (ids.empty()) {
    RD_ERROR("iCount is <= 0");
    RD_ERROR("Getting Mac id failed");
    return -1;
  }
  const Mac& mac = ids.front();
  RD_VERBOSE("MAC ID %d is: %02x-%02x-%02x-%02x-%02x-%02x", 0, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);

  Password derived = keystore_detail::derive_password(digest, mac, dynamic_key);
  const Sha256Digest pd_hash = sha256(std::span<const std::uint8_t>(mac.data(), mac.size()));
  (void)platform::make_dirs(keystore_file_path("keystore"));
  const std::string pd_path = keystore_file_path("keystore/pdHash.hash");
  if (platform::write_file_atomic(staged_path(pd_path), pd_hash.data(), pd_hash.size(), 0600) != 0) {
    RD_ERROR("Error at to open pdHash_file application, path is %s", pd_path.c_str());
    return -1;
  }
  *password = derived;
  return 0;
}
