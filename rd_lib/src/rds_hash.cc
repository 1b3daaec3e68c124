#include "rds_hash.h"

#include <openssl/evp.h>

#include <cstring>
#include <span>

#include "common/Base64.h"
#include "common/aes.h"
#include "common/rd_log.h"
#include "common/secret.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;
#include "platform/platform.h"

namespace {

// The master key is never stored: byte i is kMaskA[kIndexA[i]] ^ kMaskB[kIndexB[i]].
constexpr std::uint8_t kMaskA[64] = {0x30, 0x6d, 0x6d, 0xa8, 0xab, 0x32, 0x5d, 0xfb, 0xa0, 0x87, 0x67, 0x54, 0x84,
                                     0xa1, 0x57, 0xa4, 0xaf, 0x7e, 0x49, 0xc6, 0x6c, 0x5f, 0xf2, 0xe0, 0x8f, 0x00,
                                     0xe2, 0x7e, 0xfe, 0x80, 0xa7, 0x7a, 0x5f, 0xdf, 0xae, 0xf9, 0x77, 0x03, 0x3a,
                                     0xf8, 0xc2, 0x7d, 0x4d, 0xa5, 0x67, 0x4d, 0xd4, 0x9a, 0x47, 0x44, 0x3c, 0x09,
                                     0x9d, 0xf6, 0x5e, 0x83, 0x61, 0x9e, 0xb9, 0xcc, 0x43, 0xfa, 0x8b, 0xd3};
constexpr std::uint8_t kMaskB[64] = {0x5d, 0x5d, 0xd3, 0xc5, 0xdf, 0x51, 0x1c, 0xc8, 0x6f, 0xc4, 0xa6, 0x99, 0x14,
                                     0x74, 0xbf, 0xa6, 0x47, 0xcb, 0xa1, 0x45, 0xc0, 0xe9, 0x34, 0x29, 0xa3, 0x8a,
                                     0xf3, 0x6a, 0xd3, 0xaa, 0x7f, 0x48, 0x84, 0x15, 0xe1, 0xea, 0x1f, 0x1e, 0x1a,
                                     0xb9, 0x70, 0xda, 0x2d, 0x38, 0xa8, 0x4a, 0x54, 0xc9, 0xd7, 0x63, 0x5a, 0x9e,
                                     0x12, 0xc6, 0x2b, 0xc0, 0xa7, 0x2f, 0x5f, 0xf0, 0x19, 0x70, 0x0d, 0x23};
constexpr std::uint32_t kIndexA[32] = {62, 37, 61, 48, 58, 45, 57, 17, 2, 26, 59, 16, 43, 44, 25, 20,
                                       11, 53, 39, 36, 38, 55, 10, 0,  6, 4,  13, 31, 34, 5,  56, 14};
constexpr std::uint32_t kIndexB[32] = {23, 21, 0,  2,  20, 48, 19, 53, 59, 15, 5,  45, 3,  12, 36, 30,
                                       16, 25, 56, 40, 18, 46, 54, 42, 8,  43, 39, 60, 11, 38, 24, 7};

// The master key, on the stack of the function that needs it.
struct MasterKey {
  std::uint8_t bytes[32];
  MasterKey() {
    // Read through volatile so the optimiser cannot fold the tables into the
    // finished key and emit it as constants.
    const volatile std::uint8_t* a = kMaskA;
    const volatile std::uint8_t* b = kMaskB;
    for (std::size_t i = 0; i < 32; ++i) bytes[i] = a[kIndexA[i]] ^ b[kIndexB[i]];
  }
  ~MasterKey() { cleanse(bytes, sizeof bytes); }
  MasterKey(const MasterKey&) = delete;
  MasterKey& operator=(const MasterKey&) = delete;
};

int aes_ecb(bool encrypt, const std::uint8_t* in, std::size_t len, const std::uint8_t key[32],
            std::vector<std::uint8_t>* out) {
  out->clear();
  if (in == nullptr || len == 0 || len % 16 != 0 || len > 1u << 20) {
    RD_DEBUG(encrypt ? "Error at aes_encrypt \n" : "Invaid input data to aes_decrypt \n");
    return kFailed;
  }
  const std::span<const std::uint8_t> k(key, 32), data(in, len);
  const int rc = encrypt ? aes_encrypt(k, data, out, AesPadding::kNone) : aes_decrypt(k, data, out, AesPadding::kNone);
  if (rc != 0) RD_DEBUG(encrypt ? "Error at aes_encrypt \n" : "Error at EVP_DecryptUpdate\n");
  return rc;
}

std::string as_text(const std::vector<std::uint8_t>& b) { return std::string(b.begin(), b.end()); }

// Raw bytes of a value that comes as Base64 (base64 == 1) or as it is.
int bytes_of(const std::string& value, int base64, std::vector<std::uint8_t>* out) {
  if (base64 == 1) return rds_hmac_Base64Decode(value, out);
  out->assign(value.begin(), value.end());
  return 0;
}

// The 32-byte hash carried by an RD_DRT value (decoded), or -1.
int drt_hash(const std::vector<std::uint8_t>& sealed, std::vector<std::uint8_t>* hash) {
  if (sealed.size() != 32) return kFailed;
  MasterKey master;
  return rds_hmac_aes_decrypt(sealed.data(), sealed.size(), master.bytes, hash);
}

}  // namespace

