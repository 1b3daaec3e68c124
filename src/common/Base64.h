// Base64 in the standard alphabet, one line, no line breaks (OpenSSL's codec):
// the one Base64 of the library, its Management message protection and the
// reference Management server.
//
// Thread-safety: reentrant.
#ifndef VEXO_COMMON_BASE64_H
#define VEXO_COMMON_BASE64_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Encodes in into out. 0, or -1 when the input is too large.
int Base64Encode(std::span<const std::uint8_t> in, std::string* out);
// Decodes a padded single-line text into out; "" decodes to no bytes, as it
// is what Base64Encode makes of none. 0, or -1 when the text is not valid
// Base64 (wrong length, foreign characters, white space, "=" inside).
int Base64Decode(std::string_view in, std::vector<std::uint8_t>* out);

#endif  // VEXO_COMMON_BASE64_H
