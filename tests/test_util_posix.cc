// The helpers of testutil that only POSIX has: another user of the machine,
// shared folders and permission bits, and signals to a program (the Windows
// list leaves out their tests).
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_util.h"

namespace testutil {

constexpr uid_t kNobody = 65534;

bool other_user_available() { return ::geteuid() == 0; }

bool as_other_user(const std::function<bool()>& fn) {
  pid_t pid = ::fork();
  if (pid == 0) {
    ::umask(0);
    if (other_user_available() && (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) ::_exit(2);
    ::_exit(fn() ? 0 : 1);
  }
  int status = 0;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string shared_folder(const WorkDir& dir, const std::string& name) {
  const std::string path = dir.file(name);
  ::chmod(dir.path().c_str(), 0711);
  ::mkdir(path.c_str(), 0700);
  ::chmod(path.c_str(), 01777);
  return path;
}

void Child::signal(int sig) {
  if (process_->id() > 0) ::kill(process_->id(), sig);
}

}  // namespace testutil
