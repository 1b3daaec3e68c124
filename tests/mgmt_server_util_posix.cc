#include <filesystem>

#include "mgmt_server_util.h"
#include "test_sys.h"

namespace mgmttest {

std::string linux_cwd() { return std::filesystem::current_path().string(); }

bool run_linux(const std::string& command) {
  // The shell ends at once; what it starts in the background runs on.
  testsys::Process sh({"/bin/sh", "-c", command + " &"});
  return sh.started() && sh.wait() == 0;
}

}  // namespace mgmttest
