#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/platform.h"

namespace platform {

int file_identity(const std::string& path, bool create_new, FileIdentity* out) {
  *out = FileIdentity{};
  int flags = create_new ? (O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC) : (O_RDONLY | O_CLOEXEC);
  int fd = ::open(path.c_str(), flags, 0600);
  if (fd < 0) return -1;
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
  }
  ::close(fd);
  const auto ino = static_cast<unsigned long long>(st.st_ino);
  out->volume_serial = static_cast<unsigned long>(st.st_dev);
  out->index_high = static_cast<unsigned long>(ino >> 32);
  out->index_low = static_cast<unsigned long>(ino & 0xffffffffULL);
  return 0;
}

}  // namespace platform
