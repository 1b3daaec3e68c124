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
#include <cstdlib>
#include <cstring>
#include <thread>

#include "host_sys.h"

namespace host {

namespace {

constexpr const char* kPipeName = "qdx.win.002";

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

// The status FIFO: made here (or left from an earlier run of this user) and
// checked on the descriptor it is read through, so nothing another user
// planted at the path (a link, a file, a FIFO of theirs that would see the
// messages or inject others) is ever used.
struct StatusPipe::State {
  std::string path;
  std::string folder;  // the private folder made here, removed at the end
  bool made = false;
  int fd = -1;
  std::atomic<bool> stop{false};
  std::thread reader;
};

StatusPipe::StatusPipe() : state_(std::make_unique<State>()) {}

StatusPipe::~StatusPipe() {
  State* s = state_.get();
  s->stop = true;
  if (s->reader.joinable()) s->reader.join();
  if (s->fd >= 0) close(s->fd);
  if (s->made) unlink(s->path.c_str());
  if (!s->folder.empty()) rmdir(s->folder.c_str());
}

const std::string& StatusPipe::path() const { return state_->path; }

bool StatusPipe::start(const std::string& folder, std::string* error) {
  State* s = state_.get();
  auto fail = [&](const std::string& why) {
    *error = "status FIFO " + s->path + ": " + why;
    return false;
  };
  std::string dir = folder;
  if (!dir.empty() && dir[0] != '/') {
    // A relative folder is taken from the folder the host was started in.
    char cwd[PATH_MAX] = {};
    if (getcwd(cwd, sizeof cwd) != nullptr) dir = std::string(cwd) + "/" + dir;
  }
  if (dir.empty()) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    struct stat st {};
    if (runtime != nullptr && runtime[0] == '/' && stat(runtime, &st) == 0 && S_ISDIR(st.st_mode) &&
        st.st_uid == geteuid() && (st.st_mode & (S_IRWXG | S_IRWXO)) == 0) {
      dir = runtime;
    } else {
      char made[] = "/tmp/vexo-host-XXXXXX";
      if (mkdtemp(made) == nullptr) return fail("cannot make a private folder in /tmp");
      dir = s->folder = made;
    }
  }
  s->path = dir + "/" + kPipeName;
  if (mkfifo(s->path.c_str(), 0600) == 0) {
    s->made = true;
  } else if (errno != EEXIST) {
    return fail(std::strerror(errno));
  }
  s->fd = open(s->path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (s->fd < 0) return fail(errno == ELOOP ? "a symbolic link is in its place" : std::strerror(errno));
  struct stat st {};
  if (fstat(s->fd, &st) != 0 || !S_ISFIFO(st.st_mode) || st.st_uid != geteuid() ||
      (st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    s->made = false;  // not ours to remove
    return fail("something other than a FIFO of this user, closed to others, is in its place");
  }
  // The library looks for the FIFO in the user's runtime folder.
  if (setenv("XDG_RUNTIME_DIR", dir.c_str(), 1) != 0)
    return fail(std::string("cannot set XDG_RUNTIME_DIR: ") + std::strerror(errno));
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
