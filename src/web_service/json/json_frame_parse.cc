// Management request framing on json-c, and the time-stamp comparison.
#include "web_service/json/json_frame_parse.h"

#include <json-c/json.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "rds_hash.h"
#include "common/adapters.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;
#include "web_service/json/json_ptr.h"
#include "platform/mutex.h"
#include "platform/platform.h"

namespace {

void add(json_object* o, const char* k, const std::string& v) {
  json_object_object_add(o, k, json_object_new_string_len(v.data(), static_cast<int>(v.size())));
}

int two(std::string_view s, std::size_t at) {
  if (at + 2 > s.size() || s[at] < '0' || s[at] > '9' || s[at + 1] < '0' || s[at + 1] > '9') return kFailed;
  return (s[at] - '0') * 10 + (s[at + 1] - '0');
}
}  // namespace

std::string mgmt_timestamp() {
  std::time_t t = platform::now() + 19800;
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
  return buf;
}

int json_frame_with(const MgmtIdentity& id, const std::string& ts, const std::string* pkey, std::string* out) {
  std::string input = id.slNo + "@" + ts;
  RD_VERBOSE("hmac_input is %.200s", input.c_str());
  std::string hmac, skey;
  if (rds_hmac_protect(input.data(), input.size(), 1, &hmac, &skey) != 0) {
    RD_ERROR("Error at to generate hash_sign");
    return kFailed;
  }
  JsonPtr root(json_object_new_object());
  json_object* dev = json_object_new_object();
  add(dev, "rdVer", id.rdVer);
  add(dev, "rdId", id.rdId);
  add(dev, "clId", id.clId);
  add(dev, "clVer", id.clVer);
  add(dev, "hostType", id.hostType);
  add(dev, "hostId", id.hostId);
  add(dev, "slNo", id.slNo);
  add(dev, "make", id.make);
  add(dev, "model", id.model);
  add(dev, "dpId", id.dpId);
  json_object_object_add(root.get(), "device", dev);
  add(root.get(), "ts", ts);
  if (pkey != nullptr) add(root.get(), "pKey", *pkey);
  add(root.get(), "sKey", skey);
  add(root.get(), "hmac", hmac);
  *out = json_object_to_json_string(root.get());
  return 0;
}

int Time_Diff_in_Sec(std::string_view s, std::string_view c, int* diff) {
  std::size_t ts_ = s.find('T'), tc = c.find('T');
  if (ts_ == std::string_view::npos || tc == std::string_view::npos) return kFailed;
  int ds = two(s, 8), dc = two(c, 8);
  int hs = two(s, ts_ + 1), ms = two(s, ts_ + 4), ss = two(s, ts_ + 7);
  int hc = two(c, tc + 1), mc = two(c, tc + 4), sc = two(c, tc + 7);
  if (ds < 0 || dc < 0 || hs < 0 || ms < 0 || ss < 0 || hc < 0 || mc < 0 || sc < 0) return kFailed;
  // A stamp that is no time of day (hour 99) would make the difference
  // negative and pass the 300-second rule; a leap second (60) is a time.
  if (ds < 1 || ds > 31 || dc < 1 || dc > 31 || hs > 23 || hc > 23 || ms > 59 || mc > 59 || ss > 60 || sc > 60) {
    return kFailed;
  }
  int sv = hs * 3600 + ms * 60 + ss, cl = hc * 3600 + mc * 60 + sc;
  RD_VERBOSE("Management server ->Date:%.2s, Hour:%.2s, Min:%.2s, sec:%.2s", s.data() + 8, s.data() + ts_ + 1,
             s.data() + ts_ + 4, s.data() + ts_ + 7);
  RD_VERBOSE("Management client ->Date:%.2s, Hour:%.2s, Min:%.2s, sec:%.2s", c.data() + 8, c.data() + tc + 1,
             c.data() + tc + 4, c.data() + tc + 7);
  RD_VERBOSE("Diff_date: %d", std::abs(ds - dc));
  RD_VERBOSE("Management server time in sec: %d", sv);
  RD_VERBOSE("Management client time in sec: %d", cl);
  if (ds == dc) {
    *diff = std::abs(sv - cl);
  } else if (std::abs(ds - dc) == 1) {
    *diff = ds < dc ? cl + 86400 - sv : sv + 86400 - cl;
  } else {
    return kFailed;
  }
  return 0;
}

// ------------------------------------------------------------ device frames

