#include "common/secret.h"

#include <openssl/crypto.h>

#include <utility>

void cleanse(void* p, std::size_t len) {
  if (p != nullptr && len > 0) OPENSSL_cleanse(p, len);
}

namespace {
// Cleanses the whole allocation, the bytes past size() included.
void cleanse_string(std::string* s) {
  if (s->capacity() > 0) cleanse(s->data(), s->capacity());
  s->clear();
}
}  // namespace

Secret Secret::adopt(std::string&& text) {
  Secret out;
  out.s_ = std::move(text);
  // A short string lives inside the object, so moving it copied it: wipe
  // what is left in the source, whatever its storage.
  cleanse_string(&text);
  return out;
}

Secret::Secret(Secret&& other) noexcept : s_(std::move(other.s_)) { cleanse_string(&other.s_); }

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this != &other) {
    clear();
    s_ = std::move(other.s_);
    cleanse_string(&other.s_);
  }
  return *this;
}

void Secret::assign(std::string_view bytes) {
  clear();
  s_.reserve(bytes.size());
  s_.assign(bytes.data(), bytes.size());
}

void Secret::append(std::string_view bytes) {
  if (s_.size() + bytes.size() > s_.capacity()) {
    std::string grown;
    grown.reserve((s_.size() + bytes.size()) * 2);
    grown.append(s_);
    cleanse_string(&s_);
    s_ = std::move(grown);
  }
  s_.append(bytes.data(), bytes.size());
}

void Secret::clear() { cleanse_string(&s_); }

void Secret::resize(std::size_t n) {
  clear();
  s_.resize(n, '\0');
}
