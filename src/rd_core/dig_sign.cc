#include "rd_core/dig_sign.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <climits>

#include "common/rd_log.h"
#include "common/openssl_ptr.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;

int make_keys(std::string_view private_key_pem, PkeyPtr* key) {
  if (key == nullptr) {
    RD_ERROR("skey pointer is null");
    return kFailed;
  }
  key->reset();
  if (private_key_pem.empty() || private_key_pem.size() > static_cast<std::size_t>(INT_MAX)) {
    RD_ERROR("bio is null");
    return kFailed;
  }
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(private_key_pem.data(), static_cast<int>(private_key_pem.size())));
  if (!bio) {
    RD_ERROR("bio is null");
    return kFailed;
  }
  PkeyPtr read(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  if (!read) {
    RD_ERROR("rsa_privatekey is null");
    return kFailed;
  }
  // Only an RSA key makes the signature UIDAI verifies.
  if (EVP_PKEY_get_base_id(read.get()) != EVP_PKEY_RSA) {
    RD_ERROR("EVP_PKEY_assign_RSA (1) failed, error 0x%lx\n\n", ERR_get_error());
    return kFailed;
  }
  *key = std::move(read);
  return 0;
}

int sign_it(std::span<const std::uint8_t> message, std::vector<std::uint8_t>* signature, EVP_PKEY* key) {
  if (signature != nullptr) signature->clear();
  if (message.empty() || signature == nullptr || key == nullptr) {
    RD_ERROR("sign_it invalid parameter passed");
    return kFailed;
  }
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx) {
    RD_ERROR("EVP_MD_CTX_create failed, error 0x%lx\n", ERR_get_error());
    return kFailed;
  }
  const EVP_MD* md = EVP_get_digestbyname("SHA256");
  if (md == nullptr) {
    RD_ERROR("EVP_get_digestbyname failed, error 0x%lx\n", ERR_get_error());
    return kFailed;
  }
  if (EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) {
    RD_ERROR("EVP_DigestInit_ex failed, error 0x%lx\n", ERR_get_error());
    return kFailed;
  }
  if (EVP_DigestSignInit(ctx.get(), nullptr, md, nullptr, key) != 1) {
    RD_ERROR("EVP_DigestSignInit failed, error 0x%lx\n", ERR_get_error());
    return kFailed;
  }
  if (EVP_DigestSignUpdate(ctx.get(), message.data(), message.size()) != 1) {
    RD_ERROR("EVP_DigestSignUpdate failed, error 0x%lx\n", ERR_get_error());
    return kFailed;
  }
  std::size_t len = 0;
  if (EVP_DigestSignFinal(ctx.get(), nullptr, &len) != 1) {
    RD_ERROR("EVP_DigestSignFinal failed (1), error 0x%lx\n", ERR_get_error());
    return kFailed;
  }
  if (len == 0) {
    RD_ERROR("EVP_DigestSignFinal failed (2), error 0x%lx\n", ERR_get_error());
    return kFailed;
  }
  std::vector<std::uint8_t> sig(len);
  int rc = EVP_DigestSignFinal(ctx.get(), sig.data(), &len);
  if (rc != 1) {
    RD_ERROR("EVP_DigestSignFinal failed (3), return code %d, error 0x%lx\n", rc, ERR_get_error());
    return kFailed;
  }
  sig.resize(len);
  *signature = std::move(sig);
  return 0;
}
