// The PidData answer of every CAPTURE request, and the table of RD error codes
// with their errInfo texts (shared by capture and PostAuth).
//
// Thread-safety: every function is reentrant; the table is constant.
#ifndef VEXO_RD_CORE_PID_DATA_H
#define VEXO_RD_CORE_PID_DATA_H

#include <cstdint>
#include <string>

#include "rd_core/pid_request.h"

struct PidDataResponse {
  int errCode = 0;
  std::string errInfo;
  std::int8_t fCount = 0;
  std::int8_t fType = 0;
  std::int8_t iCount = 0;
  std::int8_t iType = 0;
  std::int8_t pCount = 0;
  std::int8_t pType = 0;
  int nmPoints[kMaxFingers] = {};  // per captured finger, capture order
  int qScore[kMaxFingers] = {};
  std::string dpId, rdsId, rdsVer, dc, mi, mc;
  std::string srno;
  std::string ci;          // UIDAI certificate expiry "YYYYMMDD"
  std::string skey;        // Base64 wrapped session key
  std::string hmac;        // Base64 encrypted hash
  std::string type = "X";  // "X" or "P"
  std::string data;        // Base64 encrypted Pid
};

// The errInfo text of an RD error code, or nullptr for a code not in the table.
const char* rd_error_text(int code);

// Makes *response an error answer: errCode and its errInfo ("" for an unknown
// code), empty ci, Skey, Hmac and Data. Counts and device values are kept.
void set_pid_error(PidDataResponse* response, int code);

// Serialises the PidData document (XML declaration, no indentation) into *out.
// 0, or -1 when a node cannot be made (*out cleared).
int FramePidOutputOuterXML(const PidDataResponse& response, std::string* out);

// "%03d," per finger for the first count values, the last comma removed;
// "" for a count of 0. count is bounded to 0..kMaxFingers.
std::string format_finger_list(const int* values, int count);

#endif  // VEXO_RD_CORE_PID_DATA_H
