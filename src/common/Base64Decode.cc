#include <openssl/evp.h>

#include <climits>

#include "common/rd_codes.h"
#include "common/Base64.h"
#include "common/Base64.h"

using rd_codes::kFailed;

namespace {

// Standard-alphabet characters with "=" only as the last one or two.
// EVP_DecodeBlock alone trims white space at both ends and takes "=" inside
// the text, and then yields wrong bytes.
bool is_padded_base64(std::string_view in) {
  std::size_t body = in.size();
  while (body > 0 && in.size() - body < 2 && in[body - 1] == '=') --body;
  for (std::size_t i = 0; i < body; ++i) {
    const char c = in[i];
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/')) {
      return false;
    }
  }
  return true;
}

}  // namespace

int Base64Decode(std::string_view in, std::vector<std::uint8_t>* out) {
  out->clear();
  if (in.size() % 4 != 0 || in.size() > static_cast<std::size_t>(INT_MAX)) return kFailed;
  if (in.empty()) return 0;
  if (!is_padded_base64(in)) return kFailed;
  std::vector<std::uint8_t> bytes(in.size() / 4 * 3);
  int n = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(in.data()), static_cast<int>(in.size()));
  if (n < 0) return kFailed;
  // EVP_DecodeBlock counts the padding as zero bytes; drop them.
  std::size_t pad = 0;
  if (in.back() == '=') pad = (in[in.size() - 2] == '=') ? 2 : 1;
  bytes.resize(static_cast<std::size_t>(n) - pad);
  *out = std::move(bytes);
  return 0;
}
