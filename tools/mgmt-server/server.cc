#include "server.h"

#include <httplib.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "crypto.h"
#include "platform/mutex.h"
#include "messages.h"
#include "protect.h"
#include "registry.h"

namespace mgmt {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxBody = 64 * 1024;
constexpr std::uintmax_t kMaxFile = 256u * 1024 * 1024;
constexpr const char* kJson = "application/json";

enum class Op { kRegister, kKeyRotation, kSoftUpdate, kUidaiUpdate, kUpdateStatus };

const char* op_name(Op op) {
  switch (op) {
    case Op::kRegister:
      return "register";
    case Op::kKeyRotation:
      return "keyRotation";
    case Op::kSoftUpdate:
      return "softUpdate";
    case Op::kUidaiUpdate:
      return "uidaiUpdate";
    case Op::kUpdateStatus:
      return "updateStatus";
  }
  return "?";
}

platform::Mutex g_log_mutex;

// One line per request: method, path, serial ("-" when none), result.
void log_request(const std::string& method, const std::string& path, const std::string& serial,
                 const std::string& result) {
  platform::MutexLock lock(&g_log_mutex);
  std::printf("%s %s %s %s\n", method.c_str(), path.c_str(), serial.empty() ? "-" : serial.c_str(), result.c_str());
  std::fflush(stdout);
}

int read_file(const fs::path& path, std::string* out) {
  std::error_code ec;
  if (!fs::is_regular_file(path, ec) || fs::file_size(path, ec) > kMaxFile || ec) return -1;
  std::ifstream in(path, std::ios::binary);
  if (!in) return -1;
  std::ostringstream all;
  all << in.rdbuf();
  if (in.bad()) return -1;
  *out = std::move(all).str();
  return 0;
}

// A file name the download route accepts: no folders, no hidden files.
bool plain_name(const std::string& name) {
  if (name.empty() || name.size() > 128 || name[0] == '.') return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
}

// The Host header when it looks like a host[:port]; the bound address otherwise.
std::string host_for_urls(const httplib::Request& req, const std::string& fallback) {
  std::string host = req.get_header_value("Host");
  if (host.empty() || host.size() > 255) return fallback;
  for (char c : host) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
              c == ':' || c == '[' || c == ']';
    if (!ok) return fallback;
  }
  return host;
}

// Answers a download with the part of data that the Range header asks for.
// cpp-httplib 0.11 writes a Content-Range whose end lies past the file when a
// range ends at or beyond the size (the device's last chunk always does) and
// a 416 without "*/size"; so a single range is answered here and the parsed
// ranges are cleared, which keeps the library from applying them again. The
// request object is cpp-httplib's own non-const one, so the const_cast is
// sound. Several ranges are answered with the whole file, as HTTP allows.
void answer_range(const httplib::Request& req, httplib::Response& res, const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::error_code ec;
  const auto file_size = fs::file_size(path, ec);
  if (!in || ec) {
    res.status = 404;  // logged by the error handler
    return;
  }
  // Only the bytes answered are read, so a ranged download of a large package
  // costs the server no more than the ranges themselves.
  auto read = [&in](ssize_t first, ssize_t count) {
    std::string out(static_cast<std::size_t>(count), '\0');
    in.seekg(first);
    in.read(out.data(), count);
    out.resize(static_cast<std::size_t>(in.gcount()));
    return out;
  };
  const std::vector<std::pair<ssize_t, ssize_t>> ranges = req.ranges;
  const_cast<httplib::Request&>(req).ranges.clear();
  const auto size = static_cast<ssize_t>(file_size);
  if (ranges.size() != 1) {
    res.status = 200;
    res.set_content(read(0, size), "application/octet-stream");
    return;
  }
  ssize_t first = ranges[0].first, last = ranges[0].second;
  if (first < 0) {  // "-N": the last N bytes
    first = last < 0 ? size : std::max<ssize_t>(0, size - last);
    last = size - 1;
  } else if (last < 0 || last >= size) {
    last = size - 1;
  }
  // Built in steps: GCC 12 misreads "literal" + string as an overlapping copy.
  std::string total(1, '/');
  total += std::to_string(size);
  if (first >= size || first > last) {
    res.status = 416;
    res.set_header("Content-Range", "bytes *" + total);
    return;
  }
  res.status = 206;
  res.set_header("Content-Range", "bytes " + std::to_string(first) + "-" + std::to_string(last) + total);
  res.set_content(read(first, last - first + 1), "application/octet-stream");
}

// Why a request is refused: its code and description; no code when it is not.
struct Refusal {
  const char* code = nullptr;
  std::string desc;
};

