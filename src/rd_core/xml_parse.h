// The three gates a PidOptions request passes before the scanner is touched:
// the schema check, the hand check of every attribute (which fills the parsed
// request) and the check of the requested authentication kinds.
//
// Thread-safety: all three may run on any thread. Pidinput_validate serialises
// itself with a process-wide mutex because it goes through the one scratch
// file "Final.xml" in the current folder.
#ifndef VEXO_RD_CORE_XML_PARSE_H
#define VEXO_RD_CORE_XML_PARSE_H

#include <cstddef>

#include "rd_core/pid_request.h"

// Validates body against "<prefix>Final.xsd" through the scratch file
// "Final.xml", which is deleted before returning. 0 valid; 1 (positive) does
// not validate or is not well-formed; -1 internal error (schema or scratch
// file unusable).
int Pidinput_validate(const char* body);

// Checks every attribute of the PidOptions document in body and fills
// *request (cleared first). 0, or the RD error code of the first fault:
// 100, 110, 120, 150, 160, 180, 190, 220, 760.
int Parse_XML_Request(const char* body, PidOptionsRequest* request);

// 0 when fingerprints are requested; -1 (logged) otherwise.
int Allowed_methods(const PidOptionsRequest& request);

// Splits a posh text into positions (cut at ",", white space removed, each
// entry a known finger name of at most 23 characters, at most kMaxFingers
// entries). The number of entries, or -1 on the first bad entry.
int split_positions(const char* raw, std::vector<std::string>* positions);

#endif  // VEXO_RD_CORE_XML_PARSE_H
