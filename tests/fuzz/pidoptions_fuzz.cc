// The three PidOptions gates of a capture on a request body: the schema check
// (against the project's Final.xsd, copied into the scratch folder), the
// attribute walk that fills the parsed request, and the authentication-kind
// check; the posh splitter also runs on the raw input.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "common/work_area.h"
#include "rd_core/xml_parse.h"

void fuzz_setup() {
  std::error_code ec;
  std::filesystem::copy_file(VEXO_SOURCE_DIR "/data/Final.xsd", "Final.xsd",
                             std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) fuzz_fail("cannot copy Final.xsd");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The request body area holds at most 2047 bytes and a NUL.
  const std::string body = fuzz_text(data, size, kReqBodySize - 1);
  Pidinput_validate(body.c_str());
  PidOptionsRequest request;
  int code = Parse_XML_Request(body.c_str(), &request);
  if (code == 0) {
    if (request.fCount < 0 || request.fCount > 10) fuzz_fail("fCount out of range after a valid walk");
    if (request.fType < 0 || request.fType > 2) fuzz_fail("fType out of range after a valid walk");
    Allowed_methods(request);
  }
  std::vector<std::string> positions;
  int n = split_positions(body.c_str(), &positions);
  if (n >= 0 && static_cast<std::size_t>(n) != positions.size()) fuzz_fail("split count differs from entries");
  for (const std::string& p : positions) {
    if (p.size() > 23) fuzz_fail("position longer than 23 characters");
  }
  return 0;
}
