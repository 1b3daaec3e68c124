// Management message protection: the sKey/hmac pair of every request body,
// the RD_DRT header of every request, and the check of the RD_DRT header of
// every response, which binds the response body to the request that caused it.
//
// All ciphertexts are AES-256-ECB without padding (32 or 64 bytes in, as many
// out); Base64 is the standard alphabet on one line. Both are the library's
// one codec of each kind (common/aes.h, common/Base64.h). The 32-byte master key
// agreed with the Management server is built on the caller's stack for each
// use and cleansed afterwards; it never lies whole in the program's image.
// Failure reports go to standard output only when debugging output is on.
//
// Thread-safety: no shared state; every function may run on any thread.
#ifndef VEXO_RD_LIB_RDS_HASH_H
#define VEXO_RD_LIB_RDS_HASH_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// SHA-256 of len bytes into out (32 bytes). 0 or -1.
int rds_hmac_sha256(const void* data, std::size_t len, std::uint8_t out[32]);

// AES-256-ECB without padding under a 32-byte key; len must be a non-zero
// multiple of 16. *out receives len bytes. 0, or -1 (out cleared).
int rds_hmac_aes_encrypt(const std::uint8_t* in, std::size_t len, const std::uint8_t key[32],
                         std::vector<std::uint8_t>* out);
int rds_hmac_aes_decrypt(const std::uint8_t* in, std::size_t len, const std::uint8_t key[32],
                         std::vector<std::uint8_t>* out);

// Base64 of len bytes (one line, padded), by the library's one Base64 codec
// (common/Base64.h). A null input or a negative length is refused. 0 or -1.
int rds_hmac_Base64Encode(const std::uint8_t* in, long len, std::string* out);
// The bytes of a padded one-line Base64 text ("" gives none). 0, or -1 for
// text that is not Base64.
int rds_hmac_Base64Decode(const std::string& text, std::vector<std::uint8_t>* out);

// A fresh 32-byte session key encrypts hash; the master key encrypts the
// session key. *enc_hmac and *enc_skey receive 32 bytes each. 0 or -1.
int rds_hmac_seal_with_session_key(const std::uint8_t hash[32], std::vector<std::uint8_t>* enc_hmac,
                                   std::vector<std::uint8_t>* enc_skey);

// The hmac and sKey of a request body for the hmac input ("slNo@ts"): the
// sealed SHA-256 of the input and the sealed session key, as Base64 texts
// when base64 is 1, else as raw bytes in the strings. 0, or -1 (both cleared).
int rds_hmac_protect(const char* input, std::size_t len, int base64, std::string* hmac, std::string* skey);

// The request's RD_DRT value: the master-key encryption of SHA-256(data),
// Base64 when base64 is 1. 0, or -1 (out cleared).
int rds_hmac_sign(const char* data, std::size_t len, int base64, std::string* out);

// Checks a response's RD_DRT (response_drt) against the response body and the
// request's own RD_DRT (request_drt). *result is 1 when the first half is
// SHA-256(body) and the second half the request's hash, else 0. 0 when the
// check ran; -1 when a value could not be decoded or decrypted.
int rds_hmac_check(const std::string& response_drt, const std::string& request_drt, int base64, const char* body,
                   std::size_t len, int* result);

// The receiving side of rds_hmac_protect: *result is 1 when the pair protects
// data, else 0. 0 when the check ran; -1 when a value could not be decoded.
int rds_hmac_unprotect(const std::string& hmac, const std::string& skey, int base64, const char* data, std::size_t len,
                       int* result);

// Server side. *result is 1 when drt (Base64) is the RD_DRT of data, else 0.
// 0 when the check ran; -1 when drt could not be decoded or decrypted.
int rds_hmac_verify_sign(const char* data, std::size_t len, const std::string& drt, int* result);

// Server side: the RD_DRT of a response, Base64 of the master-key encryption
// of SHA-256(body) followed by the hash the request's RD_DRT carried.
// 0, or -1 (out cleared) when request_drt cannot be decrypted.
int rds_hmac_sign_response(const char* body, std::size_t len, const std::string& request_drt, std::string* out);

#endif  // VEXO_RD_LIB_RDS_HASH_H
