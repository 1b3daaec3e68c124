// The capture driver: acquisition, signing, assembly of the plain Pid block
// (XML or protobuf) and its encryption, in that order.
#ifndef VEXO_RD_CORE_PIDBLOCK_H
#define VEXO_RD_CORE_PIDBLOCK_H

#include <string>
#include <vector>

#include "rd_core/pid_request.h"

struct EncPidBlock {
  std::string data;           // Base64: ts + GCM(Pid) + tag
  std::string hmac;           // Base64: GCM(SHA-256(Pid)) + tag
  std::string skey;           // Base64: RSA-wrapped session key
  std::string ci;             // UIDAI certificate expiry, "YYYYMMDD"
  std::vector<int> nmPoints;  // per captured finger, capture order
  std::vector<int> qScore;
};

// Runs one capture for request (REQUIRES: the caller holds the scanner lock).
// 0 and *out filled, or an RD error code (700, 730, 240, 999, ...).
int GenerateEncPIDBlock(PidOptionsRequest& request, EncPidBlock* out);

#endif  // VEXO_RD_CORE_PIDBLOCK_H
