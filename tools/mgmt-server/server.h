// The HTTP(S) front of the reference Management server: the six endpoints,
// the file downloads and the per-request log line on standard output.
#ifndef VEXO_TOOLS_MGMT_SERVER_SERVER_H
#define VEXO_TOOLS_MGMT_SERVER_SERVER_H

#include <cstdint>
#include <string>

namespace mgmt {

struct ServeOptions {
  std::string host = "127.0.0.1";
  int port = 8443;  // 0: any free port
  bool tls = true;
  std::string data_dir;              // uidai/*.pem and packages/*
  std::string registry;              // SQLite file
  std::int64_t clock_offset = 0;     // seconds added to the server's clock
  std::int64_t key_max_age = 86400;  // seconds before a device key is due again
  std::string cert, key, ca_cert, ca_key;
};

// Serves until SIGINT or SIGTERM. The first line on standard output is
// "listening on SCHEME://HOST:PORT/" with the bound port. Returns the
// process exit status (0 after a signal, 1 when it cannot start).
int serve(const ServeOptions& opts);

// The server's answer codes (respCode).
inline constexpr const char* kCodeOk = "ZELM-000";
inline constexpr const char* kCodeMalformed = "ZELM-001";
inline constexpr const char* kCodeBadDrt = "ZELM-002";
inline constexpr const char* kCodeBadHmac = "ZELM-003";
inline constexpr const char* kCodeBadKey = "ZELM-004";
inline constexpr const char* kCodeInternal = "ZELM-005";
inline constexpr const char* kCodeNoFile = "ZELM-006";
inline constexpr const char* kCodeNotRegistered = "ZELM-015";

}  // namespace mgmt

#endif  // VEXO_TOOLS_MGMT_SERVER_SERVER_H
