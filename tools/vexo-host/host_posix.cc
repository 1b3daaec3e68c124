// The host on POSIX: dlopen, a FIFO for the status pipe, signals as events
// (SIGUSR1 attach, SIGUSR2 detach, SIGINT and SIGTERM stop).
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <thread>

#include "host_sys.h"

namespace host {

namespace {

constexpr const char* kPipePath = "/tmp/qdx.win.002";

sigset_t g_signals;

std::string own_folder() {
  char path[PATH_MAX] = {};
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  std::string p(path, static_cast<std::size_t>(n));
  return p.substr(0, p.find_last_of('/'));
}

}  // namespace

const char kEventHelp[] =
    "  SIGUSR1 reports the scanner plugged in, SIGUSR2 pulled out;\n"
    "  SIGINT or SIGTERM stops the host.\n";

std::string library_beside_program() { return own_folder() + "/libVexo.so"; }

void* load_library(const std::string& path, std::string* error) {
  void* lib = dlopen(path.c_str(), RTLD_NOW);
  if (lib == nullptr) *error = dlerror();
  return lib;
}

void* library_symbol(void* lib, const char* name) { return dlsym(lib, name); }

bool enter_folder(const std::string& dir, std::string* error) {
  if (chdir(dir.c_str()) == 0) return true;
  *error = std::strerror(errno);
  return false;
}

void take_events() {
  // Signals are taken by sigwait; every thread inherits the mask.
  sigemptyset(&g_signals);
  for (int s : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) sigaddset(&g_signals, s);
  pthread_sigmask(SIG_BLOCK, &g_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

Event wait_event() {
  for (;;) {
    int sig = 0;
    if (sigwait(&g_signals, &sig) != 0) continue;
    if (sig == SIGUSR1) return Event::kAttach;
    if (sig == SIGUSR2) return Event::kDetach;
    return Event::kStop;
  }
}

struct StatusPipe::State {
  int fd = -1;
  std::atomic<bool> stop{false};
  std::thread reader;
};

StatusPipe::StatusPipe() : state_(std::make_unique<State>()) {}

StatusPipe::~StatusPipe() {
  state_->stop = true;
  if (state_->reader.joinable()) state_->reader.join();
  if (state_->fd >= 0) close(state_->fd);
}

bool StatusPipe::start(std::string* error) {
  struct stat st {};
  if (stat(kPipePath, &st) == 0 && !S_ISFIFO(st.st_mode)) unlink(kPipePath);
  if (mkfifo(kPipePath, 0600) != 0 && errno != EEXIST) {
    *error = std::string("cannot create ") + kPipePath + ": " + std::strerror(errno);
    return false;
  }
  state_->fd = open(kPipePath, O_RDONLY | O_NONBLOCK);
  if (state_->fd < 0) {
    *error = std::string("cannot open ") + kPipePath + ": " + std::strerror(errno);
    return false;
  }
  State* s = state_.get();
  s->reader = std::thread([s] {
    char buf[4096];
    while (!s->stop.load()) {
      pollfd p{s->fd, POLLIN, 0};
      int r = poll(&p, 1, 200);
      if (r <= 0) continue;
      ssize_t n = read(s->fd, buf, sizeof buf);
      if (n > 0) {
        std::printf("pipe: %.*s", static_cast<int>(n), buf);
        if (buf[n - 1] != '\n') std::printf("\n");
        std::fflush(stdout);
      } else {
        usleep(50000);  // no writer at the moment
      }
    }
  });
  return true;
}

void leave(int code) {
  std::fflush(stdout);
  _exit(code);
}

}  // namespace host
