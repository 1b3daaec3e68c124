// The Management server's JSON, read and written with json-c: the request
// fields the server uses, and the responses. Stateless.
#ifndef VEXO_TOOLS_MGMT_SERVER_MESSAGES_H
#define VEXO_TOOLS_MGMT_SERVER_MESSAGES_H

#include <string>
#include <utility>
#include <vector>

namespace mgmt {

// What the server takes from a request body.
struct Request {
  std::string serial;   // device.slNo
  std::string host_id;  // device.hostId (may be empty)
  std::string model;    // device.model (may be empty)
  std::string ts;       // ts
  std::string skey;     // sKey
  std::string hmac;     // hmac
  std::string pkey;     // pKey (key rotation only; may be empty)
};

// Parses a request body: a JSON object with a "device" object holding a
// string "slNo", and string "ts", "sKey" and "hmac" members; "hostId",
// "model" and "pKey" are taken when they are strings. Every text is bounded
// (an over-long one fails). 0, or -1 with *why set.
int parse_request(const std::string& body, Request* out, std::string* why);

// A response. Members are written in the order respStatus, respCode,
// respDesc, device (when has_device), nextAction, ts, then extra in order.
struct Response {
  std::string status = "y";
  std::string code;
  std::string desc;
  bool has_device = true;
  std::string host_id, serial, model, dc;  // dc only when not empty
  std::vector<std::string> next_actions;
  std::string ts;
  std::vector<std::pair<std::string, std::string>> extra;  // top-level strings
};

std::string build_response(const Response& r);

}  // namespace mgmt

#endif  // VEXO_TOOLS_MGMT_SERVER_MESSAGES_H