class Service {
 public:
  Service(const ServeOptions& opts, Registry* registry, Ca* ca, std::string scheme, std::string bound_host)
      : opts_(opts), registry_(registry), ca_(ca), scheme_(std::move(scheme)), bound_host_(std::move(bound_host)) {}

  // Answers a POST of op: what op gives the device, or the refusal of the
  // first check that fails.
  void post(Op op, const httplib::Request& req, httplib::Response& res) const;
  void get_cert(bool production, const httplib::Request& req, httplib::Response& res) const;
  void get_file(const httplib::Request& req, httplib::Response& res) const;

 private:
  std::time_t now() const { return std::time(nullptr) + static_cast<std::time_t>(opts_.clock_offset); }
  std::string ist_now() const;
  std::string next_action(const Device& d, std::time_t now) const;
  std::string file_url(const httplib::Request& req, const std::string& rel) const;
  void answer(const httplib::Request& req, httplib::Response& res, const Response& r, const std::string& serial) const;
  // Reads and verifies the request and finds its device (binding a new one to
  // its host id and model); a refusal when a check fails.
  Refusal identify(const httplib::Request& req, Request* in, Device* dev) const;
  // Does op for the device and fills r with its answer; a refusal when it cannot.
  Refusal operate(Op op, const httplib::Request& req, const Request& in, Device* dev, Response* r) const;
  // The package the softUpdate endpoint offers: the last name in packages/.
  std::string current_package() const;

  const ServeOptions& opts_;
  Registry* registry_;
  Ca* ca_;
  std::string scheme_;
  std::string bound_host_;
};

std::string Service::ist_now() const {
  // IST whatever the host's time zone: UTC plus 19800 seconds, broken down as UTC.
  std::time_t t = now() + 19800;
  struct tm tm = {};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
  return text;
}

std::string Service::next_action(const Device& d, std::time_t t) const {
  if (d.dc.empty() || t - d.rotated_at > opts_.key_max_age) return "KEY_ROTATION";
  std::string head;
  if (registry_->pop(d.serial, &head) == 1) return head;
  return "NO_ACTION_NECESSARY";
}

std::string Service::file_url(const httplib::Request& req, const std::string& rel) const {
  std::string prefix = req.matches.size() > 1 ? std::string(req.matches[1]) : std::string();
  return scheme_ + "://" + host_for_urls(req, bound_host_) + prefix + "/files/" + rel;
}

std::string Service::current_package() const {
  std::error_code ec;
  std::string best;
  for (const auto& entry : fs::directory_iterator(fs::path(opts_.data_dir) / "packages", ec)) {
    std::string name = entry.path().filename().string();
    if (entry.is_regular_file(ec) && plain_name(name) && name > best) best = name;
  }
  return best;
}

void Service::answer(const httplib::Request& req, httplib::Response& res, const Response& r,
                     const std::string& serial) const {
  std::string body = build_response(r);
  std::string drt;
  // Without its RD_DRT the device takes the answer as poisoned; it is sent
  // anyway so that the failure shows on the device's side too.
  if (response_drt(body, req.body, &drt) == 0) res.set_header("RD_DRT", drt);
  res.status = 200;
  res.set_content(body, kJson);
  std::string result = r.status + " " + r.code;
  for (const auto& a : r.next_actions) result += " " + a;
  log_request(req.method, req.path, serial, result);
}

Refusal Service::identify(const httplib::Request& req, Request* in, Device* dev) const {
  std::string why;
  const bool parsed = parse_request(req.body, in, &why) == 0;
  if (!req.has_header("RD_DRT") || !request_drt_ok(req.get_header_value("RD_DRT"), req.body))
    return {kCodeBadDrt, "RD_DRT header missing or not matching the request"};
  if (!parsed) return {kCodeMalformed, "Malformed request: " + why};
  if (!hmac_pair_ok(in->skey, in->hmac, in->serial + "@" + in->ts)) return {kCodeBadHmac, "sKey/hmac do not verify"};
  const int found = registry_->find(in->serial, dev);
  if (found < 0) return {kCodeInternal, "Registry failure"};
  if (found == 0) return {kCodeNotRegistered, "Device not registered"};
  if ((dev->host_id.empty() && !in->host_id.empty()) || (dev->model.empty() && !in->model.empty())) {
    // A device added without host id or model is bound to the first values it sends.
    if (registry_->learn_identity(in->serial, in->host_id, in->model) != 0 || registry_->find(in->serial, dev) != 1)
      return {kCodeInternal, "Registry failure"};
  }
  return {};
}

