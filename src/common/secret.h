// Secret: the one owner for key material and passwords. It holds bytes like a
// std::string and cleanses them (OPENSSL_cleanse) when it is cleared, assigned
// over or destroyed, so a secret never outlives its use in freed memory.
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
  // Takes over text and leaves it empty; no plain copy stays behind.
  static Secret adopt(std::string&& text);
  ~Secret() { clear(); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;

  // Replaces the contents; the old bytes are cleansed first.
  void assign(std::string_view bytes);
  void assign(const void* data, std::size_t len) {
    assign(std::string_view(static_cast<const char*>(data), len));
  }
  // Appends; if the buffer must grow, the old buffer is cleansed before it is freed.
  void append(std::string_view bytes);
  // Cleanses and empties.
  void clear();
  // Sets the size to n zero bytes (cleansing the old contents), for writers
  // that fill the buffer through data().
  void resize(std::size_t n);

  char* data() { return s_.data(); }
  const char* data() const { return s_.data(); }
  const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(s_.data()); }
  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(s_.data()); }
  std::size_t size() const { return s_.size(); }
  bool empty() const { return s_.empty(); }
  std::string_view view() const { return s_; }
  const char* c_str() const { return s_.c_str(); }

 private:
  std::string s_;
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
