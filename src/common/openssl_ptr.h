// Owners for OpenSSL objects: std::unique_ptr<T, XFree> frees them on every
// path. One set for the whole library, so each module only names its type.
#ifndef VEXO_COMMON_OPENSSL_PTR_H
#define VEXO_COMMON_OPENSSL_PTR_H

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

struct BioFree {
  void operator()(BIO* b) const { BIO_free_all(b); }
};
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct ExtFree {
  void operator()(X509_EXTENSION* e) const { X509_EXTENSION_free(e); }
};
struct NameFree {
  void operator()(X509_NAME* n) const { X509_NAME_free(n); }
};
struct StoreFree {
  void operator()(X509_STORE* s) const { X509_STORE_free(s); }
};
struct StoreCtxFree {
  void operator()(X509_STORE_CTX* c) const { X509_STORE_CTX_free(c); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct PkeyCtxFree {
  void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
struct BnFree {
  void operator()(BIGNUM* n) const { BN_free(n); }
};
struct SslFree {
  void operator()(SSL* s) const { SSL_free(s); }
};
struct SslCtxFree {
  void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};

using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

#endif  // VEXO_COMMON_OPENSSL_PTR_H