Refusal Service::operate(Op op, const httplib::Request& req, const Request& in, Device* dev, Response* r) const {
  const std::time_t t = now();
  switch (op) {
    case Op::kRegister:
    case Op::kUpdateStatus:
      r->next_actions.push_back(next_action(*dev, t));
      break;
    case Op::kKeyRotation: {
      std::string pem, der, error;
      if (in.pkey.empty() || base64_decode(in.pkey, &pem) != 0) return {kCodeBadKey, "pKey missing or not Base64"};
      if (issue_device_cert(*ca_, pem, dev->serial, t, &der, &error) != 0)
        return {kCodeBadKey, "pKey not usable: " + error};
      std::string dc = new_uuid();
      if (dc.empty() || registry_->store_rotation(dev->serial, dc, der, t) != 0)
        return {kCodeInternal, "Registry failure"};
      dev->dc = dc;
      dev->rotated_at = t;
      r->dc = dc;
      r->next_actions.push_back(next_action(*dev, t));
      r->extra.emplace_back("sPKey", base64_encode(der));
      break;
    }
    case Op::kSoftUpdate: {
      std::string name = current_package(), data;
      if (name.empty() || read_file(fs::path(opts_.data_dir) / "packages" / name, &data) != 0)
        return {kCodeNoFile, "No software package available"};
      r->next_actions.push_back("NO_ACTION_NECESSARY");
      r->extra.emplace_back("path", file_url(req, "packages/" + name));
      r->extra.emplace_back("checksum", hex_digest("md5", data));
      break;
    }
    case Op::kUidaiUpdate: {
      std::string data;
      if (read_file(fs::path(opts_.data_dir) / "uidai" / "prod.pem", &data) != 0)
        return {kCodeNoFile, "No UIDAI certificate available"};
      // The device fetches the certificate, then reports through updateStatus.
      r->next_actions.push_back("UPDATE_STATUS");
      r->extra.emplace_back("path", file_url(req, "uidai/prod.pem"));
      r->extra.emplace_back("checksum", hex_digest("sha256", data));
      break;
    }
  }
  return {};
}

void Service::post(Op op, const httplib::Request& req, httplib::Response& res) const {
  Response r;
  r.ts = ist_now();
  Request in;
  Device dev;
  Refusal refusal = identify(req, &in, &dev);
  if (refusal.code == nullptr) {
    r.host_id = dev.host_id;
    r.serial = dev.serial;
    r.model = dev.model;
    refusal = operate(op, req, in, &dev, &r);
  }
  if (refusal.code != nullptr) {
    r.status.assign(1, 'n');  // not = "n": GCC 12 gives a false -Wrestrict there
    r.code = refusal.code;
    r.desc = refusal.desc;
    r.serial = in.serial;
  } else {
    r.code = kCodeOk;
    r.desc = std::string(op_name(op)) + " successful";
  }
  answer(req, res, r, in.serial);
}

void Service::get_cert(bool production, const httplib::Request& req, httplib::Response& res) const {
  const std::string name = production ? "prod.pem" : "preprod.pem";
  Response r;
  r.ts = ist_now();
  r.has_device = false;
  std::string data;
  if (read_file(fs::path(opts_.data_dir) / "uidai" / name, &data) != 0) {
    r.status = "n";
    r.code = kCodeNoFile;
    r.desc = "No UIDAI certificate available";
  } else {
    r.code = kCodeOk;
    r.desc = "getCert successful";
    r.next_actions.push_back("NO_ACTION_NECESSARY");
    r.extra.emplace_back("path", file_url(req, "uidai/" + name));
    r.extra.emplace_back("chkSum", hex_digest("sha256", data));
    r.extra.emplace_back("ci", cert_identifier(data));
  }
  answer(req, res, r, "");
}

void Service::get_file(const httplib::Request& req, httplib::Response& res) const {
  const std::string folder = req.matches[2];
  const std::string name = req.matches[3];
  if (!plain_name(name)) {
    res.status = 404;  // logged by the error handler
    return;
  }
  answer_range(req, res, fs::path(opts_.data_dir) / folder / name);
}

// Wraps a handler so that nothing it throws reaches cpp-httplib's threads.
template <typename F>
httplib::Server::Handler guarded(F f) {
  return [f](const httplib::Request& req, httplib::Response& res) {
    try {
      f(req, res);
    } catch (...) {
      res.status = 500;  // logged by the error handler
      res.body.clear();
    }
  };
}

