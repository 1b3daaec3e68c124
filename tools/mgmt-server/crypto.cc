#include "crypto.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <span>
#include <vector>

#include "common/Base64.h"

namespace mgmt {

namespace {

std::string openssl_error(const char* what) {
  unsigned long code = ERR_get_error();
  char buf[256] = {};
  if (code != 0) ERR_error_string_n(code, buf, sizeof buf);
  ERR_clear_error();
  return std::string(what) + (code != 0 ? std::string(": ") + buf : std::string());
}

BioPtr mem_bio(const std::string& data) { return BioPtr(BIO_new_mem_buf(data.data(), static_cast<int>(data.size()))); }

bool add_ext(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  std::unique_ptr<X509_EXTENSION, ExtFree> ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  return ext != nullptr && X509_add_ext(cert, ext.get(), -1) == 1;
}

}  // namespace

int load_ca(const std::string& cert_path, const std::string& key_path, Ca* ca, std::string* error) {
  BioPtr cb(BIO_new_file(cert_path.c_str(), "r"));
  BioPtr kb(BIO_new_file(key_path.c_str(), "r"));
  if (!cb || !kb) {
    *error = openssl_error(("cannot read " + (!cb ? cert_path : key_path)).c_str());
    return -1;
  }
  ca->cert.reset(PEM_read_bio_X509(cb.get(), nullptr, nullptr, nullptr));
  ca->key.reset(PEM_read_bio_PrivateKey(kb.get(), nullptr, nullptr, nullptr));
  if (!ca->cert || !ca->key) {
    *error = openssl_error("not a PEM certificate and private key");
    return -1;
  }
  if (X509_check_private_key(ca->cert.get(), ca->key.get()) != 1) {
    *error = openssl_error("the CA key does not belong to the CA certificate");
    return -1;
  }
  return 0;
}

int issue_device_cert(const Ca& ca, const std::string& pem, const std::string& serial, std::time_t now,
                      std::string* der, std::string* error) {
  der->clear();
  PkeyPtr pub;
  {
    BioPtr in = mem_bio(pem);
    X509Ptr self(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
    if (self) {
      pub.reset(X509_get_pubkey(self.get()));
      // Proof that the device holds the private key of what it sends.
      if (!pub || X509_verify(self.get(), pub.get()) != 1) {
        *error = openssl_error("the device certificate's signature does not verify");
        return -1;
      }
    } else {
      ERR_clear_error();
      BioPtr in2 = mem_bio(pem);
      pub.reset(PEM_read_bio_PUBKEY(in2.get(), nullptr, nullptr, nullptr));
      if (!pub) {
        *error = openssl_error("pKey holds neither a certificate nor a public key");
        return -1;
      }
    }
  }
  // The subject is the registered serial number whatever the device asked
  // for, and the certificate serves client authentication alone: a device's
  // certificate can never pass for the server's or another device's.
  std::unique_ptr<X509_NAME, NameFree> subject(X509_NAME_new());
  X509Ptr cert(X509_new());
  std::unique_ptr<BIGNUM, BnFree> sn(BN_new());
  bool ok = subject && cert && sn &&
            X509_NAME_add_entry_by_txt(subject.get(), "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(serial.c_str()), -1, -1, 0) == 1 &&
            BN_rand(sn.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
            BN_to_ASN1_INTEGER(sn.get(), X509_get_serialNumber(cert.get())) != nullptr &&
            X509_set_version(cert.get(), 2) == 1 &&
            X509_time_adj_ex(X509_getm_notBefore(cert.get()), 0, -3600, &now) != nullptr &&
            X509_time_adj_ex(X509_getm_notAfter(cert.get()), 365, 0, &now) != nullptr &&
            X509_set_pubkey(cert.get(), pub.get()) == 1 && X509_set_subject_name(cert.get(), subject.get()) == 1 &&
            X509_set_issuer_name(cert.get(), X509_get_subject_name(ca.cert.get())) == 1 &&
            add_ext(cert.get(), ca.cert.get(), NID_basic_constraints, "critical,CA:FALSE") &&
            add_ext(cert.get(), ca.cert.get(), NID_key_usage, "critical,digitalSignature,nonRepudiation") &&
            add_ext(cert.get(), ca.cert.get(), NID_ext_key_usage, "clientAuth") &&
            add_ext(cert.get(), ca.cert.get(), NID_subject_key_identifier, "hash") &&
            add_ext(cert.get(), ca.cert.get(), NID_authority_key_identifier, "keyid:always") &&
            X509_sign(cert.get(), ca.key.get(), EVP_sha256()) > 0;
  unsigned char* out = nullptr;
  int len = ok ? i2d_X509(cert.get(), &out) : -1;
  if (len <= 0) {
    *error = openssl_error("issuing the certificate failed");
    return -1;
  }
  der->assign(reinterpret_cast<char*>(out), static_cast<std::size_t>(len));
  OPENSSL_free(out);
  return 0;
}

std::string base64_encode(const std::string& bytes) {
  std::string out;
  if (Base64Encode(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
                   &out) != 0) {
    out.clear();
  }
  return out;
}

int base64_decode(const std::string& text, std::string* bytes) {
  bytes->clear();
  std::vector<std::uint8_t> out;
  if (Base64Decode(text, &out) != 0) return -1;
  bytes->assign(out.begin(), out.end());
  return 0;
}

std::string hex_digest(const char* md_name, const std::string& data) {
  const EVP_MD* md = EVP_get_digestbyname(md_name);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (md == nullptr || EVP_Digest(data.data(), data.size(), digest, &len, md, nullptr) != 1) return std::string();
  std::string hex;
  char two[3];
  for (unsigned int i = 0; i < len; ++i) {
    std::snprintf(two, sizeof two, "%02x", digest[i]);
    hex += two;
  }
  return hex;
}

std::string new_uuid() {
  unsigned char b[16];
  if (RAND_bytes(b, sizeof b) != 1) return std::string();
  b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
  char text[37];
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return text;
}

std::string cert_identifier(const std::string& pem) {
  BioPtr in = mem_bio(pem);
  X509Ptr cert(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
  struct tm t = {};
  if (!cert || ASN1_TIME_to_tm(X509_get0_notAfter(cert.get()), &t) != 1) {
    ERR_clear_error();
    return std::string();
  }
  char text[48];
  std::snprintf(text, sizeof text, "%04d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
  return text;
}

}  // namespace mgmt
