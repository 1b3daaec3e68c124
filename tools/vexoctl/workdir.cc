// init-workdir: lays out a working folder the service can start in. One
// function per laid-out item, in the order they are made.
#include <cstdio>
#include <filesystem>
#include <memory>

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <string>

#include "init/config.h"
#include "common/file_crc.h"
#include "init/init.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "semaphore/semaphore_syc.h"
#include "common/openssl_ptr.h"
#include "vexoctl.h"
#include "x509_make.h"

namespace {

struct Options {
  std::string dir;
  std::string scanner;
  std::string mgmt_url;
  std::string mgmt_ca;  // copied to cert/server.crt when given
  bool tls = false;
};

int fail(const std::string& message) {
  std::fprintf(stderr, "vexoctl: %s\n", message.c_str());
  return 1;
}

int parse(const Args& args, Options* o) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    bool has_value = i + 1 < args.size();
    if (a == "--scanner" && has_value) {
      o->scanner = args[++i];
    } else if (a == "--mgmt-url" && has_value) {
      o->mgmt_url = args[++i];
    } else if (a == "--mgmt-ca" && has_value) {
      o->mgmt_ca = args[++i];
    } else if (a == "--tls") {
      o->tls = true;
    } else if (!a.empty() && a[0] != '-' && o->dir.empty()) {
      o->dir = a;
    } else {
      return -1;
    }
  }
  return o->dir.empty() || o->scanner.empty() || o->mgmt_url.empty() ? -1 : 0;
}

int write_text(const std::string& path, const std::string& text, unsigned mode = 0644) {
  if (platform::write_file_atomic(path, text.data(), text.size(), mode) != 0) {
    return fail("cannot write " + path);
  }
  return 0;
}

// Folder of the running vexoctl executable.
std::string own_folder() {
  const std::string path = platform::program_path();
  const std::size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The library's file name on this system: libVexo.so or Vexo.dll.
std::string library_file_name() { return platform::shared_library_name("Vexo.dll"); }

// config.ini with the service defaults and the encrypted Management address,
// sealed by bin_crc.txt. dc stays empty so the first Init registers the device.
int lay_config(const Options& o) {
  std::string domain;
  if (encrypt_domain_name(o.mgmt_url, &domain) != 0) return fail("cannot encrypt the Management URL");
  const std::string text =
      "[config]\n"
      "RD_VER = 1.0.0\n"
      "DEV_PUB_KEY_VALIDITY = 1440\n"
      "dc = \n"
      "DOMAIN_NAME = " +
      domain +
      "\n"
      "IS_SSL_ENABLE = " +
      (o.tls ? "1" : "0") +
      "\n"
      "Verbose = 0\n";
  const std::string config = o.dir + "/config.ini";
  if (write_text(config, text) != 0) return 1;
  const std::string crc = o.dir + "/bin_crc.txt";
  if (add_crc(kCrc16, config.c_str(), crc.c_str()) != 0) return fail("cannot seal " + config);
  return 0;
}

// cert/server.crt: the CA file the Management client checks the server with.
// Without --mgmt-ca a fresh self-signed CA certificate stands in; its key is
// not kept, so it only completes the layout.
int lay_mgmt_ca(const Options& o) {
  std::string pem;
  if (!o.mgmt_ca.empty()) {
    if (platform::read_file(o.mgmt_ca, &pem) != 0 || pem.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
      return fail("cannot read a PEM certificate from " + o.mgmt_ca);
    }
  } else {
    std::string key;
    std::string error;
    CertRequest req{"Vexo Management CA", true, {}, 3650, ""};
    if (make_self_signed(req, &pem, &key, &error) != 0) return fail(error);
  }
  return write_text(o.dir + "/cert/server.crt", pem);
}

// RefDll/: the scanner libraries, copied from the RefDll folder beside vexoctl.
int lay_refdll(const Options& o) {
  namespace fs = std::filesystem;
  const std::string from = own_folder() + "/RefDll";
  std::error_code ec;
  fs::directory_iterator it(from, ec);
  if (ec) return fail("no RefDll folder beside vexoctl (" + from + "); build the simulators first");
  // ".so" or ".dll", as the system names its libraries.
  const std::string extension = fs::path(platform::shared_library_name("x.dll")).extension().string();
  const std::string to = o.dir + "/RefDll";
  int rc = platform::make_dirs(to) == 0 ? 0 : fail("cannot create " + to);
  for (; rc == 0 && !ec && it != fs::directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (it->path().extension().string() != extension) continue;
    std::string data;
    if (platform::read_file(from + "/" + name, &data) != 0) {
      rc = fail("cannot read " + from + "/" + name);
    } else {
      rc = write_text(to + "/" + name, data, 0755);
    }
  }
  return rc;
}

}  // namespace

