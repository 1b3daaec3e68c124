// RSA-SHA256 signing with the device key (the bio-sign of each biometric
// record). OpenSSL key objects are held by PkeyPtr, so every path frees them.
#ifndef VEXO_RD_CORE_DIG_SIGN_H
#define VEXO_RD_CORE_DIG_SIGN_H

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/openssl_ptr.h"

// Reads the RSA private key in private_key_pem (PKCS#8 or PKCS#1 PEM) into
// *key, freeing any key it held. 0, or -1 with *key empty.
int make_keys(std::string_view private_key_pem, PkeyPtr* key);
// RSA PKCS#1 v1.5 signature with SHA-256 over message into *signature
// (cleared first). 0, or -1 on an empty message, a missing key or a crypto failure.
int sign_it(std::span<const std::uint8_t> message, std::vector<std::uint8_t>* signature, EVP_PKEY* key);

#endif  // VEXO_RD_CORE_DIG_SIGN_H
