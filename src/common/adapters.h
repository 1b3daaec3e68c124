// The network adapters' hardware addresses: the host's identity towards the
// Management server and one ingredient of the keystore password.
//
// Thread-safety: reentrant; the platform lists the adapters anew on each call.
#ifndef VEXO_COMMON_ADAPTERS_H
#define VEXO_COMMON_ADAPTERS_H

#include <array>
#include <cstdint>
#include <vector>

// The 6-byte address of the first network adapter. 0 or -1.
int GetMAC(std::array<std::uint8_t, 6>* mac);

// The adapters' 6-byte addresses in the platform's order. 0 (the list may be
// empty, also when the platform cannot list them) or 1 when memory runs out.
int GetAdapterID(std::vector<std::array<std::uint8_t, 6>>* ids);

#endif  // VEXO_COMMON_ADAPTERS_H
