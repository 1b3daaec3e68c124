// The six Management response parsers on one response body, and the time rule
// of the initial exchange against a pinned client time.
#include <cstdint>
#include <string>

#include "fuzz_env.h"
#include "platform/test_seams.h"
#include "web_service/json/json_frame_parse.h"

namespace {

const MgmtIdentity kSelf{"1.0.4",        "QDX.WIN.002", "CL01",    "1.0",  "LINUX",
                         "0a1b2c3d4e5f", "SN0001",      "KORVANE", "A600", "KORVANE.QDX"};

void check_field(const std::string& s) {
  if (s.size() > kMgmtMaxField) fuzz_fail("copied value longer than kMgmtMaxField");
}

}  // namespace

void fuzz_setup() {
  test_seams::update([](test_seams::Seams& s) { s.now = 1714537800; });  // 2024-05-01T10:00:00 IST
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string body = fuzz_text(data, size, kMgmtMaxBody);
  std::string next, path, checksum, dc, spkey, chksum, ci;
  json_parse_init(body, kSelf, &next);
  check_field(next);
  json_parse_key_rotation(body, kSelf, &next, nullptr, &dc, &spkey);
  json_parse_update(body, kSelf, &next, &path, &checksum);
  json_parse_uidai_cert_update(body, kSelf, &next, &path, &checksum);
  json_parse_uidai_cert_update_status(body, kSelf, &next);
  json_parse_uidai_cert_force_update(body, &next, &path, &chksum, &ci);
  for (const std::string* s : {&next, &path, &checksum, &dc, &spkey, &chksum, &ci}) check_field(*s);
  fuzz_tidy();
  return 0;
}
