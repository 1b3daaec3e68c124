// TLS transport of the local server: the process-wide server context, built
// once from the configured certificate and key after checking that they belong
// together, and the per-connection handshake, receive, send and close.
//
// Thread-safety: the context is made before the accept thread starts and is
// then only read; each connection thread uses its own SSL object.
#ifndef VEXO_SSL_SSLCOMMUNICATION_H
#define VEXO_SSL_SSLCOMMUNICATION_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/platform.h"

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;
typedef struct evp_pkey_st EVP_PKEY;

// Paths of the server certificate and its private key (PEM).
struct SslSettings {
  std::string cert_file;  // "./cert/ssl/public.crt"
  std::string key_file;   // "./cert/ssl/private.key"
};

// Checks the certificate against the key, then builds the server context
// (TLS 1.2 or later, no client certificate). 0, or -2 on any failure; on
// failure the previous context, if any, is kept.
int validateServerCertAndInitSSLCTX(SslSettings settings);
// The server context, or null before validateServerCertAndInitSSLCTX succeeded.
SSL_CTX* ssl_server_ctx();

// 0 when the certificate can be read and its RSA modulus equals the key's;
// -1 otherwise (logged).
int validateSSLCert(const SslSettings& settings);
// Reads the PEM certificate at path: *public_key receives its public key (the
// caller frees it with EVP_PKEY_free), *expiry its not-after time. 0 or -1.
int getCertInfo(const char* path, EVP_PKEY** public_key, std::string* expiry);
// Reads the PEM RSA private key at path into *key (caller frees). 0 or -1.
int getPrivateKey(const char* path, EVP_PKEY** key);

// TLS handshake on the accepted socket s, finished before deadline (a
// platform::monotonic_ms time: the request's limit, which the handshake
// shares with the request's reading, so a client that trickles its hello
// gains nothing). 0 with *ssl set and the socket left non-blocking; -2 on
// failure, the socket then being closed.
int makeSSLConnection(platform::socket_t s, SSL_CTX* ctx, SSL** ssl, std::uint64_t deadline);
// Reads the request like recv_thru_tcp_socket into buf (kRawReqSize bytes,
// zero-filled); all of it must arrive before deadline, or "Read timedout" is
// logged. 0 with *len set; -2 on failure; kRequestTooLarge when the request
// does not fit.
int recvFromSSLWithTC(SSL* ssl, char* buf, int* len, std::uint64_t deadline);
// Reads one request from ssl into buf within recv_wait_ms(). Length, -1, or
// kRequestTooLarge. Makes the socket non-blocking.
int recvFromSSL(SSL* ssl, char* buf);
// Writes header, then body (none when body_len is 0), all of it within
// recv_wait_ms(): a client that stops reading is given up. 0, or -2.
int sendThruSSL(SSL* ssl, const char* header, std::size_t header_len, const char* body, std::size_t body_len);
// Sends close_notify, closes the socket and frees ssl. 0; -3 when ssl is null.
int closeSSLConnection(SSL* ssl);
// Logs the error class of ret (an SSL_* call's result on ssl) and drains
// OpenSSL's error queue into the log.
void printSSLError(SSL* ssl, int ret);
// OpenSSL 3 locks internally; kept for the callers of older versions. 0.
int THREAD_setup();

#endif  // VEXO_SSL_SSLCOMMUNICATION_H
