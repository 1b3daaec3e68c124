#include "test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/work_area.h"
#include "http/server.h"
#include "init/init.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/semaphore_syc.h"
#include "vexo.h"

namespace testutil {

namespace fs = std::filesystem;

// ---------------------------------------------------------------- files

WorkDir::WorkDir() {
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vexo_test_XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
  old_cwd_ = fs::current_path().string();
  fs::current_path(path_);
}

WorkDir::~WorkDir() {
  std::error_code ec;
  fs::current_path(old_cwd_, ec);
  fs::remove_all(path_, ec);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_file(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
}

int count_of(const std::string& text, const std::string& needle) {
  int n = 0;
  for (std::size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) ++n;
  return n;
}

int mode_of(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

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

std::string data_file(const std::string& name) { return read_file(std::string(VEXO_SOURCE_DIR) + "/tests/data/" + name); }

bool wait_until(const std::function<bool()>& done, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// ---------------------------------------------------------------- status pipe

PipeReader::PipeReader(const std::string& dir) : path_(dir + "/qdx.win.002") {
  if (::mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed");
  fd_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK);
  keep_fd_ = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK);
  if (fd_ < 0 || keep_fd_ < 0 || ::pipe(stop_fd_) != 0) throw std::runtime_error("fifo open failed");
  platform::set_status_pipe_path(path_);
  thread_ = std::thread([this] {
    char buf[4096];
    for (;;) {
      pollfd fds[2] = {{fd_, POLLIN, 0}, {stop_fd_[0], POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) continue;
      if (fds[1].revents & POLLIN) return;
      const ssize_t n = ::read(fd_, buf, sizeof buf);
      if (n > 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        data_.append(buf, static_cast<std::size_t>(n));
      }
    }
  });
}

PipeReader::~PipeReader() {
  rd_log_reset_for_test();  // closes the library's write end
  (void)!::write(stop_fd_[1], "x", 1);
  thread_.join();
  for (int fd : {fd_, keep_fd_, stop_fd_[0], stop_fd_[1]}) ::close(fd);
  ::unlink(path_.c_str());
  platform::set_status_pipe_path("");
}

std::string PipeReader::received() {
  std::lock_guard<std::mutex> lock(mutex_);
  return data_;
}

bool PipeReader::wait_for(const std::string& needle, int timeout_ms, std::size_t from) {
  return wait_until([&] { return received().find(needle, from) != std::string::npos; }, timeout_ms);
}

// ---------------------------------------------------------------- run log

std::string log_text() { return read_file("rd.log"); }

bool log_has(const std::string& file, const std::string& func, const std::string& text, std::size_t offset) {
  const std::string log = log_text();
  const std::string site = "(" + file + ":" + func + ":";
  for (std::size_t pos = log.find(site, offset); pos != std::string::npos; pos = log.find(site, pos + 1)) {
    const std::size_t dash = log.find(") - ", pos);
    if (dash != std::string::npos && log.compare(dash + 4, text.size() + 1, text + "\n") == 0) return true;
  }
  return false;
}

bool wait_log(const std::string& file, const std::string& func, const std::string& text, std::size_t offset) {
  return wait_until([&] { return log_has(file, func, text, offset); }, 5000);
}

std::string last_status() {
  char buf[VEXO_STATUS_LEN] = {};
  Get_Last_RDservice_Status(buf);
  return buf;
}

// ---------------------------------------------------------------- sockets

namespace {

// The loopback address of family at port, and its length.
socklen_t loopback(int family, int port, sockaddr_storage* storage) {
  *storage = {};
  if (family == AF_INET) {
    auto* a = reinterpret_cast<sockaddr_in*>(storage);
    a->sin_family = AF_INET;
    a->sin_port = htons(static_cast<std::uint16_t>(port));
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sizeof *a;
  }
  auto* a = reinterpret_cast<sockaddr_in6*>(storage);
  a->sin6_family = AF_INET6;
  a->sin6_port = htons(static_cast<std::uint16_t>(port));
  a->sin6_addr = in6addr_loopback;
  return sizeof *a;
}

int connect_any(int family, int port) {
  const int s = ::socket(family, SOCK_STREAM, 0);
  sockaddr_storage storage;
  const socklen_t len = loopback(family, port, &storage);
  if (s >= 0 && ::connect(s, reinterpret_cast<sockaddr*>(&storage), len) == 0) return s;
  if (s >= 0) ::close(s);
  return -1;
}

// A socket (with SO_REUSEADDR when reuse) bound to the loopback address of
// family at port.
int bound(int family, int port, bool reuse = true) {
  const int s = ::socket(family, SOCK_STREAM, 0);
  const int one = 1;
  if (reuse) ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (family == AF_INET6) ::setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
  sockaddr_storage storage;
  const socklen_t len = loopback(family, port, &storage);
  if (s >= 0 && ::bind(s, reinterpret_cast<sockaddr*>(&storage), len) == 0) return s;
  if (s >= 0) ::close(s);
  return -1;
}

}  // namespace

int connect_to(int port) { return connect_any(AF_INET, port); }
int connect_to6(int port) { return connect_any(AF_INET6, port); }

std::string read_until_close(int s, int timeout_ms) {
  std::string answer;
  char buf[65536];
  for (;;) {
    pollfd p{s, POLLIN, 0};
    if (::poll(&p, 1, timeout_ms) <= 0) break;
    const ssize_t n = ::recv(s, buf, sizeof buf, 0);
    if (n <= 0) break;
    answer.append(buf, static_cast<std::size_t>(n));
  }
  return answer;
}

std::string http_exchange(int port, const std::vector<std::string>& pieces, int pause_ms, bool ipv6) {
  const int s = ipv6 ? connect_to6(port) : connect_to(port);
  if (s < 0) return "";
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));  // the pieces arrive apart
    (void)::send(s, pieces[i].data(), pieces[i].size(), MSG_NOSIGNAL);
  }
  // Half-close first, so that the TIME_WAIT state lands on this side.
  ::shutdown(s, SHUT_WR);
  std::string answer = read_until_close(s, 20000);
  ::close(s);
  return answer;
}

std::string http_exchange(int port, const std::string& request) { return http_exchange(port, std::vector<std::string>{request}); }

long feed_until_server_acts(int s, const std::function<void(int)>& send_next, int pause_ms, int give_up_ms) {
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
  };
  for (int i = 0; elapsed() < give_up_ms; ++i) {
    send_next(i);
    pollfd p{s, POLLIN, 0};
    if (::poll(&p, 1, pause_ms) > 0) return elapsed();
  }
  return -1;
}

