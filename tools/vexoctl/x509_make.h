// Self-signed certificates for a laid-out working folder, made with OpenSSL.
#ifndef VEXO_TOOLS_VEXOCTL_X509_MAKE_H
#define VEXO_TOOLS_VEXOCTL_X509_MAKE_H

#include <string>
#include <vector>

struct CertRequest {
  std::string common_name;
  bool ca = false;                    // basicConstraints CA:TRUE and keyCertSign
  std::vector<std::string> alt_names; // subjectAltName entries, e.g. "IP:127.0.0.1"
  int days = 3650;
};

// Makes a new RSA-2048 key and a self-signed SHA-256 certificate for it.
// Writes both as PEM text. 0, or -1 with *error set.
int make_self_signed(const CertRequest& req, std::string* cert_pem, std::string* key_pem,
                     std::string* error);

#endif  // VEXO_TOOLS_VEXOCTL_X509_MAKE_H
