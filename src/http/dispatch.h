// Request dispatch inside the server module: the one request-line parser and
// the verb branches that process_incoming_message hands each request to.
//
// Thread-safety: every function may run on many connection threads at once.
#ifndef VEXO_HTTP_DISPATCH_H
#define VEXO_HTTP_DISPATCH_H

#include <string_view>

// The request line's fields: its first line split at blanks and tabs. Views
// into the request; a missing field is empty, words past the third are ignored.
struct RequestLine {
  std::string_view verb;
  std::string_view path;
  std::string_view version;
  int fields = 0;  // how many of the three were present
};
RequestLine split_request_line(std::string_view request);

// The request's Origin header: absent, present without a line feed after it,
// or a value (copied into the origin block).
enum class OriginKind { kAbsent, kNoLineEnd, kValue };

// Picks the verb of line and leaves the answer's header and body in the work
// area (kWorkAreaSize bytes, zero-filled). raw is the NUL-terminated request.
void dispatch_request(const char* raw, const RequestLine& line, OriginKind origin_kind, const char* origin, char* area);

#endif  // VEXO_HTTP_DISPATCH_H
