#include "ssl/sslCommunication.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>

#include "common/request_reader.h"
#include "common/rd_log.h"
#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/socket_extra.h"
#include "common/openssl_ptr.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;
using rd_codes::kTlsCertUnusable;
using rd_codes::kTlsFailed;
using rd_codes::kTlsNoConnection;

namespace {

using BnPtr = std::unique_ptr<BIGNUM, BnFree>;
using SslPtr = std::unique_ptr<SSL, SslFree>;
using CtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;

// How long closing waits for the client's close_notify before giving up.
constexpr int kShutdownWaitMs = 1000;
constexpr int kSessionTimeoutSeconds = 1200;

// The owner of the context in force; readers take g_ctx_view.
platform::Mutex g_ctx_mutex;
CtxPtr g_ctx GUARDED_BY(g_ctx_mutex);
std::atomic<SSL_CTX*> g_ctx_view{nullptr};

// OpenSSL's text for the oldest queued error (thread-safe form).
std::string last_error_text() {
  char text[256] = {};
  ERR_error_string_n(ERR_get_error(), text, sizeof text);
  return text;
}

// Drains OpenSSL's error queue into the log, one line per entry.
void log_error_queue(const char* func) {
  // Helpers log under the name of the function they serve.
  RD_LOG_AS(func);
  const char* file = nullptr;
  const char* data = nullptr;
  int line = 0;
  int flags = 0;
  unsigned long code;
  while ((code = ERR_get_error_all(&file, &line, nullptr, &data, &flags)) != 0) {
    RD_ERROR("error code: %lu in %s line %d", code, file ? file : "", line);
    if ((flags & ERR_TXT_STRING) != 0 && data != nullptr && data[0] != '\0') {
      RD_ERROR("error data: %s", data);
    }
  }
}

// A socket BIO whose writes use MSG_NOSIGNAL: a client that hangs up during a
// write must give an error, never a SIGPIPE that ends the host process.
int socket_bio_fd(BIO* b) { return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(b))); }

int socket_bio_write(BIO* b, const char* data, int len) {
  long n = platform::send_socket(socket_bio_fd(b), data, static_cast<std::size_t>(len));
  BIO_clear_retry_flags(b);
  if (n <= 0 && BIO_sock_should_retry(static_cast<int>(n))) BIO_set_retry_write(b);
  return static_cast<int>(n);
}

int socket_bio_read(BIO* b, char* data, int len) {
  long n = platform::recv_socket(socket_bio_fd(b), data, static_cast<std::size_t>(len));
  BIO_clear_retry_flags(b);
  if (n < 0 && BIO_sock_should_retry(static_cast<int>(n))) BIO_set_retry_read(b);
  return static_cast<int>(n);
}

int socket_bio_puts(BIO* b, const char* text) { return socket_bio_write(b, text, static_cast<int>(std::strlen(text))); }

long socket_bio_ctrl(BIO* b, int cmd, long /*num*/, void* ptr) {
  switch (cmd) {
    case BIO_C_GET_FD:
      if (ptr != nullptr) *static_cast<int*>(ptr) = socket_bio_fd(b);
      return socket_bio_fd(b);
    case BIO_CTRL_FLUSH:
      return 1;
    default:
      return 0;
  }
}

const BIO_METHOD* socket_bio_method() {
  static BIO_METHOD* method = [] {
    BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "vexo socket");
    if (m != nullptr) {
      BIO_meth_set_write(m, socket_bio_write);
      BIO_meth_set_read(m, socket_bio_read);
      BIO_meth_set_puts(m, socket_bio_puts);
      BIO_meth_set_ctrl(m, socket_bio_ctrl);
    }
    return m;
  }();
  return method;
}

BIO* new_socket_bio(platform::socket_t s) {
  const BIO_METHOD* method = socket_bio_method();
  BIO* b = method ? BIO_new(method) : nullptr;
  if (b == nullptr) return nullptr;
  BIO_set_data(b, reinterpret_cast<void*>(static_cast<std::intptr_t>(s)));
  BIO_set_init(b, 1);
  return b;
}

