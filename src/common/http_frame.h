// Every header of the local service's answers, from one table, and the
// discovery document. The texts are the wire format clients depend on, byte
// for byte, odd bytes included: each kind has a form for a request that gave
// an Origin and one for a request that did not. The dispatcher and the
// capture, DeviceInfo and PostAuth workers leave a body and name its kind;
// the header comes from here.
//
// An Origin too long to fit the header region is answered as if the request
// had given none: a cut value would never match the page's origin, so echoing
// it would grant nothing while sending bytes the client never sent.
//
// Thread-safety: reentrant; the only shared values read are the service
// status, the identity record and the service port.
#ifndef VEXO_COMMON_HTTP_FRAME_H
#define VEXO_COMMON_HTTP_FRAME_H

#include <string_view>

enum class AnswerKind {
  kOk,                // 200 for path; the origin last, after a blank; without
                      // one, the LOCATION URL stands in for it
  kError,             // code for path, no reason phrase; with an origin a blank
                      // after the code and the origin last; without, no origin line
  kCapture,           // 200 for /rd/capture; the origin last; without, no origin line
  kDeviceInfo,        // 200 for /rd/info; the origin first, without a blank
  kOptions,           // OPTIONS that gave an origin: "*" granted, never the origin
  kOptionsNoOrigin,   // OPTIONS without one: 405 ending after one line break
  kOptionsNoLineEnd,  // "Origin:" with no line feed after it: 200 and the CORS block
};

struct AnswerHead {
  AnswerKind kind = AnswerKind::kOk;
  int code = 200;         // the status of kError
  std::string_view path;  // the LOCATION path of kOk and kError (at most 255 bytes used)
  int body_len = 0;
  bool private_network = false;  // OPTIONS: grant a private-network pre-flight
  std::string_view host = "127.0.0.1";
  int port = 0;  // 0: the service port
};

// Writes the header of head for the request's origin (null when it gave none)
// into header (kRespHeaderSize bytes), NUL-terminated, and returns its length.
// kOk and kError take the origin form only for an origin other than exactly
// "null"; kCapture and kDeviceInfo for any origin.
int frame_answer_header(const AnswerHead& head, const char* origin, char* header);

// The discovery answer: body (kRespBodySize bytes) with the current status and
// model, header (kRespHeaderSize bytes) for the path "/". 0.
int frame_rdservice_response(const char* origin, char* header, char* body);
// The kOk and kError headers under their design names. Both return the length.
int frame_http_ok_header(const char* host, int port, const char* path, int body_len, const char* origin, char* header);
int frame_http_error_header(int code, const char* host, int port, const char* path, int body_len, const char* origin,
                            char* header);

#endif  // VEXO_COMMON_HTTP_FRAME_H