MgmtIdentity mgmt_identity() {
  RdConfig cfg = rd_config_copy();
  RdIdentity idn = rd_identity_copy();
  MgmtIdentity id{cfg.rd_ver, idn.rdsId,           idn.clId, idn.clVer, idn.host_type,
                  "",         get_device_serial(), idn.make, idn.model, idn.dpId};
  std::array<std::uint8_t, 6> mac{};
  if (GetMAC(&mac) == 0) {
    char hex[13];
    std::snprintf(hex, sizeof hex, "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    id.hostId = hex;
  }
  return id;
}

int json_frame_init(std::string* out) { return json_frame_with(mgmt_identity(), mgmt_timestamp(), nullptr, out); }
int json_frame_key_rotation(const std::string& pkey, std::string* out) {
  return json_frame_with(mgmt_identity(), mgmt_timestamp(), &pkey, out);
}
int json_frame_update(std::string* out) { return json_frame_with(mgmt_identity(), mgmt_timestamp(), nullptr, out); }
int json_frame_uidai_cert_update(std::string* out) {
  return json_frame_with(mgmt_identity(), mgmt_timestamp(), nullptr, out);
}
int json_frame_uidai_cert_update_status(std::string* out) {
  return json_frame_with(mgmt_identity(), mgmt_timestamp(), nullptr, out);
}

// ------------------------------------------------------------ parsers

namespace {

// A member of an object, or nullptr.
json_object* member(json_object* o, const char* k) {
  if (o == nullptr || !json_object_is_type(o, json_type_object)) return nullptr;
  return json_object_object_get(o, k);
}

// A string value; false when v is absent or not a string.
bool str_of(json_object* v, std::string* out) {
  if (v == nullptr || !json_object_is_type(v, json_type_string)) return false;
  out->assign(json_object_get_string(v), static_cast<std::size_t>(json_object_get_string_len(v)));
  return true;
}

// Every string of the tree, member names included, is at most kMgmtMaxField
// bytes: a longer one is refused whole, never cut to fit. The tokener's
// depth limit bounds the recursion.
bool values_fit(json_object* o) {
  switch (json_object_get_type(o)) {
    case json_type_string:
      return static_cast<std::size_t>(json_object_get_string_len(o)) <= kMgmtMaxField;
    case json_type_array:
      for (std::size_t i = 0; i < json_object_array_length(o); ++i) {
        if (!values_fit(json_object_array_get_idx(o, i))) return false;
      }
      return true;
    case json_type_object: {
      bool fit = true;
      json_object_object_foreach(o, key, value) { fit = fit && std::strlen(key) <= kMgmtMaxField && values_fit(value); }
      return fit;
    }
    default:
      return true;
  }
}

// The server's respCode or respDesc for a pipe message or the last-status
// line: bounded, with CR, LF and the front end's line break '|' as blanks.
std::string printable(const std::string& text, std::size_t max) {
  std::string out = text.substr(0, max);
  for (char& c : out) {
    if (c == '\r' || c == '\n' || c == '|') c = ' ';
  }
  return out;
}

// A device code as the server issues it: letters, digits, '-', '.' and '_',
// 1 to 64 of them. Anything else would reach config.ini and PidData.
bool plain_device_code(const std::string& dc) {
  return !dc.empty() && dc.size() <= 64 && std::all_of(dc.begin(), dc.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_';
  });
}

enum class Kind { kInit, kOther, kKeyRotation };

// Reads one answer on behalf of a parser of the design, whose name the log,
// last-status and pipe lines carry.
class AnswerReader {
 public:
  AnswerReader(const char* function, Kind kind, const MgmtIdentity* self)
      : function_(function), kind_(kind), self_(self) {}

  // Parses body as one JSON object within the bounds; parse_error is logged otherwise.
  bool parse(std::string_view body, const std::string& parse_error) {
    RD_LOG_AS(function_);
    root_ = parse_body(body);
    if (root_ && !values_fit(root_.get())) {
      RD_ERROR("A value of the answer is longer than %d bytes", static_cast<int>(kMgmtMaxField));
      root_.reset();
    }
    if (!root_) RD_ERROR("%s", parse_error.c_str());
    return root_ != nullptr;
  }

  // The steps every answer goes through: status, the echoed device,
  // nextAction and ts. 0 to go on; 1 when init's ZELM-015 answered; -1 fatal.
  int head(std::string* next_action) {
    const int rc = read_status(next_action);
    if (rc != 0) return rc;
    if (self_ != nullptr && check_device() != 0) return kFailed;
    return read_next_action(next_action) == 0 && read_ts() == 0 ? 0 : kFailed;
  }

  // A required string member of the answer, or of its device object.
  bool field(bool in_device, const char* key, std::string* out, const char* missing, const char* not_string) {
    RD_LOG_AS(function_);
    json_object* v = member(in_device ? member(root_.get(), "device") : root_.get(), key);
    if (v == nullptr || !str_of(v, out)) {
      RD_ERROR("%s", v == nullptr ? missing : not_string);
      return false;
    }
    return true;
  }

  const std::string& ts() const { return ts_; }

 private:
  static JsonPtr parse_body(std::string_view body) {
    if (body.empty() || body.size() > kMgmtMaxBody) return nullptr;
    TokenerPtr tok(json_tokener_new_ex(16));
    if (!tok) return nullptr;
    json_tokener_set_flags(tok.get(), JSON_TOKENER_STRICT);
    JsonPtr root(json_tokener_parse_ex(tok.get(), body.data(), static_cast<int>(body.size())));
    if (!root || json_tokener_get_error(tok.get()) != json_tokener_success ||
        json_tokener_get_parse_end(tok.get()) != body.size() || !json_object_is_type(root.get(), json_type_object)) {
      return nullptr;
    }
    return root;
  }

  // respStatus, respCode and respDesc. 0 accepted; 1 ZELM-015 (init only); -1.
  int read_status(std::string* next_action) {
    RD_LOG_AS(function_);
    std::string status, code, desc;
    if (!str_of(member(root_.get(), "respStatus"), &status)) {
      RD_ERROR(kind_ == Kind::kInit ? "init resp respStatus is null"
                                    : "Error at respStatus json_object_get_string is null");
      return kFailed;
    }
    if (!str_of(member(root_.get(), "respCode"), &code)) {
      RD_ERROR(member(root_.get(), "respCode") == nullptr ? "Error at respCode json_object_object_get"
                                                          : "Error at respCode json_object_get_string is null");
      return kFailed;
    }
    str_of(member(root_.get(), "respDesc"), &desc);
    if (status == "y" || status == "Y") return 0;
    if (kind_ == Kind::kInit) {
      if (code == "ZELM-015") {
        *next_action = "DEVICE_NOT_REGISTERED";
        return 1;
      }
      // Not errors for the initial exchange: parsed as a success.
      if (code == "ZELM-035" || code == "ZELM-040" || code == "ZELM-041") return 0;
    }
    RD_ERROR("Response code from management server is not success");
    const std::string c = printable(code, 64), d = printable(desc, 200);
    if (kind_ == Kind::kKeyRotation) {
      RD_STATUS("Error from MS : %s %s ", c.c_str(), d.c_str());
    } else {
      RD_STATUS("Error from MS: %s %s ", c.c_str(), d.c_str());
    }
    RD_PIPE("10000", "Error from MS: %s|%s\n", c.c_str(), d.c_str());
    return kFailed;
  }

  // The echoed hostId, slNo and model: a mismatch is only logged.
  int check_device() {
    RD_LOG_AS(function_);
    json_object* dev = member(root_.get(), "device");
    if (dev == nullptr) {
      RD_ERROR("Error at device json_object_object_get");
      return kFailed;
    }
    const struct {
      const char* key;
      const std::string* mine;
      const char* mismatch;
    } checks[] = {{"hostId", &self_->hostId, "Mgmt client and receiver HOST ID is mismatch"},
                  {"slNo", &self_->slNo, "Mgmt client and receiver SR NO is mismatch"},
                  {"model", &self_->model, "Mgmt client and receiver model is mismatch"}};
    for (const auto& c : checks) {
      std::string v;
      if (!str_of(member(dev, c.key), &v)) {
        RD_ERROR("Error at %s json_object_get_string", c.key);
      } else if (v != *c.mine) {
        RD_ERROR("%s", c.mismatch);
      }
    }
    return 0;
  }

  // nextAction: an array of strings, whose last element counts.
  int read_next_action(std::string* next_action) {
    RD_LOG_AS(function_);
    json_object* na = member(root_.get(), "nextAction");
    if (na == nullptr || !json_object_is_type(na, json_type_array)) {
      RD_ERROR("Error at nextAction json_object_object_get");
      return kFailed;
    }
    for (std::size_t i = 0; i < json_object_array_length(na); ++i) {
      json_object* e = json_object_array_get_idx(na, i);
      if (e == nullptr) {
        RD_ERROR("Error at nextAction json_object_array_get_idx");
        return kFailed;
      }
      if (!str_of(e, next_action)) {
        RD_ERROR("Error at nextAction json_object_get_string");
        return kFailed;
      }
    }
    return 0;
  }

  int read_ts() {
    return field(false, "ts", &ts_, "Error at ts json_object_object_get", "Error at ts json_object_get_string")
               ? 0
               : kFailed;
  }

  const char* function_;
  Kind kind_;
  const MgmtIdentity* self_;
  JsonPtr root_;
  std::string ts_;
};

// The answer of an update: path and checksum after the common steps.
int read_path_checksum(const char* function, const char* parse_error, std::string_view body, const MgmtIdentity& self,
                       std::string* next_action, std::string* path, std::string* checksum) {
  AnswerReader r(function, Kind::kOther, &self);
  if (!r.parse(body, parse_error) || r.head(next_action) != 0) return kFailed;
  return r.field(false, "path", path, "Error at path json_object_get_string is null",
                 "Error at path json_object_get_string is null") &&
                 r.field(false, "checksum", checksum, "Error at checksum json_object_object_get is null",
                         "Error at checksum json_object_get_string is null")
             ? 0
             : kFailed;
}

}  // namespace

