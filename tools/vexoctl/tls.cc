// tls-cert and trust-tls: a local certificate authority whose server
// certificate browsers accept for https://127.0.0.1, https://[::1] and
// https://localhost once the authority is trusted (trust_SYSTEM.cc: the
// user's NSS databases on POSIX, the user's Root store on Windows).
#include <cstdio>
#include <string>

#include "platform/platform.h"
#include "vexoctl.h"
#include "x509_make.h"

namespace {

// The authority may only vouch for loopback names, so its key, should it
// leak, cannot impersonate any other site to the browsers that trust it.
constexpr char kCaConstraints[] =
    "permitted;DNS:localhost,permitted;IP:127.0.0.0/255.0.0.0,"
    "permitted;IP:0:0:0:0:0:0:0:1/FFFF:FFFF:FFFF:FFFF:FFFF:FFFF:FFFF:FFFF";
constexpr int kCaDays = 3650;
// Browsers refuse server certificates valid for longer than 825 days.
constexpr int kServerDays = 825;

int fail(const std::string& message) {
  std::fprintf(stderr, "vexoctl: %s\n", message.c_str());
  return 1;
}

struct TlsPaths {
  std::string ssl;      // DIR/cert/ssl
  std::string ca_dir;   // DIR/cert/ssl/ca
  std::string ca_cert;  // DIR/cert/ssl/ca/ca.crt
  std::string ca_key;   // DIR/cert/ssl/ca/ca.key
};

TlsPaths tls_paths(const std::string& dir) {
  TlsPaths p;
  p.ssl = dir;
  p.ssl += "/cert/ssl";
  p.ca_dir = p.ssl;
  p.ca_dir += "/ca";
  p.ca_cert = p.ca_dir;
  p.ca_cert += "/ca.crt";
  p.ca_key = p.ca_dir;
  p.ca_key += "/ca.key";
  return p;
}

int write_text(const std::string& path, const std::string& text, unsigned mode) {
  if (platform::write_file_atomic(path, text.data(), text.size(), mode) != 0) return fail("cannot write " + path);
  return 0;
}

// Eight random hexadecimal digits, so that the authorities of two working
// folders have different names in one NSS database.
std::string random_tag() {
  unsigned char bytes[4] = {};
  (void)platform::random_bytes(bytes, sizeof bytes);
  char text[9];
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x", bytes[0], bytes[1], bytes[2], bytes[3]);
  return text;
}

// Keeps the authority of an earlier run (so a browser that trusts it goes on
// trusting the new server certificate), or makes a new one.
int ensure_ca(const TlsPaths& p, Issuer* ca, bool* made) {
  *made = false;
  if (platform::read_file(p.ca_cert, &ca->cert_pem) == 0 && platform::read_file(p.ca_key, &ca->key_pem) == 0) {
    return 0;
  }
  std::string name = "Vexo local RD service CA ";
  name += random_tag();
  CertRequest req{name, true, {}, kCaDays, kCaConstraints};
  std::string error;
  if (make_self_signed(req, &ca->cert_pem, &ca->key_pem, &error) != 0) return fail(error);
  if (platform::make_dirs(p.ca_dir) != 0) return fail("cannot create " + p.ca_dir);
  // Whoever reads this key can sign certificates the browser trusts.
  restrict_to_owner(p.ca_dir);
  if (write_text(p.ca_key, ca->key_pem, 0600) != 0 || write_text(p.ca_cert, ca->cert_pem, 0644) != 0) return 1;
  *made = true;
  return 0;
}

}  // namespace

int lay_local_tls(const std::string& dir) {
  const TlsPaths p = tls_paths(dir);
  if (platform::make_dirs(p.ssl) != 0) return fail("cannot create " + p.ssl);
  Issuer ca;
  bool made = false;
  if (ensure_ca(p, &ca, &made) != 0) return 1;
  CertRequest req{"localhost", false, {"DNS:localhost", "IP:127.0.0.1", "IP:::1"}, kServerDays, ""};
  std::string cert;
  std::string key;
  std::string error;
  if (make_signed(req, ca, &cert, &key, &error) != 0) return fail(error + " (" + p.ca_cert + ")");
  std::string key_path = p.ssl;
  key_path += "/private.key";
  std::string cert_path = p.ssl;
  cert_path += "/public.crt";
  if (write_text(key_path, key, 0600) != 0 || write_text(cert_path, cert, 0644) != 0) return 1;
  std::printf("%s local CA \"%s\" in %s\n", made ? "made" : "kept", cert_common_name(ca.cert_pem).c_str(),
              p.ca_dir.c_str());
  std::printf("server certificate for localhost, 127.0.0.1 and ::1 in %s\n", cert_path.c_str());
  return 0;
}

int cmd_tls_cert(const Args& args) {
  if (args.size() != 1 || args[0].empty() || args[0][0] == '-') return 2;
  return lay_local_tls(args[0]);
}

int cmd_trust_tls(const Args& args) {
  if (args.size() != 1 || args[0].empty() || args[0][0] == '-') return 2;
  const TlsPaths p = tls_paths(args[0]);
  std::string ca_pem;
  if (platform::read_file(p.ca_cert, &ca_pem) != 0) {
    return fail("no local CA in " + p.ca_cert + "; run vexoctl tls-cert " + args[0] + " first");
  }
  const std::string nickname = cert_common_name(ca_pem);
  if (nickname.empty()) return fail(p.ca_cert + " is not a PEM certificate");
  return trust_local_ca(p.ca_cert, ca_pem, nickname);
}
