#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "mgmt_server_util.h"

extern char** environ;

namespace mgmttest {

pid_t spawn(const std::vector<std::string>& args, const std::string& out_file) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(kServer.c_str()));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&fa, 1, 2);
  pid_t pid = -1;
  if (posix_spawn(&pid, kServer.c_str(), &fa, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

int wait_exit(pid_t pid) {
  int status = -1;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void terminate(pid_t pid) {
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
}

}  // namespace mgmttest
