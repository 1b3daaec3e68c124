// Encryption of the Pid block for UIDAI and the device's signatures over the
// biometric records.
#ifndef VEXO_RD_CORE_PID_CRYPTO_H
#define VEXO_RD_CORE_PID_CRYPTO_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

// "YYYY-mm-ddTHH:MM:SS" in IST (19 characters). 0, or -1 when the clock fails.
int capture_timestamp(std::string* ts);

// 32 random bytes into key (key_bits 256, key_bytes 32). 0 or -1.
int GenerateSessionKey(int key_bits, int key_bytes, std::uint8_t* key);
// Wraps in with the public key of the UIDAI certificate chosen for env
// (PKCS#1 v1.5). 0, -1, or 240 when the certificate's checksum is wrong.
// ci receives the certificate's expiry "YYYYMMDD".
int uid_rsa_public_encrypt(const std::string& env, std::span<const std::uint8_t> in, std::vector<std::uint8_t>* out,
                           std::string* ci);
// New session key, wrapped and Base64-encoded into skey_text. 0, the code of
// uid_rsa_public_encrypt, or 999.
int GenerateEncandPlainSessionKey(const std::string& env, std::uint8_t* key /*32*/, std::string* skey_text,
                                  std::string* ci);
// AES-256-GCM. 0 or -1.
int aes_encrypt_GCM_Mode(std::span<const std::uint8_t> plain, std::span<const std::uint8_t> aad,
                         const std::uint8_t* key /*32*/, std::span<const std::uint8_t> iv,
                         std::vector<std::uint8_t>* cipher, std::uint8_t* tag /*16*/);
// data_text = Base64(ts + GCM(pid) + tag), hmac_text = Base64(GCM(SHA-256(pid)) + tag).
// 0, -1 or 999.
int GenerateEncPID_EncPIDHash(std::span<const std::uint8_t> pid, const std::uint8_t* key /*32*/, const std::string& ts,
                              std::string* data_text, std::string* hmac_text);
// Turns OpenSSL's text form of a certificate time ("Jun  1 10:00:00 2027 GMT")
// into ci "20270601". 0, or -1 (ci cleared) when the month name or a number is wrong.
int cert_time_text_to_ci(const std::string& text, std::string* ci);
// Sets *invalid to 1 when the SHA-256 hex of cert_pem differs from expected.
void check_valid_cert(const std::string& cert_pem, const std::string& expected_checksum, int* invalid);

// Base64(SHA-256(dpId + rdsId + rdsVer + dc + mi + hex(SHA-256(srno)))). 0 or 999.
int Generate_dih(std::string* dih_text);
// Base64 of the device key's RSA-SHA256 signature over SHA-256(bio) + ts + dc.
// Reads the key from the keystore. 0 or -1.
int Generate_bio_sign(std::span<const std::uint8_t> bio, const std::string& ts, std::string* bs_text);

#endif  // VEXO_RD_CORE_PID_CRYPTO_H
