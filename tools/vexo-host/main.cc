// vexo-host: stands in for the front end and the host program. It creates the
// status pipe and prints what arrives, where the library finds it, loads
// libVexo.so (Vexo.dll) from its own folder, starts the service, follows the
// Management server (mgmt_loop), and turns the system's events into plug
// events (host_sys.h):
//   POSIX: SIGUSR1 -> attach_device, SIGUSR2 -> detach_device, SIGINT/SIGTERM -> exit;
//   Windows: lines "a" and "d" on standard input, Ctrl-C -> exit.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "host_sys.h"
#include "mgmt_loop.h"
#include "mgmt_plan.h"
#include "vexo.h"

namespace {

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
               "  The status pipe: on POSIX systems the FIFO qdx.win.002 in FOLDER (one only\n"
               "  this user can write), else in $XDG_RUNTIME_DIR (a folder of this user,\n"
               "  closed to others), else in a fresh private folder under /tmp, with\n"
               "  XDG_RUNTIME_DIR set to that folder for the library; on Windows the named\n"
               "  pipe \\\\.\\pipe\\qdx.win.002. Its messages are printed as \"pipe: ...\" lines.\n"
               "  After start-up it calls Init, uidai_cert_force_update once after the first\n"
               "  successful Init, and then what the Management server's next action names\n"
               "  (Key_Rotation, uidai_cert_update, Software_Update), printing each call as\n"
               "  \"mgmt: CALL -> RESULT, next action ACTION\".\n"
               "  Init runs again every --mgmt-poll seconds (default %lld) and when another\n"
               "  scanner is attached; after a capture found the UIDAI certificate out of\n"
               "  date, the next Init names Software_Update.\n"
               "  After a failed call Init is retried after %lld s, doubling up to %lld s;\n"
               "  the same follow-up runs at most once per such interval.\n"
               "  --no-mgmt leaves the Management server alone.\n%s",
               kDefaultPollSeconds, host::kRetryBaseMs / 1000, host::kRetryMaxMs / 1000, host::kEventHelp);
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

template <typename F>
bool bind(void* lib, const char* name, F* out) {
  *out = reinterpret_cast<F>(host::library_symbol(lib, name));
  if (*out == nullptr) std::fprintf(stderr, "vexo-host: %s missing in the library\n", name);
  return *out != nullptr;
}

void print_status(const Exports& x, const char* call, int rc) {
  char status[VEXO_STATUS_LEN] = {};
  x.Get_Last_RDservice_Status(status);
  std::printf("%s returned %d\nlast status: %s\n", call, rc, status);
  std::fflush(stdout);
}

// What the command line asks for.
struct Options {
  std::string workdir;
  std::string pipe_dir;
  std::string scanner;
  bool mgmt = true;
  host::MgmtOptions mgmt_options;
};

// Reads the command line into *o. -1 to go on, else the exit code (0 after
// --help, 2 after a usage error).
int parse_options(int argc, char** argv, Options* o) {
  o->mgmt_options.poll_ms = kDefaultPollSeconds * 1000;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    long long seconds = 0;
    if (arg == "--help" || arg == "-h") {
      usage();
      return 0;
    }
    if (arg == "--workdir" && i + 1 < argc) {
      o->workdir = argv[++i];
    } else if (arg == "--status-pipe-dir" && i + 1 < argc) {
      o->pipe_dir = argv[++i];
    } else if (arg == "--no-mgmt") {
      o->mgmt = false;
    } else if (arg == "--mgmt-poll" && i + 1 < argc && parse_number(argv[i + 1], 1, kMaxPollSeconds, &seconds)) {
      o->mgmt_options.poll_ms = seconds * 1000;
      ++i;
    } else if (arg.rfind("--", 0) != 0 && o->scanner.empty()) {
      o->scanner = arg;
    } else {
      usage();
      return 2;
    }
  }
  if (o->scanner.empty()) {
    usage();
    return 2;
  }
  long long base_ms = 0;
  const char* base = std::getenv(kRetryBaseEnv);
  if (base != nullptr && parse_number(base, 1, host::kRetryBaseMs, &base_ms)) o->mgmt_options.retry_base_ms = base_ms;
  return -1;
}

// Binds every export the host calls; false (with a message) when one is missing.
bool bind_exports(void* lib, Exports* x, host::MgmtExports* m) {
  return bind(lib, "Initialize_process", &x->Initialize_process) &&
         bind(lib, "Start_RDservice", &x->Start_RDservice) &&
         bind(lib, "Get_Last_RDservice_Status", &x->Get_Last_RDservice_Status) &&
         bind(lib, "attach_device", &x->attach_device) && bind(lib, "detach_device", &x->detach_device) &&
         bind(lib, "Init", &m->Init) && bind(lib, "Key_Rotation", &m->Key_Rotation) &&
         bind(lib, "Software_Update", &m->Software_Update) && bind(lib, "uidai_cert_update", &m->uidai_cert_update) &&
         bind(lib, "uidai_cert_force_update", &m->uidai_cert_force_update);
}

// Turns plug events into attach_device and detach_device until asked to stop.
void follow_events(const Exports& x, host::MgmtLoop* loop) {
  for (;;) {
    const host::Event event = host::wait_event();
    if (event == host::Event::kAttach) {
      const int attached = x.attach_device();
      print_status(x, "attach_device", attached);
      // Another scanner: the server decides afresh what this one needs.
      if (attached == -10 && loop != nullptr) loop->request_init();
    } else if (event == host::Event::kDetach) {
      print_status(x, "detach_device", x.detach_device());
    } else {
      std::printf("vexo-host: stopping\n");
      std::fflush(stdout);
      return;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (const int code = parse_options(argc, argv, &o); code >= 0) return code;

  const std::string lib_path = host::library_beside_program();
  std::string error;
  host::take_events();
  // Made before the host changes folder: a relative path is the starting folder's.
  auto pipe = std::make_unique<host::StatusPipe>();
  if (!pipe->start(o.pipe_dir, &error)) {
    std::fprintf(stderr, "vexo-host: %s\n", error.c_str());
    return 1;
  }
  if (!o.workdir.empty() && !host::enter_folder(o.workdir, &error)) {
    std::fprintf(stderr, "vexo-host: cannot enter %s: %s\n", o.workdir.c_str(), error.c_str());
    return 1;
  }

  void* lib = host::load_library(lib_path, &error);
  Exports x;
  host::MgmtExports m;
  if (lib == nullptr) {
    std::fprintf(stderr, "vexo-host: %s\n", error.c_str());
    return 1;
  }
  if (!bind_exports(lib, &x, &m)) return 1;

  int rc = x.Initialize_process(o.scanner.c_str());
  print_status(x, "Initialize_process", rc);
  if (rc == 0) {
    rc = x.Start_RDservice();
    print_status(x, "Start_RDservice", rc);
  }
  std::unique_ptr<host::MgmtLoop> loop;
  if (rc == 0 && o.mgmt) {
    m.Get_Last_RDservice_Status = x.Get_Last_RDservice_Status;
    loop = std::make_unique<host::MgmtLoop>(m, o.mgmt_options);
  }
  if (rc == 0) follow_events(x, loop.get());
  if (loop != nullptr) loop->stop();
  pipe.reset();
  // The library's threads live as long as the process; leave without unloading it.
  host::leave(rc == 0 ? 0 : 1);
}
