#include "rd_core/aes.h"

#include <openssl/evp.h>

#include <climits>
#include <memory>

#include "common/openssl_ptr.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;

namespace {

int aes_ecb(bool encrypt, std::span<const std::uint8_t> key, std::span<const std::uint8_t> in,
            std::vector<std::uint8_t>* out) {
  out->clear();
  if (key.size() != 32 || in.empty() || in.size() > static_cast<std::size_t>(INT_MAX - 32)) return kFailed;
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  if (!ctx || EVP_CipherInit_ex(ctx.get(), EVP_aes_256_ecb(), nullptr, key.data(), nullptr, encrypt ? 1 : 0) != 1) {
    return kFailed;
  }
  std::vector<std::uint8_t> buf(in.size() + 32);
  int n1 = 0, n2 = 0;
  if (EVP_CipherUpdate(ctx.get(), buf.data(), &n1, in.data(), static_cast<int>(in.size())) != 1) return kFailed;
  if (EVP_CipherFinal_ex(ctx.get(), buf.data() + n1, &n2) != 1) return kFailed;
  buf.resize(static_cast<std::size_t>(n1 + n2));
  *out = std::move(buf);
  return 0;
}
}  // namespace

int aes_encrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out) {
  return aes_ecb(true, key, in, out);
}

int aes_decrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out) {
  return aes_ecb(false, key, in, out);
}
