// Move-only owners of operating-system descriptors: UniqueFd for files and
// pipes, UniqueSocket for sockets. Each closes what it holds when it ends, so
// error paths close nothing by hand.
//
// Thread-safety: an owner is used by one thread at a time.
#ifndef VEXO_PLATFORM_UNIQUE_HANDLE_H
#define VEXO_PLATFORM_UNIQUE_HANDLE_H

#include <utility>

#include "platform/platform.h"

namespace platform {

// Traits: invalid() is the empty value, close(h) releases a valid handle.
template <typename Traits>
class UniqueHandle {
 public:
  using handle_type = decltype(Traits::invalid());

  UniqueHandle() = default;
  explicit UniqueHandle(handle_type h) : h_(h) {}
  ~UniqueHandle() { reset(); }
  UniqueHandle(const UniqueHandle&) = delete;
  UniqueHandle& operator=(const UniqueHandle&) = delete;
  UniqueHandle(UniqueHandle&& other) noexcept : h_(other.release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  handle_type get() const { return h_; }
  bool valid() const { return h_ != Traits::invalid(); }
  explicit operator bool() const { return valid(); }
  // Gives up ownership without closing; the handle is returned to the caller.
  handle_type release() { return std::exchange(h_, Traits::invalid()); }
  // Closes the current handle (if any) and takes h.
  void reset(handle_type h = Traits::invalid()) {
    handle_type old = std::exchange(h_, h);
    if (old != Traits::invalid()) Traits::close(old);
  }

 private:
  handle_type h_ = Traits::invalid();
};

struct FdTraits {
  static constexpr int invalid() { return -1; }
  static void close(int fd) { close_fd(fd); }
};
struct SocketTraits {
  static constexpr socket_t invalid() { return kInvalidSocket; }
  static void close(socket_t s) { close_socket(s); }
};

using UniqueFd = UniqueHandle<FdTraits>;
using UniqueSocket = UniqueHandle<SocketTraits>;

}  // namespace platform

#endif  // VEXO_PLATFORM_UNIQUE_HANDLE_H
