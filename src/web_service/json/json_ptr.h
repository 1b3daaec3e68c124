// Owners for json-c objects: std::unique_ptr<T, XFree> gives them back on
// every path. One set for the Management messages and the tools that speak them.
#ifndef VEXO_WEB_SERVICE_JSON_JSON_PTR_H
#define VEXO_WEB_SERVICE_JSON_JSON_PTR_H

#include <json-c/json.h>

#include <memory>

// Drops the reference the owner holds (json_object_put).
struct JsonPut {
  void operator()(json_object* o) const { json_object_put(o); }
};
struct TokenerFree {
  void operator()(json_tokener* t) const { json_tokener_free(t); }
};

using JsonPtr = std::unique_ptr<json_object, JsonPut>;
using TokenerPtr = std::unique_ptr<json_tokener, TokenerFree>;

#endif  // VEXO_WEB_SERVICE_JSON_JSON_PTR_H
