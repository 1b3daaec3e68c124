// The UIDAI encryption certificates: the four built into the library, the
// working-folder copies that take their place, and the process-wide choice of
// production certificate and expected checksums kept by the Management client.
//
// Thread-safety: every accessor may be called from any thread; the flag is an
// atomic and the checksum texts are guarded by a mutex inside uidai_certs.cc.
#ifndef VEXO_RD_CORE_UIDAI_CERTS_H
#define VEXO_RD_CORE_UIDAI_CERTS_H

#include <string>
#include <string_view>

enum class UidaiCert { kStage, kPreProd, kProd, kProdOld };

// The file name of a certificate: "stage.pem", "preprod.pem", "prod.pem", "prod_old.pem".
const char* uidai_cert_file_name(UidaiCert which);
// The built-in PEM text, byte for byte as in data/uidai/.
std::string_view uidai_builtin_cert(UidaiCert which);
// Path of the working-folder copy: rd_identity_copy().prefix + "cert/uidai/" + file name.
std::string uidai_cert_path(UidaiCert which);
// The PEM text in force: the working-folder copy when it can be read, else the
// built-in one.
std::string uidai_cert_in_force(UidaiCert which);

// Which production certificate is current: kProd (the newer, by default) or kProdOld.
void set_uidai_prod_cert_newer(bool newer);
UidaiCert uidai_current_prod_cert();

// Expected lowercase SHA-256 hex of the production / pre-production
// certificate, as stored by the Management client. Empty means none stored
// yet: the checksum of the certificate in force is then expected, so captures
// work before the first Management contact.
void set_uidai_prod_checksum(const std::string& hex);
void set_uidai_preprod_checksum(const std::string& hex);
std::string uidai_prod_checksum();
std::string uidai_preprod_checksum();
// The checksum a certificate in force must match: the stored one, or the
// SHA-256 hex of cert_pem when none is stored.
std::string uidai_expected_checksum(UidaiCert which, const std::string& cert_pem);

// Test seam: clears the stored checksums and makes the newer production
// certificate current again.
void uidai_certs_reset_for_test();

#endif  // VEXO_RD_CORE_UIDAI_CERTS_H
