// Self-signed certificates for a laid-out working folder, made with OpenSSL.
#ifndef VEXO_TOOLS_VEXOCTL_X509_MAKE_H
#define VEXO_TOOLS_VEXOCTL_X509_MAKE_H

#include <string>
#include <vector>

struct CertRequest {
  std::string common_name;
  bool ca = false;                     // basicConstraints CA:TRUE and keyCertSign
  std::vector<std::string> alt_names;  // subjectAltName entries, e.g. "IP:127.0.0.1"
  int days = 3650;
  std::string name_constraints;  // nameConstraints value of a CA, e.g. "permitted;DNS:localhost"
};

// The certificate and key that sign another certificate, as PEM text.
struct Issuer {
  std::string cert_pem;
  std::string key_pem;
};

// Makes a new RSA-2048 key and a self-signed SHA-256 certificate for it.
// Writes both as PEM text. 0, or -1 with *error set.
int make_self_signed(const CertRequest& req, std::string* cert_pem, std::string* key_pem, std::string* error);
// Like make_self_signed, but the certificate is issued and signed by issuer
// (its authority key identifier names the issuer's key).
int make_signed(const CertRequest& req, const Issuer& issuer, std::string* cert_pem, std::string* key_pem,
                std::string* error);
// The subject's common name of a PEM certificate, "" when unreadable.
std::string cert_common_name(const std::string& cert_pem);

#endif  // VEXO_TOOLS_VEXOCTL_X509_MAKE_H
