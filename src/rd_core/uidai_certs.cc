// The UIDAI certificate choice reports as part of the rsa module.
#define VEXO_LOG_FILE "rsa"
#include "rd_core/uidai_certs.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <atomic>
#include <climits>
#include <cstddef>
#include <map>

#include "common/hash.h"
#include "common/openssl_ptr.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "platform/mutex.h"
#include "platform/platform.h"

using rd_codes::kFailed;

// Byte arrays generated at build time from data/uidai/*.pem.
extern const unsigned char kUidaiPem_stage[];
extern const std::size_t kUidaiPemLen_stage;
extern const unsigned char kUidaiPem_preprod[];
extern const std::size_t kUidaiPemLen_preprod;
extern const unsigned char kUidaiPem_prod[];
extern const std::size_t kUidaiPemLen_prod;
extern const unsigned char kUidaiPem_prod_old[];
extern const std::size_t kUidaiPemLen_prod_old;

namespace {

std::atomic<bool> g_prod_newer{true};
platform::Mutex g_store_mutex;  // serialises read-modify-write of the checksum store

constexpr std::size_t kMaxStoreBytes = 4096;  // four short lines; more is not ours
constexpr const char* kStoreFile = "cert/uidai/checksums";

std::string_view as_text(const unsigned char* bytes, std::size_t len) {
  return std::string_view(reinterpret_cast<const char*>(bytes), len);
}

bool is_hex64(const std::string& hex) {
  if (hex.size() != 64) return false;
  for (char c : hex) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

std::string prefix_now() { return rd_identity_copy().prefix; }

// The store as name -> checksum; malformed lines are skipped.
std::map<std::string, std::string> read_store(const std::string& prefix) {
  std::map<std::string, std::string> entries;
  std::string text;
  if (platform::read_file(prefix + kStoreFile, &text) != 0 || text.size() > kMaxStoreBytes) return entries;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    const std::size_t blank = line.find(' ');
    if (blank == std::string::npos) continue;
    UidaiCert which;
    const std::string name = line.substr(0, blank);
    const std::string hex = line.substr(blank + 1);
    if (uidai_cert_from_file_name(name, &which) && is_hex64(hex)) entries[name] = hex;
  }
  return entries;
}

std::string sha256_hex(std::string_view text) { return hex_lower(sha256(text)); }

bool names_uidai(const X509_NAME* subject) {
  for (int at = -1; (at = X509_NAME_get_index_by_NID(subject, NID_organizationName, at)) >= 0;) {
    unsigned char* utf8 = nullptr;
    const int len = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
    const bool uidai =
        len >= 0 && std::string_view(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(len)) == "UIDAI";
    OPENSSL_free(utf8);
    if (uidai) return true;
  }
  return false;
}

}  // namespace

int uidai_cert_plausible(const std::string& pem, std::time_t now, std::string* why) {
  BioPtr bio(pem.size() <= INT_MAX ? BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())) : nullptr);
  X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  const EVP_PKEY* key = cert ? X509_get0_pubkey(cert.get()) : nullptr;
  if (key == nullptr) {
    *why = "not an X.509 certificate";
  } else if (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA || EVP_PKEY_get_bits(key) < 2048) {
    *why = "not an RSA key of at least 2048 bits";
  } else if (X509_cmp_time(X509_get0_notBefore(cert.get()), &now) >= 0 ||
             X509_cmp_time(X509_get0_notAfter(cert.get()), &now) <= 0) {
    *why = "not valid now";
  } else if (!names_uidai(X509_get_subject_name(cert.get()))) {
    *why = "the subject names no organisation UIDAI";
  } else {
    why->clear();
    return 0;
  }
  return kFailed;
}

bool uidai_cert_from_file_name(const std::string& name, UidaiCert* which) {
  for (UidaiCert w : {UidaiCert::kStage, UidaiCert::kPreProd, UidaiCert::kProd, UidaiCert::kProdOld}) {
    if (name == uidai_cert_file_name(w)) {
      *which = w;
      return true;
    }
  }
  return false;
}

