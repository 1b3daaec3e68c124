// config.ini and proxy.ini as start-up reads them. The input is written to
// ./config.ini and sealed (a bad seal only tests verify_crc, which the first
// byte's low bit selects now and then), then read under the scanner lock; the
// same bytes are then read as ./proxy.ini.
#include <cstdint>
#include <cstdio>

#include "fuzz_env.h"
#include "init/config.h"
#include "common/file_crc.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "semaphore/semaphore_syc.h"

void fuzz_setup() {
  // The scanner lock lives in the scratch folder (LLVMFuzzerInitialize).
  rd_identity_update([](RdIdentity& id) { id.scanner_name = "Aratek_A600"; });
  if (init_semaphore() != 0) fuzz_fail("init_semaphore");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 65536) return 0;
  fuzz_write_file("config.ini", data, size);
  // Mostly sealed, so that the parser is reached; unsealed inputs exercise the
  // seal check on a stale bin_crc.txt.
  if (size == 0 || (data[0] & 0x0F) != 0x0F) {
    if (add_crc(1, "./config.ini", "bin_crc.txt") != 0 && size >= 2) fuzz_fail("add_crc");
  }
  read_config_file();
  rd_set_verbose(1);

  fuzz_write_file("proxy.ini", data, size);
  read_proxy_file();
  const RdConfig cfg = rd_config_copy();
  if (cfg.proxy_url.size() >= kProxyFieldMax || cfg.proxy_username.size() >= kProxyFieldMax ||
      cfg.proxy_password.size() >= kProxyFieldMax) {
    fuzz_fail("proxy field longer than its room");
  }
  if (cfg.mgmt_url_register.size() >= kEndpointMax) fuzz_fail("endpoint longer than its room");
  fuzz_tidy();
  return 0;
}
