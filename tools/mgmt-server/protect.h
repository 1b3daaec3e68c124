// Message protection as the server sees it, on top of the shared rds_hmac_*
// code: checking a request's RD_DRT header and sKey/hmac pair, and sealing a
// response's RD_DRT header. Stateless and safe to call from any thread.
#ifndef VEXO_TOOLS_MGMT_SERVER_PROTECT_H
#define VEXO_TOOLS_MGMT_SERVER_PROTECT_H

#include <string>

namespace mgmt {

// The master-key encryption of SHA-256(body), as raw bytes: what a correct
// request's RD_DRT header decodes to. 0, or -1 with *out cleared.
int body_seal(const std::string& body, std::string* out);

// True when header (Base64 text) is the RD_DRT of body.
bool request_drt_ok(const std::string& header, const std::string& body);

// True when the sKey/hmac pair protects text (the "slNo@ts" of the request).
bool hmac_pair_ok(const std::string& skey, const std::string& hmac, const std::string& text);

// The RD_DRT header of a response: Base64 of the master-key encryption of
// SHA-256(response) followed by SHA-256(request). 0, or -1 with *out cleared.
int response_drt(const std::string& response, const std::string& request, std::string* out);

}  // namespace mgmt

#endif  // VEXO_TOOLS_MGMT_SERVER_PROTECT_H
