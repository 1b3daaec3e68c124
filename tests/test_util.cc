#include "test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "common/rd_log.h"
#include "platform/platform.h"
#include "vexo.h"

namespace testutil {

WorkDir::WorkDir() {
  char tmpl[] = "/tmp/vexo_test_XXXXXX";
  if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
  old_cwd_ = std::filesystem::current_path().string();
  std::filesystem::current_path(path_);
}

WorkDir::~WorkDir() {
  std::error_code ec;
  std::filesystem::current_path(old_cwd_, ec);
  std::filesystem::remove_all(path_, ec);
}

PipeReader::PipeReader(const std::string& dir) : path_(dir + "/qdx.win.002") {
  if (mkfifo(path_.c_str(), 0600) != 0) throw std::runtime_error("mkfifo failed");
  fd_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd_ < 0 || ::pipe(stop_fd_) != 0) throw std::runtime_error("fifo open failed");
  platform::set_status_pipe_path(path_);
  thread_ = std::thread([this] {
    char buf[4096];
    for (;;) {
      pollfd fds[2] = {{fd_, POLLIN, 0}, {stop_fd_[0], POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) continue;
      if (fds[0].revents & POLLIN) {
        ssize_t n = ::read(fd_, buf, sizeof buf);
        if (n > 0) {
          std::lock_guard<std::mutex> lock(mutex_);
          data_.append(buf, static_cast<std::size_t>(n));
          continue;
        }
      }
      if (fds[1].revents & POLLIN) return;
      if (fds[0].revents & POLLHUP) ::usleep(2000);  // no writer at the moment
    }
  });
}

PipeReader::~PipeReader() {
  rd_log_reset_for_test();  // closes the library's write end
  if (stop_fd_[1] >= 0) (void)::write(stop_fd_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  ::close(fd_);
  ::close(stop_fd_[0]);
  ::close(stop_fd_[1]);
  ::unlink(path_.c_str());
  platform::set_status_pipe_path("");
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

int mode_of(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
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
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  if (s < 0) return "";
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(s);
    return "";
  }
  std::size_t off = 0;
  while (off < request.size()) {
    ssize_t n = ::send(s, request.data() + off, request.size() - off, MSG_NOSIGNAL);
    if (n <= 0) break;
    off += static_cast<std::size_t>(n);
  }
  // Half-close first, so the TIME_WAIT state lands on this side and the
  // service's port can be bound again at once by the next test.
  ::shutdown(s, SHUT_WR);
  std::string answer = read_until_close(s, timeout_ms);
  ::close(s);
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
    pollfd p{s, POLLIN, 0};
    if (::poll(&p, 1, timeout_ms) <= 0) break;
    ssize_t n = ::recv(s, buf, sizeof buf, 0);
    if (n <= 0) break;
    answer.append(buf, static_cast<std::size_t>(n));
  }
  return answer;
}

bool wait_until(const std::function<bool()>& done, int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string last_status() {
  char buf[VEXO_STATUS_LEN] = {};
  Get_Last_RDservice_Status(buf);
  return buf;
}

}  // namespace testutil
