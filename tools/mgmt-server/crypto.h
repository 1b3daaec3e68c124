// The server's own certificate and digest work, on OpenSSL: issuing device
// certificates under the demonstration CA, Base64, file digests and device
// codes. Stateless; safe from any thread once the CA is loaded.
#ifndef VEXO_TOOLS_MGMT_SERVER_CRYPTO_H
#define VEXO_TOOLS_MGMT_SERVER_CRYPTO_H

#include <ctime>
#include <string>

#include "common/openssl_ptr.h"

namespace mgmt {

struct Ca {
  X509Ptr cert;
  PkeyPtr key;
};

// Loads the CA certificate and its private key (PEM) and checks that they
// belong together. 0, or -1 with *error set.
int load_ca(const std::string& cert_path, const std::string& key_path, Ca* ca, std::string* error);

// Issues a certificate for the public key in pem, which is either the
// device's self-signed certificate (its signature must verify) or a bare
// public key. The subject is CN=serial whatever the device sent, the
// extended key usage clientAuth alone. SHA-256, signed by the CA, valid from
// an hour before now for a year, a random 63-bit serial number. Writes the
// DER. 0, or -1 with *error set.
int issue_device_cert(const Ca& ca, const std::string& pem, const std::string& serial, std::time_t now,
                      std::string* der, std::string* error);

// The library's Base64 (common/Base64.h) over strings of bytes.
std::string base64_encode(const std::string& bytes);
int base64_decode(const std::string& text, std::string* bytes);

// Lower-case hex digest of data: "sha256" or "md5". Empty on failure.
std::string hex_digest(const char* md_name, const std::string& data);

// A random (version 4) UUID in its usual text form.
std::string new_uuid();

// The UIDAI certificate identifier of a PEM certificate: its expiry date as
// YYYYMMDD. Empty when pem is not a certificate.
std::string cert_identifier(const std::string& pem);

}  // namespace mgmt

#endif  // VEXO_TOOLS_MGMT_SERVER_CRYPTO_H
