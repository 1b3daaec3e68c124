#include <openssl/evp.h>

#include <climits>

#include "mgmt_core/Base64.h"

int Base64Decode(std::string_view in, std::vector<std::uint8_t>* out) {
  out->clear();
  if (in.size() % 4 != 0 || in.size() > static_cast<std::size_t>(INT_MAX)) return -1;
  if (in.empty()) return 0;
  std::vector<std::uint8_t> bytes(in.size() / 4 * 3);
  int n = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(in.data()), static_cast<int>(in.size()));
  if (n < 0) return -1;
  // EVP_DecodeBlock counts the padding as zero bytes; drop them.
  std::size_t pad = 0;
  if (in.back() == '=') pad = (in[in.size() - 2] == '=') ? 2 : 1;
  bytes.resize(static_cast<std::size_t>(n) - pad);
  *out = std::move(bytes);
  return 0;
}
