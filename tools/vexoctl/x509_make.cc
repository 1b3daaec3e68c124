#include "x509_make.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

#include "common/openssl_ptr.h"

namespace {

std::string openssl_error(const char* what) {
  unsigned long code = ERR_get_error();
  char buf[256] = {};
  if (code != 0) ERR_error_string_n(code, buf, sizeof buf);
  return std::string(what) + (code != 0 ? std::string(": ") + buf : std::string());
}

bool add_ext(X509* issuer, X509* cert, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  std::unique_ptr<X509_EXTENSION, ExtFree> ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
  return ext != nullptr && X509_add_ext(cert, ext.get(), -1) == 1;
}

bool to_pem(BIO* bio, std::string* out) {
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  if (len <= 0 || data == nullptr) return false;
  out->assign(data, static_cast<std::size_t>(len));
  return true;
}

std::unique_ptr<X509, X509Free> read_cert(const std::string& pem) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return std::unique_ptr<X509, X509Free>(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

std::unique_ptr<EVP_PKEY, PkeyFree> read_key(const std::string& pem) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return std::unique_ptr<EVP_PKEY, PkeyFree>(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr)
                                                 : nullptr);
}

// Makes the key and certificate of req, signed by issuer_cert/issuer_key, or
// self-signed when both are null.
int make_cert(const CertRequest& req, X509* issuer_cert, EVP_PKEY* issuer_key, std::string* cert_pem,
              std::string* key_pem, std::string* error) {
  cert_pem->clear();
  key_pem->clear();
  std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_RSA_gen(2048));
  std::unique_ptr<X509, X509Free> cert(X509_new());
  if (key == nullptr || cert == nullptr) {
    *error = openssl_error("key generation failed");
    return -1;
  }
  // A random positive 63-bit serial keeps re-made certificates distinct.
  std::unique_ptr<BIGNUM, BnFree> serial(BN_new());
  bool ok = serial != nullptr && BN_rand(serial.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
            BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())) != nullptr &&
            X509_set_version(cert.get(), 2) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400L * req.days) != nullptr &&
            X509_set_pubkey(cert.get(), key.get()) == 1;
  X509_NAME* name = X509_get_subject_name(cert.get());
  ok = ok &&
       X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                  reinterpret_cast<const unsigned char*>(req.common_name.c_str()), -1, -1, 0) == 1 &&
       X509_set_issuer_name(cert.get(), issuer_cert ? X509_get_subject_name(issuer_cert) : name) == 1;
  X509* issuer = issuer_cert ? issuer_cert : cert.get();
  ok = ok && add_ext(issuer, cert.get(), NID_subject_key_identifier, "hash");
  if (issuer_cert != nullptr) ok = ok && add_ext(issuer, cert.get(), NID_authority_key_identifier, "keyid:always");
  if (req.ca) {
    ok = ok && add_ext(issuer, cert.get(), NID_basic_constraints, "critical,CA:TRUE,pathlen:0") &&
         add_ext(issuer, cert.get(), NID_key_usage, "critical,keyCertSign,cRLSign,digitalSignature");
    if (!req.name_constraints.empty()) {
      ok = ok && add_ext(issuer, cert.get(), NID_name_constraints, "critical," + req.name_constraints);
    }
  } else {
    ok = ok && add_ext(issuer, cert.get(), NID_basic_constraints, "critical,CA:FALSE") &&
         add_ext(issuer, cert.get(), NID_key_usage, "critical,digitalSignature,keyEncipherment") &&
         add_ext(issuer, cert.get(), NID_ext_key_usage, "serverAuth");
  }
  if (ok && !req.alt_names.empty()) {
    std::string san;
    for (const auto& n : req.alt_names) {
      if (!san.empty()) san += ',';
      san += n;
    }
    ok = add_ext(issuer, cert.get(), NID_subject_alt_name, san);
  }
  ok = ok && X509_sign(cert.get(), issuer_key ? issuer_key : key.get(), EVP_sha256()) > 0;
  if (!ok) {
    *error = openssl_error("certificate making failed");
    return -1;
  }
  std::unique_ptr<BIO, BioFree> cbio(BIO_new(BIO_s_mem()));
  std::unique_ptr<BIO, BioFree> kbio(BIO_new(BIO_s_mem()));
  if (cbio == nullptr || kbio == nullptr || PEM_write_bio_X509(cbio.get(), cert.get()) != 1 ||
      PEM_write_bio_PrivateKey(kbio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
      !to_pem(cbio.get(), cert_pem) || !to_pem(kbio.get(), key_pem)) {
    cert_pem->clear();
    key_pem->clear();
    *error = openssl_error("PEM writing failed");
    return -1;
  }
  return 0;
}

}  // namespace

int make_self_signed(const CertRequest& req, std::string* cert_pem, std::string* key_pem, std::string* error) {
  return make_cert(req, nullptr, nullptr, cert_pem, key_pem, error);
}

int make_signed(const CertRequest& req, const Issuer& issuer, std::string* cert_pem, std::string* key_pem,
                std::string* error) {
  cert_pem->clear();
  key_pem->clear();
  auto cert = read_cert(issuer.cert_pem);
  auto key = read_key(issuer.key_pem);
  if (cert == nullptr || key == nullptr || X509_check_private_key(cert.get(), key.get()) != 1) {
    *error = openssl_error("the issuing certificate and key cannot be read or do not belong together");
    return -1;
  }
  return make_cert(req, cert.get(), key.get(), cert_pem, key_pem, error);
}

std::string cert_common_name(const std::string& cert_pem) {
  auto cert = read_cert(cert_pem);
  if (cert == nullptr) return "";
  char cn[256] = {};
  int n = X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_commonName, cn, sizeof cn);
  return n > 0 ? std::string(cn, static_cast<std::size_t>(n)) : std::string();
}
