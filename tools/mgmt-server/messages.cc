#include "messages.h"

#include <json-c/json.h>

#include <memory>

#include "web_service/json/json_ptr.h"

namespace mgmt {

namespace {

constexpr int kMaxDepth = 8;
constexpr std::size_t kMaxField = 128;
constexpr std::size_t kMaxKey = 16384;  // pKey: a PEM certificate, Base64

// Copies member key of obj when it is a string of at most max bytes.
// 1 copied, 0 absent or not a string, -1 too long.
int get_string(json_object* obj, const char* key, std::size_t max, std::string* out) {
  json_object* v = nullptr;
  if (!json_object_object_get_ex(obj, key, &v) || !json_object_is_type(v, json_type_string)) return 0;
  std::size_t len = static_cast<std::size_t>(json_object_get_string_len(v));
  if (len > max) return -1;
  out->assign(json_object_get_string(v), len);
  return 1;
}

void add_string(json_object* obj, const char* key, const std::string& value) {
  json_object_object_add(obj, key, json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

}  // namespace

int parse_request(const std::string& body, Request* out, std::string* why) {
  *out = Request();
  TokenerPtr tok(json_tokener_new_ex(kMaxDepth));
  if (!tok) {
    *why = "out of memory";
    return -1;
  }
  JsonPtr root(json_tokener_parse_ex(tok.get(), body.data(), static_cast<int>(body.size())));
  bool whole = root != nullptr && json_tokener_get_error(tok.get()) == json_tokener_success;
  // Blanks after the object are fine; any other trailing byte is not.
  for (std::size_t i = whole ? json_tokener_get_parse_end(tok.get()) : 0; whole && i < body.size(); ++i)
    whole = body[i] == ' ' || body[i] == '\n' || body[i] == '\r' || body[i] == '\t';
  if (!whole) {
    *why = "the body is not one JSON text";
    return -1;
  }
  if (!json_object_is_type(root.get(), json_type_object)) {
    *why = "the body is not a JSON object";
    return -1;
  }
  json_object* device = nullptr;
  if (!json_object_object_get_ex(root.get(), "device", &device) || !json_object_is_type(device, json_type_object)) {
    *why = "no device object";
    return -1;
  }
  if (get_string(device, "slNo", kMaxField, &out->serial) != 1 || out->serial.empty()) {
    *why = "no usable device.slNo";
    return -1;
  }
  for (char c : out->serial) {
    if (c < 0x21 || c > 0x7e) {
      *why = "device.slNo holds a blank or a control character";
      return -1;
    }
  }
  if (get_string(device, "hostId", kMaxField, &out->host_id) < 0 ||
      get_string(device, "model", kMaxField, &out->model) < 0) {
    *why = "an over-long device member";
    return -1;
  }
  if (get_string(root.get(), "ts", kMaxField, &out->ts) != 1 ||
      get_string(root.get(), "sKey", kMaxField, &out->skey) != 1 ||
      get_string(root.get(), "hmac", kMaxField, &out->hmac) != 1) {
    *why = "ts, sKey or hmac missing, not a string or too long";
    return -1;
  }
  if (get_string(root.get(), "pKey", kMaxKey, &out->pkey) < 0) {
    *why = "pKey too long";
    return -1;
  }
  return 0;
}

std::string build_response(const Response& r) {
  JsonPtr root(json_object_new_object());
  add_string(root.get(), "respStatus", r.status);
  add_string(root.get(), "respCode", r.code);
  add_string(root.get(), "respDesc", r.desc);
  if (r.has_device) {
    json_object* device = json_object_new_object();
    add_string(device, "hostId", r.host_id);
    add_string(device, "slNo", r.serial);
    add_string(device, "model", r.model);
    if (!r.dc.empty()) add_string(device, "dc", r.dc);
    json_object_object_add(root.get(), "device", device);
  }
  json_object* actions = json_object_new_array();
  for (const auto& a : r.next_actions)
    json_object_array_add(actions, json_object_new_string_len(a.data(), static_cast<int>(a.size())));
  json_object_object_add(root.get(), "nextAction", actions);
  add_string(root.get(), "ts", r.ts);
  for (const auto& [key, value] : r.extra) add_string(root.get(), key.c_str(), value);
  // Plain form, "/" not escaped: paths are URLs.
  return json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

}  // namespace mgmt