int rds_hmac_sha256(const void* data, std::size_t len, std::uint8_t out[32]) {
  unsigned int n = 0;
  if ((data == nullptr && len != 0) || EVP_Digest(data, len, out, &n, EVP_sha256(), nullptr) != 1 || n != 32) {
    return kFailed;
  }
  return 0;
}

int rds_hmac_aes_encrypt(const std::uint8_t* in, std::size_t len, const std::uint8_t key[32],
                         std::vector<std::uint8_t>* out) {
  return aes_ecb(true, in, len, key, out);
}

int rds_hmac_aes_decrypt(const std::uint8_t* in, std::size_t len, const std::uint8_t key[32],
                         std::vector<std::uint8_t>* out) {
  return aes_ecb(false, in, len, key, out);
}

int rds_hmac_Base64Encode(const std::uint8_t* in, long len, std::string* out) {
  out->clear();
  if (in == nullptr || len < 0) {
    RD_DEBUG("Invalid parameter to The file = %s , function = %s , line = %d\n", __FILE__, __func__, __LINE__);
    return kFailed;
  }
  return Base64Encode(std::span<const std::uint8_t>(in, static_cast<std::size_t>(len)), out);
}

int rds_hmac_Base64Decode(const std::string& text, std::vector<std::uint8_t>* out) { return Base64Decode(text, out); }

int rds_hmac_seal_with_session_key(const std::uint8_t hash[32], std::vector<std::uint8_t>* enc_hmac,
                                   std::vector<std::uint8_t>* enc_skey) {
  enc_hmac->clear();
  enc_skey->clear();
  MasterKey master;
  SecretArray<32> session{};
  if (platform::random_bytes(session.data(), session.size()) != 0) {
    RD_DEBUG("CryptGenRandom Failed\n");
    RD_DEBUG("Error at GenerateSessionKey \n");
    return kFailed;
  }
  if (rds_hmac_aes_encrypt(hash, 32, session.data(), enc_hmac) != 0 ||
      rds_hmac_aes_encrypt(session.data(), session.size(), master.bytes, enc_skey) != 0) {
    RD_DEBUG("Error at aes_encrypt \n");
    enc_hmac->clear();
    enc_skey->clear();
    return kFailed;
  }
  return 0;
}

int rds_hmac_protect(const char* input, std::size_t len, int base64, std::string* hmac, std::string* skey) {
  hmac->clear();
  skey->clear();
  std::uint8_t hash[32];
  if (input == nullptr || rds_hmac_sha256(input, len, hash) != 0) {
    RD_DEBUG("Error at rds_hmac_sha256\n");
    return kFailed;
  }
  std::vector<std::uint8_t> enc_hmac, enc_skey;
  if (rds_hmac_seal_with_session_key(hash, &enc_hmac, &enc_skey) != 0) {
    RD_DEBUG("Error at encrypt hamc and session key\n");
    return kFailed;
  }
  if (base64 != 1) {
    *hmac = as_text(enc_hmac);
    *skey = as_text(enc_skey);
    return 0;
  }
  if (rds_hmac_Base64Encode(enc_hmac.data(), static_cast<long>(enc_hmac.size()), hmac) != 0 ||
      rds_hmac_Base64Encode(enc_skey.data(), static_cast<long>(enc_skey.size()), skey) != 0) {
    RD_DEBUG("Error at rds_hmac_Base64Encode hmac \n");
    hmac->clear();
    skey->clear();
    return kFailed;
  }
  return 0;
}

int rds_hmac_sign(const char* data, std::size_t len, int base64, std::string* out) {
  out->clear();
  std::uint8_t hash[32];
  if (data == nullptr || rds_hmac_sha256(data, len, hash) != 0) {
    RD_DEBUG("Error at rds_hmac_sha256\n");
    return kFailed;
  }
  MasterKey master;
  std::vector<std::uint8_t> sealed;
  if (rds_hmac_aes_encrypt(hash, sizeof hash, master.bytes, &sealed) != 0) {
    RD_DEBUG("Error at aes_encrypt \n");
    return kFailed;
  }
  if (base64 != 1) {
    *out = as_text(sealed);
    return 0;
  }
  if (rds_hmac_Base64Encode(sealed.data(), static_cast<long>(sealed.size()), out) != 0) {
    RD_DEBUG("Error at rds_hmac_Base64Encode hmac \n");
    return kFailed;
  }
  return 0;
}

