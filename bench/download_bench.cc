// Driver of bench/download_bench.sh: one fresh resumable download of URL into
// ./DownloadSW/Installer.zip in the current folder, timed on the wall clock.
//
// Usage: download_bench URL MD5      prints "download_manager: N ms" and
// exits 0 when the package arrived and verified.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "common/rd_log.h"
#include "mgmt_core/download.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: download_bench URL MD5\n");
    return 2;
  }
  if (zlog_init("rd.log") != 0) return 1;
  std::error_code ec;
  std::filesystem::remove(kDownloadRecord, ec);  // a fresh download every run
  const auto start = std::chrono::steady_clock::now();
  const int rc = download_manager(argv[1], argv[2], kDownloadTarget);
  const auto ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  zlog_fini();
  std::printf("download_manager: %.1f ms (result %d)\n", ms, rc);
  return rc == 0 ? 0 : 1;
}
