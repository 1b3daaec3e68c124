// Secret: the one owner for key material and passwords. It holds bytes like a
// std::string and cleanses them (OPENSSL_cleanse) when it is cleared, assigned
// over or destroyed, so a secret never outlives its use in freed memory. Its
// bytes live in pages of their own (platform/pages.h), left out of core dumps
// and locked in memory where the process's limit allows, so they reach
// neither a core file nor swap; there is no short-string buffer inside the
// object that would escape this.
//
// Copies are refused; move it instead. Thread-safety: one thread at a time.
#ifndef VEXO_COMMON_SECRET_H
#define VEXO_COMMON_SECRET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string_view bytes) { assign(bytes); }
  // Takes over text's bytes and cleanses text, leaving it empty; no plain
  // copy stays behind.
  static Secret adopt(std::string&& text);
  ~Secret() { clear(); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;

  // Replaces the contents; the old bytes are cleansed first.
  void assign(std::string_view bytes);
  void assign(const void* data, std::size_t len) { assign(std::string_view(static_cast<const char*>(data), len)); }
  // Appends; if the buffer must grow, the old buffer is cleansed before it is freed.
  void append(std::string_view bytes);
  // Cleanses and empties.
  void clear();
  // Sets the size to n zero bytes (cleansing the old contents), for writers
  // that fill the buffer through data().
  void resize(std::size_t n);

  // The bytes, followed by a NUL. Never null; an empty Secret's data() must
  // not be written.
  char* data() { return data_ != nullptr ? data_ : empty_; }
  const char* data() const { return data_ != nullptr ? data_ : empty_; }
  const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(data()); }
  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(data()); }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::string_view view() const { return std::string_view(data(), size_); }
  const char* c_str() const { return data(); }

 private:
  // Makes room for n bytes and the NUL, keeping the contents.
  void grow(std::size_t n);
  // Cleanses and unmaps the pages.
  void release();

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;  // bytes mapped at data_
  char empty_[1] = {};
};

// Cleanses len bytes at p (OPENSSL_cleanse). For buffers that cannot be a Secret.
void cleanse(void* p, std::size_t len);

// A fixed-size key (passwords, AES keys) that is cleansed when it ends. It is
// a std::array, so it goes wherever a key array is expected.
template <std::size_t N>
struct SecretArray : std::array<std::uint8_t, N> {
  ~SecretArray() { cleanse(this->data(), N); }
};

#endif  // VEXO_COMMON_SECRET_H
