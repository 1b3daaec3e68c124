#include "test_crypto.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include "common/hash.h"
#include "common/rd_config.h"

namespace testcrypto {
namespace {

std::string bio_text(BIO* mem) {
  char* data = nullptr;
  const long len = BIO_get_mem_data(mem, &data);
  return std::string(data, static_cast<std::size_t>(len));
}

// Standard Base64 (one line, "=" padding); nullopt for text that is not.
std::optional<Bytes> base64_decode(const std::string& text) {
  if (text.size() % 4 != 0) return std::nullopt;
  Bytes out(text.size() / 4 * 3 + 1);
  const int n =
      EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return std::nullopt;
  // EVP_DecodeBlock counts the padding as zero bytes.
  const std::size_t pad = text.size() - std::min(text.size(), text.find_last_not_of('=') + 1);
  out.resize(static_cast<std::size_t>(n) - pad);
  return out;
}

BioPtr bio_of(const std::string& text) { return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))); }

// AES-256-GCM decryption of sealed (ciphertext, then a 16-byte tag) with the
// IV and additional data a Pid takes from its time stamp: its last 12 and 16
// characters. nullopt when the tag does not match.
std::optional<Bytes> gcm_open(const Bytes& key, const std::string& ts, const std::uint8_t* sealed, std::size_t n) {
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  const auto* stamp = reinterpret_cast<const unsigned char*>(ts.data());
  Bytes out(n), tag(sealed + n - 16, sealed + n);
  int aad_len = 0, n1 = 0, n2 = 0;
  if (!ctx || key.size() != 32 || ts.size() != 19 || n < 16 ||
      EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(), stamp + 7) != 1 ||
      EVP_DecryptUpdate(ctx.get(), nullptr, &aad_len, stamp + 3, 16) != 1 ||
      (n > 16 && EVP_DecryptUpdate(ctx.get(), out.data(), &n1, sealed, static_cast<int>(n - 16)) != 1) ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, 16, tag.data()) != 1 ||
      EVP_DecryptFinal_ex(ctx.get(), out.data() + n1, &n2) != 1) {
    return std::nullopt;
  }
  out.resize(static_cast<std::size_t>(n1 + n2));
  return out;
}

// RSA PKCS#1 v1.5 decryption; nullopt on failure.
std::optional<Bytes> rsa_unwrap(EVP_PKEY* key, const Bytes& wrapped) {
  std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new(key, nullptr));
  Bytes out(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
  std::size_t len = out.size();
  if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_decrypt(ctx.get(), out.data(), &len, wrapped.data(), wrapped.size()) != 1) {
    return std::nullopt;
  }
  out.resize(len);
  return out;
}

}  // namespace

std::string make_cert_pem(EVP_PKEY* key, const char* cn, const char* not_before, const char* not_after, long serial,
                          const char* o) {
  X509Ptr x(X509_new());
  X509_set_version(x.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x.get()), serial);
  ASN1_TIME_set_string_X509(X509_getm_notBefore(x.get()), not_before);
  ASN1_TIME_set_string_X509(X509_getm_notAfter(x.get()), not_after);
  X509_set_pubkey(x.get(), key);
  X509_NAME* name = X509_get_subject_name(x.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(o), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
  X509_set_issuer_name(x.get(), name);
  if (X509_sign(x.get(), key, EVP_sha256()) <= 0) return {};
  BioPtr mem(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(mem.get(), x.get());
  return bio_text(mem.get());
}

KeyAndCert make_self_signed(const char* cn, const char* not_before, const char* not_after, long serial) {
  KeyAndCert out;
  out.key.reset(EVP_RSA_gen(2048));
  out.cert_pem = make_cert_pem(out.key.get(), cn, not_before, not_after, serial);
  return out;
}

X509Ptr cert_of_pem(const std::string& pem) {
  BioPtr bio = bio_of(pem);
  return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

PkeyPtr public_key_of_cert(const std::string& pem) {
  X509Ptr x = cert_of_pem(pem);
  return PkeyPtr(x ? X509_get_pubkey(x.get()) : nullptr);
}

PkeyPtr private_key_of_pem(const std::string& pem) {
  BioPtr bio = bio_of(pem);
  return PkeyPtr(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

std::string private_key_pem(EVP_PKEY* key, bool pkcs8) {
  BioPtr mem(BIO_new(BIO_s_mem()));
  (pkcs8 ? PEM_write_bio_PrivateKey : PEM_write_bio_PrivateKey_traditional)(mem.get(), key, nullptr, nullptr, 0,
                                                                            nullptr, nullptr);
  return bio_text(mem.get());
}

bool rsa_sha256_verify(EVP_PKEY* key, std::string_view message, const Bytes& sig) {
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  return ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
         EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), reinterpret_cast<const unsigned char*>(message.data()),
                          message.size()) == 1;
}

std::optional<Bytes> open_pid(EVP_PKEY* uidai_key, const std::string& skey, const std::string& data,
                              const std::string& hmac, std::string* ts) {
  auto wrapped = base64_decode(skey);
  auto sealed = base64_decode(data);
  auto sealed_hash = base64_decode(hmac);
  if (!wrapped || !sealed || !sealed_hash || sealed->size() < 19 + 16 || sealed_hash->size() != 48) {
    return std::nullopt;
  }
  auto key = rsa_unwrap(uidai_key, *wrapped);
  if (!key) return std::nullopt;
  *ts = std::string(sealed->begin(), sealed->begin() + 19);
  auto plain = gcm_open(*key, *ts, sealed->data() + 19, sealed->size() - 19);
  auto digest = gcm_open(*key, *ts, sealed_hash->data(), sealed_hash->size());
  unsigned char want[32];
  if (!plain || !digest || !SHA256(plain->data(), plain->size(), want) || *digest != Bytes(want, want + 32)) {
    return std::nullopt;
  }
  return plain;
}

void install_uidai_cert(UidaiCert which, const std::string& pem) {
  if (uidai_install_cert(rd_identity_copy().prefix, which, pem, hex_lower(sha256(std::string_view(pem)))) != 0) {
    ADD_FAILURE() << "UIDAI certificate not installed";
  }
}

}  // namespace testcrypto
