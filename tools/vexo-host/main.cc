// vexo-host: stands in for the front end and the host program. It creates the
// status FIFO in a folder only its user can reach and prints what arrives,
// points XDG_RUNTIME_DIR at that folder so that the library finds the FIFO,
// loads libVexo.so from its own folder, starts the service, follows the
// Management server (mgmt_loop), and turns signals into plug events:
//   SIGUSR1 -> attach_device, SIGUSR2 -> detach_device, SIGINT/SIGTERM -> exit.
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
#include <memory>
#include <string>
#include <thread>

#include "mgmt_loop.h"
#include "mgmt_plan.h"
#include "vexo.h"

namespace {

constexpr const char* kPipeName = "qdx.win.002";
constexpr long long kDefaultPollSeconds = 21600;
constexpr long long kMaxPollSeconds = 30LL * 24 * 3600;
// Test-only: the first retry pause in milliseconds, instead of 30 s.
constexpr const char* kRetryBaseEnv = "VEXO_HOST_TEST_RETRY_BASE_MS";

struct Exports {
  int (*Initialize_process)(const char*) = nullptr;
  int (*Start_RDservice)() = nullptr;
  int (*Get_Last_RDservice_Status)(char*) = nullptr;
  int (*attach_device)() = nullptr;
  int (*detach_device)() = nullptr;
};

void usage() {
  std::fprintf(stderr,
               "usage: vexo-host [--workdir DIR] [--status-pipe-dir FOLDER] [--mgmt-poll SECONDS | --no-mgmt]\n"
               "                 SCANNER_DETAILS\n"
               "  Runs the RD service for the scanner (e.g. Aratek_A600) in DIR.\n"
               "  The status FIFO qdx.win.002 is made in FOLDER (one only this user can\n"
               "  write), else in $XDG_RUNTIME_DIR (a folder of this user, closed to others),\n"
               "  else in a fresh private folder under /tmp; XDG_RUNTIME_DIR is set to that\n"
               "  folder for the library. Its messages are printed as \"pipe: ...\" lines.\n"
               "  After start-up it calls Init, uidai_cert_force_update once after the first\n"
               "  successful Init, and then what the Management server's next action names\n"
               "  (Key_Rotation, uidai_cert_update, Software_Update), printing each call as\n"
               "  \"mgmt: CALL -> RESULT, next action ACTION\".\n"
               "  Init runs again every --mgmt-poll seconds (default %lld) and when another\n"
               "  scanner is attached; after a capture found the UIDAI certificate out of\n"
               "  date, the next Init names Software_Update.\n"
               "  After a failed call Init is retried after %lld s, doubling up to %lld s;\n"
               "  the same follow-up runs at most once per such interval.\n"
               "  --no-mgmt leaves the Management server alone.\n"
               "  SIGUSR1 reports the scanner plugged in, SIGUSR2 pulled out;\n"
               "  SIGINT or SIGTERM stops the host.\n",
               kDefaultPollSeconds, host::kRetryBaseMs / 1000, host::kRetryMaxMs / 1000);
}

// A whole decimal number in [min, max].
bool parse_number(const char* text, long long min, long long max, long long* out) {
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < min || v > max) return false;
  *out = v;
  return true;
}

std::string own_folder() {
  char path[PATH_MAX] = {};
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  std::string p(path, static_cast<std::size_t>(n));
  return p.substr(0, p.find_last_of('/'));
}

template <typename F>
bool bind(void* lib, const char* name, F* out) {
  *out = reinterpret_cast<F>(dlsym(lib, name));
  if (*out == nullptr) std::fprintf(stderr, "vexo-host: %s missing in libVexo.so\n", name);
  return *out != nullptr;
}

void print_status(const Exports& x, const char* call, int rc) {
  char status[VEXO_STATUS_LEN] = {};
  x.Get_Last_RDservice_Status(status);
  std::printf("%s returned %d\nlast status: %s\n", call, rc, status);
  std::fflush(stdout);
}

