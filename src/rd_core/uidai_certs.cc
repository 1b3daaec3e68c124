// The UIDAI certificate choice reports as part of the rsa module.
#define VEXO_LOG_FILE "rsa"
#include "rd_core/uidai_certs.h"

#include <atomic>
#include <cstddef>
#include <mutex>

#include "init/rd_config.h"
#include "mgmt_core/hash.h"
#include "platform/platform.h"

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
std::mutex g_checksum_mutex;  // guards the two texts below
std::string g_prod_checksum;
std::string g_preprod_checksum;

std::string_view as_text(const unsigned char* bytes, std::size_t len) {
  return std::string_view(reinterpret_cast<const char*>(bytes), len);
}

}  // namespace

const char* uidai_cert_file_name(UidaiCert which) {
  switch (which) {
    case UidaiCert::kStage: return "stage.pem";
    case UidaiCert::kPreProd: return "preprod.pem";
    case UidaiCert::kProd: return "prod.pem";
    case UidaiCert::kProdOld: return "prod_old.pem";
  }
  return "prod.pem";
}

std::string_view uidai_builtin_cert(UidaiCert which) {
  switch (which) {
    case UidaiCert::kStage: return as_text(kUidaiPem_stage, kUidaiPemLen_stage);
    case UidaiCert::kPreProd: return as_text(kUidaiPem_preprod, kUidaiPemLen_preprod);
    case UidaiCert::kProd: return as_text(kUidaiPem_prod, kUidaiPemLen_prod);
    case UidaiCert::kProdOld: return as_text(kUidaiPem_prod_old, kUidaiPemLen_prod_old);
  }
  return {};
}

std::string uidai_cert_path(UidaiCert which) {
  return rd_identity_copy().prefix + "cert/uidai/" + uidai_cert_file_name(which);
}

std::string uidai_cert_in_force(UidaiCert which) {
  std::string pem;
  if (platform::read_file(uidai_cert_path(which), &pem) == 0 && !pem.empty()) return pem;
  return std::string(uidai_builtin_cert(which));
}

void set_uidai_prod_cert_newer(bool newer) { g_prod_newer.store(newer); }

UidaiCert uidai_current_prod_cert() { return g_prod_newer.load() ? UidaiCert::kProd : UidaiCert::kProdOld; }

void set_uidai_prod_checksum(const std::string& hex) {
  std::lock_guard<std::mutex> lock(g_checksum_mutex);
  g_prod_checksum = hex;
}

void set_uidai_preprod_checksum(const std::string& hex) {
  std::lock_guard<std::mutex> lock(g_checksum_mutex);
  g_preprod_checksum = hex;
}

std::string uidai_prod_checksum() {
  std::lock_guard<std::mutex> lock(g_checksum_mutex);
  return g_prod_checksum;
}

std::string uidai_preprod_checksum() {
  std::lock_guard<std::mutex> lock(g_checksum_mutex);
  return g_preprod_checksum;
}

std::string uidai_expected_checksum(UidaiCert which, const std::string& cert_pem) {
  std::string stored;
  if (which == UidaiCert::kProd || which == UidaiCert::kProdOld) stored = uidai_prod_checksum();
  if (which == UidaiCert::kPreProd) stored = uidai_preprod_checksum();
  if (!stored.empty()) return stored;
  Sha256Digest d = sha256(std::string_view(cert_pem));
  return hex_lower(d);
}

void uidai_certs_reset_for_test() {
  set_uidai_prod_cert_newer(true);
  set_uidai_prod_checksum("");
  set_uidai_preprod_checksum("");
}
