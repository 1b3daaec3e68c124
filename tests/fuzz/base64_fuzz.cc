// The two Base64 decoders (the library's and the message protection's) on
// one text: they must agree, and what they decode must encode back to bytes
// that decode to the same value. Both read a padded single-line text, so
// valid input has no white space and only "=" padding at its end.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "mgmt_core/Base64.h"
#include "rds_hash.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_enter_scratch_folder();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz_text(data, size, 1 << 16);
  std::vector<std::uint8_t> a, b;
  const int ra = Base64Decode(text, &a);
  const int rb = rds_hmac_Base64Decode(text, &b);
  // The library's decoder takes "" as no bytes, the protection's refuses it.
  if (text.empty()) return 0;
  if ((ra == 0) != (rb == 0)) fuzz_fail("the two decoders disagree on validity");
  if (ra == 0 && a != b) fuzz_fail("the two decoders disagree on the bytes");
  if (ra == 0) {
    if (text.find_first_of(" \t\r\n\v\f") != std::string::npos) fuzz_fail("white space accepted");
    std::string again;
    if (Base64Encode(a, &again) != 0) fuzz_fail("Base64Encode of decoded bytes");
    std::vector<std::uint8_t> round;
    if (Base64Decode(again, &round) != 0 || round != a) fuzz_fail("round trip");
    std::string again2;
    if (rds_hmac_Base64Encode(a.data(), static_cast<long>(a.size()), &again2) != 0 || again2 != again) {
      fuzz_fail("the two encoders disagree");
    }
  }
  return 0;
}
