// Placeholder until the shared protection code (rds_hash) is merged: it
// fails closed, so every POST is refused with ZELM-002 and answers carry no
// RD_DRT. Replaced by the real checks on top of rds_hmac_* at the merge.
#include "protect.h"

namespace mgmt {

int body_seal(const std::string&, std::string* out) {
  out->clear();
  return -1;
}
bool request_drt_ok(const std::string&, const std::string&) { return false; }
bool hmac_pair_ok(const std::string&, const std::string&, const std::string&) { return false; }
int response_drt(const std::string&, const std::string&, std::string* out) {
  out->clear();
  return -1;
}

}  // namespace mgmt
