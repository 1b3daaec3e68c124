// Test helpers for the simulated device libraries: copy them into a test's
// working folder and script them through their control file (sim/README.md
// lists the keys). Header-only, for every test program of the project.
#ifndef VEXO_TESTS_SIM_CONTROL_H
#define VEXO_TESTS_SIM_CONTROL_H

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/platform.h"
#include "test_sys.h"
#include "test_util.h"

namespace sim {

using Keys = std::vector<std::pair<std::string, std::string>>;

// Copies the built libraries of VEXO_REFDLL_DIR (without control, call-log and
// printer files) into <workdir>/RefDll and returns that folder. Throws when the
// build folder has no libraries.
inline std::string install_refdll(const std::string& workdir) {
  namespace fs = std::filesystem;
  const fs::path to = fs::path(workdir) / "RefDll";
  fs::create_directories(to);
  int copied = 0;
  // ".so" or ".dll", as the system names its libraries.
  const fs::path extension = fs::path(platform::shared_library_name("x.dll")).extension();
  for (const auto& entry : fs::directory_iterator(VEXO_REFDLL_DIR)) {
    if (!entry.is_regular_file() || entry.path().extension() != extension) continue;
    fs::copy_file(entry.path(), to / entry.path().filename(), fs::copy_options::overwrite_existing);
    ++copied;
  }
  if (copied == 0) throw std::runtime_error("no simulator libraries in " VEXO_REFDLL_DIR);
  return to.string();
}

// Replaces <refdll_dir>/sim_control.ini atomically with a [sim] section of the
// given keys. A generation comment makes each call a new content, so the
// simulators restart their lists even when the keys are the same as before.
inline void write_control(const std::string& refdll_dir, const Keys& keys) {
  static std::atomic<unsigned> generation{0};
  std::ostringstream text;
  text << "; generation " << testsys::process_id() << "." << ++generation << "\n[sim]\n";
  for (const auto& [key, value] : keys) text << key << " = " << value << "\n";
  const std::string path = refdll_dir + "/sim_control.ini";
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << text.str();
    if (!out.flush()) throw std::runtime_error("cannot write " + tmp);
  }
  std::filesystem::rename(tmp, path);
}

// Removes the control file: the simulators go back to their defaults.
inline void remove_control(const std::string& refdll_dir) {
  std::error_code ec;
  std::filesystem::remove(refdll_dir + "/sim_control.ini", ec);
}

// Lines "<function> <result>" written with call_log = 1 ("" when none).
inline std::string call_log(const std::string& refdll_dir) { return testutil::read_file(refdll_dir + "/sim_calls.log"); }

// Texts the simulated handheld device printed, one per line.
inline std::string printed(const std::string& refdll_dir) { return testutil::read_file(refdll_dir + "/sim_printer.txt"); }

}  // namespace sim

#endif  // VEXO_TESTS_SIM_CONTROL_H