int rds_hmac_check(const std::string& response_drt, const std::string& request_drt, int base64, const char* body,
                   std::size_t len, int* result) {
  *result = 0;
  std::vector<std::uint8_t> sealed_response, sealed_request;
  if (bytes_of(response_drt, base64, &sealed_response) != 0) {
    RD_DEBUG("Error at rds_hmac_Base64Decode hmac \n");
    return kFailed;
  }
  std::uint8_t body_hash[32];
  if (body == nullptr || rds_hmac_sha256(body, len, body_hash) != 0) {
    RD_DEBUG("Error at rds_hmac_sha256 \n");
    return kFailed;
  }
  std::vector<std::uint8_t> plain, request_hash;
  {
    MasterKey master;
    if (sealed_response.empty() || sealed_response.size() % 16 != 0 ||
        rds_hmac_aes_decrypt(sealed_response.data(), sealed_response.size(), master.bytes, &plain) != 0 ||
        bytes_of(request_drt, base64, &sealed_request) != 0 || drt_hash(sealed_request, &request_hash) != 0) {
      RD_DEBUG("Error at decrypt \n");
      return kFailed;
    }
  }
  // A 32-byte value holds only the response's hash: the request's half is absent.
  *result = plain.size() == 64 && std::memcmp(plain.data(), body_hash, 32) == 0 &&
                    std::memcmp(plain.data() + 32, request_hash.data(), 32) == 0
                ? 1
                : 0;
  return 0;
}

int rds_hmac_unprotect(const std::string& hmac, const std::string& skey, int base64, const char* data, std::size_t len,
                       int* result) {
  *result = 0;
  std::vector<std::uint8_t> sealed_hash, sealed_key;
  if (bytes_of(hmac, base64, &sealed_hash) != 0) {
    RD_DEBUG("Error at rds_hmac_Base64Decode hmac \n");
    return kFailed;
  }
  if (bytes_of(skey, base64, &sealed_key) != 0) {
    RD_DEBUG("Error at rds_hmac_Base64Decode skey \n");
    return kFailed;
  }
  std::vector<std::uint8_t> session, hash;
  {
    MasterKey master;
    if (sealed_key.size() != 32 || sealed_hash.size() != 32 ||
        rds_hmac_aes_decrypt(sealed_key.data(), sealed_key.size(), master.bytes, &session) != 0 ||
        rds_hmac_aes_decrypt(sealed_hash.data(), sealed_hash.size(), session.data(), &hash) != 0) {
      RD_DEBUG("Error at rds_hmac_aes_decrypt \n");
      cleanse(session.data(), session.size());
      return kFailed;
    }
  }
  cleanse(session.data(), session.size());
  std::uint8_t want[32];
  if (data == nullptr || rds_hmac_sha256(data, len, want) != 0) return kFailed;
  *result = std::memcmp(hash.data(), want, 32) == 0 ? 1 : 0;
  return 0;
}

int rds_hmac_verify_sign(const char* data, std::size_t len, const std::string& drt, int* result) {
  *result = 0;
  std::vector<std::uint8_t> sealed, hash;
  if (rds_hmac_Base64Decode(drt, &sealed) != 0 || drt_hash(sealed, &hash) != 0) return kFailed;
  std::uint8_t want[32];
  if (data == nullptr || rds_hmac_sha256(data, len, want) != 0) return kFailed;
  *result = std::memcmp(hash.data(), want, 32) == 0 ? 1 : 0;
  return 0;
}

int rds_hmac_sign_response(const char* body, std::size_t len, const std::string& request_drt, std::string* out) {
  out->clear();
  std::vector<std::uint8_t> sealed, request_hash;
  if (rds_hmac_Base64Decode(request_drt, &sealed) != 0 || drt_hash(sealed, &request_hash) != 0) return kFailed;
  std::uint8_t plain[64];
  if (body == nullptr || rds_hmac_sha256(body, len, plain) != 0) return kFailed;
  std::memcpy(plain + 32, request_hash.data(), 32);
  MasterKey master;
  std::vector<std::uint8_t> cipher;
  if (rds_hmac_aes_encrypt(plain, sizeof plain, master.bytes, &cipher) != 0) return kFailed;
  return rds_hmac_Base64Encode(cipher.data(), static_cast<long>(cipher.size()), out);
}
