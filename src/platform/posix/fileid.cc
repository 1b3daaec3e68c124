#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/platform.h"
#include "platform/unique_handle.h"

namespace platform {

int file_identity(const std::string& path, bool create_new, FileIdentity* out) {
  *out = FileIdentity{};
  int flags = create_new ? (O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC) : (O_RDONLY | O_CLOEXEC);
  UniqueFd fd(::open(path.c_str(), flags, 0600));
  if (!fd) return -1;
  struct stat st {};
  struct statfs fs {};
  if (::fstat(fd.get(), &st) != 0 || ::fstatfs(fd.get(), &fs) != 0) {
    int saved = errno;
    fd.reset();
    errno = saved;
    return -1;
  }
  // The file system's identifier, not st_dev: a device number can change
  // from one boot to the next (LVM, btrfs), the file system's id does not.
  int words[2];
  static_assert(sizeof words == sizeof fs.f_fsid);
  std::memcpy(words, &fs.f_fsid, sizeof words);
  const auto ino = static_cast<unsigned long long>(st.st_ino);
  out->volume_serial = fold_fsid(words);
  out->index_high = static_cast<unsigned long>(ino >> 32);
  out->index_low = static_cast<unsigned long>(ino & 0xffffffffULL);
  return 0;
}

}  // namespace platform