// RSA modulus of key, or null when key is not an RSA key.
BnPtr rsa_modulus(const EVP_PKEY* key) {
  BIGNUM* n = nullptr;
  if (key == nullptr || EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &n) != 1) return nullptr;
  return BnPtr(n);
}

// Read callbacks of the shared request reader. The socket is non-blocking
// while a request is read, so a record that arrives a byte at a time never
// holds SSL_read past the request's deadline.
long ssl_read_some(void* ctx, char* buf, std::size_t len) {
  RD_LOG_AS("recvFromSSL");
  SSL* ssl = static_cast<SSL*>(ctx);
  int want = len > INT_MAX ? INT_MAX : static_cast<int>(len);
  ERR_clear_error();
  int n = SSL_read(ssl, buf, want);
  if (n > 0) return n;
  int err = SSL_get_error(ssl, n);
  if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) return kReadAgain;
  RD_ERROR("SSL_read failed");
  ERR_clear_error();
  return err == SSL_ERROR_ZERO_RETURN ? 0 : kFailed;
}

int ssl_input_ready(void* ctx, int timeout_ms) {
  SSL* ssl = static_cast<SSL*>(ctx);
  if (SSL_pending(ssl) > 0) return 1;
  // A read that must first write (a key update) waits for room to write.
  if (SSL_want_write(ssl)) return platform::wait_writable(SSL_get_fd(ssl), timeout_ms);
  return platform::wait_readable(SSL_get_fd(ssl), timeout_ms);
}

// Milliseconds left until deadline (monotonic ms), 0 once it passed.
int ms_until(std::uint64_t deadline) {
  const std::uint64_t now = platform::monotonic_ms();
  if (now >= deadline) return 0;
  return deadline - now > INT_MAX ? INT_MAX : static_cast<int>(deadline - now);
}

// Waits until ssl can go on after a want-read or want-write status. 1 ready,
// 0 the deadline passed, -1 error.
int wait_for_peer(SSL* ssl, int status, std::uint64_t deadline) {
  const int left = ms_until(deadline);
  if (left == 0) return 0;
  const int fd = SSL_get_fd(ssl);
  return status == SSL_ERROR_WANT_WRITE ? platform::wait_writable(fd, left) : platform::wait_readable(fd, left);
}

// recvFromSSL with the deadline of the whole request (monotonic ms).
int recv_from_ssl_until(SSL* ssl, char* buf, std::uint64_t deadline) {
  RD_LOG_AS("recvFromSSL");
  // makeSSLConnection left the socket non-blocking; one made elsewhere is
  // switched here, so that no read can wait past the deadline.
  if (platform::set_nonblocking(SSL_get_fd(ssl), true) != 0) {
    RD_ERROR("unable to set fd");
    return kFailed;
  }
  RequestSource src{ssl_read_some, ssl_input_ready, ssl, __FILE__, "recvFromSSL", deadline, "Read timedout"};
  return read_http_request(src, buf);
}

// Writes all of data before deadline; 0, or -2 after logging the failure.
int ssl_write_all(SSL* ssl, const char* data, std::size_t len, std::uint64_t deadline) {
  RD_LOG_AS("sendThruSSL");
  std::size_t sent = 0;
  while (sent < len) {
    std::size_t rest = len - sent;
    int chunk = rest > INT_MAX ? INT_MAX : static_cast<int>(rest);
    ERR_clear_error();
    int n = SSL_write(ssl, data + sent, chunk);
    if (n < 1) {
      // A client that does not read fills the socket: wait for room, but
      // never past the deadline.
      int status = SSL_get_error(ssl, n);
      if ((status == SSL_ERROR_WANT_WRITE || status == SSL_ERROR_WANT_READ) &&
          wait_for_peer(ssl, status, deadline) == 1) {
        continue;
      }
      RD_ERROR("Send Thru SSL Failed");
      ERR_clear_error();
      return kTlsFailed;
    }
    sent += static_cast<std::size_t>(n);
    if (sent < len) {
      RD_INFO("Sent Thru SSL: %d, To be sent size: %d", n, static_cast<int>(len - sent));
    }
  }
  return 0;
}

