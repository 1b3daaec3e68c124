#include "web_service/auth_format.h"

#include <cctype>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "rds_hash.h"

namespace {
// An RD_DRT is 64 bytes of ciphertext (88 Base64 characters); anything far
// longer is not one, and is cut before it reaches the log.
constexpr std::size_t kMaxRdtLength = 256;
constexpr std::string_view kRdtName = "rd_drt";

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// The value of the header line when its name is RD_DRT in any case.
bool rdt_value_of(std::string_view line, std::string_view* value) {
  if (line.size() <= kRdtName.size() || line[kRdtName.size()] != ':') return false;
  for (std::size_t i = 0; i < kRdtName.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(line[i])) != kRdtName[i]) return false;
  }
  std::size_t first = kRdtName.size() + 1;
  while (first < line.size() && is_blank(line[first])) ++first;
  std::size_t end = first;
  while (end < line.size() && end - first < kMaxRdtLength && std::isspace(static_cast<unsigned char>(line[end])) == 0) {
    ++end;
  }
  *value = line.substr(first, end - first);
  return true;
}

}  // namespace

int ParseResponseRDT(std::string_view headers, std::string* rdt) {
  rdt->clear();
  if (headers.empty()) {
    RD_ERROR("respBuffer len is zero");
    return rd_codes::kTransportFailed;
  }
  for (std::size_t pos = 0; pos < headers.size();) {
    std::size_t end = headers.find('\n', pos);
    if (end == std::string_view::npos) end = headers.size();
    std::string_view value;
    if (rdt_value_of(headers.substr(pos, end - pos), &value)) {
      rdt->assign(value);
      RD_INFO("RD_DRT from server is : %s", rdt->c_str());
      return rd_codes::kTransportOk;
    }
    pos = end + 1;
  }
  RD_ERROR("RD_DRT is not present");
  return rd_codes::kTransportFailed;
}

int ResponseDRTCheck(std::string_view body, std::string_view headers, const std::string& request_drt) {
  std::string server_rdt;
  if (ParseResponseRDT(headers, &server_rdt) != 0) {
    RD_ERROR("Parsing failed for RDT from server");
    return rd_codes::kTransportNoDrt;
  }
  int verified = 0;
  if (rds_hmac_check(server_rdt, request_drt, 1, body.data(), body.size(), &verified) != 0) {
    RD_ERROR("RD_DRT_hash_verify is failed");
    return rd_codes::kTransportDrtMismatch;
  }
  if (verified != 1) {
    RD_ERROR("RD_DRT_hash_verification Failed");
    return rd_codes::kTransportDrtMismatch;
  }
  RD_INFO("RD_DRT_hash_verification Success");
  return rd_codes::kTransportOk;
}