// The status FIFO: made here (or left from an earlier run of this user) and
// checked on the descriptor it is read through, so nothing another user
// planted at the path (a link, a file, a FIFO of theirs that would see the
// messages or inject others) is ever used.
class StatusFifo {
 public:
  ~StatusFifo() { remove(); }
  // Closes the FIFO and removes what was made here.
  void remove() {
    if (fd_ >= 0) close(fd_);
    if (made_) unlink(path_.c_str());
    if (!made_dir_.empty()) rmdir(made_dir_.c_str());
    fd_ = -1;
    made_ = false;
    made_dir_.clear();
  }
  // Makes the FIFO in folder, or in $XDG_RUNTIME_DIR (when that is a folder
  // of this user closed to others), or in a fresh 0700 folder under /tmp
  // when folder is empty. false after printing why.
  bool open_in(const std::string& folder) {
    std::string dir = folder;
    if (dir.empty()) {
      const char* runtime = std::getenv("XDG_RUNTIME_DIR");
      struct stat st {};
      if (runtime != nullptr && runtime[0] == '/' && stat(runtime, &st) == 0 && S_ISDIR(st.st_mode) &&
          st.st_uid == geteuid() && (st.st_mode & (S_IRWXG | S_IRWXO)) == 0) {
        dir = runtime;
      } else {
        char made[] = "/tmp/vexo-host-XXXXXX";
        if (mkdtemp(made) == nullptr) return fail("cannot make a private folder in /tmp");
        dir = made_dir_ = made;
      }
    }
    dir_ = dir;
    path_ = dir + "/" + kPipeName;
    if (mkfifo(path_.c_str(), 0600) == 0) {
      made_ = true;
    } else if (errno != EEXIST) {
      return fail(std::strerror(errno));
    }
    fd_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd_ < 0) return fail(errno == ELOOP ? "a symbolic link is in its place" : std::strerror(errno));
    struct stat st {};
    if (fstat(fd_, &st) != 0 || !S_ISFIFO(st.st_mode) || st.st_uid != geteuid() ||
        (st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
      made_ = false;  // not ours to remove
      return fail("something other than a FIFO of this user, closed to others, is in its place");
    }
    return true;
  }
  int fd() const { return fd_; }
  // The folder that holds the FIFO.
  const std::string& folder() const { return dir_; }

 private:
  bool fail(const std::string& why) {
    std::fprintf(stderr, "vexo-host: status FIFO %s: %s\n", path_.c_str(), why.c_str());
    return false;
  }
  std::string path_;
  std::string dir_;
  std::string made_dir_;  // the private folder made here, removed at the end
  int fd_ = -1;
  bool made_ = false;
};

