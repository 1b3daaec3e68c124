// vexo-mgmt-server: the reference Management server and its registry commands.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "registry.h"
#include "server.h"

namespace {

using Args = std::vector<std::string>;

const std::string kDataDir = VEXO_MGMT_DATA_DIR;

struct Command {
  const char* name;
  const char* usage;
  const char* help;
  int (*run)(const Args& args);
};

// The actions a queue may hold: the next actions a device acts on.
const std::set<std::string> kActions = {"KEY_ROTATION",         "UIDAI_CERT_UPDATE",   "SOFTWARE_UPDATE",
                                        "TIME_STAMP_SYNC",      "NO_ACTION_NECESSARY", "UPDATE_STATUS",
                                        "DEVICE_NOT_REGISTERED"};

bool to_int64(const std::string& text, long long min, long long max, long long* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < min || v > max) return false;
  *out = v;
  return true;
}

// Splits "--name value" options from positional arguments. Flags listed in
// flags take no value. Returns false on an unknown option or a missing value.
bool parse_options(const Args& args, const std::set<std::string>& with_value, const std::set<std::string>& flags,
                   std::vector<std::pair<std::string, std::string>>* opts, Args* positional) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a.rfind("--", 0) != 0) {
      positional->push_back(a);
    } else if (flags.count(a) != 0) {
      opts->emplace_back(a, "");
    } else if (with_value.count(a) != 0 && i + 1 < args.size()) {
      opts->emplace_back(a, args[++i]);
    } else {
      std::fprintf(stderr, "vexo-mgmt-server: unknown option or missing value: %s\n", a.c_str());
      return false;
    }
  }
  return true;
}

int open_registry(const std::string& path, mgmt::Registry* registry) {
  std::string error;
  if (registry->open(path, &error) != 0) {
    std::fprintf(stderr, "vexo-mgmt-server: cannot open registry %s: %s\n", path.c_str(), error.c_str());
    return -1;
  }
  return 0;
}

int cmd_serve(const Args& args) {
  mgmt::ServeOptions o;
  o.data_dir = kDataDir;
  o.registry = "registry.db";
  o.cert = kDataDir + "/server.crt";
  o.key = kDataDir + "/server.key";
  o.ca_cert = kDataDir + "/ca.crt";
  o.ca_key = kDataDir + "/ca.key";
  std::vector<std::pair<std::string, std::string>> opts;
  Args pos;
  if (!parse_options(args,
                     {"--port", "--host", "--data", "--registry", "--clock-offset", "--key-max-age", "--cert", "--key",
                      "--ca-cert", "--ca-key"},
                     {"--tls", "--plain"}, &opts, &pos) ||
      !pos.empty())
    return 2;
  for (const auto& [name, value] : opts) {
    long long n = 0;
    if (name == "--port") {
      if (!to_int64(value, 0, 65535, &n)) return 2;
      o.port = static_cast<int>(n);
    } else if (name == "--clock-offset") {
      if (!to_int64(value, -10LL * 365 * 86400, 10LL * 365 * 86400, &n)) return 2;
      o.clock_offset = n;
    } else if (name == "--key-max-age") {
      if (!to_int64(value, 0, 100LL * 365 * 86400, &n)) return 2;
      o.key_max_age = n;
    } else if (name == "--tls") {
      o.tls = true;
    } else if (name == "--plain") {
      o.tls = false;
    } else if (name == "--host") {
      o.host = value;
    } else if (name == "--data") {
      o.data_dir = value;
    } else if (name == "--registry") {
      o.registry = value;
    } else if (name == "--cert") {
      o.cert = value;
    } else if (name == "--key") {
      o.key = value;
    } else if (name == "--ca-cert") {
      o.ca_cert = value;
    } else if (name == "--ca-key") {
      o.ca_key = value;
    }
  }
  return mgmt::serve(o);
}

int cmd_add_device(const Args& args) {
  std::vector<std::pair<std::string, std::string>> opts;
  Args pos;
  if (!parse_options(args, {"--model", "--host-id", "--registry"}, {}, &opts, &pos) || pos.size() != 1 ||
      pos[0].empty())
    return 2;
  std::string model, host_id, path = "registry.db";
  for (const auto& [name, value] : opts) {
    if (name == "--model") model = value;
    if (name == "--host-id") host_id = value;
    if (name == "--registry") path = value;
  }
  mgmt::Registry registry;
  if (open_registry(path, &registry) != 0) return 1;
  if (registry.add_device(pos[0], model, host_id) != 0) {
    std::fprintf(stderr, "vexo-mgmt-server: cannot add %s\n", pos[0].c_str());
    return 1;
  }
  std::printf("added %s\n", pos[0].c_str());
  return 0;
}

