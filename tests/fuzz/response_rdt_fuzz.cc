// The RD_DRT header of a Management response: ParseResponseRDT on the header
// block, then the whole check (decode, decrypt, compare) against the body and
// a fixed request RD_DRT. Headers end at the first blank line of the input.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_env.h"
#include "web_service/auth_format.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Copies, so that a read past the headers or the body is caught.
  std::string_view all(reinterpret_cast<const char*>(data), size);
  std::size_t end = all.find("\r\n\r\n");
  const std::string headers(all.substr(0, end));
  const std::string body(end == std::string_view::npos ? std::string_view() : all.substr(end + 4));
  std::string rdt = "stale";
  if (ParseResponseRDT(headers, &rdt) != 0 && !rdt.empty()) fuzz_fail("RD_DRT left set on failure");
  if (rdt.find_first_of(" \t\r\n") != std::string::npos) fuzz_fail("RD_DRT holds white space");
  ResponseDRTCheck(body, headers, "AAAA");
  return 0;
}