int hold_port(int port) {
  const int s = bound(AF_INET, port);
  if (s >= 0 && ::listen(s, 1) == 0) return s;
  if (s >= 0) ::close(s);
  return -1;
}

bool port_bindable(int port, bool reuse) {
  const int s = bound(AF_INET, port, reuse);
  if (s >= 0) ::close(s);
  return s >= 0;
}

int reserve_ports(int count) {
  // Each process starts elsewhere, so that test programs running at once
  // rarely meet; a port something else holds moves the search on.
  static int next = 20000 + static_cast<int>(::getpid() % 500) * 20;
  for (int tries = 0; tries < 500; ++tries) {
    const int first = next;
    next = next + count > 30000 ? 20000 : next + count;
    bool free = true;
    for (int p = first; free && p < first + count; ++p) {
      const int v6 = bound(AF_INET6, p);
      free = port_bindable(p) && (v6 >= 0 || errno == EADDRNOTAVAIL || errno == EAFNOSUPPORT);
      if (v6 >= 0) ::close(v6);
    }
    if (free) return first;
  }
  return 0;
}

// ---------------------------------------------------------------- programs

std::string program(const std::string& name) { return std::string(VEXO_BUILD_DIR) + "/" + name; }

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

Run run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  Run r;
  int out = -1;
  const pid_t pid = spawn(argv, env, &out);
  if (pid < 0) return r;
  char buf[4096];
  for (ssize_t n; (n = ::read(out, buf, sizeof buf)) > 0;) r.out.append(buf, static_cast<std::size_t>(n));
  ::close(out);
  int status = 0;
  ::waitpid(pid, &status, 0);
  r.rc = exit_status(status);
  return r;
}

Run init_workdir(const std::string& dir, const std::string& scanner, const std::vector<std::string>& extra,
                 const std::string& url) {
  std::vector<std::string> argv = {program("vexoctl"), "init-workdir", dir, "--scanner", scanner, "--mgmt-url", url};
  argv.insert(argv.end(), extra.begin(), extra.end());
  return run(argv);
}

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

void Reaper::reap() {
  if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
  pid = -1;
}

int logged_port(const std::string& log_path) {
  const std::string log = read_file(log_path);
  const std::regex listening(R"(Server Listening On 127\.0\.0\.1 And Port (\d+))");
  int port = 0;
  for (auto it = std::sregex_iterator(log.begin(), log.end(), listening); it != std::sregex_iterator(); ++it) {
    port = std::stoi((*it)[1]);
  }
  return port;
}

// ---------------------------------------------------------------- XML

Xml parse_xml(const std::string& text) {
  return Xml(xmlReadMemory(text.data(), static_cast<int>(text.size()), "t.xml", nullptr, XML_PARSE_NONET));
}

xmlNode* root(const Xml& doc) { return doc ? xmlDocGetRootElement(doc.get()) : nullptr; }

xmlNode* child(xmlNode* parent, const char* name) {
  for (xmlNode* c = parent != nullptr ? parent->children : nullptr; c != nullptr; c = c->next) {
    if (c->type == XML_ELEMENT_NODE && name_of(c) == name) return c;
  }
  return nullptr;
}