std::string uidai_stored_checksum(UidaiCert which) {
  const auto entries = read_store(prefix_now());
  const auto it = entries.find(uidai_cert_file_name(which));
  return it == entries.end() ? std::string() : it->second;
}

int uidai_store_checksum(const std::string& prefix, UidaiCert which, const std::string& hex) {
  if (!hex.empty() && !is_hex64(hex)) return kFailed;
  platform::MutexLock lock(&g_store_mutex);
  auto entries = read_store(prefix);
  if (hex.empty()) {
    entries.erase(uidai_cert_file_name(which));
  } else {
    entries[uidai_cert_file_name(which)] = hex;
  }
  std::string text;
  for (const auto& [name, value] : entries) {
    text += name;
    text += ' ';
    text += value;
    text += '\n';
  }
  if (platform::make_dirs(prefix + "cert/uidai") != 0) return kFailed;
  return platform::write_file_atomic(prefix + kStoreFile, text.data(), text.size()) == 0 ? 0 : kFailed;
}

int uidai_install_cert(const std::string& prefix, UidaiCert which, const std::string& pem, const std::string& hex) {
  if (!is_hex64(hex) || sha256_hex(pem) != hex) return kFailed;
  if (platform::make_dirs(prefix + "cert/uidai") != 0) return kFailed;
  std::string path = prefix;
  path += "cert/uidai/";
  path += uidai_cert_file_name(which);
  if (platform::write_file_atomic(path, pem.data(), pem.size()) != 0) return kFailed;
  return uidai_store_checksum(prefix, which, hex);
}

const char* uidai_cert_file_name(UidaiCert which) {
  switch (which) {
    case UidaiCert::kStage:
      return "stage.pem";
    case UidaiCert::kPreProd:
      return "preprod.pem";
    case UidaiCert::kProd:
      return "prod.pem";
    case UidaiCert::kProdOld:
      return "prod_old.pem";
  }
  return "prod.pem";
}

std::string_view uidai_builtin_cert(UidaiCert which) {
  switch (which) {
    case UidaiCert::kStage:
      return as_text(kUidaiPem_stage, kUidaiPemLen_stage);
    case UidaiCert::kPreProd:
      return as_text(kUidaiPem_preprod, kUidaiPemLen_preprod);
    case UidaiCert::kProd:
      return as_text(kUidaiPem_prod, kUidaiPemLen_prod);
    case UidaiCert::kProdOld:
      return as_text(kUidaiPem_prod_old, kUidaiPemLen_prod_old);
  }
  return {};
}

std::string uidai_cert_path(UidaiCert which) {
  return rd_identity_copy().prefix + "cert/uidai/" + uidai_cert_file_name(which);
}

std::string uidai_cert_in_force(UidaiCert which) {
  std::string pem;
  const std::string stored = uidai_stored_checksum(which);
  if (!stored.empty() && platform::read_file(uidai_cert_path(which), &pem) == 0 && sha256_hex(pem) == stored) {
    return pem;
  }
  return std::string(uidai_builtin_cert(which));
}

void set_uidai_prod_cert_newer(bool newer) { g_prod_newer.store(newer); }

UidaiCert uidai_current_prod_cert() { return g_prod_newer.load() ? UidaiCert::kProd : UidaiCert::kProdOld; }

void set_uidai_prod_checksum(const std::string& hex) {
  uidai_store_checksum(prefix_now(), uidai_current_prod_cert(), hex);
}

void set_uidai_preprod_checksum(const std::string& hex) {
  uidai_store_checksum(prefix_now(), UidaiCert::kPreProd, hex);
}

std::string uidai_prod_checksum() { return uidai_stored_checksum(uidai_current_prod_cert()); }

std::string uidai_preprod_checksum() { return uidai_stored_checksum(UidaiCert::kPreProd); }

std::string uidai_expected_checksum(UidaiCert which, const std::string& cert_pem) {
  const std::string stored = uidai_stored_checksum(which);
  return stored.empty() ? sha256_hex(cert_pem) : stored;
}
