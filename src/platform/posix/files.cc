#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/paths.h"
#include "platform/platform.h"
#include "platform/shared.h"
#include "platform/unique_handle.h"

namespace platform {

void close_fd(int fd) {
  if (fd >= 0) ::close(fd);
}

bool file_exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

bool file_readable(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

int read_file(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return -1;
  std::ostringstream ss;
  ss << in.rdbuf();
  if (in.bad()) return -1;
  *out = ss.str();
  return 0;
}

namespace sys {
void kill_self() {
  ::raise(SIGKILL);
  ::_exit(137);
}
}  // namespace sys

namespace {
// Group and other bits are never granted, whatever a caller asks.
mode_t owner_only(unsigned mode) { return static_cast<mode_t>(mode & 0700); }
}  // namespace

std::FILE* open_file(const std::string& path, const char* mode) {
  if (mode == nullptr || (mode[0] != 'r' && mode[0] != 'w' && mode[0] != 'a')) {
    errno = EINVAL;
    return nullptr;
  }
  const bool update = std::strchr(mode, '+') != nullptr;
  int flags = O_CLOEXEC | (update ? O_RDWR : (mode[0] == 'r' ? O_RDONLY : O_WRONLY));
  if (mode[0] == 'w') flags |= O_CREAT | O_TRUNC;
  if (mode[0] == 'a') flags |= O_CREAT | O_APPEND;
  UniqueFd fd(::open(path.c_str(), flags, 0600));
  if (!fd) return nullptr;
  std::FILE* f = ::fdopen(fd.get(), mode);
  if (f != nullptr) fd.release();
  return f;
}

bool folder_writable_by_others(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

int write_file_atomic(const std::string& path, const void* data, std::size_t len, unsigned mode,
                      Durability durability) {
  const WriteFault fault = sys::write_fault();
  std::string tmp = path + ".tmpXXXXXX";
  UniqueFd fd(fault == WriteFault::kOpen ? -1 : ::mkstemp(tmp.data()));
  if (!fd) return -1;
  crash_point();
  // From here the temporary file exists: every failure removes it again.
  auto fail = [&tmp, &fd] {
    int saved = errno;
    fd.reset();
    ::unlink(tmp.c_str());
    errno = saved;
    return -2;
  };
  if (fault == WriteFault::kWrite) {
    errno = EIO;
    return fail();
  }
  const char* p = static_cast<const char*>(data);
  std::size_t left = len;
  while (left > 0) {
    ssize_t n = ::write(fd.get(), p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail();
    }
    p += n;
    left -= static_cast<std::size_t>(n);
    crash_point();
  }
  if (::fchmod(fd.get(), owner_only(mode)) != 0 || (durability == Durability::kFlushed && ::fsync(fd.get()) != 0) ||
      ::close(fd.release()) != 0) {
    return fail();
  }
  crash_point();
  if (::rename(tmp.c_str(), path.c_str()) != 0) return fail();
  crash_point();
  return 0;
}

int write_file_atomic_stream(const std::string& path, const std::function<bool(std::FILE*)>& write, unsigned mode) {
  std::string tmp = path + ".tmpXXXXXX";
  int fd = ::mkstemp(tmp.data());
  if (fd < 0) return -1;
  std::FILE* f = ::fdopen(fd, "w+");
  if (f == nullptr) {
    ::close(fd);
    ::unlink(tmp.c_str());
    return -1;
  }
  crash_point();
  bool ok = write(f) && std::fflush(f) == 0 && std::ferror(f) == 0;
  crash_point();
  ok = ok && ::fchmod(fd, owner_only(mode)) == 0 && ::fsync(fd) == 0;
  ok = std::fclose(f) == 0 && ok;
  crash_point();
  if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
    ::unlink(tmp.c_str());
    return -1;
  }
  crash_point();
  return 0;
}

int rename_over(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : -1;
}

bool is_absolute_path(const std::string& path) { return !path.empty() && path[0] == '/'; }

void remove_stale_temporaries(const std::string& dir) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    const std::size_t at = name.rfind(".tmp");
    // mkstemp's six characters after ".tmp", and nothing more.
    if (at != std::string::npos && at > 0 && name.size() == at + 10 && entry.is_regular_file(ec)) {
      std::filesystem::remove(entry.path(), ec);
    }
  }
}

int make_dirs(const std::string& path) {
  if (path.empty()) return -1;
  std::string cur;
  std::size_t pos = 0;
  while (pos != std::string::npos) {
    pos = path.find('/', pos + 1);
    cur = path.substr(0, pos);
    if (cur.empty()) continue;
    if (::mkdir(cur.c_str(), 0700) != 0 && errno != EEXIST) return -1;
  }
  struct stat st {};
  return (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) ? 0 : -1;
}

long long file_access_time(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.st_atime);
}

long long file_size(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.st_size);
}

long long file_modify_time_ns(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
}

std::string appdata_dir() {
  for (const char* var : {"APPDATA", "XDG_DATA_HOME"}) {
    const char* v = std::getenv(var);
    if (v && *v) return v;
  }
  const char* home = std::getenv("HOME");
  if (home && *home) return std::string(home) + "/.local/share";
  return "";
}

}  // namespace platform
