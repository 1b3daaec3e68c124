// The TLS transport with real OpenSSL on both ends: certificates made here,
// a real client, and clients that refuse, close, stall or trickle, over TLS
// and plain TCP.
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>

#include "test_sys.h"
#include "common/openssl_ptr.h"
#include "common/rd_config.h"
#include "http/server.h"
#include "ssl/sslCommunication.h"
#include "test_crypto.h"
#include "test_util.h"

using namespace testutil;

namespace {

class TlsTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    ASSERT_EQ(platform::make_dirs("cert/ssl"), 0);
    testcrypto::KeyAndCert pair = testcrypto::make_self_signed("localhost", "20240101000000Z", "20400101000000Z");
    write_file(settings_.cert_file, pair.cert_pem);
    write_file(settings_.key_file, testcrypto::private_key_pem(pair.key.get(), true));
  }
  // Builds the context and starts the listener with TLS on.
  int start_tls_server() {
    if (validateServerCertAndInitSSLCTX(settings_) != 0) return 0;
    rd_config_update([](RdConfig& c) { c.ssl_enabled = 1; });
    return start_server();
  }
  SslSettings settings_{"./cert/ssl/public.crt", "./cert/ssl/private.key"};
};

// A TLS client limited to [min_version, max_version]: the answer, or "handshake failed".
std::string tls_exchange(int port, const std::string& request, int min_version = 0, int max_version = 0) {
  std::unique_ptr<SSL_CTX, SslCtxFree> ctx(SSL_CTX_new(TLS_client_method()));
  if (min_version != 0) {
    SSL_CTX_set_security_level(ctx.get(), 0);  // old protocols are offered only at level 0
    SSL_CTX_set_min_proto_version(ctx.get(), min_version);
    SSL_CTX_set_max_proto_version(ctx.get(), max_version);
  }
  const int s = connect_to(port);
  std::unique_ptr<SSL, SslFree> ssl(SSL_new(ctx.get()));
  SSL_set_fd(ssl.get(), s);
  std::string answer = "handshake failed";
  if (SSL_connect(ssl.get()) == 1) {
    answer.clear();
    SSL_write(ssl.get(), request.data(), static_cast<int>(request.size()));
    testsys::shutdown_send(s);  // keeps the TIME_WAIT state off the service port
    char buf[4096];
    for (int n; (n = SSL_read(ssl.get(), buf, sizeof buf)) > 0;) answer.append(buf, static_cast<std::size_t>(n));
  }
  platform::close_socket(s);
  ERR_clear_error();
  return answer;
}

// A current client is served; one limited to TLS 1.0 and 1.1 is refused (this
// OpenSSL cannot offer SSLv3 at all).
TEST_F(TlsTest, ServesRequestsOverHttpsToCurrentClientsOnly) {
  const int port = start_tls_server();
  ASSERT_NE(port, 0);
  EXPECT_EQ(tls_exchange(port, "RDSERVICE / HTTP/1.1\r\n\r\n", TLS1_VERSION, TLS1_1_VERSION), "handshake failed");
  EXPECT_TRUE(wait_log("sslCommunication", "printSSLError", "SSL throws:SSL_ERROR_SSL"));
  // A body read through TLS takes the same path as over plain TCP; a request
  // that does not fit is refused over TLS too. Discovery over TLS: the end of
  // ClientsThatCloseStallOrTrickleAreDropped.
  EXPECT_EQ(
      tls_exchange(port, "CAPTURE /rd/capture HTTP/1.1\r\nContent-Length: 1025\r\n\r\n<" + std::string(1024, 'a')),
      ok_header(port, "/rd/capture", 114) + data_file("tls_bad_pid_options.xml"));
  EXPECT_EQ(tls_exchange(port, "RDSERVICE / HTTP/1.1\r\nContent-Length: 3000\r\n\r\n" + std::string(3000, 'z')),
            error_header(413, port, ""));
  EXPECT_TRUE(wait_log("sslCommunication", "recvFromSSL", "Request too large for the receive area"));
}

