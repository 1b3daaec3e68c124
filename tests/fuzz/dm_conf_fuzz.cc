// The download resume record: the input is written to ./dm.conf and read back
// for a package of 250000 bytes with a fixed checksum (the seeds' values).
#include <cstdint>

#include "fuzz_env.h"
#include "mgmt_core/download.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 16384) return 0;
  fuzz_write_file("dm.conf", data, size);
  int current = -5, last = -5;
  int r = get_previous_download_info("https://mgmt.example.test:8443/Zelm/pkg/vexo-1.0.1.zip",
                                     "9e107d9d372bb6826bd81d3542a419d6", 250000, &current, &last);
  if (r == 0 && (current < 0 || current >= last || last != 250000 / 102400)) fuzz_fail("resume indices");
  if (r != 0 && (current != 0 || last != 0)) fuzz_fail("indices set without a resume");
  fuzz_tidy();
  return 0;
}
