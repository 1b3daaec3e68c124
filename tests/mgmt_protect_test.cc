// Management message protection, opened again here with OpenSSL and the
// master key agreed with the server: what the library seals, the test unseals.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <string>
#include <vector>

#include "rds_hash.h"
#include "common/openssl_ptr.h"
#include "platform/platform.h"
#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes kMasterKey = {0xa2, 0xea, 0xa7, 0x94, 0x79, 0x9a, 0xdb, 0xb8, 0x9d, 0x44, 0x9d,
                          0xe5, 0x60, 0x73, 0x1f, 0x13, 0x13, 0x7c, 0x5f, 0x07, 0x9b, 0xd7,
                          0x4c, 0x1d, 0x32, 0x93, 0x18, 0x63, 0x37, 0x28, 0xc2, 0x9f};

Bytes ecb_decrypt(const Bytes& key, const Bytes& in) {
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  Bytes out(in.size() + 16);
  int n = 0, fin = 0;
  EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_ecb(), nullptr, key.data(), nullptr);
  EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
  EVP_DecryptUpdate(ctx.get(), out.data(), &n, in.data(), static_cast<int>(in.size()));
  EVP_DecryptFinal_ex(ctx.get(), out.data() + n, &fin);
  out.resize(static_cast<std::size_t>(n + fin));
  return out;
}

Bytes b64(const std::string& text) {
  Bytes out;
  EXPECT_EQ(rds_hmac_Base64Decode(text, &out), 0) << text;
  return out;
}

Bytes sha(const std::string& text) {
  Bytes out(32);
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), out.data());
  return out;
}

// The key is built at run time from tables; its 32 bytes never stand whole in
// the library, forwards or backwards.
TEST(RdsHash, MasterKeyIsNotInTheLibraryFile) {
  const std::string lib =
      testutil::read_file(std::string(VEXO_BUILD_DIR) + "/" + platform::shared_library_name("Vexo.dll"));
  ASSERT_GT(lib.size(), 100000u);
  const std::string key(kMasterKey.begin(), kMasterKey.end());
  std::string reversed(key.rbegin(), key.rend());
  // No run of 8 bytes either: an optimiser that folds the tables would leave
  // the key as 8-byte immediates.
  for (std::size_t at = 0; at + 8 <= key.size(); ++at) {
    EXPECT_EQ(lib.find(key.substr(at, 8)), std::string::npos) << at;
    EXPECT_EQ(lib.find(reversed.substr(at, 8)), std::string::npos) << at;
  }
}

TEST(RdsHash, ProtectSealsTheHashUnderAFreshSessionKey) {
  const std::string input = "SERIAL-A@2024-05-01T13:45:09";
  std::string hmac1, skey1, hmac2, skey2;
  ASSERT_EQ(rds_hmac_protect(input.data(), input.size(), 1, &hmac1, &skey1), 0);
  ASSERT_EQ(rds_hmac_protect(input.data(), input.size(), 1, &hmac2, &skey2), 0);
  // Same input within the same second: a new session key each time.
  EXPECT_NE(skey1, skey2);
  for (const auto& [hmac, skey] : {std::pair{hmac1, skey1}, std::pair{hmac2, skey2}}) {
    const Bytes session = ecb_decrypt(kMasterKey, b64(skey));
    ASSERT_EQ(session.size(), 32u);
    EXPECT_EQ(ecb_decrypt(session, b64(hmac)), sha(input));
  }
  // Pairs that verify and altered ones that do not go through the reference server's tests.
  int ok = -1;
  EXPECT_EQ(rds_hmac_unprotect("not base64!", skey1, 1, input.data(), input.size(), &ok), -1);
}

// RD_DRT of a request, and the response's RD_DRT bound to it.
TEST(RdsHash, ResponseDrtIsBoundToItsRequest) {
  const std::string request = "{\"device\":{\"slNo\":\"A\"},\"ts\":\"2024-05-01T13:45:09\"}";
  const std::string response = "{\"respStatus\":\"y\",\"nextAction\":[\"NO_ACTION_NECESSARY\"]}";
  std::string drt;
  ASSERT_EQ(rds_hmac_sign(request.data(), request.size(), 1, &drt), 0);
  // The reference server's tests verify it, and refuse another body's.
  EXPECT_EQ(ecb_decrypt(kMasterKey, b64(drt)), sha(request));

  std::string response_drt;
  ASSERT_EQ(rds_hmac_sign_response(response.data(), response.size(), drt, &response_drt), 0);
  // The response's hash, then the request's, under the master key.
  Bytes want = sha(response);
  for (std::uint8_t b : sha(request)) want.push_back(b);
  EXPECT_EQ(ecb_decrypt(kMasterKey, b64(response_drt)), want);

  // Changed, empty and foreign ones are refused through the transport's RD_DRT checks.
}

// Padding of one and two characters is decoded above (32 and 64 bytes), the
// decoder's refusals by its own fuzz test; the wrappers refuse what they cannot take.
TEST(RdsHash, Base64AndAesRefusals) {
  std::string text = "x";
  EXPECT_EQ(rds_hmac_Base64Encode(nullptr, 3, &text), -1);
  const std::uint8_t abc[] = {'A', 'B', 'C'};
  EXPECT_EQ(rds_hmac_Base64Encode(abc, -1, &text), -1);
  EXPECT_EQ(text, "");

  Bytes out{1};
  const std::uint8_t block[48] = {};
  for (std::size_t len : {0u, 17u}) {
    EXPECT_EQ(rds_hmac_aes_encrypt(block, len, kMasterKey.data(), &out), -1) << len;
    EXPECT_TRUE(out.empty());
  }
  EXPECT_EQ(rds_hmac_aes_encrypt(nullptr, 32, kMasterKey.data(), &out), -1);
}

}  // namespace