// Waits a short while for the client's close_notify after ours was sent.
void finish_shutdown(SSL* ssl, int fd) {
  if (fd < 0 || platform::set_nonblocking(fd, true) != 0) return;
  std::uint64_t end = platform::monotonic_ms() + kShutdownWaitMs;
  for (;;) {
    int r = SSL_shutdown(ssl);
    if (r == 1) return;
    int err = SSL_get_error(ssl, r);
    if (r < 0 && err != SSL_ERROR_WANT_READ) return;
    std::uint64_t now = platform::monotonic_ms();
    if (now >= end || platform::wait_readable(fd, static_cast<int>(end - now)) != 1) return;
  }
}

}  // namespace

SSL_CTX* ssl_server_ctx() { return g_ctx_view.load(std::memory_order_acquire); }

int THREAD_setup() { return 0; }

int getCertInfo(const char* path, EVP_PKEY** public_key, std::string* expiry) {
  *public_key = nullptr;
  expiry->clear();
  BioPtr file(BIO_new(BIO_s_file()));
  if (!file) {
    RD_ERROR("Unbale to get BIO");
    return kTlsCertUnusable;
  }
  if (BIO_read_filename(file.get(), path) <= 0) {
    RD_ERROR("Unable to open %s file", path);
    return kTlsCertUnusable;
  }
  X509Ptr cert(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
  if (!cert) {
    RD_ERROR("Unable to load %s certificate", path);
    return kTlsCertUnusable;
  }
  PkeyPtr key(X509_get_pubkey(cert.get()));
  if (!key) {
    RD_ERROR("Unable to get public key from %s certificate", path);
    return kTlsCertUnusable;
  }
  BioPtr mem(BIO_new(BIO_s_mem()));
  if (!mem || ASN1_TIME_print(mem.get(), X509_get0_notAfter(cert.get())) <= 0) {
    RD_ERROR("Unable to get Certificate expiry date");
    return kTlsCertUnusable;
  }
  char* text = nullptr;
  long n = BIO_get_mem_data(mem.get(), &text);
  expiry->assign(text, n > 0 ? static_cast<std::size_t>(n) : 0);
  RD_INFO("getCertInfo is success for %s file", path);
  RD_INFO("SSL Certificate File : %s ", path);
  *public_key = key.release();
  return 0;
}

int getPrivateKey(const char* path, EVP_PKEY** key) {
  *key = nullptr;
  BioPtr file(BIO_new(BIO_s_file()));
  if (!file) {
    RD_ERROR("Unable to get BIO");
    return kTlsCertUnusable;
  }
  if (BIO_read_filename(file.get(), path) <= 0) {
    RD_ERROR("Unable to open %s file", path);
    return kTlsCertUnusable;
  }
  PkeyPtr pkey(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr));
  if (!pkey || EVP_PKEY_get_base_id(pkey.get()) != EVP_PKEY_RSA) {
    RD_ERROR("Unable to read RSA private key from %s", path);
    return kTlsCertUnusable;
  }
  *key = pkey.release();
  return 0;
}

int validateSSLCert(const SslSettings& settings) {
  const char* cert_file = settings.cert_file.c_str();
  const char* key_file = settings.key_file.c_str();
  RD_INFO("cert file name is:%s", cert_file);
  EVP_PKEY* raw = nullptr;
  std::string expiry;
  if (getCertInfo(cert_file, &raw, &expiry) != 0) {
    RD_ERROR("getCertInfo failed");
    return kTlsCertUnusable;
  }
  PkeyPtr public_key(raw);
  if (getPrivateKey(key_file, &raw) != 0) return kTlsCertUnusable;
  PkeyPtr private_key(raw);
  BnPtr cert_n = rsa_modulus(public_key.get());
  BnPtr key_n = rsa_modulus(private_key.get());
  if (!cert_n || !key_n || BN_cmp(cert_n.get(), key_n.get()) != 0) {
    RD_ERROR("Public key of %s certificate does not match with private key of %s", cert_file, key_file);
    return kTlsCertUnusable;
  }
  return 0;
}

