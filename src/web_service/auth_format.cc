#include "web_service/auth_format.h"

#include <cctype>

#include "common/rd_log.h"
#include "rds_hash.h"

namespace {
// An RD_DRT is 64 bytes of ciphertext (88 Base64 characters); anything far
// longer is not one, and is cut before it reaches the log.
constexpr std::size_t kMaxRdtLength = 256;
constexpr std::string_view kRdtName = "RD_DRT";
constexpr std::size_t kValueOffset = 8;  // past "RD_DRT: "
}  // namespace

int ParseResponseRDT(std::string_view headers, std::string* rdt) {
  rdt->clear();
  if (headers.empty()) {
    RD_ERROR("respBuffer len is zero");
    return -1;
  }
  const std::size_t at = headers.find(kRdtName);
  if (at == std::string_view::npos) {
    RD_ERROR("RD_DRT is not present");
    return -1;
  }
  std::size_t pos = at + kValueOffset;
  while (pos < headers.size() && rdt->size() < kMaxRdtLength &&
         std::isspace(static_cast<unsigned char>(headers[pos])) == 0) {
    rdt->push_back(headers[pos]);
    ++pos;
  }
  RD_INFO("RD_DRT from server is : %s", rdt->c_str());
  return 0;
}

int ResponseDRTCheck(std::string_view body, std::string_view headers, const std::string& request_drt) {
  std::string server_rdt;
  if (ParseResponseRDT(headers, &server_rdt) != 0) {
    RD_ERROR("Parsing failed for RDT from server");
    return -22;
  }
  int verified = 0;
  if (rds_hmac_check(server_rdt, request_drt, 1, body.data(), body.size(), &verified) != 0) {
    RD_ERROR("RD_DRT_hash_verify is failed");
    return -23;
  }
  if (verified != 1) {
    RD_ERROR("RD_DRT_hash_verification Failed");
    return -23;
  }
  RD_INFO("RD_DRT_hash_verification Success");
  return 0;
}
