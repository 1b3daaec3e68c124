// The Base64 decoder on any text: what it takes has no white space, and
// encodes back to a text that decodes to the same bytes.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "common/Base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz_text(data, size, 1 << 16);
  std::vector<std::uint8_t> a;
  if (Base64Decode(text, &a) == 0) {
    if (text.find_first_of(" \t\r\n\v\f") != std::string::npos) fuzz_fail("white space accepted");
    std::string again;
    if (Base64Encode(a, &again) != 0) fuzz_fail("Base64Encode of decoded bytes");
    std::vector<std::uint8_t> round;
    if (Base64Decode(again, &round) != 0 || round != a) fuzz_fail("round trip");
  }
  return 0;
}