int cmd_queue(const Args& args) {
  std::vector<std::pair<std::string, std::string>> opts;
  Args pos;
  if (!parse_options(args, {"--registry"}, {}, &opts, &pos) || pos.size() != 2) return 2;
  std::string path = opts.empty() ? "registry.db" : opts.back().second;
  if (kActions.count(pos[1]) == 0) {
    std::fprintf(stderr, "vexo-mgmt-server: unknown action %s\n", pos[1].c_str());
    return 2;
  }
  mgmt::Registry registry;
  if (open_registry(path, &registry) != 0) return 1;
  int rc = registry.enqueue(pos[0], pos[1]);
  if (rc != 0) {
    std::fprintf(stderr, "vexo-mgmt-server: %s\n", rc == -2 ? "unknown serial number" : "cannot queue the action");
    return 1;
  }
  std::printf("queued %s for %s\n", pos[1].c_str(), pos[0].c_str());
  return 0;
}

int cmd_list(const Args& args) {
  std::vector<std::pair<std::string, std::string>> opts;
  Args pos;
  if (!parse_options(args, {"--registry"}, {}, &opts, &pos) || !pos.empty()) return 2;
  std::string path = opts.empty() ? "registry.db" : opts.back().second;
  mgmt::Registry registry;
  std::vector<mgmt::Device> devices;
  if (open_registry(path, &registry) != 0 || registry.list(&devices) != 0) return 1;
  for (const auto& d : devices) {
    char when[32] = "never";
    if (d.rotated_at != 0) {
      std::time_t t = static_cast<std::time_t>(d.rotated_at);
      struct tm tm = {};
      gmtime_r(&t, &tm);
      std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
    }
    std::string queue;
    for (const auto& a : d.queue) queue += (queue.empty() ? "" : ",") + a;
    std::printf("%s model=%s hostId=%s dc=%s rotated=%s cert=%zu bytes queue=%s\n", d.serial.c_str(),
                d.model.empty() ? "-" : d.model.c_str(), d.host_id.empty() ? "-" : d.host_id.c_str(),
                d.dc.empty() ? "-" : d.dc.c_str(), when, d.cert_der.size(), queue.empty() ? "-" : queue.c_str());
  }
  return 0;
}

const Command kCommands[] = {
    {"serve",
     "serve [--port N] [--host ADDR] [--tls|--plain] [--data DIR] [--registry FILE]\n"
     "      [--clock-offset SECONDS] [--key-max-age SECONDS]\n"
     "      [--cert FILE] [--key FILE] [--ca-cert FILE] [--ca-key FILE]",
     "Serve the Management endpoints until SIGINT or SIGTERM. Port 0 picks a free\n"
     "port; the first output line is \"listening on SCHEME://HOST:PORT/\".\n"
     "Defaults: port 8443 on 127.0.0.1, TLS, registry ./registry.db, key age 86400 s,\n"
     "data, certificate and CA files from " VEXO_MGMT_DATA_DIR ".\n"
     "DIR holds uidai/prod.pem, uidai/preprod.pem and packages/* (the last name is\n"
     "the current package); they are downloadable under .../files/.",
     cmd_serve},
    {"add-device", "add-device SERIAL [--model M] [--host-id H] [--registry FILE]",
     "Register a device (or change its model or host id). Values left out are\n"
     "learnt from the device's first request.",
     cmd_add_device},
    {"queue", "queue SERIAL ACTION [--registry FILE]",
     "Append a next action (KEY_ROTATION, UIDAI_CERT_UPDATE, SOFTWARE_UPDATE,\n"
     "TIME_STAMP_SYNC, NO_ACTION_NECESSARY, ...) to a device's queue.",
     cmd_queue},
    {"list", "list [--registry FILE]", "Print every registered device with its queue.", cmd_list},
};

void usage(FILE* out) {
  std::fprintf(out, "usage: vexo-mgmt-server COMMAND [ARGS]   (COMMAND --help for details)\n");
  for (const auto& c : kCommands) std::fprintf(out, "  %s\n", c.usage);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  Args args(argv + 2, argv + argc);
  for (const auto& c : kCommands) {
    if (std::strcmp(argv[1], c.name) != 0) continue;
    for (const auto& a : args) {
      if (a == "--help" || a == "-h") {
        std::printf("usage: vexo-mgmt-server %s\n\n%s\n", c.usage, c.help);
        return 0;
      }
    }
    int rc = c.run(args);
    if (rc == 2) std::fprintf(stderr, "usage: vexo-mgmt-server %s\n", c.usage);
    return rc;
  }
  std::fprintf(stderr, "vexo-mgmt-server: unknown command %s\n", argv[1]);
  usage(stderr);
  return 2;
}