int validateServerCertAndInitSSLCTX(SslSettings settings) {
  // The pair is checked before any context exists, so a wrong key never
  // yields a half-built server.
  if (validateSSLCert(settings) != 0) return kTlsFailed;
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  ERR_clear_error();
  CtxPtr ctx(SSL_CTX_new(TLS_server_method()));
  if (!ctx) {
    log_error_queue(__func__);
    return kTlsFailed;
  }
  SSL_CTX_set_options(ctx.get(), SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3);
  if (SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION) != 1) {
    log_error_queue(__func__);
    return kTlsFailed;
  }
  SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_NONE, nullptr);
  const char* cert_file = settings.cert_file.c_str();
  if (SSL_CTX_use_certificate_file(ctx.get(), cert_file, SSL_FILETYPE_PEM) <= 0) {
    RD_ERROR("SSL_CTX_use_certificate_file Error: %s %s", cert_file, last_error_text().c_str());
    return kTlsFailed;
  }
  if (SSL_CTX_use_PrivateKey_file(ctx.get(), settings.key_file.c_str(), SSL_FILETYPE_PEM) <= 0) {
    RD_ERROR("SSL_CTX_use_PrivateKey_file Error: %s", last_error_text().c_str());
    return kTlsFailed;
  }
  if (SSL_CTX_check_private_key(ctx.get()) != 1) {
    RD_ERROR("SSL_CTX_check_private_key Error: %s", last_error_text().c_str());
    return kTlsFailed;
  }
  static const int kSessionIdContext = 1;
  SSL_CTX_set_session_id_context(ctx.get(), reinterpret_cast<const unsigned char*>(&kSessionIdContext),
                                 sizeof kSessionIdContext);
  SSL_CTX_set_timeout(ctx.get(), kSessionTimeoutSeconds);
  // Connections hold their own reference, so the old context may go at once.
  platform::MutexLock lock(&g_ctx_mutex);
  g_ctx_view.store(ctx.get(), std::memory_order_release);
  g_ctx = std::move(ctx);
  return 0;
}

int makeSSLConnection(platform::socket_t s, SSL_CTX* ctx, SSL** out, std::uint64_t deadline) {
  *out = nullptr;
  ERR_clear_error();
  SslPtr ssl(ctx ? SSL_new(ctx) : nullptr);
  if (!ssl) {
    platform::close_socket(s);
    RD_ERROR("unable to get SSL object");
    RD_ERROR("%s", last_error_text().c_str());
    return kTlsFailed;
  }
  BIO* bio = new_socket_bio(s);
  if (bio == nullptr || platform::set_nonblocking(s, true) != 0) {
    BIO_free(bio);
    RD_ERROR("unable to set fd");
    platform::close_socket(s);
    return kTlsFailed;
  }
  SSL_set_bio(ssl.get(), bio, bio);
  // Non-blocking, so that the whole handshake ends at the request's deadline
  // however the client spreads its bytes; the socket stays so for the
  // request's reads and the answer's writes, which have deadlines too.
  int status = SSL_ERROR_WANT_READ;
  for (;;) {
    const int ready = wait_for_peer(ssl.get(), status, deadline);
    if (ready < 0) {
      RD_ERROR("select failed");
      closeSSLConnection(ssl.release());
      return kTlsFailed;
    }
    if (ready == 0) {
      RD_ERROR("SSL accept timed out");
      closeSSLConnection(ssl.release());
      return kTlsFailed;
    }
    ERR_clear_error();
    int ret = SSL_accept(ssl.get());
    status = SSL_get_error(ssl.get(), ret);
    RD_INFO("ret:%d and connStatus %d", ret, status);
    if (status == SSL_ERROR_NONE) break;
    if (status != SSL_ERROR_WANT_READ && status != SSL_ERROR_WANT_WRITE) {
      printSSLError(ssl.get(), ret);
      closeSSLConnection(ssl.release());
      return kTlsFailed;
    }
  }
  RD_INFO("SSL accept successful");
  *out = ssl.release();
  return 0;
}

int recvFromSSL(SSL* ssl, char* buf) {
  return recv_from_ssl_until(ssl, buf, platform::monotonic_ms() + static_cast<std::uint64_t>(recv_wait_ms()));
}

