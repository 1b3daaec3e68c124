#include "common/aes.h"

#include <openssl/evp.h>

#include <climits>

#include "common/openssl_ptr.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;

namespace {

// Room for the output of in: the input and one more block.
constexpr std::size_t kBlock = 16;

bool valid(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in) {
  return key.size() == 32 && !in.empty() && in.size() <= static_cast<std::size_t>(INT_MAX) - kBlock;
}

// One pass over in into buf (in.size() + kBlock bytes). The bytes written, or -1.
int aes_ecb(bool encrypt, AesPadding padding, std::span<const std::uint8_t> key, std::span<const std::uint8_t> in,
            unsigned char* buf) {
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  int n1 = 0, n2 = 0;
  const bool ok = ctx &&
                  EVP_CipherInit_ex(ctx.get(), EVP_aes_256_ecb(), nullptr, key.data(), nullptr, encrypt ? 1 : 0) == 1 &&
                  EVP_CIPHER_CTX_set_padding(ctx.get(), padding == AesPadding::kPkcs7 ? 1 : 0) == 1 &&
                  EVP_CipherUpdate(ctx.get(), buf, &n1, in.data(), static_cast<int>(in.size())) == 1 &&
                  EVP_CipherFinal_ex(ctx.get(), buf + n1, &n2) == 1;
  return ok ? n1 + n2 : kFailed;
}

int to_vector(bool encrypt, AesPadding padding, std::span<const std::uint8_t> key, std::span<const std::uint8_t> in,
              std::vector<std::uint8_t>* out) {
  out->clear();
  if (!valid(key, in)) return kFailed;
  std::vector<std::uint8_t> buf(in.size() + kBlock);
  const int n = aes_ecb(encrypt, padding, key, in, buf.data());
  if (n < 0) {
    // What a failed decryption left behind may be part of a plain text.
    cleanse(buf.data(), buf.size());
    return kFailed;
  }
  buf.resize(static_cast<std::size_t>(n));
  *out = std::move(buf);
  return 0;
}

}  // namespace

int aes_encrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out,
                AesPadding padding) {
  return to_vector(true, padding, key, in, out);
}

int aes_decrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out,
                AesPadding padding) {
  return to_vector(false, padding, key, in, out);
}

int aes_decrypt(std::span<const std::uint8_t> key, std::span<const std::uint8_t> in, Secret* out, AesPadding padding) {
  out->clear();
  if (!valid(key, in)) return kFailed;
  Secret buf;
  buf.resize(in.size() + kBlock);
  const int n = aes_ecb(false, padding, key, in, buf.bytes());
  if (n < 0) return kFailed;
  out->assign(buf.data(), static_cast<std::size_t>(n));
  return 0;
}
