// vexoctl: prepares and inspects a Vexo working folder.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <cstring>
#include <string>

#include "init/config.h"
#include "common/file_crc.h"
#include "common/hash.h"
#include "platform/platform.h"
#include "rd_core/uidai_certs.h"
#include "vexoctl.h"

namespace {

struct Command {
  const char* name;
  const char* usage;
  const char* summary;
  int (*run)(const Args& args);
};

// The seal file lies beside the data file.
std::string crc_path_for(const std::string& file) {
  std::size_t slash = file.rfind('/');
  return slash == std::string::npos ? "bin_crc.txt" : file.substr(0, slash + 1) + "bin_crc.txt";
}

int cmd_domain_encrypt(const Args& args) {
  if (args.size() != 1 || args[0].empty()) return 2;
  std::string value;
  if (encrypt_domain_name(args[0], &value) != 0) {
    std::fprintf(stderr, "vexoctl: cannot encrypt the URL\n");
    return 1;
  }
  std::printf("%s\n", value.c_str());
  return 0;
}

int cmd_domain_decrypt(const Args& args) {
  if (args.size() != 1) return 2;
  std::string url;
  if (decrypt_domain_name(args[0], &url) != 0) {
    std::fprintf(stderr, "vexoctl: not a DOMAIN_NAME value of this build\n");
    return 1;
  }
  std::printf("%s\n", url.c_str());
  return 0;
}

int cmd_seal(const Args& args) {
  if (args.size() != 1) return 2;
  const std::string crc = crc_path_for(args[0]);
  if (add_crc(kCrc16, args[0].c_str(), crc.c_str()) != 0) {
    std::fprintf(stderr, "vexoctl: cannot seal %s\n", args[0].c_str());
    return 1;
  }
  std::printf("sealed %s into %s\n", args[0].c_str(), crc.c_str());
  return 0;
}

int cmd_verify(const Args& args) {
  if (args.size() != 1) return 2;
  const std::string crc = crc_path_for(args[0]);
  if (verify_crc(kCrc16, args[0].c_str(), crc.c_str()) != 0) {
    std::printf("seal broken: %s does not match %s\n", args[0].c_str(), crc.c_str());
    return 1;
  }
  std::printf("seal ok: %s\n", args[0].c_str());
  return 0;
}

// Installs a UIDAI certificate with its checksum, as the Management client
// does, for deployments without a Management server. Only a plausible UIDAI
// certificate is taken, unless --force asks for a test certificate.
int cmd_uidai_cert(const Args& all) {
  Args args;
  bool force = false;
  for (const std::string& a : all) {
    if (a == "--force") {
      force = true;
    } else {
      args.push_back(a);
    }
  }
  if (args.size() != 3) return 2;
  const struct {
    const char* env;
    UidaiCert which;
  } kEnvs[] = {
      {"S", UidaiCert::kStage}, {"PP", UidaiCert::kPreProd}, {"P", UidaiCert::kProd}, {"P_OLD", UidaiCert::kProdOld}};
  const auto* env = std::find_if(std::begin(kEnvs), std::end(kEnvs), [&](const auto& e) { return args[1] == e.env; });
  if (env == std::end(kEnvs)) return 2;
  std::string pem;
  if (platform::read_file(args[2], &pem) != 0 || pem.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
    std::fprintf(stderr, "vexoctl: %s is not a PEM certificate\n", args[2].c_str());
    return 1;
  }
  std::string why;
  if (!force && uidai_cert_plausible(pem, platform::now(), &why) != 0) {
    std::fprintf(stderr, "vexoctl: %s is no UIDAI certificate: %s (--force installs it all the same)\n",
                 args[2].c_str(), why.c_str());
    return 1;
  }
  const std::string checksum = hex_lower(sha256(std::string_view(pem)));
  if (uidai_install_cert(args[0] + "/", env->which, pem, checksum) != 0) {
    std::fprintf(stderr, "vexoctl: cannot install %s in %s/cert/uidai\n", args[2].c_str(), args[0].c_str());
    return 1;
  }
  std::printf("installed %s/cert/uidai/%s sha256 %s\n", args[0].c_str(), uidai_cert_file_name(env->which),
              checksum.c_str());
  return 0;
}

const Command kCommands[] = {
    {"domain-encrypt", "domain-encrypt URL", "print the DOMAIN_NAME value for a Management base URL",
     cmd_domain_encrypt},
    {"domain-decrypt", "domain-decrypt VALUE", "print the URL held in a DOMAIN_NAME value", cmd_domain_decrypt},
    {"seal", "seal FILE", "write bin_crc.txt beside FILE", cmd_seal},
    {"verify", "verify FILE", "check FILE against the bin_crc.txt beside it (exit 0 or 1)", cmd_verify},
    {"init-workdir", "init-workdir DIR --scanner NAME --mgmt-url URL [--tls] [--mgmt-ca FILE]",
     "lay out a working folder: sealed config.ini, cert/server.crt, RefDll/, Final.xsd, a "
     "demonstration keystore with cert/public/signed_mc.cer, and with --tls "
     "what tls-cert makes",
     cmd_init_workdir},
    {"demo-keystore", "demo-keystore DIR --scanner NAME",
     "make the demonstration keystore and cert/public/signed_mc.cer in DIR again (after a rebuild "
     "of the library)",
     cmd_demo_keystore},
    {"tls-cert", "tls-cert DIR",
     "make a local CA in DIR/cert/ssl/ca/ (kept when present) and a server certificate for "
     "localhost, 127.0.0.1 and ::1 signed by it in DIR/cert/ssl/public.crt and private.key",
     cmd_tls_cert},
    {"trust-tls", "trust-tls DIR", kTrustSummary, cmd_trust_tls},
    {"uidai-cert", "uidai-cert DIR ENV FILE [--force]",
     "install FILE as the UIDAI certificate of ENV (S, PP, P or P_OLD) in DIR/cert/uidai with its "
     "checksum, so captures use it; FILE must hold an RSA key of at least 2048 bits, be valid now and "
     "name the organisation UIDAI, unless --force installs a test certificate",
     cmd_uidai_cert},
};

void print_usage(FILE* out) {
  std::fprintf(out, "usage: vexoctl COMMAND [ARGS]\n\ncommands:\n");
  for (const Command& c : kCommands) std::fprintf(out, "  %-16s %s\n", c.name, c.summary);
  std::fprintf(out, "\nvexoctl COMMAND --help shows the arguments of a command.\n");
}

}  // namespace

bool wants_help(const Args& args) {
  for (const auto& a : args) {
    if (a == "--help" || a == "-h") return true;
  }
  return false;
}

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    print_usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  const Args args(argv + 2, argv + argc);
  for (const Command& c : kCommands) {
    if (std::strcmp(argv[1], c.name) != 0) continue;
    if (wants_help(args)) {
      std::printf("usage: vexoctl %s\n  %s\n", c.usage, c.summary);
      return 0;
    }
    int rc = c.run(args);
    if (rc == 2) std::fprintf(stderr, "usage: vexoctl %s\n", c.usage);
    return rc;
  }
  std::fprintf(stderr, "vexoctl: unknown command %s\n", argv[1]);
  print_usage(stderr);
  return 2;
}
