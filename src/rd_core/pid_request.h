// The parsed PidOptions request, and the biometric records one capture yields.
// Filled by Parse_XML_Request; read by acquisition, assembly and framing.
#ifndef VEXO_RD_CORE_PID_REQUEST_H
#define VEXO_RD_CORE_PID_REQUEST_H

#include <cstdint>
#include <string>
#include <vector>

constexpr int kMaxFingers = 10;
constexpr std::size_t kPositionSize = 24;  // one posh entry, NUL included
constexpr std::size_t kWadhSize = 60;
constexpr std::size_t kOtpSize = 112;
constexpr std::size_t kEnvSize = 40;
constexpr std::size_t kDemoValueSize = 256;  // every Demo attribute value

struct PiGroup {
  int given = 0;
  std::string ms, mv, name, lname, lmv, gender, dob, dobt, age, phone, email;
};
struct PaGroup {
  int given = 0;
  std::string ms, co, house, street, lm, loc, vtc, subdist, dist, state, country, pc, po;
};
struct PfaGroup {
  int given = 0;
  std::string ms, mv, av, lav, lmv;
};

struct PidOptionsRequest {
  unsigned finger_requested = 0;
  int fCount = 0;
  int fType = 0;
  int face_requested = 0;
  int pCount = 0;
  char format = 'X';
  int timeout_given = 0;
  int timeout = 0;
  std::string ver;   // the root's ver, "1.0" or "2.0"
  std::string wadh;  // < kWadhSize
  int otp_given = 0;
  std::string otp;                     // < kOtpSize
  std::vector<std::string> positions;  // at most kMaxFingers entries
  int demo_given = 0;
  std::string lang;  // Demo's lang attribute
  PiGroup pi;
  PaGroup pa;
  PfaGroup pfa;
  std::string env = "P";  // < kEnvSize
};

// One biometric record of one finger.
struct BioRecord {
  bool image = false;               // false: FMR (minutiae), true: FIR (image)
  std::vector<std::uint8_t> bytes;  // the raw record
  std::string base64;               // its Base64 text
  std::string bs;                   // its bio-sign
};

struct CapturedFinger {
  std::string position;  // posh name, "UNKNOWN" when none was given
  int nmPoints = 0;
  int qScore = 0;
  int nfiq = 0;
  std::vector<BioRecord> records;  // FMR before FIR
};

#endif  // VEXO_RD_CORE_PID_REQUEST_H
