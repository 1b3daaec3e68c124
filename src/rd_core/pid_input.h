// The assembly input of the plain Pid block and its XML form.
//
// Thread-safety: pure functions of their input.
#ifndef VEXO_RD_CORE_PID_INPUT_H
#define VEXO_RD_CORE_PID_INPUT_H

#include <span>
#include <string>

#include "rd_core/pid_request.h"

// Everything that goes into one Pid block.
struct PidInput {
  std::string ts;  // capture time, "YYYY-mm-ddTHH:MM:SS"
  std::string ver;
  std::string wadh;
  int otp_given = 0;
  std::string otp;
  std::string pin;
  int demo_given = 0;
  std::string lang;
  PiGroup pi;
  PaGroup pa;
  PfaGroup pfa;
  std::string dih;
  std::span<const CapturedFinger> fingers;  // capture order; not owned
};

// Copies ts and the request's ver, wadh, otp and Demo values into an input.
PidInput make_pid_input(const PidOptionsRequest& request, const std::string& ts, const std::string& dih,
                        std::span<const CapturedFinger> fingers);

// Serialises the Pid document without indentation (it starts with the XML
// declaration) into *xml. Attributes are written only when non-empty.
// 0, or -1 when a node cannot be made (*xml cleared).
int FramePidInnerXML(const PidInput& in, std::string* xml);

#endif  // VEXO_RD_CORE_PID_INPUT_H
