// Base64 in the standard alphabet, one line, no line breaks (OpenSSL's codec).
#ifndef VEXO_MGMT_CORE_BASE64_H
#define VEXO_MGMT_CORE_BASE64_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Encodes in into out. 0, or -1 when the input is too large.
int Base64Encode(std::span<const std::uint8_t> in, std::string* out);
// Decodes a padded single-line text into out. 0, or -1 when the text is not
// valid Base64 (wrong length, foreign characters).
int Base64Decode(std::string_view in, std::vector<std::uint8_t>* out);

#endif  // VEXO_MGMT_CORE_BASE64_H
