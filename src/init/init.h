// Service start-up and the exported lifecycle: Initialize_process,
// Start_RDservice, attach_device and detach_device (exports in vexo.h), and
// the scanner table that load_config_file reads.
//
// Thread-safety: the exports run on the host's thread. Start-up state is
// written before Start_RDservice starts the accept thread.
#ifndef VEXO_INIT_INIT_H
#define VEXO_INIT_INIT_H

#include <string>

#include "common/rd_codes.h"

// One row of the maker's table: the identifiers a scanner model reports.
struct ScannerModel {
  const char* name;   // scanner name as the host passes it
  const char* rdsId;  // RD service identifier
  const char* make;   // vendor name in capitals
  const char* mi;     // model identifier, "QDX.<family>.<model>.W"
};

// The files every start-up needs ("bin_crc.txt", "config.ini",
// "cert/server.crt") and, with TLS on, the TLS key and certificate: 0, or -1
// with the first missing one reported in the log, the last-status line and
// the pipe.
int IsFilePresent();
int Is_SSL_FilePresent();

// The scanner's row, or nullptr for an unknown name (exact comparison).
const ScannerModel* find_scanner_model(const std::string& name);

// Fixed defaults and the identifiers of the scanner name.
// 0, or -1 for an unknown scanner.
int load_config_file();

// Status value Initialize_process returns when the vendor libraries cannot be
// loaded: non-zero and outside the negative codes.
constexpr int kDllLoadingFailed = rd_codes::kInitDllLoading;

// Forgets every one-time step so a test can run Initialize_process afresh.
void init_reset_for_test();

#endif  // VEXO_INIT_INIT_H
