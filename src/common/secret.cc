#include "common/secret.h"

#include <openssl/crypto.h>

#include <cstring>
#include <new>
#include <utility>

#include "platform/pages.h"

void cleanse(void* p, std::size_t len) {
  if (p != nullptr && len > 0) OPENSSL_cleanse(p, len);
}

Secret Secret::adopt(std::string&& text) {
  Secret out(text);
  // The whole allocation, the bytes past size() and a short string's inner
  // buffer included.
  cleanse(text.data(), text.capacity());
  text.clear();
  return out;
}

Secret::Secret(Secret&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this != &other) {
    release();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
  }
  return *this;
}

void Secret::release() {
  if (data_ != nullptr) {
    cleanse(data_, capacity_);
    platform::free_secret_pages(data_, capacity_);
  }
  data_ = nullptr;
  size_ = 0;
  capacity_ = 0;
}

void Secret::grow(std::size_t n) {
  if (data_ != nullptr && n < capacity_) return;
  // Doubling keeps a run of appends linear.
  const std::size_t want = platform::secret_pages_size(n < capacity_ * 2 ? capacity_ * 2 : n + 1);
  char* fresh = static_cast<char*>(platform::alloc_secret_pages(want));
  if (fresh == nullptr) throw std::bad_alloc();
  const std::size_t kept = size_;
  if (kept > 0) std::memcpy(fresh, data_, kept);
  release();
  data_ = fresh;
  size_ = kept;
  capacity_ = want;
}

void Secret::assign(std::string_view bytes) {
  clear();
  if (bytes.empty()) return;
  grow(bytes.size());
  std::memcpy(data_, bytes.data(), bytes.size());
  size_ = bytes.size();
}

void Secret::append(std::string_view bytes) {
  if (bytes.empty()) return;
  grow(size_ + bytes.size());
  std::memcpy(data_ + size_, bytes.data(), bytes.size());
  size_ += bytes.size();
  data_[size_] = '\0';
}

void Secret::clear() { release(); }

void Secret::resize(std::size_t n) {
  clear();
  if (n == 0) return;
  grow(n);
  size_ = n;  // fresh pages are zero-filled
}
