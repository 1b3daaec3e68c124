#include "common/hash.h"

#include <openssl/evp.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <vector>

#include "common/openssl_ptr.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;

namespace {

int file_digest_bytes(const EVP_MD* md, const std::string& path, std::vector<std::uint8_t>* out) {
  out->clear();
  std::ifstream in(path, std::ios::binary);
  if (!in) return kFailed;
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) return kFailed;
  char buf[8192];
  while (in) {
    in.read(buf, sizeof buf);
    if (in.gcount() > 0 && EVP_DigestUpdate(ctx.get(), buf, static_cast<std::size_t>(in.gcount())) != 1) return kFailed;
  }
  if (in.bad()) return kFailed;
  unsigned char md_out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(ctx.get(), md_out, &len) != 1) return kFailed;
  out->assign(md_out, md_out + len);
  return 0;
}

int file_digest(const EVP_MD* md, const std::string& path, std::string* hex) {
  hex->clear();
  std::vector<std::uint8_t> bytes;
  if (file_digest_bytes(md, path, &bytes) != 0) return kFailed;
  *hex = hex_lower(bytes);
  return 0;
}
}  // namespace

Sha256Digest sha256(std::span<const std::uint8_t> data) {
  Sha256Digest d{};
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), d.data(), &len, EVP_sha256(), nullptr);
  return d;
}

Sha256Digest sha256(std::string_view text) {
  return sha256(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

std::string hex_lower(std::span<const std::uint8_t> bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (std::uint8_t b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 0x0F];
  }
  return out;
}

int sha256_file(const std::string& path, Sha256Digest* out) {
  out->fill(0);
  std::vector<std::uint8_t> bytes;
  if (file_digest_bytes(EVP_sha256(), path, &bytes) != 0 || bytes.size() != out->size()) return kFailed;
  std::copy(bytes.begin(), bytes.end(), out->begin());
  return 0;
}

int Get_Sha2(const std::string& path, std::string* hex) { return file_digest(EVP_sha256(), path, hex); }
int MD5_Generate(const std::string& path, std::string* hex) { return file_digest(EVP_md5(), path, hex); }
