// The device key pair and its self-signed certificate.
#define VEXO_LOG_FILE "keystore"
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "common/secret.h"
#include "common/openssl_ptr.h"
#include "common/rd_codes.h"

using rd_codes::kKeystoreFailed;

namespace {

using ExtPtr = std::unique_ptr<X509_EXTENSION, ExtFree>;

// The maker's subject entries, in the order the certificate carries them.
constexpr const char* kSubject[][2] = {
    {"C", "IN"},
    {"CN", "Korvane Biometric Systems Private Limited"},
    {"OU", "RDService"},
    {"O", "KBSPL"},
    {"L", "Bengaluru"},
    {"ST", "Karnataka"},
    {"emailAddress", "rdsupport@korvane.in"},
};

// The five extensions, in order.
constexpr struct {
  int nid;
  const char* value;
} kExtensions[] = {
    {NID_basic_constraints, "critical,CA:TRUE"},
    {NID_key_usage, "critical,keyCertSign,cRLSign"},
    {NID_subject_key_identifier, "hash"},
    {NID_netscape_cert_type, "sslCA"},
    {NID_netscape_comment, "example comment extension"},
};

int add_ext(X509* cert, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  // Self-signed: the certificate is its own issuer (needed for the key identifier).
  X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
  ExtPtr ext(X509V3_EXT_nconf_nid(nullptr, &ctx, nid, value));
  if (!ext) return kKeystoreFailed;
  return X509_add_ext(cert, ext.get(), -1) == 1 ? 0 : kKeystoreFailed;
}

// notAfter = start + minutes, split into days and seconds so that large
// settings cannot overflow; a date OpenSSL cannot express fails.
int set_validity(X509* cert, std::time_t start, long minutes) {
  long days = minutes / 1440;
  long secs = (minutes % 1440) * 60;
  if (days > INT_MAX || days < INT_MIN) return kKeystoreFailed;
  if (ASN1_TIME_set(X509_getm_notBefore(cert), start) == nullptr) return kKeystoreFailed;
  if (ASN1_TIME_adj(X509_getm_notAfter(cert), start, static_cast<int>(days), secs) == nullptr) return kKeystoreFailed;
  return 0;
}

// Copies a memory BIO's content into out.
int bio_text(BIO* bio, std::string* out) {
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  if (len <= 0 || data == nullptr) return kKeystoreFailed;
  out->assign(data, static_cast<std::size_t>(len));
  return 0;
}

}  // namespace

int mkcert(X509** cert_out, EVP_PKEY** pkey_out, int bits, int serial, long minutes) {
  *cert_out = nullptr;
  *pkey_out = nullptr;
  PkeyPtr pkey(EVP_RSA_gen(static_cast<unsigned>(bits)));
  X509Ptr cert(X509_new());
  if (!pkey || !cert) return kKeystoreFailed;
  std::time_t start = platform::now();
  if (start == static_cast<std::time_t>(-1)) return kKeystoreFailed;
  if (X509_set_version(cert.get(), X509_VERSION_3) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial) != 1 ||
      set_validity(cert.get(), start, minutes) != 0 || X509_set_pubkey(cert.get(), pkey.get()) != 1) {
    return kKeystoreFailed;
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  for (const auto& entry : kSubject) {
    // A subject entry that cannot be added is left out rather than failing the certificate.
    (void)X509_NAME_add_entry_by_txt(name, entry[0], MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(entry[1]),
                                     -1, -1, 0);
  }
  if (X509_set_issuer_name(cert.get(), name) != 1) return kKeystoreFailed;
  for (const auto& ext : kExtensions) {
    if (add_ext(cert.get(), ext.nid, ext.value) != 0) return kKeystoreFailed;
  }
  // MD5 is what the Management server expects of the device certificate.
  if (X509_sign(cert.get(), pkey.get(), EVP_md5()) <= 0) return kKeystoreFailed;
  *cert_out = cert.release();
  *pkey_out = pkey.release();
  return 0;
}

int RSA_Generate_key(Secret* private_pem, std::string* cert_pem) {
  private_pem->clear();
  cert_pem->clear();
  long minutes = std::atol(rd_config_copy().dev_pub_key_validity.c_str());
  RD_INFO("cert expiration mins = %ld", minutes);
  X509* raw_cert = nullptr;
  EVP_PKEY* raw_key = nullptr;
  if (mkcert(&raw_cert, &raw_key, 2048, 0, minutes) != 0) {
    RD_ERROR("Error at to make certificate ");
    return kKeystoreFailed;
  }
  X509Ptr cert(raw_cert);
  PkeyPtr pkey(raw_key);
  RD_INFO("device certificate generated successfully.");

  BioPtr bio_private(BIO_new(BIO_s_mem()));
  if (!bio_private) {
    RD_ERROR("Error at to create memory for bio_private");
    return kKeystoreFailed;
  }
  if (PEM_write_bio_PrivateKey(bio_private.get(), pkey.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    RD_ERROR("Error at to PEM_write_bio_PrivateKey");
    return kKeystoreFailed;
  }
  Secret key_text;
  // The memory BIO holds a plain copy of the key: copied straight into the
  // Secret, then cleansed before the BIO frees it.
  char* mem = nullptr;
  const long mem_len = BIO_get_mem_data(bio_private.get(), &mem);
  if (mem != nullptr && mem_len > 0) {
    key_text.assign(mem, static_cast<std::size_t>(mem_len));
    cleanse(mem, static_cast<std::size_t>(mem_len));
  }
  if (key_text.empty()) {
    RD_ERROR("Error at to read bio private");
    return kKeystoreFailed;
  }
  RD_INFO("private key created successfully");

  BioPtr bio_cert(BIO_new(BIO_s_mem()));
  std::string cert_text;
  if (!bio_cert || PEM_write_bio_X509(bio_cert.get(), cert.get()) != 1 || bio_text(bio_cert.get(), &cert_text) != 0) {
    RD_ERROR("Error at PEM_write_bio_X509 ");
    return kKeystoreFailed;
  }
  (void)platform::make_dirs(keystore_file_path("cert/public"));
  const std::string path = keystore_file_path("cert/public/DevPubKey");
  if (platform::write_file_atomic(staged_path(path), cert_text.data(), cert_text.size(), 0600) != 0) {
    RD_ERROR("opening public key file failed");
    RD_STATUS("opening device public key file failed : %s ", path.c_str());
    RD_PIPE("10000", "File not found %s\n", path.c_str());
    return kKeystoreFailed;
  }
  *private_pem = std::move(key_text);
  *cert_pem = std::move(cert_text);
  return 0;
}
