// Helpers shared by the keystore's source files; not used outside them.
#ifndef VEXO_MGMT_CORE_KEYSTORE_INTERNAL_H
#define VEXO_MGMT_CORE_KEYSTORE_INTERNAL_H

#include <array>
#include <cstdint>
#include <string>

namespace keystore_detail {

using Password = std::array<std::uint8_t, 32>;
using Mac = std::array<std::uint8_t, 6>;

// SHA-256 over digest, address and the dynamic-key text (without terminator).
Password derive_password(const std::array<std::uint8_t, 32>& digest, const Mac& address,
                         const std::string& dynamic_key);

// Wipes a text that held key material.
void wipe(std::string* text);

}  // namespace keystore_detail

#endif  // VEXO_MGMT_CORE_KEYSTORE_INTERNAL_H
