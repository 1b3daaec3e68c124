// Helpers shared by the keystore's source files; not used outside them.
#ifndef VEXO_MGMT_CORE_KEYSTORE_INTERNAL_H
#define VEXO_MGMT_CORE_KEYSTORE_INTERNAL_H

#include <array>
#include <cstdint>
#include <string>

#include "common/secret.h"

namespace keystore_detail {

// Cleansed when it ends.
using Password = SecretArray<32>;
using Mac = std::array<std::uint8_t, 6>;

// SHA-256 over digest, address and the dynamic-key text (without terminator).
Password derive_password(const std::array<std::uint8_t, 32>& digest, const Mac& address,
                         const std::string& dynamic_key);

}  // namespace keystore_detail

#endif  // VEXO_MGMT_CORE_KEYSTORE_INTERNAL_H
