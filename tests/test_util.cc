#include "test_util.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
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
#include "platform/socket_extra.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/semaphore_syc.h"
#include "vexo.h"

namespace testutil {

namespace fs = std::filesystem;

// ---------------------------------------------------------------- files

WorkDir::WorkDir() {
  const fs::path base = fs::temp_directory_path();
  for (int attempt = 0; path_.empty(); ++attempt) {
    std::uint8_t r[6];
    if (attempt == 100 || platform::random_bytes(r, sizeof r) != 0) throw std::runtime_error("no temporary folder");
    char name[32];
    std::snprintf(name, sizeof name, "vexo_test_%02x%02x%02x%02x%02x%02x", r[0], r[1], r[2], r[3], r[4], r[5]);
    // Made new, with owner-only permissions, as mkdtemp makes it.
    std::error_code ec;
    if (fs::create_directory(base / name, ec)) {
      fs::permissions(base / name, fs::perms::owner_all, ec);
      path_ = fs::canonical(base / name).generic_string();
    }
  }
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

testing::AssertionResult has(const std::string& text, const std::string& needle) {
  if (text.find(needle) != std::string::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "\"" << needle << "\" not in:\n" << text;
}

int mode_of(const std::string& path) {
  std::error_code ec;
  const fs::file_status st = fs::symlink_status(path, ec);
  return ec || !fs::exists(st) ? -1 : static_cast<int>(st.permissions() & fs::perms::mask);
}

std::string data_file(const std::string& name) {
  return read_file(std::string(VEXO_SOURCE_DIR) + "/tests/data/" + name);
}

std::string fill(const std::string& text, const std::map<std::string, std::string>& values) {
  std::string out;
  std::size_t at = 0;
  for (std::size_t open = text.find('{'); open != std::string::npos; open = text.find('{', open + 1)) {
    const std::size_t close = text.find('}', open);
    const auto value = values.find(text.substr(open + 1, close - open - 1));
    if (close == std::string::npos || value == values.end()) continue;
    out += text.substr(at, open - at) + value->second;
    at = close + 1;
  }
  return out + text.substr(at);
}

bool wait_until(const std::function<bool()>& done, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// ---------------------------------------------------------------- status pipe

PipeReader::PipeReader(const std::string& dir) {
  server_ = std::make_unique<testsys::PipeServer>(dir, [this](const char* data, std::size_t n) {
    std::lock_guard<std::mutex> lock(mutex_);
    data_.append(data, n);
  });
  platform::set_status_pipe_path(server_->path());
}

PipeReader::~PipeReader() {
  rd_log_reset_for_test();  // closes the library's write end
  server_.reset();
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

int connect_to(int port) { return static_cast<int>(testsys::connect_loopback(port)); }
int connect_to6(int port) { return static_cast<int>(testsys::connect_loopback6(port)); }

std::string read_until_close(int s, int timeout_ms) {
  std::string answer;
  char buf[65536];
  for (;;) {
    if (platform::wait_readable(s, timeout_ms) <= 0) break;
    const long n = platform::recv_socket(s, buf, sizeof buf);
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
    (void)platform::send_socket(s, pieces[i].data(), pieces[i].size());
  }
  // Half-close first, so that the TIME_WAIT state lands on this side.
  testsys::shutdown_send(s);
  std::string answer = read_until_close(s, 20000);
  platform::close_socket(s);
  return answer;
}

std::string http_exchange(int port, const std::string& request) {
  return http_exchange(port, std::vector<std::string>{request});
}

long feed_until_server_acts(int s, const std::function<void(int)>& send_next, int pause_ms, int give_up_ms) {
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
  };
  for (int i = 0; elapsed() < give_up_ms; ++i) {
    send_next(i);
    if (platform::wait_readable(s, pause_ms) > 0) return elapsed();
  }
  return -1;
}

int hold_port(int port) {
  const platform::socket_t s = testsys::bind_port(port, true);
  if (s != platform::kInvalidSocket && platform::listen_socket(s, 1) == 0) return static_cast<int>(s);
  if (s != platform::kInvalidSocket) platform::close_socket(s);
  return -1;
}

bool port_bindable(int port, bool reuse) {
  const platform::socket_t s = testsys::bind_port(port, reuse);
  if (s != platform::kInvalidSocket) platform::close_socket(s);
  return s != platform::kInvalidSocket;
}

namespace {

// True when [::1]:port is free, or the machine has no IPv6 loopback.
bool port_free6(int port) {
  const platform::socket_t s = platform::tcp6_socket();
  if (s == platform::kInvalidSocket) return true;
  platform::set_reuse_address(s);
  const bool bound = platform::bind_loopback6(s, static_cast<std::uint16_t>(port)) == 0;
  const int error = errno;
  platform::close_socket(s);
  return bound || error == EADDRNOTAVAIL || error == EAFNOSUPPORT;
}

}  // namespace

int reserve_ports(int count) {
  // Each process starts elsewhere, so that test programs running at once
  // rarely meet; a port something else holds moves the search on.
  static int next = 20000 + testsys::process_id() % 500 * 20;
  for (int tries = 0; tries < 500; ++tries) {
    const int first = next;
    next = next + count > 30000 ? 20000 : next + count;
    bool free = true;
    for (int p = first; free && p < first + count; ++p) free = port_bindable(p) && port_free6(p);
    if (free) return first;
  }
  return 0;
}

// ---------------------------------------------------------------- programs

std::string program(const std::string& name) { return std::string(VEXO_BUILD_DIR) + "/" + name; }

namespace {

// A file of its own beside the working folder, for a program's output.
std::string output_file() {
  static std::atomic<int> serial{0};
  const std::string name = "vexo_run_" + std::to_string(testsys::process_id()) + "_" + std::to_string(serial++);
  return (fs::temp_directory_path() / (name + ".out")).string();
}

// Starts argv with the extra environment ("NAME=value"), which is this
// process's while the program starts.
std::unique_ptr<testsys::Process> start(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                                        const std::string& out) {
  std::vector<std::pair<std::string, std::string>> saved;
  for (const std::string& e : env) {
    const std::string name = e.substr(0, e.find('='));
    const char* old = std::getenv(name.c_str());
    saved.emplace_back(name, old != nullptr ? std::string("=") + old : "");
    testsys::set_env(name.c_str(), e.substr(name.size() + 1).c_str());
  }
  auto p = std::make_unique<testsys::Process>(argv, out);
  for (auto it = saved.rbegin(); it != saved.rend(); ++it) {
    testsys::set_env(it->first.c_str(), it->second.empty() ? nullptr : it->second.c_str() + 1);
  }
  return p;
}

}  // namespace

Run run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  const std::string out = output_file();
  Run r;
  if (auto p = start(argv, env, out); p->started()) r.rc = p->wait();
  r.out = read_file(out);
  std::error_code ec;
  fs::remove(out, ec);
  return r;
}

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& env)
    : out_(output_file()), process_(start(argv, env, out_)) {}

Child::~Child() {
  stop();
  std::error_code ec;
  fs::remove(out_, ec);
}

std::string Child::output() { return read_file(out_); }

bool Child::wait_for(const std::string& needle, int timeout_ms, int count) {
  return wait_until([&] { return count_of(output(), needle) >= count; }, timeout_ms);
}

int Child::stop() {
  // A signal's end shows as 128 + its number.
  const int code = process_->stop();
  return code >= 128 ? -1 : code;
}

Run init_workdir(const std::string& dir, const std::string& scanner, const std::vector<std::string>& extra,
                 const std::string& url) {
  std::vector<std::string> argv = {program("vexoctl"), "init-workdir", dir, "--scanner", scanner, "--mgmt-url", url};
  argv.insert(argv.end(), extra.begin(), extra.end());
  return run(argv);
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
    if (c->type == XML_ELEMENT_NODE && xmlStrEqual(c->name, BAD_CAST name)) return c;
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
  return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: " + loc +
         "\r\nContent-Length: " + std::to_string(length) +
         "\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: " +
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
  testsys::set_env("APPDATA", appdata.c_str());
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
  testsys::set_env("APPDATA", nullptr);
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
