#include "common/rd_codes.h"

#include <iterator>

namespace rd_codes {
namespace {

#define VEXO_CODE_ENTRY(name, value, message) {value, #name, message},
constexpr CodeInfo kResult[] = {VEXO_RESULT_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kInit[] = {VEXO_INIT_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kStart[] = {VEXO_START_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kAttach[] = {VEXO_ATTACH_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kConfig[] = {VEXO_CONFIG_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kCrc[] = {VEXO_CRC_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kLock[] = {VEXO_LOCK_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kKeystore[] = {VEXO_KEYSTORE_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kMgmt[] = {VEXO_MGMT_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kTls[] = {VEXO_TLS_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kScanner[] = {VEXO_SCANNER_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kPostAuth[] = {VEXO_POSTAUTH_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kHttp[] = {VEXO_HTTP_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kRd[] = {VEXO_RD_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kTransport[] = {VEXO_TRANSPORT_CODES(VEXO_CODE_ENTRY)};
constexpr CodeInfo kDownload[] = {VEXO_DOWNLOAD_CODES(VEXO_CODE_ENTRY)};
#undef VEXO_CODE_ENTRY

template <std::size_t N>
const CodeInfo* find_in(const CodeInfo (&table)[N], int value) {
  for (const CodeInfo& c : table) {
    if (c.value == value) return &c;
  }
  return nullptr;
}

}  // namespace

const CodeInfo* find_code(Family family, int value) {
  switch (family) {
    case Family::kResult:
      return find_in(kResult, value);
    case Family::kInit:
      return find_in(kInit, value);
    case Family::kStart:
      return find_in(kStart, value);
    case Family::kAttach:
      return find_in(kAttach, value);
    case Family::kConfig:
      return find_in(kConfig, value);
    case Family::kCrc:
      return find_in(kCrc, value);
    case Family::kLock:
      return find_in(kLock, value);
    case Family::kKeystore:
      return find_in(kKeystore, value);
    case Family::kMgmt:
      return find_in(kMgmt, value);
    case Family::kTls:
      return find_in(kTls, value);
    case Family::kScanner:
      return find_in(kScanner, value);
    case Family::kPostAuth:
      return find_in(kPostAuth, value);
    case Family::kHttp:
      return find_in(kHttp, value);
    case Family::kRd:
      return find_in(kRd, value);
    case Family::kTransport:
      return find_in(kTransport, value);
    case Family::kDownload:
      return find_in(kDownload, value);
  }
  return nullptr;
}

const char* code_message(Family family, int value) {
  const CodeInfo* c = find_code(family, value);
  return c != nullptr ? c->message : nullptr;
}

}  // namespace rd_codes
