#include <openssl/rand.h>

#include <climits>

#include "platform/platform.h"

namespace platform {

int random_bytes(std::uint8_t* out, std::size_t len) {
  if (len > static_cast<std::size_t>(INT_MAX)) return -1;
  return RAND_bytes(out, static_cast<int>(len)) == 1 ? 0 : -1;
}

}  // namespace platform
