// AES-256-ECB with PKCS#7 padding: the helpers that protect DOMAIN_NAME, the
// proxy password and the device private key. (The Pid block uses GCM instead.)
#ifndef VEXO_RD_CORE_AES_H
#define VEXO_RD_CORE_AES_H

#include <cstdint>
#include <span>
#include <vector>

// key must be 32 bytes. Empty input is refused. 0, or -1 (out cleared).
int aes_encrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in,
                std::vector<std::uint8_t>* out);
// 0, or -1 on a wrong key size, empty input or bad padding (out cleared).
int aes_decrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in,
                std::vector<std::uint8_t>* out);

#endif  // VEXO_RD_CORE_AES_H