TEST_F(TlsTest, RefusesCertificateAndKeyThatDoNotBelongTogether) {
  write_file("other.key", testcrypto::private_key_pem(
                              testcrypto::make_self_signed("x", "20240101000000Z", "20400101000000Z").key.get(), true));
  write_file("garbage.crt", "-----BEGIN CERTIFICATE-----\nnot base64\n-----END CERTIFICATE-----\n");
  write_file("garbage.key", "no key here");
  const struct {
    const char* cert;
    const char* key;
    const char* function;
    const char* logged;
  } rows[] = {
      {"./cert/ssl/public.crt", "other.key", "validateSSLCert",
       "Public key of ./cert/ssl/public.crt certificate does not match with private key of other.key"},
      {"missing.crt", "./cert/ssl/private.key", "getCertInfo", "Unable to open missing.crt file"},
      {"garbage.crt", "./cert/ssl/private.key", "getCertInfo", "Unable to load garbage.crt certificate"},
      {"./cert/ssl/public.crt", "missing.key", "getPrivateKey", "Unable to open missing.key file"},
      {"./cert/ssl/public.crt", "garbage.key", "getPrivateKey", "Unable to read RSA private key from garbage.key"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.logged);
    EXPECT_EQ(validateServerCertAndInitSSLCTX(SslSettings{row.cert, row.key}), -2);
    EXPECT_EQ(ssl_server_ctx(), nullptr);
    EXPECT_TRUE(log_has("sslCommunication", row.function, row.logged));
  }
}

