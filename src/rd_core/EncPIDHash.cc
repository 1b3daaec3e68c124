#include <openssl/evp.h>

#include <climits>
#include <cstring>
#include <memory>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "common/Base64.h"
#include "common/hash.h"
#include "rd_core/pid_crypto.h"
#include "common/openssl_ptr.h"

namespace {

constexpr std::size_t kTsLength = 19;
constexpr std::size_t kIvLength = 12;
constexpr std::size_t kAadLength = 16;
constexpr std::size_t kTagLength = 16;

}  // namespace

int capture_timestamp(std::string* ts) { return ist_time_text("%Y-%m-%dT%H:%M:%S", ts); }

int aes_encrypt_GCM_Mode(std::span<const std::uint8_t> plain, std::span<const std::uint8_t> aad,
                         const std::uint8_t* key, std::span<const std::uint8_t> iv, std::vector<std::uint8_t>* cipher,
                         std::uint8_t* tag) {
  cipher->clear();
  if (key == nullptr || tag == nullptr || iv.size() != kIvLength ||
      plain.size() > static_cast<std::size_t>(INT_MAX - 32) || aad.size() > static_cast<std::size_t>(INT_MAX)) {
    return rd_codes::kFailed;
  }
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  if (!ctx) {
    RD_ERROR("Error at EVP_CIPHER_CTX_new ");
    return rd_codes::kFailed;
  }
  if (EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1) {
    RD_ERROR("Error at EVP_EncryptInit_ex");
    return rd_codes::kFailed;
  }
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(kIvLength), nullptr) != 1) {
    RD_ERROR("Error at EVP_CIPHER_CTX_ctrl");
    return rd_codes::kFailed;
  }
  if (EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, key, iv.data()) != 1) {
    RD_ERROR("Error at EVP_EncryptInit_ex");
    return rd_codes::kFailed;
  }
  int len = 0;
  if (!aad.empty() && EVP_EncryptUpdate(ctx.get(), nullptr, &len, aad.data(), static_cast<int>(aad.size())) != 1) {
    RD_ERROR("Error at EVP_EncryptUpdate -1");
    return rd_codes::kFailed;
  }
  std::vector<std::uint8_t> out(plain.size() + 32);
  int n1 = 0, n2 = 0;
  if (!plain.empty() &&
      EVP_EncryptUpdate(ctx.get(), out.data(), &n1, plain.data(), static_cast<int>(plain.size())) != 1) {
    RD_ERROR("Error at EVP_EncryptUpdate-2");
    return rd_codes::kFailed;
  }
  if (EVP_EncryptFinal_ex(ctx.get(), out.data() + n1, &n2) != 1) {
    RD_ERROR("Error at EVP_EncryptFinal_ex");
    return rd_codes::kFailed;
  }
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagLength), tag) != 1) {
    RD_ERROR("Error at EVP_CIPHER_CTX_ctrl");
    return rd_codes::kFailed;
  }
  out.resize(static_cast<std::size_t>(n1 + n2));
  *cipher = std::move(out);
  return 0;
}

int GenerateEncPID_EncPIDHash(std::span<const std::uint8_t> pid, const std::uint8_t* key, const std::string& ts,
                              std::string* data_text, std::string* hmac_text) {
  data_text->clear();
  hmac_text->clear();
  // The vector is the last 12 characters of ts and the additional data the
  // last 16; UIDAI derives both from the ts in front of Data the same way.
  if (ts.size() != kTsLength) {
    RD_ERROR("Error at to encrypt hash of pidblock");
    return rd_codes::kRdInternal;
  }
  const auto* ts_bytes = reinterpret_cast<const std::uint8_t*>(ts.data());
  std::span<const std::uint8_t> aad(ts_bytes + kTsLength - kAadLength, kAadLength);
  std::span<const std::uint8_t> iv(ts_bytes + kTsLength - kIvLength, kIvLength);

  Sha256Digest digest = sha256(pid);
  std::vector<std::uint8_t> hash_cipher;
  std::uint8_t tag[kTagLength] = {};
  if (aes_encrypt_GCM_Mode(digest, aad, key, iv, &hash_cipher, tag) != 0) {
    RD_ERROR("Error at to encrypt hash of pidblock");
    return rd_codes::kRdInternal;
  }
  hash_cipher.insert(hash_cipher.end(), tag, tag + kTagLength);
  std::string hmac;
  if (Base64Encode(hash_cipher, &hmac) != 0) {
    RD_ERROR("Error at to encode encrypted hash of pidblock");
    return rd_codes::kRdInternal;
  }

  // Data is ts, then the ciphertext of the whole Pid, then the tag.
  std::vector<std::uint8_t> pid_cipher;
  if (aes_encrypt_GCM_Mode(pid, aad, key, iv, &pid_cipher, tag) != 0) {
    RD_ERROR("Error at to encrypt pidblock");
    return rd_codes::kRdInternal;
  }
  // Laid out with memcpy into a sized buffer: GCC 12 misreads chained
  // vector::insert calls as writes past the end under some sanitizer builds.
  std::vector<std::uint8_t> record(kTsLength + pid_cipher.size() + kTagLength);
  std::memcpy(record.data(), ts_bytes, kTsLength);
  if (!pid_cipher.empty()) std::memcpy(record.data() + kTsLength, pid_cipher.data(), pid_cipher.size());
  std::memcpy(record.data() + kTsLength + pid_cipher.size(), tag, kTagLength);
  std::string data;
  if (Base64Encode(record, &data) != 0) {
    RD_ERROR("Error at to encode encrypted pidblock");
    return rd_codes::kRdInternal;
  }
  *hmac_text = std::move(hmac);
  *data_text = std::move(data);
  return 0;
}
