#include <cstring>
#include <vector>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "common/Base64.h"
#include "platform/platform.h"
#include "rd_core/pid_crypto.h"

int GenerateSessionKey(int key_bits, int key_bytes, std::uint8_t* key) {
  if (key == nullptr || key_bytes <= 0 || key_bits != key_bytes * 8) {
    RD_ERROR("CryptGenRandom Failed");
    return rd_codes::kFailed;
  }
  std::memset(key, 0, static_cast<std::size_t>(key_bytes));
  // The system's generator stands in for the CryptoAPI context; its failure
  // keeps the CryptoAPI message.
  if (platform::random_bytes(key, static_cast<std::size_t>(key_bytes)) != 0) {
    std::memset(key, 0, static_cast<std::size_t>(key_bytes));
    RD_ERROR("CryptGenRandom Failed");
    return rd_codes::kFailed;
  }
  return 0;
}

int GenerateEncandPlainSessionKey(const std::string& env, std::uint8_t* key, std::string* skey_text, std::string* ci) {
  skey_text->clear();
  int rc = GenerateSessionKey(256, 32, key);
  if (rc != 0) {
    RD_ERROR("Error at GenerateSessionKey ");
    return rc;
  }
  std::vector<std::uint8_t> wrapped;
  rc = uid_rsa_public_encrypt(env, std::span<const std::uint8_t>(key, 32), &wrapped, ci);
  if (rc != 0) {
    RD_ERROR("Error at  session key encryption with UIDAI public key ");
    return rc;
  }
  std::string text;
  if (Base64Encode(wrapped, &text) != 0 || text.empty()) {
    RD_ERROR("Error at base64 encoding of  encrypted session key...");
    return rd_codes::kRdInternal;
  }
  *skey_text = std::move(text);
  return 0;
}
