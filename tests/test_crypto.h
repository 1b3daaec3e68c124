// OpenSSL helpers shared by the tests: they open what the library encrypts and
// verify what it signs, independently of the library's own crypto code.
#ifndef VEXO_TESTS_TEST_CRYPTO_H
#define VEXO_TESTS_TEST_CRYPTO_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/openssl_ptr.h"
#include "rd_core/uidai_certs.h"

namespace testcrypto {

using Bytes = std::vector<std::uint8_t>;

// A key pair with a self-signed certificate (PEM).
struct KeyAndCert {
  PkeyPtr key;
  std::string cert_pem;
};

// A new RSA-2048 key and a self-signed v3 certificate (O=UIDAI, CN=cn,
// SHA-256) valid from not_before to not_after ("YYYYMMDDHHMMSSZ"): a test
// UIDAI certificate the library takes as plausible while it is valid.
KeyAndCert make_self_signed(const char* cn, const char* not_before, const char* not_after, long serial = 7);
// The same certificate form over an existing key, with organisation o.
std::string make_cert_pem(EVP_PKEY* key, const char* cn, const char* not_before, const char* not_after, long serial = 1,
                          const char* o = "UIDAI");
// A PEM certificate and its public key, or null.
X509Ptr cert_of_pem(const std::string& pem);
PkeyPtr public_key_of_cert(const std::string& pem);
// A PEM private key, or null.
PkeyPtr private_key_of_pem(const std::string& pem);
// The key as PEM: PKCS#8, or the traditional RSA form.
std::string private_key_pem(EVP_PKEY* key, bool pkcs8);

// RSA signature over SHA-256 of message.
bool rsa_sha256_verify(EVP_PKEY* key, std::string_view message, const Bytes& sig);

// Opens an encrypted Pid: Skey unwrapped with the UIDAI key, Data opened with
// AES-256-GCM (IV and AAD from the time stamp in its first 19 bytes), and Hmac
// checked to be the SHA-256 of the plain Pid. *ts receives the time stamp.
// nullopt when any step fails.
std::optional<Bytes> open_pid(EVP_PKEY* uidai_key, const std::string& skey, const std::string& data,
                              const std::string& hmac, std::string* ts);

// Installs pem as the working-folder copy of which, vouched for by its stored
// checksum, as the Management client does.
void install_uidai_cert(UidaiCert which, const std::string& pem);

}  // namespace testcrypto

#endif  // VEXO_TESTS_TEST_CRYPTO_H
