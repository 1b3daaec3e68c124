// Management request frames (device identity, time stamp, sKey/hmac) and the
// time rule of the initial exchange.
#ifndef VEXO_WEB_SERVICE_JSON_FRAME_PARSE_H
#define VEXO_WEB_SERVICE_JSON_FRAME_PARSE_H

#include <cstddef>
#include <string>
#include <string_view>

// The identity a request carries, in wire order.
struct MgmtIdentity {
  std::string rdVer, rdId, clId, clVer, hostType, hostId, slNo, make, model, dpId;
};

// The current time (platform::now()) as Indian Standard Time, "%Y-%m-%dT%H:%M:%S".
std::string mgmt_timestamp();
// Builds a request for id at ts; pkey (key rotation only) goes between ts and
// sKey when non-null. 0, or -1 when the protection step fails.
int json_frame_with(const MgmtIdentity& id, const std::string& ts, const std::string* pkey, std::string* out);
// The identity of this device: configuration, identity record, stored serial
// and the first adapter address as 12 lower-case hex digits.
MgmtIdentity mgmt_identity();

// Requests from this device's identity and the current time. 0 or -1.
int json_frame_init(std::string* out);
int json_frame_key_rotation(const std::string& pkey, std::string* out);
int json_frame_update(std::string* out);
int json_frame_uidai_cert_update(std::string* out);
int json_frame_uidai_cert_update_status(std::string* out);

// Longest body accepted (the transport's limit) and longest string value (or
// member name) an answer may hold.
inline constexpr std::size_t kMgmtMaxBody = 29999;
inline constexpr std::size_t kMgmtMaxField = 4096;

// Response parsers against the identity `self` (hostId, slNo, model are
// compared; mismatches are only logged). 0, or -1 on any fatal fault: among
// them an answer with any value longer than kMgmtMaxField, and a key
// rotation's dc that is not 1 to 64 letters, digits, '-', '.' or '_'. An
// output is written only when its field is read; nextAction keeps the
// caller's value for an empty array. A refusal's respCode and respDesc reach
// the last-status line and the pipe with CR, LF and '|' as blanks.
int json_parse_init(std::string_view body, const MgmtIdentity& self, std::string* next_action);
int json_parse_key_rotation(std::string_view body, const MgmtIdentity& self, std::string* next_action, void* unused,
                            std::string* dc, std::string* spkey);
int json_parse_update(std::string_view body, const MgmtIdentity& self, std::string* next_action, std::string* path,
                      std::string* checksum);
int json_parse_uidai_cert_update(std::string_view body, const MgmtIdentity& self, std::string* next_action,
                                 std::string* path, std::string* checksum);
int json_parse_uidai_cert_update_status(std::string_view body, const MgmtIdentity& self, std::string* next_action);
int json_parse_uidai_cert_force_update(std::string_view body, std::string* next_action, std::string* path,
                                       std::string* chksum, std::string* ci);

// Seconds between two stamps by day of month and time of day; -1 when the days
// differ by other than 0 or 1.
int Time_Diff_in_Sec(std::string_view server_ts, std::string_view client_ts, int* diff);

#endif  // VEXO_WEB_SERVICE_JSON_FRAME_PARSE_H