std::vector<xmlNode*> children(xmlNode* parent) {
  std::vector<xmlNode*> out;
  for (xmlNode* c = parent != nullptr ? parent->children : nullptr; c != nullptr; c = c->next) {
    if (c->type == XML_ELEMENT_NODE) out.push_back(c);
  }
  return out;
}

std::string name_of(xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

std::string content(xmlNode* node) {
  if (node == nullptr) return "";
  xmlChar* v = xmlNodeGetContent(node);
  std::string s = v != nullptr ? reinterpret_cast<const char*>(v) : "";
  xmlFree(v);
  return s;
}

Attrs attrs(xmlNode* node) {
  Attrs out;
  for (xmlAttr* a = node != nullptr ? node->properties : nullptr; a != nullptr; a = a->next) {
    out[reinterpret_cast<const char*>(a->name)] = content(reinterpret_cast<xmlNode*>(a));
  }
  return out;
}

// ---------------------------------------------------------------- answers

std::string ok_header(int port, const std::string& path, std::size_t length, const char* origin) {
  const std::string loc = "http://127.0.0.1:" + std::to_string(port) + path;
  return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: " + loc + "\r\nContent-Length: " +
         std::to_string(length) + "\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: " +
         (origin != nullptr ? std::string(origin) : loc) + "\r\n\r\n";
}

std::string error_header(int code, int port, const std::string& path, const char* origin) {
  const std::string head = "HTTP/1.1 " + std::to_string(code);
  const std::string tail = "\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://127.0.0.1:" + std::to_string(port) + path +
                           "\r\nContent-Length: 0\r\nContent-Type: text/xml\r\nConnection: close\r\n";
  if (origin != nullptr) return head + " " + tail + "Access-Control-Allow-Origin: " + origin + "\r\n\r\n";
  return head + tail + "\r\n";
}

std::string discovery_body(const std::string& status, const std::string& mi) {
  return "<RDService status=\"" + status + "\" info=\"Korvane RD service(" + mi +
         ") is running\">\n\t<Interface id=\"CAPTURE\" path=\"/rd/capture\" />\n\t<Interface id=\"DEVICEINFO\" "
         "path=\"/rd/info\" />\n\t<Interface id=\"POSTAUTH\" path=\"/rd/postauth\" />\n</RDService>\n";
}

std::string discovery_answer(int port, const std::string& status) {
  const std::string body = discovery_body(status);
  return ok_header(port, "/", body.size()) + body;
}

// ---------------------------------------------------------------- the fixture

void LibraryTest::SetUp() {
  init_reset_for_test();
  semaphore_reset_for_test();
  rd_log_reset_for_test();
  rd_set_verbose(0);
  rd_config_update([](RdConfig& c) { c = RdConfig(); });
  const std::string appdata = dir_.file("appdata");
  ::setenv("APPDATA", appdata.c_str(), 1);
  rd_identity_update([&](RdIdentity& id) {
    id.scanner_name = "Aratek_A600";
    id.rdsId = "QDX.WIN.002";
    id.dpId = "KORVANE.AR";
    id.mi = "A600";
    id.prefix = "./";
    id.appdata = appdata;
  });
  set_rd_status_ready();
  set_device_detached(0);
  set_uidai_prod_cert_newer(true);
  fs::create_directories(dir_.file("locks"));
  first_port_ = reserve_ports(8);
  ASSERT_NE(first_port_, 0) << "no free ports to reserve";
  platform::Adapter eth;
  eth.address[0] = 0x02;
  eth.address[5] = 0x01;
  eth.index = 2;
  eth.ethernet = true;
  eth.name = eth.description = "eth0";
  test_seams::set({.lock_dir = dir_.file("locks"),
                   .adapters = std::vector<platform::Adapter>{eth},
                   .first_port = first_port_,
                   .last_port = first_port_ + 7,
                   .scanner_lock_ms = 300u,
                   .handheld_lock_ms = 300u});
  ASSERT_EQ(zlog_init("rd.log"), 0);
  pipe_ = std::make_unique<PipeReader>(dir_.path());
  ASSERT_EQ(create_Pipe(), 0);
}

void LibraryTest::TearDown() {
  pipe_.reset();
  zlog_fini();
  semaphore_reset_for_test();
  test_seams::set({});
  ::unsetenv("APPDATA");
}

int LibraryTest::start_server() {
  // The accept loop reads its socket through the pointer it is given, for the
  // life of the process: each listener gets a slot of its own.
  static platform::socket_t servers[8];
  static int used = 0;
  if (used == 8) return 0;
  platform::socket_t* server = &servers[used++];
  if (prepare_http_socket(server) != 0) return 0;
  std::thread(client_connection_handler, server).detach();
  return service_port();
}

}  // namespace testutil
