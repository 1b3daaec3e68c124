#include "mgmt_server_util.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <stdexcept>

#include "platform/platform.h"
#include "test_crypto.h"
#include "test_sys.h"
#include "test_util.h"

namespace mgmttest {

const std::string kServer = VEXO_MGMT_SERVER;
const std::string kMgmtData = std::string(VEXO_SOURCE_DIR) + "/data/mgmt";

namespace {

constexpr int kLimitMs = 30000;  // to start, to run a registry command, to stop

// A word quoted for sh.
std::string quoted(const std::string& word) {
  std::string q = "'";
  for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// Waits until path holds a whole number; -1 after the limit.
long wait_number(const std::string& path) {
  std::string text;
  const bool done = testutil::wait_until(
      [&] {
        text = testutil::read_file(path);
        return !text.empty() && text.back() == '\n';
      },
      kLimitMs);
  return done ? std::stol(text) : -1;
}

// The server runs under a small sh script that writes its pid and, when it
// ends, its exit code into files beside its output (renamed into place, so a
// reader never sees half a number): under Wine a Windows process gets no
// handle on a Linux program to wait on or to end. The pid, -1 when it did not start.
pid_t spawn(const std::vector<std::string>& args, const std::string& out_file) {
  const std::string dir = linux_cwd();
  if (dir.empty()) return -1;
  for (const char* end : {".pid", ".exit"}) std::remove((out_file + end).c_str());
  std::string command = quoted(kServer);
  for (const auto& a : args) command += " " + quoted(a);
  const std::string out = quoted(out_file);
  const std::string script = "cd " + quoted(dir) + " || exit 127\n" + command + " > " + out + " 2>&1 &\n" +
                             "echo $! > " + out + ".pid.tmp && mv " + out + ".pid.tmp " + out + ".pid\n" +
                             "wait $!\necho $? > " + out + ".exit.tmp && mv " + out + ".exit.tmp " + out + ".exit\n";
  testutil::write_file(out_file + ".sh", script);
  if (!run_linux("/bin/sh " + dir + "/" + out_file + ".sh")) return -1;
  return static_cast<pid_t>(wait_number(out_file + ".pid"));
}

// The exit code of the server spawned with out_file, -1 when it did not end.
int wait_exit(const std::string& out_file) { return static_cast<int>(wait_number(out_file + ".exit")); }

}  // namespace

int run_command(const std::vector<std::string>& args, std::string* output) {
  const std::string out = "cmd.out";
  if (spawn(args, out) < 0) return -1;
  const int code = wait_exit(out);
  if (output != nullptr) *output = testutil::read_file(out);
  return code;
}

// Each server writes a file of its own: a second one never reads the port of
// the first, whose file it would otherwise share.
Server::Server(bool tls, const std::vector<std::string>& extra) : tls_(tls) {
  static std::atomic<int> started{0};
  out_ = "server-" + std::to_string(++started) + ".out";
  std::vector<std::string> args = {"serve",  "--port", "0",          tls ? "--tls" : "--plain",
                                   "--data", "data",   "--registry", "registry.db"};
  args.insert(args.end(), extra.begin(), extra.end());
  pid_ = spawn(args, out_);
  const std::regex first("listening on (https?)://127\\.0\\.0\\.1:([0-9]+)/\n");
  testutil::wait_until([&] {
    std::smatch m;
    const std::string out = testutil::read_file(out_);
    if (pid_ > 0 && std::regex_search(out, m, first)) port_ = std::stoi(m[2]);
    return pid_ <= 0 || port_ > 0;
  });
}

Server::~Server() {
  if (pid_ <= 0) return;
  run_linux("/bin/kill -TERM " + std::to_string(pid_));
  if (wait_exit(out_) == -1) run_linux("/bin/kill -KILL " + std::to_string(pid_));
}

std::string Server::base() const {
  return (tls_ ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_) + "/Zelm";
}

std::string Server::log() const { return testutil::read_file(out_); }

namespace {

// Waits until fd is readable (true) or the server is to stop (false).
bool wait_readable(platform::socket_t fd, const std::atomic<bool>& stop, int timeout_ms = -1) {
  for (int waited = 0; !stop; waited += 50) {
    const int r = platform::wait_readable(fd, 50);
    if (r != 0) return r > 0;
    if (timeout_ms >= 0 && waited >= timeout_ms) return false;
  }
  return false;
}

// Takes h2 when the client offers it, as an HTTP/2 server does: a client
// that offered it could not read the HTTP/1.1 answer.
int select_h2(SSL*, const unsigned char** out, unsigned char* out_len, const unsigned char* in, unsigned int in_len,
              void*) {
  static const unsigned char kH2[] = {2, 'h', '2'};
  unsigned char* chosen = nullptr;
  if (SSL_select_next_proto(&chosen, out_len, kH2, sizeof kH2, in, in_len) != OPENSSL_NPN_NEGOTIATED) {
    return SSL_TLSEXT_ERR_NOACK;
  }
  *out = chosen;
  return SSL_TLSEXT_ERR_OK;
}

}  // namespace

std::string header_of(const std::string& head, const std::string& name) {
  std::smatch m;
  const std::regex re("\r\n" + name + ":[ \t]*([^\r\n]*)", std::regex::icase);
  return std::regex_search(head, m, re) ? std::string(m[1]) : std::string();
}

std::string http_reply(const std::string& status, const std::string& headers, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

CannedServer::CannedServer(Handler handler, const std::string& cert_file, const std::string& key_file)
    : handler_(std::move(handler)) {
  if (!cert_file.empty()) {
    tls_.reset(SSL_CTX_new(TLS_server_method()));
    if (!tls_ || SSL_CTX_use_certificate_chain_file(tls_.get(), cert_file.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls_.get(), key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
      throw std::runtime_error("canned server: certificate not loaded");
    }
    SSL_CTX_set_alpn_select_cb(tls_.get(), select_h2, nullptr);
  }
  fd_ = platform::tcp_socket();
  if (fd_ == platform::kInvalidSocket || platform::bind_loopback(fd_, 0) != 0 || platform::listen_socket(fd_, 8) != 0 ||
      (port_ = testsys::local_port(fd_)) == 0) {
    throw std::runtime_error("canned server not started");
  }
  thread_ = std::thread([this] { serve(); });
}

CannedServer::~CannedServer() {
  stop_ = true;
  thread_.join();
  platform::close_socket(fd_);
}

std::string CannedServer::url(const std::string& path) const {
  return (tls_ ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_) + path;
}

void CannedServer::serve() {
  while (wait_readable(fd_, stop_)) {
    const platform::socket_t c = platform::accept_socket(fd_);
    if (c == platform::kInvalidSocket) continue;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++connections_;
      sent_ = 0;
    }
    std::unique_ptr<SSL, SslFree> ssl;
    if (tls_) {
      ssl.reset(SSL_new(tls_.get()));
      SSL_set_fd(ssl.get(), static_cast<int>(c));
      if (SSL_accept(ssl.get()) != 1) ssl.reset();
    }
    if (!tls_ || ssl) answer(c, ssl.get());
    ssl.reset();
    platform::close_socket(c);
  }
}

void CannedServer::answer(platform::socket_t c, SSL* ssl) {
  auto receive = [&](char* buf, int size) {
    if (ssl == nullptr) return static_cast<int>(platform::recv_socket(c, buf, static_cast<std::size_t>(size)));
    return SSL_pending(ssl) > 0 || wait_readable(c, stop_) ? SSL_read(ssl, buf, size) : 0;
  };
  auto send_all = [&](const char* data, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
      const int n = ssl != nullptr ? SSL_write(ssl, data + done, static_cast<int>(size - done))
                                   : static_cast<int>(platform::send_socket(c, data + done, size - done));
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
      std::lock_guard<std::mutex> lock(mutex_);
      sent_ += static_cast<std::size_t>(n);
    }
    return true;
  };
  CannedRequest request;
  std::string in;
  char buf[16384];
  std::size_t need = std::string::npos;
  bool continued = false;
  while (ssl != nullptr || wait_readable(c, stop_)) {
    const int n = receive(buf, sizeof buf);
    if (n <= 0) return;
    in.append(buf, static_cast<std::size_t>(n));
    const std::size_t end = in.find("\r\n\r\n");
    if (end == std::string::npos) continue;
    request.head = in.substr(0, end + 2);
    if (need == std::string::npos) {
      const std::string length = request.header("Content-Length");
      need = end + 4 + (length.empty() ? 0 : std::stoul(length));
    }
    if (!continued && !request.header("Expect").empty()) {
      continued = true;
      send_all("HTTP/1.1 100 Continue\r\n\r\n", 25);
    }
    if (in.size() >= need) break;
  }
  request.method = in.substr(0, in.find(' '));
  request.body = in.substr(request.head.size() + 2);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
  }
  const Reply reply = handler_ ? handler_(request) : Reply();
  if (reply.hang_up) return;
  if (reply.bytes.empty()) {
    wait_readable(c, stop_);  // held until the client gives up or the test ends
    return;
  }
  if (!send_all(reply.bytes.data(), reply.bytes.size())) return;
  const std::string filler(reply.trickle_ms > 0 ? 1 : 65536, 'x');
  for (std::size_t left = reply.filler; left > 0;) {
    if (reply.trickle_ms > 0) {
      // The client left (readable: end of stream), or the test ends.
      if (wait_readable(c, stop_, reply.trickle_ms) || stop_) return;
    }
    const std::size_t n = std::min(left, filler.size());
    if (!send_all(filler.data(), n)) return;
    left -= n;
  }
}

int closed_port() {
  CannedServer gone(nullptr);
  const std::string url = gone.url("");
  return std::stoi(url.substr(url.rfind(':') + 1));
}

Issued issue_cert(const char* cn, const std::vector<std::pair<int, const char*>>& extensions, const Issued* issuer) {
  Issued out;
  out.key.reset(EVP_EC_gen("P-256"));
  X509Ptr cert(X509_new());
  X509Ptr issuer_cert = issuer != nullptr ? testcrypto::cert_of_pem(issuer->cert_pem) : nullptr;
  X509* signer = issuer_cert ? issuer_cert.get() : cert.get();
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
  X509_set_version(cert.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 4242);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -86400);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 86400);
  X509_set_pubkey(cert.get(), out.key.get());
  X509_set_issuer_name(cert.get(), X509_get_subject_name(signer));
  for (const auto& [nid, value] : extensions) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, signer, cert.get(), nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, ExtFree> ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    if (!ext || X509_add_ext(cert.get(), ext.get(), -1) != 1) throw std::runtime_error("extension not added");
  }
  if (X509_sign(cert.get(), issuer != nullptr ? issuer->key.get() : out.key.get(), EVP_sha256()) <= 0) {
    throw std::runtime_error("certificate not signed");
  }
  BioPtr cert_out(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(cert_out.get(), cert.get());
  char* pem = nullptr;
  const long pem_size = BIO_get_mem_data(cert_out.get(), &pem);
  out.cert_pem.assign(pem, static_cast<std::size_t>(pem_size));
  out.key_pem = testcrypto::private_key_pem(out.key.get(), true);
  return out;
}

}  // namespace mgmttest
