#include "test_util.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "common/rd_log.h"
#include "platform/platform.h"
#include "vexo.h"

namespace testutil {

WorkDir::WorkDir() {
  namespace fs = std::filesystem;
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
      path_ = fs::canonical(base / name).string();
    }
  }
  old_cwd_ = fs::current_path().string();
  fs::current_path(path_);
}

WorkDir::~WorkDir() {
  std::error_code ec;
  std::filesystem::current_path(old_cwd_, ec);
  std::filesystem::remove_all(path_, ec);
}

PipeReader::PipeReader(const std::string& dir) : old_path_(platform::status_pipe_path()) {
  server_ = std::make_unique<testsys::PipeServer>(dir, [this](const char* data, std::size_t n) {
    std::lock_guard<std::mutex> lock(mutex_);
    data_.append(data, n);
  });
  path_ = server_->path();
  platform::set_status_pipe_path(path_);
}

PipeReader::~PipeReader() {
  rd_log_reset_for_test();  // closes the library's write end
  server_.reset();
  platform::set_status_pipe_path(old_path_);
}

std::string PipeReader::received() {
  std::lock_guard<std::mutex> lock(mutex_);
  return data_;
}

bool PipeReader::wait_for(const std::string& needle, int timeout_ms) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (std::chrono::steady_clock::now() < end) {
    if (received().find(needle) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return received().find(needle) != std::string::npos;
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

std::string http_exchange(int port, const std::string& request, int timeout_ms) {
  const platform::socket_t s = testsys::connect_loopback(port);
  if (s == platform::kInvalidSocket) return "";
  std::size_t off = 0;
  while (off < request.size()) {
    long n = platform::send_socket(s, request.data() + off, request.size() - off);
    if (n <= 0) break;
    off += static_cast<std::size_t>(n);
  }
  // Half-close first, so the TIME_WAIT state lands on this side and the
  // service's port can be bound again at once by the next test.
  testsys::shutdown_send(s);
  std::string answer = read_until_close(s, timeout_ms);
  platform::close_socket(s);
  return answer;
}

int count_of(const std::string& text, const std::string& needle) {
  int n = 0;
  for (std::size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1)) ++n;
  return n;
}

std::string read_until_close(int s, int timeout_ms) {
  std::string answer;
  char buf[65536];
  for (;;) {
    if (platform::wait_readable(s, timeout_ms) <= 0) break;
    long n = platform::recv_socket(s, buf, sizeof buf);
    if (n <= 0) break;
    answer.append(buf, static_cast<std::size_t>(n));
  }
  return answer;
}

std::string tool_path(const std::string& name) { return std::string(VEXO_BUILD_DIR) + "/" + name; }

int run_tool(const std::string& name, const std::vector<std::string>& args, const std::string& out_file) {
  std::vector<std::string> argv{tool_path(name)};
  argv.insert(argv.end(), args.begin(), args.end());
  testsys::Process p(argv, out_file);
  return p.started() ? p.wait() : -1;
}

bool wait_for_text(const std::string& path, const std::string& needle, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (read_file(path).find(needle) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string last_status() {
  char buf[VEXO_STATUS_LEN] = {};
  Get_Last_RDservice_Status(buf);
  return buf;
}

}  // namespace testutil