// The receive limit covers the whole request, counted from the connection
// (60 s for real, see WaitsAndPortsHaveTheirRealDefaults; shortened here), over
// TCP and TLS alike: a client that closes, stops, trickles a byte at a time so
// that no single wait runs out, trickles its ClientHello, or the bytes of one
// record (which would hold a blocking read inside it) is dropped when the
// limit ends, without an answer. Slow clients that finish in time are served.
TEST_F(TlsTest, ClientsThatCloseStallOrTrickleAreDropped) {
  constexpr int kLimitMs = 800;
  seams([&](Seams& s) { s.recv_wait_ms = kLimitMs; });
  // The client's TLS writes use plain write(): a write racing the server's
  // close must not end the test process.
  testsys::ignore_broken_pipe();
  const int port = start_tls_server();
  ASSERT_NE(port, 0);
  std::unique_ptr<SSL_CTX, SslCtxFree> ctx(SSL_CTX_new(TLS_client_method()));
  // TLS 1.2 sends no session tickets after the handshake, so the first bytes
  // the client sees afterwards are the server's close.
  SSL_CTX_set_max_proto_version(ctx.get(), TLS1_2_VERSION);
  // A real ClientHello, made through memory BIOs.
  std::unique_ptr<SSL, SslFree> hello_maker(SSL_new(ctx.get()));
  BIO* out = BIO_new(BIO_s_mem());
  SSL_set_bio(hello_maker.get(), BIO_new(BIO_s_mem()), out);
  ASSERT_EQ(SSL_connect(hello_maker.get()), -1);
  char* data = nullptr;
  const long length = BIO_get_mem_data(out, &data);
  const std::string hello(data, static_cast<std::size_t>(length));
  ASSERT_GT(hello.size(), 100u);
  const std::string head_with_body = "RDSERVICE / HTTP/1.1\r\nContent-Length: 100\r\n\r\nab";
  const std::string record_head("\x17\x03\x03\x00\x40", 5);  // an application-data record of 64 bytes
  const std::string bytes(100, 'a');
  // kHello: the server is left waiting for the handshake; kTls: handshake
  // done, the request in records (one per send); kRaw: handshake done, bytes
  // sent on the socket.
  enum Mode { kTcp, kHello, kTls, kRaw };
  const struct {
    const char* name;
    Mode mode;
    std::string first;  // sent at once
    std::string then;   // one byte every 100 ms afterwards
    bool close;         // instead, the client closes after first
    const char* func;   // the function that logs why
    const char* logged;
  } rows[] = {
      {"close before any byte", kTcp, "", "", true, "recv_thru_tcp_socket", "recv failed"},
      {"close inside the header", kTcp, "RDSERVICE / HTTP/1.1\r\nHo", "", true, "recv_thru_tcp_socket",
       "recv failed in loop"},
      {"close inside the body", kTcp, "RDSERVICE / HTTP/1.1\r\nContent-Length: 9\r\n\r\n<ab", "", true,
       "recv_thru_tcp_socket", "Receiving Body, From Socket Failed"},
      {"silent", kTcp, "", "", false, "recv_thru_tcp_socket", "Timeout to receive data from client"},
      {"three bytes, then a byte every 100 ms", kTcp, "RDS", bytes, false, "recv_thru_tcp_socket",
       "Timeout to receive data from client"},
      {"header complete, body stalls", kTcp, head_with_body, "", false, "recv_thru_tcp_socket",
       "Timeout to receive data from client"},
      {"header complete, body trickles", kTcp, head_with_body, bytes, false, "recv_thru_tcp_socket",
       "Timeout to receive data from client"},
      {"TLS: nothing sent", kHello, "", "", false, "makeSSLConnection", "SSL accept timed out"},
      {"TLS: ClientHello trickled", kHello, "", hello, false, "makeSSLConnection", "SSL accept timed out"},
      {"TLS: three bytes, then silence", kTls, "RDS", "", false, "recvFromSSL", "Read timedout"},
      {"TLS: three bytes, then a record of one byte every 100 ms", kTls, "RDS", bytes, false, "recvFromSSL",
       "Read timedout"},
      {"TLS: one record's bytes trickled", kRaw, record_head, bytes, false, "recvFromSSL", "Read timedout"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    rd_config_update([&](RdConfig& c) { c.ssl_enabled = row.mode == kTcp ? 0 : 1; });
    const std::size_t offset = log_text().size();
    // The limit runs from the connection on, handshake included: the lower
    // bound counts the handshake too, which a loaded machine can make slow.
    const auto connected = std::chrono::steady_clock::now();
    const int s = connect_to(port);
    ASSERT_GE(s, 0);
    std::unique_ptr<SSL, SslFree> ssl(SSL_new(ctx.get()));
    SSL_set_fd(ssl.get(), s);
    ASSERT_TRUE(row.mode < kTls || SSL_connect(ssl.get()) == 1);
    const auto handshake = std::chrono::steady_clock::now() - connected;
    auto send = [&](const std::string& text) {
      if (text.empty()) return;
      if (row.mode != kTls) (void)platform::send_socket(s, text.data(), text.size());
      if (row.mode == kTls) SSL_write(ssl.get(), text.data(), static_cast<int>(text.size()));
    };
    if (row.close) {
      send(row.first);
      testsys::shutdown_send(s);
    } else {
      const long acted_ms = feed_until_server_acts(
          s, [&](int i) { send(i == 0 ? row.first : row.then.substr(std::min<std::size_t>(i - 1, row.then.size()), 1)); },
          100, 5000);
      EXPECT_GE(acted_ms, 0) << "the server never acted";
      EXPECT_GE(handshake + std::chrono::milliseconds(acted_ms), std::chrono::milliseconds(kLimitMs - 100));
      EXPECT_LE(acted_ms, kLimitMs + 1000);
    }
    char buf[256];
    EXPECT_TRUE(row.mode >= kTls ? SSL_read(ssl.get(), buf, sizeof buf) <= 0 : read_until_close(s, 3000).empty())
        << "an answer came";
    ERR_clear_error();
    platform::close_socket(s);
    EXPECT_TRUE(wait_log(row.mode == kTcp ? "server" : "sslCommunication", row.func, row.logged, offset));
    if (row.mode == kHello) {
      EXPECT_TRUE(wait_log("server", "process_incoming_message", "makeSSLConnection Failed", offset));
      EXPECT_NE(last_status().find(
                    " | server | process_incoming_message | SSL Connection Failed, please check browser settings "),
                std::string::npos);
      continue;
    }
    EXPECT_TRUE(wait_log("server", "process_incoming_message", "recv failed : Could not received data bytes", offset));
    EXPECT_NE(last_status().find(" | server | process_incoming_message | recv failed : Could not received data bytes "),
              std::string::npos);
  }
  EXPECT_EQ(tls_exchange(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port));
  rd_config_update([](RdConfig& c) { c.ssl_enabled = 0; });
  EXPECT_EQ(http_exchange(port, {"RDSERVICE / HT", "TP/1.1\r\nHost: a\r\n", "\r\n"}, 200), discovery_answer(port));
}

}  // namespace
