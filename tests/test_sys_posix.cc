#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "test_sys.h"

namespace testsys {

int process_id() { return static_cast<int>(::getpid()); }

double thread_cpu_ms() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

struct PipeServer::State {
  std::string path;
  int fd = -1;
  int stop_fd[2] = {-1, -1};
  std::thread thread;
};

PipeServer::PipeServer(const std::string& dir, std::function<void(const char*, std::size_t)> on_data)
    : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.path = dir + "/qdx.win.002";
  if (mkfifo(s.path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed");
  s.fd = ::open(s.path.c_str(), O_RDONLY | O_NONBLOCK);
  if (s.fd < 0 || ::pipe(s.stop_fd) != 0) throw std::runtime_error("fifo open failed");
  s.thread = std::thread([&s, on_data = std::move(on_data)] {
    char buf[4096];
    for (;;) {
      pollfd fds[2] = {{s.fd, POLLIN, 0}, {s.stop_fd[0], POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) continue;
      if (fds[0].revents & POLLIN) {
        ssize_t n = ::read(s.fd, buf, sizeof buf);
        if (n > 0) {
          on_data(buf, static_cast<std::size_t>(n));
          continue;
        }
      }
      if (fds[1].revents & POLLIN) return;
      if (fds[0].revents & POLLHUP) ::usleep(2000);  // no writer at the moment
    }
  });
}

PipeServer::~PipeServer() {
  State& s = *state_;
  if (s.stop_fd[1] >= 0) (void)!::write(s.stop_fd[1], "x", 1);
  if (s.thread.joinable()) s.thread.join();
  ::close(s.fd);
  ::close(s.stop_fd[0]);
  ::close(s.stop_fd[1]);
  ::unlink(s.path.c_str());
}

const std::string& PipeServer::path() const { return state_->path; }

namespace {
long long ns_of(const timespec& t) { return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec; }
timespec timespec_of(long long ns) {
  return {static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
}
}  // namespace

bool file_times(const std::string& path, FileTimes* out) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  out->access_ns = ns_of(st.st_atim);
  out->modify_ns = ns_of(st.st_mtim);
  return true;
}

bool set_file_times(const std::string& path, const FileTimes& t) {
  const timespec times[2] = {timespec_of(t.access_ns), timespec_of(t.modify_ns)};
  return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

bool owner_only(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;
  return (st.st_mode & 0777) == (S_ISDIR(st.st_mode) ? 0700u : 0600u);
}

bool file_identity(const std::string& path, platform::FileIdentity* out) {
  struct stat st {};
  struct statfs fs {};
  if (::stat(path.c_str(), &st) != 0 || ::statfs(path.c_str(), &fs) != 0) return false;
  const auto ino = static_cast<unsigned long long>(st.st_ino);
  out->volume_serial = static_cast<unsigned>(fs.f_fsid.__val[0]) ^ static_cast<unsigned>(fs.f_fsid.__val[1]);
  out->index_high = static_cast<unsigned long>(ino >> 32);
  out->index_low = static_cast<unsigned long>(ino & 0xffffffffULL);
  return true;
}

const int kErrorExists = EEXIST;
const int kErrorNoFile = ENOENT;
const int kErrorNoFolder = ENOENT;

void ignore_broken_pipe() { ::signal(SIGPIPE, SIG_IGN); }

const bool kTimeWaitBlocksBind = true;
const bool kPosixFileModes = true;

void set_env(const char* name, const char* value) {
  if (value != nullptr) {
    ::setenv(name, value, 1);
  } else {
    ::unsetenv(name);
  }
}

struct Process::State {
  pid_t pid = -1;
  int in_fd = -1;  // the write end of the child's standard input
  int code = -1;
};

Process::Process(const std::vector<std::string>& argv, const std::string& out_file)
    : state_(std::make_unique<State>()) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  int in[2];
  if (::pipe2(in, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, in[0], 0);
  if (!out_file.empty()) {
    posix_spawn_file_actions_addopen(&fa, 1, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
  }
  if (posix_spawn(&state_->pid, args[0], &fa, nullptr, args.data(), environ) != 0) state_->pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  ::close(in[0]);
  state_->in_fd = in[1];
}

Process::~Process() {
  if (state_->pid > 0) kill();
  if (state_->in_fd >= 0) ::close(state_->in_fd);
}

bool Process::started() const { return state_->pid > 0; }
int Process::id() const { return state_->pid > 0 ? state_->pid : -1; }

int Process::wait() {
  if (state_->pid <= 0) return state_->code;
  int status = 0;
  while (::waitpid(state_->pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  state_->pid = -1;
  state_->code = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
  return state_->code;
}

int Process::stop() {
  if (state_->pid > 0) ::kill(state_->pid, SIGTERM);
  return wait();
}

int Process::kill() {
  if (state_->pid > 0) ::kill(state_->pid, SIGKILL);
  return wait();
}

void end_helper(int code) { ::_exit(code); }

}  // namespace testsys
