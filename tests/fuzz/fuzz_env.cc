#include "fuzz_env.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/rd_log.h"
#include "platform/platform.h"
#include "platform/test_seams.h"

namespace {

std::string g_scratch;

void remove_scratch() {
  if (g_scratch.empty()) return;
  std::error_code ec;
  std::filesystem::remove_all(g_scratch, ec);
}

}  // namespace

void fuzz_fail(const char* what) {
  std::fprintf(stderr, "fuzz property failed: %s\n", what);
  std::abort();
}

__attribute__((weak)) void fuzz_setup() {}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = std::getenv("TMPDIR");
  std::string templ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp");
  templ += "/vexo-fuzz-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr || chdir(templ.c_str()) != 0) fuzz_fail("cannot make the scratch folder");
  g_scratch = templ;
  std::atexit(remove_scratch);
  // Locks and the status pipe are machine-wide by default: keep them private
  // so that fuzzing never waits on, or disturbs, a service or a test.
  test_seams::update([](test_seams::Seams& s) { s.lock_dir = g_scratch; });
  platform::set_status_pipe_path(g_scratch + "/no-pipe");
  // Debug prints of a fuzzed Verbose value would flood the fuzzer's output.
  int devnull = open("/dev/null", O_WRONLY);
  if (devnull >= 0) {
    dup2(devnull, STDOUT_FILENO);
    close(devnull);
  }
  // The log lines are formatted (their arguments are read) but kept nowhere.
  zlog_init("/dev/null");
  rd_set_verbose(1);
  fuzz_setup();
  return 0;
}

void fuzz_tidy() {
  static unsigned calls = 0;
  if (++calls % 4096 != 0) return;
  std::remove("Vexo_Error.log");
  std::remove("rd1.log");
}

std::string fuzz_text(const std::uint8_t* data, std::size_t size, std::size_t max_len) {
  if (size > max_len) size = max_len;
  return std::string(reinterpret_cast<const char*>(data), size);
}

void fuzz_write_file(const char* path, const std::uint8_t* data, std::size_t size) {
  FILE* f = std::fopen(path, "wb");
  if (f == nullptr) fuzz_fail("cannot write an input file");
  if (size > 0 && std::fwrite(data, 1, size, f) != size) fuzz_fail("short write of an input file");
  if (std::fclose(f) != 0) fuzz_fail("cannot close an input file");
}
