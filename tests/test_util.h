// Helpers shared by the tests: a temporary working folder, a status-pipe
// reader, and small file and socket utilities.
#ifndef VEXO_TESTS_TEST_UTIL_H
#define VEXO_TESTS_TEST_UTIL_H

#include <memory>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "test_sys.h"

namespace testutil {

// Creates a fresh folder under the system's temporary folder ($TMPDIR or
// /tmp; %TEMP% on Windows), makes it the current folder, and on destruction
// goes back and removes it.
class WorkDir {
 public:
  WorkDir();
  ~WorkDir();
  WorkDir(const WorkDir&) = delete;
  WorkDir& operator=(const WorkDir&) = delete;
  const std::string& path() const { return path_; }
  // Absolute path of a file inside the folder.
  std::string file(const std::string& rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
  std::string old_cwd_;
};

// The status pipe's server end (a FIFO in dir on POSIX, a named pipe on
// Windows) that the library opens (the seam path is set to it), read by a
// thread of the test. received() returns what arrived so far.
class PipeReader {
 public:
  explicit PipeReader(const std::string& dir);
  ~PipeReader();
  PipeReader(const PipeReader&) = delete;
  PipeReader& operator=(const PipeReader&) = delete;
  const std::string& path() const { return path_; }
  // All bytes received so far.
  std::string received();
  // Waits up to timeout_ms until received() contains needle.
  bool wait_for(const std::string& needle, int timeout_ms = 3000);

 private:
  std::string path_;
  std::string old_path_;
  std::mutex mutex_;
  std::string data_;
  std::unique_ptr<testsys::PipeServer> server_;
};

// Runs fn in a child process that plays another user of the machine: as root
// the child drops to nobody (uid and gid 65534), otherwise it stays this user
// (everything but ownership is still exercised). true when fn returned true.
bool as_other_user(const std::function<bool()>& fn);
// True when as_other_user really runs as another user.
bool other_user_available();
// A folder dir/name in which every user may create files (1777, like /tmp);
// dir is opened for others to pass through. Returns its path.
std::string shared_folder(const WorkDir& dir, const std::string& name);
// The permission bits of path (lstat), or -1.
int mode_of(const std::string& path);

std::string read_file(const std::string& path);
// Occurrences of needle in text (overlapping ones included).
int count_of(const std::string& text, const std::string& needle);
// Reads from socket s until the peer closes or timeout_ms pass in silence.
std::string read_until_close(int s, int timeout_ms = 5000);
void write_file(const std::string& path, const std::string& data);
// Sends raw bytes to 127.0.0.1:port, reads until the peer closes. Returns the
// answer (empty on connection failure).
std::string http_exchange(int port, const std::string& request, int timeout_ms = 10000);
// Last-status line as the host reads it.
std::string last_status();

// Path of a program of the build (vexoctl, vexo-host).
std::string tool_path(const std::string& name);
// Runs a program of the build with args to its end, its output into
// out_file; the exit code.
int run_tool(const std::string& name, const std::vector<std::string>& args, const std::string& out_file = "tool.out");
// Waits up to timeout_ms until the file at path contains needle.
bool wait_for_text(const std::string& path, const std::string& needle, int timeout_ms);

}  // namespace testutil

#endif  // VEXO_TESTS_TEST_UTIL_H