// Prints every status-pipe message as it arrives, until stop is set.
void read_pipe(int fd, const std::atomic<bool>* stop) {
  char buf[4096];
  while (!stop->load()) {
    pollfd p{fd, POLLIN, 0};
    int r = poll(&p, 1, 200);
    if (r <= 0) continue;
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) {
      std::printf("pipe: %.*s", static_cast<int>(n), buf);
      if (buf[n - 1] != '\n') std::printf("\n");
      std::fflush(stdout);
    } else {
      usleep(50000);  // no writer at the moment
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string workdir;
  std::string pipe_dir;
  std::string scanner;
  bool mgmt = true;
  host::MgmtOptions mgmt_options;
  mgmt_options.poll_ms = kDefaultPollSeconds * 1000;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    long long seconds = 0;
    if (arg == "--help" || arg == "-h") {
      usage();
      return 0;
    }
    if (arg == "--workdir" && i + 1 < argc) {
      workdir = argv[++i];
    } else if (arg == "--status-pipe-dir" && i + 1 < argc) {
      pipe_dir = argv[++i];
    } else if (arg == "--no-mgmt") {
      mgmt = false;
    } else if (arg == "--mgmt-poll" && i + 1 < argc && parse_number(argv[i + 1], 1, kMaxPollSeconds, &seconds)) {
      mgmt_options.poll_ms = seconds * 1000;
      ++i;
    } else if (arg.rfind("--", 0) != 0 && scanner.empty()) {
      scanner = arg;
    } else {
      usage();
      return 2;
    }
  }
  if (scanner.empty()) {
    usage();
    return 2;
  }
  long long base_ms = 0;
  const char* base = std::getenv(kRetryBaseEnv);
  if (base != nullptr && parse_number(base, 1, host::kRetryBaseMs, &base_ms)) mgmt_options.retry_base_ms = base_ms;

  const std::string lib_path = own_folder() + "/libVexo.so";
  // A relative FIFO folder is taken from the folder the host was started in.
  if (!pipe_dir.empty() && pipe_dir[0] != '/') {
    char cwd[PATH_MAX] = {};
    if (getcwd(cwd, sizeof cwd) != nullptr) pipe_dir = std::string(cwd) + "/" + pipe_dir;
  }
  if (!workdir.empty() && chdir(workdir.c_str()) != 0) {
    std::fprintf(stderr, "vexo-host: cannot enter %s: %s\n", workdir.c_str(), std::strerror(errno));
    return 1;
  }

  // Signals are taken by sigwait below; every thread inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  for (int s : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) sigaddset(&signals, s);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  StatusFifo fifo;
  if (!fifo.open_in(pipe_dir)) return 1;
  // The library looks for the FIFO in the user's runtime folder.
  if (setenv("XDG_RUNTIME_DIR", fifo.folder().c_str(), 1) != 0) {
    std::fprintf(stderr, "vexo-host: cannot set XDG_RUNTIME_DIR: %s\n", std::strerror(errno));
    return 1;
  }
  const int pipe_fd = fifo.fd();
  std::atomic<bool> stop{false};
  std::thread reader(read_pipe, pipe_fd, &stop);

  void* lib = dlopen(lib_path.c_str(), RTLD_NOW);
  Exports x;
  host::MgmtExports m;
  if (lib == nullptr || !bind(lib, "Initialize_process", &x.Initialize_process) ||
      !bind(lib, "Start_RDservice", &x.Start_RDservice) ||
      !bind(lib, "Get_Last_RDservice_Status", &x.Get_Last_RDservice_Status) ||
      !bind(lib, "attach_device", &x.attach_device) || !bind(lib, "detach_device", &x.detach_device) ||
      !bind(lib, "Init", &m.Init) || !bind(lib, "Key_Rotation", &m.Key_Rotation) ||
      !bind(lib, "Software_Update", &m.Software_Update) || !bind(lib, "uidai_cert_update", &m.uidai_cert_update) ||
      !bind(lib, "uidai_cert_force_update", &m.uidai_cert_force_update)) {
    if (lib == nullptr) std::fprintf(stderr, "vexo-host: %s\n", dlerror());
    stop = true;
    reader.join();
    return 1;
  }

  int rc = x.Initialize_process(scanner.c_str());
  print_status(x, "Initialize_process", rc);
  if (rc == 0) {
    rc = x.Start_RDservice();
    print_status(x, "Start_RDservice", rc);
  }
  int exit_code = rc == 0 ? 0 : 1;
  std::unique_ptr<host::MgmtLoop> loop;
  if (rc == 0 && mgmt) {
    m.Get_Last_RDservice_Status = x.Get_Last_RDservice_Status;
    loop = std::make_unique<host::MgmtLoop>(m, mgmt_options);
  }
  while (rc == 0) {
    int sig = 0;
    if (sigwait(&signals, &sig) != 0) continue;
    if (sig == SIGUSR1) {
      const int attached = x.attach_device();
      print_status(x, "attach_device", attached);
      // Another scanner: the server decides afresh what this one needs.
      if (attached == -10 && loop != nullptr) loop->request_init();
    } else if (sig == SIGUSR2) {
      print_status(x, "detach_device", x.detach_device());
    } else {
      std::printf("vexo-host: stopping\n");
      std::fflush(stdout);
      break;
    }
  }
  if (loop != nullptr) loop->stop();
  stop = true;
  reader.join();
  fifo.remove();  // _exit skips destructors
  // The library's threads live as long as the process; leave without unloading it.
  std::fflush(stdout);
  _exit(exit_code);
}