int json_parse_init(std::string_view body, const MgmtIdentity& self, std::string* next_action) {
  AnswerReader r("json_parse_init", Kind::kInit, &self);
  if (!r.parse(body, "Error at Resp init json_tokener_parse line=" + std::to_string(__LINE__))) return kFailed;
  const int rc = r.head(next_action);
  if (rc != 0) return rc > 0 ? 0 : kFailed;
  int diff = 0;
  const int t = Time_Diff_in_Sec(r.ts(), mgmt_timestamp(), &diff);
  if (t == 0 && diff > 300) {
    RD_INFO("Time Difference between client and server is %d seconds, It should be less than 300 seconds", diff);
  } else if (t != 0) {
    RD_INFO("Time Difference between server and client is huge, please set proper time in your machine");
  } else {
    return 0;
  }
  *next_action = "TIME_STAMP_SYNC";
  RD_INFO("nextAction is changed to: %s", next_action->c_str());
  return 0;
}

int json_parse_key_rotation(std::string_view body, const MgmtIdentity& self, std::string* next_action, void* /*unused*/,
                            std::string* dc, std::string* spkey) {
  AnswerReader r("json_parse_key_rotation", Kind::kKeyRotation, &self);
  if (!r.parse(body, "Error at key rotation parse json_tokener_parse") || r.head(next_action) != 0 ||
      !r.field(true, "dc", dc, "Error at dc json_object_object_get", "Error at dc json_object_get_string is null")) {
    return kFailed;
  }
  if (!plain_device_code(*dc)) {
    RD_ERROR("dc from management server is not a device code");
    dc->clear();
    return kFailed;
  }
  return r.field(false, "sPKey", spkey, "Error at sPKey json_object_object_get",
                 "Error at sPKey json_object_get_string is null")
             ? 0
             : kFailed;
}

