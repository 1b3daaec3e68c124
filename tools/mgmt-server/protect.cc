// The server's side of the message protection, on the shared rds_hmac_* code.
#include "protect.h"

#include "rds_hash.h"

namespace mgmt {

int body_seal(const std::string& body, std::string* out) {
  return rds_hmac_sign(body.data(), body.size(), 0, out) == 0 ? 0 : -1;
}

bool request_drt_ok(const std::string& header, const std::string& body) {
  int result = 0;
  return rds_hmac_verify_sign(body.data(), body.size(), header, &result) == 0 && result == 1;
}

bool hmac_pair_ok(const std::string& skey, const std::string& hmac, const std::string& text) {
  int result = 0;
  return rds_hmac_unprotect(hmac, skey, 1, text.data(), text.size(), &result) == 0 && result == 1;
}

int response_drt(const std::string& response, const std::string& request, std::string* out) {
  // The request's own RD_DRT carries SHA-256 of its body: made again here from
  // the body, which request_drt_ok has already tied to the header.
  std::string request_drt;
  if (rds_hmac_sign(request.data(), request.size(), 1, &request_drt) != 0 ||
      rds_hmac_sign_response(response.data(), response.size(), request_drt, out) != 0) {
    out->clear();
    return -1;
  }
  return 0;
}

}  // namespace mgmt