int recvFromSSLWithTC(SSL* ssl, char* buf, int* len, std::uint64_t deadline) {
  if (ssl == nullptr || buf == nullptr || len == nullptr) {
    RD_ERROR("Error: Invalid argument to %s", __func__);
    return kTlsFailed;
  }
  int fd = SSL_get_fd(ssl);
  if (fd < 0) {
    RD_ERROR("SSL not initialized (unable to get descriptor)");
    return kTlsFailed;
  }
  // Bytes already decrypted during the handshake would never wake the socket.
  if (SSL_pending(ssl) == 0) {
    int ready = platform::wait_readable(fd, ms_until(deadline));
    if (ready < 0) {
      RD_ERROR("select() error");
      return kTlsFailed;
    }
    if (ready == 0) {
      RD_ERROR("Read timedout");
      return kTlsFailed;
    }
  }
  int n = recv_from_ssl_until(ssl, buf, deadline);
  if (n < 0) {
    RD_ERROR("Could not receive data");
    return n == kRequestTooLarge ? kRequestTooLarge : kTlsFailed;
  }
  *len = n;
  RD_INFO("Received message successfully");
  RD_INFO("Message size = %d", n);
  return 0;
}

int sendThruSSL(SSL* ssl, const char* header, std::size_t header_len, const char* body, std::size_t body_len) {
  // The whole answer goes out within one request limit.
  const std::uint64_t deadline = platform::monotonic_ms() + static_cast<std::uint64_t>(recv_wait_ms());
  if (platform::set_nonblocking(SSL_get_fd(ssl), true) != 0) {
    RD_ERROR("Send Thru SSL Failed");
    return kTlsFailed;
  }
  if (ssl_write_all(ssl, header, header_len, deadline) != 0) return kTlsFailed;
  RD_INFO("Header sent successfully");
  if (body_len == 0) return 0;
  if (ssl_write_all(ssl, body, body_len, deadline) != 0) return kTlsFailed;
  RD_INFO("Body sent successfully");
  return 0;
}

int closeSSLConnection(SSL* ssl) {
  if (ssl == nullptr) {
    RD_ERROR("sslObj is NULL");
    return kTlsNoConnection;
  }
  int fd = SSL_get_fd(ssl);
  ERR_clear_error();
  if (SSL_shutdown(ssl) == 0) finish_shutdown(ssl, fd);
  if (fd >= 0) {
    RD_INFO("Closing Socket FD = %d", fd);
    platform::close_socket(fd);
  }
  SSL_free(ssl);
  // A shutdown of a failed handshake leaves errors that belong to nobody.
  ERR_clear_error();
  return 0;
}

void printSSLError(SSL* ssl, int ret) {
  switch (SSL_get_error(ssl, ret)) {
    case SSL_ERROR_NONE:
      RD_ERROR("SSL throws:SSL_ERROR_NONE");
      break;
    case SSL_ERROR_SSL:
      RD_ERROR("SSL throws:SSL_ERROR_SSL");
      break;
    case SSL_ERROR_WANT_READ:
      RD_ERROR("SSL throws:SSL_ERROR_WANT_READ");
      break;
    case SSL_ERROR_WANT_WRITE:
      RD_ERROR("SSL throws:SSL_ERROR_WANT_WRITE");
      break;
    case SSL_ERROR_WANT_X509_LOOKUP:
      RD_ERROR("SSL throws:SSL_ERROR_WANT_X509_LOOKUP");
      break;
    case SSL_ERROR_SYSCALL:
      RD_ERROR("SSL throws:SSL_ERROR_SYSCALL");
      break;
    case SSL_ERROR_ZERO_RETURN:
      RD_ERROR("SSL throws:SSL_ERROR_ZERO_RETURN");
      break;
    case SSL_ERROR_WANT_CONNECT:
      RD_ERROR("SSL throws:SSL_ERROR_WANT_CONNECT");
      break;
    case SSL_ERROR_WANT_ACCEPT:
      RD_ERROR("SSL throws:SSL_ERROR_WANT_ACCEPT");
      break;
    default:
      RD_ERROR("SSL throws:SSL error not defined");
      break;
  }
  log_error_queue(__func__);
}