int json_parse_update(std::string_view body, const MgmtIdentity& self, std::string* next_action, std::string* path,
                      std::string* checksum) {
  return read_path_checksum("json_parse_update", "Error at json_tokener_parse", body, self, next_action, path,
                            checksum);
}

int json_parse_uidai_cert_update(std::string_view body, const MgmtIdentity& self, std::string* next_action,
                                 std::string* path, std::string* checksum) {
  return read_path_checksum("json_parse_uidai_cert_update", "Error at json_tokener_parse for Resp_buff", body, self,
                            next_action, path, checksum);
}

int json_parse_uidai_cert_update_status(std::string_view body, const MgmtIdentity& self, std::string* next_action) {
  AnswerReader r("json_parse_uidai_cert_update_status", Kind::kOther, &self);
  return r.parse(body, "Error at json_tokener_parse") && r.head(next_action) == 0 ? 0 : kFailed;
}

int json_parse_uidai_cert_force_update(std::string_view body, std::string* next_action, std::string* path,
                                       std::string* chksum, std::string* ci) {
  AnswerReader r("json_parse_uidai_cert_force_update", Kind::kOther, nullptr);
  if (!r.parse(body, "Error at json_tokener_parse") || r.head(next_action) != 0) return kFailed;
  return r.field(false, "path", path, "Error at path json_object_get_string is null",
                 "Error at path json_object_get_string is null") &&
                 r.field(false, "chkSum", chksum, "Error at chkSum json_object_object_get is null",
                         "Error at chkSum json_object_object_get is null") &&
                 r.field(false, "ci", ci, "Error at ci json_object_object_get is null",
                         "Error at ci json_object_get_string is null")
             ? 0
             : kFailed;
}
