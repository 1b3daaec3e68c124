#include <openssl/evp.h>

#include <climits>

#include "common/rd_codes.h"
#include "common/Base64.h"
#include "common/Base64.h"

using rd_codes::kFailed;

int Base64Encode(std::span<const std::uint8_t> in, std::string* out) {
  out->clear();
  if (in.size() > static_cast<std::size_t>(INT_MAX / 4 * 3 - 3)) return kFailed;
  std::string text(4 * ((in.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), in.data(), static_cast<int>(in.size()));
  if (n < 0) return kFailed;
  text.resize(static_cast<std::size_t>(n));
  *out = std::move(text);
  return 0;
}
