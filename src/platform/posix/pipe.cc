#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/shared.h"

namespace platform {

namespace sys {
// The FIFO lives in the user's private runtime folder, which the host names
// through XDG_RUNTIME_DIR; a relative value is invalid by the variable's own
// rules and ignored.
std::string default_status_pipe_path() {
  constexpr char kPipeName[] = "qdx.win.002";
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/" + kPipeName;
  return "/run/user/" + std::to_string(::geteuid()) + "/" + kPipeName;
}
}  // namespace sys

int pipe_open(const std::string& path, int* err) {
  // Non-blocking open fails with ENXIO when nobody reads the FIFO, instead of
  // waiting for a reader forever; O_NOFOLLOW refuses a planted link.
  int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    *err = errno;
    return -1;
  }
  // The checks look at what was opened, so nothing can be swapped in between.
  struct stat st {};
  int failure = 0;
  if (::fstat(fd, &st) != 0) {
    failure = errno;
  } else if (!S_ISFIFO(st.st_mode)) {
    failure = ENOENT;
  } else if (st.st_uid != ::geteuid() || (st.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    failure = EPERM;
  }
  if (failure != 0) {
    ::close(fd);
    *err = failure;
    return -1;
  }
  return fd;
}

int pipe_write(int fd, const void* data, std::size_t len, int* err) {
  // A reader that went away must give EPIPE, not kill the host with SIGPIPE:
  // block the signal for this thread around the write and swallow a pending one.
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &block, &old);
  ssize_t n = ::write(fd, data, len);
  int saved = errno;
  if (n < 0 && saved == EPIPE) {
    timespec zero{0, 0};
    sigtimedwait(&block, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (n < 0 || static_cast<std::size_t>(n) != len) {
    *err = n < 0 ? saved : EIO;
    return -1;
  }
  return 0;
}

void pipe_close(int fd) {
  if (fd >= 0) ::close(fd);
}

}  // namespace platform
