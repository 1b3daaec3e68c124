// AES-256-ECB, the one block cipher helper of the library. With PKCS#7
// padding (the default) it protects DOMAIN_NAME, the proxy password and the
// device private key; without padding it makes the Management messages'
// 32- and 64-byte ciphertexts (rds_hash). The Pid block uses GCM instead.
//
// Thread-safety: reentrant.
#ifndef VEXO_COMMON_AES_H
#define VEXO_COMMON_AES_H

#include <cstdint>
#include <span>
#include <vector>

#include "common/secret.h"

enum class AesPadding {
  kPkcs7,
  // The input must be a whole number of 16-byte blocks; the output has its length.
  kNone,
};

// key must be 32 bytes; empty input is refused. 0, or -1 (out cleared).
int aes_encrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out,
                AesPadding padding = AesPadding::kPkcs7);
// 0, or -1 on a wrong key size, empty input, bad padding or (without
// padding) a partial block (out cleared).
int aes_decrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out,
                AesPadding padding = AesPadding::kPkcs7);
// The same for plain text that is a secret: it is only ever written into
// the Secret's pages.
int aes_decrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, Secret* out,
                AesPadding padding = AesPadding::kPkcs7);

#endif  // VEXO_COMMON_AES_H
