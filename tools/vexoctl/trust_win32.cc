// trust-tls on Windows: the local CA goes into the current user's Root
// store, which Chromium, Edge and Firefox (with its enterprise roots, on by
// default) trust. Windows asks the user to confirm the new root.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <string>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include "common/openssl_ptr.h"
#include "vexoctl.h"

namespace {

int fail(const std::string& message) {
  std::fprintf(stderr, "vexoctl: %s (error %lu)\n", message.c_str(), ::GetLastError());
  return 1;
}

// The certificate's DER bytes, empty when the text holds none.
std::string der_of(const std::string& pem) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  std::unique_ptr<X509, X509Free> cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  unsigned char* out = nullptr;
  const int len = cert ? i2d_X509(cert.get(), &out) : -1;
  std::string der;
  if (len > 0) der.assign(reinterpret_cast<char*>(out), static_cast<std::size_t>(len));
  OPENSSL_free(out);
  return der;
}

// Limits the trust in ctx to server authentication, as NSS's "C,," does.
bool trust_for_servers_only(PCCERT_CONTEXT ctx) {
  char server_auth[] = szOID_PKIX_KP_SERVER_AUTH;
  LPSTR ids[] = {server_auth};
  CERT_ENHKEY_USAGE usage{1, ids};
  DWORD size = 0;
  if (!::CryptEncodeObject(X509_ASN_ENCODING, X509_ENHANCED_KEY_USAGE, &usage, nullptr, &size)) return false;
  std::string encoded(size, '\0');
  if (!::CryptEncodeObject(X509_ASN_ENCODING, X509_ENHANCED_KEY_USAGE, &usage, reinterpret_cast<BYTE*>(encoded.data()),
                           &size)) {
    return false;
  }
  CRYPT_DATA_BLOB blob{size, reinterpret_cast<BYTE*>(encoded.data())};
  return ::CertSetCertificateContextProperty(ctx, CERT_ENHKEY_USAGE_PROP_ID, 0, &blob) != 0;
}

}  // namespace

const char kTrustSummary[] =
    "add the local CA of DIR to the current user's Root store (Windows asks to confirm), "
    "so Chromium, Edge and Firefox trust the service's HTTPS";

// make_dirs gave the folder an owner-only access list already.
void restrict_to_owner(const std::string& /*dir*/) {}

int trust_local_ca(const std::string& ca_cert, const std::string& ca_pem, const std::string& nickname) {
  const std::string der = der_of(ca_pem);
  if (der.empty()) {
    std::fprintf(stderr, "vexoctl: %s is not a PEM certificate\n", ca_cert.c_str());
    return 1;
  }
  HCERTSTORE store = ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, L"Root");
  if (store == nullptr) return fail("cannot open the current user's Root store");
  // A certificate already there is replaced by itself: running twice is harmless.
  PCCERT_CONTEXT ctx = nullptr;
  BOOL ok = ::CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                               static_cast<DWORD>(der.size()), CERT_STORE_ADD_REPLACE_EXISTING, &ctx);
  const char* what = "cannot add ";
  if (ok && !trust_for_servers_only(ctx)) {
    // Not left trusted for more than it should be.
    const DWORD saved = ::GetLastError();
    ::CertDeleteCertificateFromStore(::CertDuplicateCertificateContext(ctx));
    ::SetLastError(saved);
    ok = FALSE;
    what = "cannot limit to server certificates the trust in ";
  }
  const DWORD err = ::GetLastError();
  if (ctx != nullptr) ::CertFreeCertificateContext(ctx);
  ::CertCloseStore(store, 0);
  if (!ok) {
    ::SetLastError(err);
    return fail(what + ca_cert + " in the current user's Root store");
  }
  std::printf("trusted \"%s\" in the current user's Root store for server certificates\n", nickname.c_str());
  std::printf("to remove it: certutil -user -delstore Root \"%s\"\n", nickname.c_str());
  return 0;
}
