// The reference Management server as a child process of a test: registry
// commands run to their end, and `serve` on a free port for a test's life.
// It is a Linux program; the Windows tests, run under Wine, start the Linux
// build of it (mgmt_server_util_SYSTEM.cc).
#ifndef VEXO_TESTS_MGMT_SERVER_UTIL_H
#define VEXO_TESTS_MGMT_SERVER_UTIL_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace mgmttest {

// The server binary and the project's demonstration CA and data.
extern const std::string kServer;
extern const std::string kMgmtData;

// Runs the server binary with args in the current folder, stdout and stderr
// into out_file. Returns the pid, -1 when it did not start.
pid_t spawn(const std::vector<std::string>& args, const std::string& out_file);
// Waits for a spawned server to end; its exit code, -1 when it did not exit.
int wait_exit(pid_t pid);
// Asks a spawned server to stop (SIGTERM) and waits for it to end.
void terminate(pid_t pid);

// Runs a registry command to its end; its exit status.
int run_command(const std::vector<std::string>& args, std::string* output = nullptr);

// `serve` on port 0 for the life of the object, with the data folder "data"
// and the registry "registry.db" of the current folder; the port comes from
// the first output line.
class Server {
 public:
  explicit Server(bool tls, const std::vector<std::string>& extra = {});
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  int port() const { return port_; }
  // "http(s)://127.0.0.1:PORT/Zelm"
  std::string base() const;
  std::string log() const;

 private:
  bool tls_;
  pid_t pid_ = -1;
  int port_ = 0;
};

}  // namespace mgmttest

#endif  // VEXO_TESTS_MGMT_SERVER_UTIL_H