// Final.xsd, the schema every capture request is validated against, from
// beside vexoctl.
int lay_schema(const Options& o) {
  std::string xsd;
  if (platform::read_file(own_folder() + "/Final.xsd", &xsd) != 0) {
    return fail("no Final.xsd beside vexoctl (" + own_folder() + ")");
  }
  return write_text(o.dir + "/Final.xsd", xsd);
}

// A demonstration keystore, so the service can capture before any Management
// server has been reached: a device key pair made exactly as a key rotation
// makes it, bound to this machine and to the libVexo.so beside vexoctl, and
// the device certificate itself (DER) standing in for the Management-signed
// cert/public/signed_mc.cer. Rebuilding the library changes its digest, so
// the keystore must be laid out again after a rebuild.
int lay_demo_keystore(const Options& o) {
  namespace fs = std::filesystem;
  const std::string library = own_folder() + "/" + library_file_name();
  if (!platform::file_readable(library)) {
    return fail("no " + library_file_name() + " beside vexoctl (" + library + ")");
  }
  std::error_code ec;
  const fs::path cwd = fs::current_path(ec);
  if (ec) return fail("cannot read the current folder");
  fs::current_path(o.dir, ec);
  if (ec) return fail("cannot enter " + o.dir);
  zlog_init("rd.log");  // the keystore's own lines, as the service would write them
  const std::string appdata = platform::appdata_dir();
  rd_identity_update([&](RdIdentity& id) { id.scanner_name = o.scanner; });
  int rc = load_config_file();
  rd_identity_update([&](RdIdentity& id) { id.appdata = appdata; });
  rd_config_update([](RdConfig& c) { c.dev_pub_key_validity = "1440"; });
  set_service_module_path(library);
  std::string cert_pem;
  if (rc == 0 && !appdata.empty()) rc = GenerateKeyPair(&cert_pem);
  std::string der;
  if (rc == 0) {
    std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(cert_pem.data(), static_cast<int>(cert_pem.size())));
    std::unique_ptr<X509, X509Free> cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    unsigned char* out = nullptr;
    int len = cert ? i2d_X509(cert.get(), &out) : -1;
    if (len > 0) der.assign(reinterpret_cast<char*>(out), static_cast<std::size_t>(len));
    OPENSSL_free(out);
  }
  const bool ok = rc == 0 && !der.empty() && platform::make_dirs("cert/public") == 0 &&
                  platform::write_file_atomic("cert/public/signed_mc.cer", der.data(), der.size()) == 0;
  zlog_fini();
  fs::current_path(cwd, ec);
  if (!ok) {
    return fail("cannot make the demonstration keystore (see " + o.dir +
                "/rd.log; it needs APPDATA or HOME and a network adapter)");
  }
  return 0;
}

int cmd_init_workdir(const Args& args) {
  Options o;
  if (parse(args, &o) != 0) return 2;
  if (semaphore_name_for_scanner(o.scanner.c_str()) == nullptr) {
    return fail("unknown scanner " + o.scanner);
  }
  if (platform::make_dirs(o.dir + "/cert") != 0) return fail("cannot create " + o.dir + "/cert");
  if (lay_config(o) != 0 || lay_mgmt_ca(o) != 0 || lay_refdll(o) != 0 || lay_schema(o) != 0) return 1;
  // Without a keystore the service still starts and answers; only captures
  // fail until a key rotation has made one.
  if (lay_demo_keystore(o) != 0) std::fprintf(stderr, "vexoctl: warning: the working folder has no keystore\n");
  if (o.tls && lay_local_tls(o.dir) != 0) return 1;
  std::printf("working folder %s is ready for %s\n", o.dir.c_str(), o.scanner.c_str());
  return 0;
}

int cmd_demo_keystore(const Args& args) {
  Options o;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--scanner" && i + 1 < args.size()) {
      o.scanner = args[++i];
    } else if (!args[i].empty() && args[i][0] != '-' && o.dir.empty()) {
      o.dir = args[i];
    } else {
      return 2;
    }
  }
  if (o.dir.empty() || o.scanner.empty()) return 2;
  if (find_scanner_model(o.scanner) == nullptr) return fail("unknown scanner " + o.scanner);
  return lay_demo_keystore(o);
}
