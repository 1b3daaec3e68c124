// The helpers of testutil that only POSIX has: another user of the machine,
// shared folders and permission bits, and programs driven by signals (the
// Windows list leaves out their tests).
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

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

namespace {

// Forks argv with the extra environment, its output into a pipe. The pid, and
// the pipe's read end in *out.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, int* out) {
  int fds[2];
  if (::pipe(fds) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(fds[1], STDOUT_FILENO);
    ::dup2(fds[1], STDERR_FILENO);
    ::close(fds[0]);
    ::close(fds[1]);
    for (const std::string& e : env) ::putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(fds[1]);
  *out = fds[0];
  return pid;
}

int exit_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

}  // namespace

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  int out = -1;
  pid_ = spawn(argv, env, &out);
  if (pid_ < 0) return;
  reader_ = std::thread([this, out] {
    char buf[4096];
    for (ssize_t n; (n = ::read(out, buf, sizeof buf)) > 0;) {
      std::lock_guard<std::mutex> lock(mutex_);
      output_.append(buf, static_cast<std::size_t>(n));
    }
    ::close(out);
  });
}

Child::~Child() {
  stop();
  if (reader_.joinable()) reader_.join();
}

std::string Child::output() {
  std::lock_guard<std::mutex> lock(mutex_);
  return output_;
}

bool Child::wait_for(const std::string& needle, int timeout_ms, int count) {
  return wait_until([&] { return count_of(output(), needle) >= count; }, timeout_ms);
}

void Child::signal(int sig) {
  if (pid_ > 0) ::kill(pid_, sig);
}

int Child::stop() {
  if (pid_ <= 0) return status_;
  ::kill(pid_, SIGTERM);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  status_ = exit_status(status);
  return status_;
}

}  // namespace testutil
