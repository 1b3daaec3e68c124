// What the tests do differently on each system (test_sys_posix.cc,
// test_sys_win32.cc): the status pipe's server end as the front end creates
// it, client sockets and raw binds, the environment, and child processes.
//
// Thread-safety: every function may be called from any thread; a PipeServer
// calls its callback on a thread of its own.
#ifndef VEXO_TESTS_TEST_SYS_H
#define VEXO_TESTS_TEST_SYS_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace testsys {

int process_id();
// CPU time the calling thread has used, in milliseconds.
double thread_cpu_ms();

// The server end of a status pipe at a name of the test's own: a FIFO in dir
// on POSIX, a named pipe of this process on Windows. A thread of its own
// hands every chunk read to on_data until the object ends; writers may come
// and go.
class PipeServer {
 public:
  PipeServer(const std::string& dir, std::function<void(const char*, std::size_t)> on_data);
  ~PipeServer();
  PipeServer(const PipeServer&) = delete;
  PipeServer& operator=(const PipeServer&) = delete;
  // The path the library opens (platform::set_status_pipe_path).
  const std::string& path() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A connected stream socket to 127.0.0.1:port or [::1]:port; kInvalidSocket
// when refused.
platform::socket_t connect_loopback(int port);
platform::socket_t connect_loopback6(int port);
// A socket bound to 127.0.0.1:port, with SO_REUSEADDR when reuse, as
// another program would bind it; kInvalidSocket when the port is taken.
platform::socket_t bind_port(int port, bool reuse);
// Ends the sending half (the peer reads the end of the stream).
void shutdown_send(platform::socket_t s);
// The local port a socket is bound to, 0 when unknown.
int local_port(platform::socket_t s);

// Writes to a socket whose peer is gone fail instead of raising SIGPIPE
// (POSIX); Windows has no such signal.
void ignore_broken_pipe();

// File metadata, read and set with the system's own calls (not through the
// platform layer, so that a test checks the layer against them).
struct FileTimes {
  long long access_ns = 0;
  long long modify_ns = 0;
};
bool file_times(const std::string& path, FileTimes* out);
bool set_file_times(const std::string& path, const FileTimes& times);
// Moves the access time alone.
bool set_access_time(const std::string& path, long long seconds);
// True when only the owner (on Windows also SYSTEM and the administrators)
// may use the file or folder: mode 0600 or 0700 on POSIX, an access list of
// those accounts alone on Windows.
bool owner_only(const std::string& path);
// The file's identity as the node file's key uses it: the volume serial (the
// file system's id folded on POSIX) and the two words of the file index.
bool file_identity(const std::string& path, platform::FileIdentity* out);
// The system's error numbers for a file that exists already, a missing file,
// and a missing folder on the way to it.
extern const int kErrorExists;
extern const int kErrorNoFile;
extern const int kErrorNoFolder;

// Whether a port whose connections linger in TIME_WAIT refuses a new bind
// without SO_REUSEADDR (POSIX) or not (Windows).
extern const bool kTimeWaitBlocksBind;

// Whether files carry POSIX permission bits (false on Windows, where their
// access lists stand in and stat reports 0666 or 0444).
extern const bool kPosixFileModes;

// Sets (or, with nullptr, removes) an environment variable of this process,
// which child processes inherit.
void set_env(const char* name, const char* value);

// A child process: argv[0] (a path) run with argv, its standard output and
// error into out_file ("" leaves them to the test's), its standard input a
// pipe of the test's. Ended at once when the object ends while it runs.
class Process {
 public:
  explicit Process(const std::vector<std::string>& argv, const std::string& out_file = "");
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  bool started() const;
  int id() const;  // the system's process id, -1 once it has ended
  // Waits for the end: the exit code, or as a shell reports a signal,
  // 128 + its number (a crash point's kill gives 137 on every system).
  int wait();
  // Asks the program to stop as a user would (SIGTERM; on Windows the line
  // "q" on its standard input, which vexo-host takes as Ctrl-C) and waits.
  int stop();
  // Ends it at once and waits.
  int kill();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// argv that runs one helper case of this test program in a child process:
// the case is a DISABLED_ one, so that it runs only when asked for.
std::vector<std::string> helper_case(const std::string& test_name);
// Exit code of a helper case, which ends the child at once.
[[noreturn]] void end_helper(int code);

}  // namespace testsys

#endif  // VEXO_TESTS_TEST_SYS_H
