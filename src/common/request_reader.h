// Reading one HTTP request into the raw-request area, shared by the plain TCP
// and the TLS transports. Each transport supplies its read function and the
// file and function names that the log lines carry, so both write the same
// messages under their own names.
//
// Thread-safety: every function may run on many connection threads at once.
#ifndef VEXO_COMMON_REQUEST_READER_H
#define VEXO_COMMON_REQUEST_READER_H

#include <cstddef>
#include <cstdint>

// Result of a read whose request does not fit the kRawReqSize-byte area.
constexpr int kRequestTooLarge = -413;
// What a non-blocking transport's read returns when no input is available yet.
constexpr long kReadAgain = -11;

struct RequestSource {
  // Reads up to len bytes into buf: the count, 0 when the peer closed,
  // kReadAgain when nothing can be read yet, or another negative value on
  // failure. Called after ready said 1.
  long (*read)(void* ctx, char* buf, std::size_t len);
  // 1 when input can be read within timeout_ms, 0 on a time-out, -1 on error.
  int (*ready)(void* ctx, int timeout_ms);
  void* ctx;
  const char* file;  // the module name (or __FILE__) its log lines carry
  const char* func;  // the caller's function name, for its log lines
  // The monotonic time (platform::monotonic_ms) by which the whole request,
  // header and body, must have arrived, and the line logged when it has not.
  std::uint64_t deadline_ms;
  const char* timeout_text;
};

// Reads the header up to the blank line, then Content-Length bytes of body,
// into buf (kRawReqSize bytes, zero-filled) and NUL-terminates it. Returns the
// length; -1 when the peer closed, a read failed or the deadline passed (a
// client that trickles bytes is dropped as surely as a silent one);
// kRequestTooLarge when the
// header or the announced body would pass the area (the rest of the input is
// read and discarded for a short while so that the answer reaches the client).
int read_http_request(const RequestSource& src, char* buf);

// How long a whole request may take to arrive, counted from the moment its
// first byte is awaited (over TLS, from the handshake's first wait), and how
// long an answer may take to be sent: 60000 ms unless a test shortened it.
int recv_wait_ms();
void set_recv_wait_ms_for_test(int ms);

#endif  // VEXO_COMMON_REQUEST_READER_H
