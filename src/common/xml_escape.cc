#include "common/xml_escape.h"

#include <cstddef>

namespace {

// Length of the valid UTF-8 sequence at s (at most n bytes), 0 when invalid:
// no overlong forms, no surrogates, nothing beyond U+10FFFF.
std::size_t utf8_sequence(const unsigned char* s, std::size_t n) {
  std::size_t len;
  unsigned min;
  if (s[0] >= 0xC2 && s[0] <= 0xDF) {
    len = 2, min = 0x80;
  } else if (s[0] >= 0xE0 && s[0] <= 0xEF) {
    len = 3, min = 0x800;
  } else if (s[0] >= 0xF0 && s[0] <= 0xF4) {
    len = 4, min = 0x10000;
  } else {
    return 0;
  }
  if (len > n) return 0;
  unsigned cp = s[0] & (0x7F >> len);
  for (std::size_t i = 1; i < len; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (s[i] & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

}  // namespace

std::string xml_escape_attribute(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  for (std::size_t i = 0; i < n;) {
    const unsigned char c = s[i];
    if (c >= 0x80) {
      const std::size_t len = utf8_sequence(s + i, n - i);
      if (len == 0) {
        out += '?';
        ++i;
      } else {
        out.append(text.substr(i, len));
        i += len;
      }
      continue;
    }
    ++i;
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\t':
        out += "&#9;";
        break;
      case '\n':
        out += "&#10;";
        break;
      case '\r':
        out += "&#13;";
        break;
      default:
        if (c >= 0x20) out += static_cast<char>(c);
        break;
    }
  }
  return out;
}