// The HTTP or HTTPS server with its limits, or null (reported) when its
// certificate and key do not load.
std::unique_ptr<httplib::Server> make_server(const ServeOptions& opts) {
  std::unique_ptr<httplib::Server> server;
  if (opts.tls)
    server = std::make_unique<httplib::SSLServer>(opts.cert.c_str(), opts.key.c_str());
  else
    server = std::make_unique<httplib::Server>();
  if (!server->is_valid()) {
    std::fprintf(stderr, "vexo-mgmt-server: cannot load %s and %s\n", opts.cert.c_str(), opts.key.c_str());
    return nullptr;
  }
  // Bounded requests: small bodies and short waits. A connection serves up to
  // 1000 requests, so that the ranges of a whole package share one. Small
  // answers go out at once (TCP_NODELAY): held back for the client's delayed
  // acknowledgement they cost 40 ms each, and a package has hundreds.
  server->set_payload_max_length(kMaxBody);
  server->set_read_timeout(5, 0);
  server->set_write_timeout(5, 0);
  server->set_keep_alive_max_count(1000);
  server->set_keep_alive_timeout(5);
  server->set_tcp_nodelay(true);
  return server;
}

// The endpoints, each under any prefix ("/Zelm"), and the log of what the
// JSON handlers do not log themselves.
void route(httplib::Server* server, const Service& service) {
  const std::string pre = "(.*)/rest/";
  auto post = [&](const char* suffix, Op op) {
    server->Post(pre + suffix,
                 guarded([&service, op](const httplib::Request& q, httplib::Response& s) { service.post(op, q, s); }));
  };
  post("register/?", Op::kRegister);
  post("keyRotation/?", Op::kKeyRotation);
  post("softUpdate/?", Op::kSoftUpdate);
  post("uidaiUpdate/?", Op::kUidaiUpdate);
  post("updateStatus/?", Op::kUpdateStatus);
  server->Get(pre + "getCert/PP",
              guarded([&service](const httplib::Request& q, httplib::Response& s) { service.get_cert(false, q, s); }));
  server->Get(pre + "getCert/P",
              guarded([&service](const httplib::Request& q, httplib::Response& s) { service.get_cert(true, q, s); }));
  server->Get("(.*)/files/(uidai|packages)/([^/]+)",
              guarded([&service](const httplib::Request& q, httplib::Response& s) { service.get_file(q, s); }));
  // JSON answers are logged by their handler; downloads and refusals by
  // cpp-httplib itself are logged here.
  server->set_logger([](const httplib::Request& q, const httplib::Response& s) {
    if (s.get_header_value("Content-Type") == kJson) return;
    std::string result = std::to_string(s.status);
    if (q.has_header("Range")) {
      result += ' ';
      result += q.get_header_value("Range");
    }
    log_request(q.method, q.path, "", result);
  });
}

}  // namespace

int serve(const ServeOptions& opts) {
  Registry registry;
  std::string error;
  if (registry.open(opts.registry, &error) != 0) {
    std::fprintf(stderr, "vexo-mgmt-server: cannot open registry %s: %s\n", opts.registry.c_str(), error.c_str());
    return 1;
  }
  Ca ca;
  if (load_ca(opts.ca_cert, opts.ca_key, &ca, &error) != 0) {
    std::fprintf(stderr, "vexo-mgmt-server: %s\n", error.c_str());
    return 1;
  }
  std::unique_ptr<httplib::Server> server = make_server(opts);
  if (server == nullptr) return 1;

  // Signals are taken by a thread of their own, which stops the server.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  int port = opts.port;
  if (port == 0) {
    port = server->bind_to_any_port(opts.host);
  } else if (!server->bind_to_port(opts.host, port)) {
    port = -1;
  }
  if (port <= 0) {
    std::fprintf(stderr, "vexo-mgmt-server: cannot bind %s port %d\n", opts.host.c_str(), opts.port);
    return 1;
  }
  const std::string scheme = opts.tls ? "https" : "http";
  const bool v6 = opts.host.find(':') != std::string::npos;
  const std::string bound = (v6 ? "[" + opts.host + "]" : opts.host) + ":" + std::to_string(port);
  Service service(opts, &registry, &ca, scheme, bound);
  route(server.get(), service);

  std::printf("listening on %s://%s/\n", scheme.c_str(), bound.c_str());
  std::fflush(stdout);

  std::thread stopper([&server, stop_signals] {
    int sig = 0;
    sigwait(&stop_signals, &sig);
    server->stop();
  });
  bool ok = server->listen_after_bind();
  // listen_after_bind only returns after stop(), or on a failure; in the
  // latter case wake the signal thread so it can be joined.
  if (!ok) pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  return ok ? 0 : 1;
}

}  // namespace mgmt
