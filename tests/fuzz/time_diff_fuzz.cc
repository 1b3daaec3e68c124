// Time_Diff_in_Sec on two stamps: the input up to its first newline is the
// server's stamp, the rest the client's.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_env.h"
#include "web_service/json/json_frame_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Stamps are copied out so that a read past either one is caught.
  std::string_view all(reinterpret_cast<const char*>(data), size);
  std::size_t nl = all.find('\n');
  const std::string server(all.substr(0, nl));
  const std::string client(nl == std::string_view::npos ? std::string_view() : all.substr(nl + 1));
  int diff = -7;
  int r = Time_Diff_in_Sec(server, client, &diff);
  // Stamps on adjacent days are at most two days apart.
  if (r == 0 && (diff < 0 || diff > 2 * 86400)) fuzz_fail("difference out of range");
  int back = -7;
  int r2 = Time_Diff_in_Sec(client, server, &back);
  if (r != r2 || (r == 0 && diff != back)) fuzz_fail("difference not symmetric");
  return 0;
}
