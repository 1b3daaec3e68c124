// The UIDAI encryption certificates: the four built into the library, the
// working-folder copies that take their place when a stored checksum vouches
// for them, and the choice of production certificate made by the Management client.
//
// Thread-safety: every accessor may be called from any thread; the flag is an
// atomic and changes of the checksum store are serialised by a mutex.
#ifndef VEXO_RD_CORE_UIDAI_CERTS_H
#define VEXO_RD_CORE_UIDAI_CERTS_H

#include <ctime>
#include <string>
#include <string_view>

enum class UidaiCert { kStage, kPreProd, kProd, kProdOld };

// The file name of a certificate: "stage.pem", "preprod.pem", "prod.pem", "prod_old.pem".
const char* uidai_cert_file_name(UidaiCert which);
// The built-in PEM text, byte for byte as in data/uidai/.
std::string_view uidai_builtin_cert(UidaiCert which);
// Path of the working-folder copy: rd_identity_copy().prefix + "cert/uidai/" + file name.
std::string uidai_cert_path(UidaiCert which);
// The PEM text in force: the working-folder copy while a stored checksum
// vouches for it (its SHA-256 equals the checksum stored for its file name),
// else the built-in one. A copy dropped in without a checksum is ignored.
std::string uidai_cert_in_force(UidaiCert which);

// Which production certificate is current: kProd (the newer, by default) or kProdOld.
void set_uidai_prod_cert_newer(bool newer);
UidaiCert uidai_current_prod_cert();

// Expected lower-case SHA-256 hex per certificate file, as the Management
// client (or vexoctl uidai-cert) stored them in "cert/uidai/checksums" of the
// working folder, one "NAME HEX" line each; the file is replaced atomically.
// Empty when none is stored.
std::string uidai_stored_checksum(UidaiCert which);
// Stores hex for which (an empty hex removes it) under the working-folder
// prefix ("./" or a folder ending in "/"). 0, or -1 for a hex that is not 64
// lower-case hexadecimal digits or a store that cannot be written.
int uidai_store_checksum(const std::string& prefix, UidaiCert which, const std::string& hex);
// Installs pem as the working-folder copy of which: its SHA-256 must be hex;
// the certificate file is replaced first, then the checksum stored. 0 or -1
// (nothing stored when the checksum differs).
int uidai_install_cert(const std::string& prefix, UidaiCert which, const std::string& pem, const std::string& hex);
// Whether pem can be a UIDAI encryption certificate: an X.509 certificate in
// PEM with an RSA key of at least 2048 bits, valid at now, whose subject names
// the organisation "UIDAI". 0, or -1 with *why saying what is wrong. A
// certificate the server names is installed only when it passes.
int uidai_cert_plausible(const std::string& pem, std::time_t now, std::string* why);

// The certificate for a file name ("prod.pem", ...). false for other names.
bool uidai_cert_from_file_name(const std::string& name, UidaiCert* which);

// The stored checksums of the current production and the pre-production
// certificate, set in the current working folder.
void set_uidai_prod_checksum(const std::string& hex);
void set_uidai_preprod_checksum(const std::string& hex);
std::string uidai_prod_checksum();
std::string uidai_preprod_checksum();
// The checksum a certificate in force must match: the stored one, or the
// SHA-256 hex of cert_pem when none is stored (the built-in certificates
// are trusted as they are shipped).
std::string uidai_expected_checksum(UidaiCert which, const std::string& cert_pem);

// Test seam: makes the newer production certificate current again.
void uidai_certs_reset_for_test();

#endif  // VEXO_RD_CORE_UIDAI_CERTS_H
