// The device identity replaced as one step: staged copies, a commit record,
// the renames, and the recovery of a commit that a crash cut short.
#define VEXO_LOG_FILE "keystore"
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "common/config_file.h"
#include "common/openssl_ptr.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"

using rd_codes::kKeystoreFailed;

namespace {

constexpr const char* kCommitRecord = "keystore/identity.commit";

// The identity files in the order a commit replaces them. config.ini comes
// before its seal, as every change of the pair does.
std::vector<std::string> identity_files() {
  const RdIdentity id = rd_identity_copy();
  std::vector<std::string> files;
  const std::string node = keystore_node_file(id.rdsId);
  if (!node.empty()) files.push_back(node);
  for (const char* rel : {"keystore/enc_private_key", "keystore/key.hash", "keystore/pdHash.hash",
                          "last_acces_time_file", "cert/public/DevPubKey", "cert/public/signed_mc.cer", "App_Vexo"}) {
    files.push_back(id.prefix + rel);
  }
  files.emplace_back(kConfigPath);
  files.emplace_back(kCrcPath);
  return files;
}

// Renames every staged file over its target, then removes the record. A
// staged file that is gone was renamed by an earlier, interrupted run.
int finish_commit(const std::string& record) {
  RD_LOG_AS("Key_Rotation");
  for (const std::string& file : identity_files()) {
    const std::string staged = staged_path(file);
    if (!platform::file_exists(staged)) continue;
    if (platform::rename_over(staged, file) != 0) {
      RD_ERROR("Renaming %s failed", staged.c_str());
      return kKeystoreFailed;
    }
    platform::crash_point();
  }
  if (std::remove(record.c_str()) != 0) {
    RD_ERROR("Removing %s failed", record.c_str());
    return kKeystoreFailed;
  }
  platform::crash_point();
  return 0;
}

PkeyPtr public_key_of_der(const std::string& der) {
  if (der.empty() || der.size() > INT_MAX) return nullptr;
  const auto* p = reinterpret_cast<const unsigned char*>(der.data());
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  return PkeyPtr(cert ? X509_get_pubkey(cert.get()) : nullptr);
}

PkeyPtr public_key_of_pem(const std::string& pem) {
  if (pem.empty() || pem.size() > INT_MAX) return nullptr;
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  return PkeyPtr(cert ? X509_get_pubkey(cert.get()) : nullptr);
}

}  // namespace

std::string staged_path(const std::string& path) { return path + ".staged"; }

int commit_staged_identity() {
  RD_LOG_AS("Key_Rotation");
  const std::string record = keystore_file_path(kCommitRecord);
  if (platform::make_dirs(keystore_file_path("keystore")) != 0 ||
      platform::write_file_atomic(record, "", 0, 0600) != 0) {
    RD_ERROR("Unable to write %s", record.c_str());
    return kKeystoreFailed;
  }
  return finish_commit(record);
}

void discard_staged_identity() {
  for (const std::string& file : identity_files()) std::remove(staged_path(file).c_str());
}

void recover_staged_identity() {
  RD_LOG_AS("Key_Rotation");
  const std::string record = keystore_file_path(kCommitRecord);
  if (platform::file_exists(record)) {
    if (finish_commit(record) == 0) RD_INFO("Completed the interrupted change of the device identity");
    return;
  }
  bool staged = false;
  for (const std::string& file : identity_files()) staged = std::remove(staged_path(file).c_str()) == 0 || staged;
  if (staged) RD_INFO("Discarded an uncommitted change of the device identity");
}

int signed_cert_for_key(const std::string& signed_der, const std::string& device_cert_pem) {
  PkeyPtr issued = public_key_of_der(signed_der);
  PkeyPtr own = public_key_of_pem(device_cert_pem);
  return issued && own && EVP_PKEY_eq(issued.get(), own.get()) == 1 ? 0 : kKeystoreFailed;
}
