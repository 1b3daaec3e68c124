#include "common/request_reader.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/work_area.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "common/rd_codes.h"

using rd_codes::kFailed;
#include "platform/test_seams.h"

namespace {

constexpr int kDefaultRecvWaitMs = 60000;

// Room for data in the raw area: the last byte is kept for the terminating NUL.
constexpr std::size_t kRawCapacity = kRawReqSize - 1;

// A refused request is read and dropped until the client pauses, so that
// closing the socket does not reset the connection before the answer is read.
constexpr int kDiscardPauseMs = 200;
constexpr std::uint64_t kDiscardLimitMs = 2000;
constexpr std::size_t kDiscardLimitBytes = 1 << 20;

int refuse_too_large(const RequestSource& src) {
  RD_LOG_IN(src.file, src.func);
  RD_ERROR("Request too large for the receive area");
  char scratch[4096];
  std::size_t dropped = 0;
  std::uint64_t end = platform::monotonic_ms() + kDiscardLimitMs;
  while (dropped < kDiscardLimitBytes && platform::monotonic_ms() < end && src.ready(src.ctx, kDiscardPauseMs) == 1) {
    long n = src.read(src.ctx, scratch, sizeof scratch);
    if (n == kReadAgain) continue;
    if (n <= 0) break;
    dropped += static_cast<std::size_t>(n);
  }
  return kRequestTooLarge;
}

// The whole request did not arrive in time: the transport's time-out line.
int timed_out(const RequestSource& src) {
  RD_LOG_IN(src.file, src.func);
  RD_ERROR("%s", src.timeout_text);
  return kFailed;
}

bool ends_with_blank_line(const char* buf, std::size_t len) {
  return len >= 4 && std::memcmp(buf + len - 4, "\r\n\r\n", 4) == 0;
}

// The Content-Length value: the characters after "Content-Length" and one more
// (normally the colon) up to the line end, at most 15 of them, as atoi reads
// them. Out-of-range numbers are clamped instead of overflowing.
int content_length_of(const char* header, bool* present) {
  const char* match = std::strstr(header, "Content-Length");
  *present = match != nullptr;
  if (match == nullptr) return 0;
  const char* value = match + 14;
  if (*value != '\0') ++value;
  const char* eol = std::strstr(value, "\r\n");
  std::size_t n = eol ? static_cast<std::size_t>(eol - value) : std::strlen(value);
  char text[16] = {};
  std::memcpy(text, value, n < sizeof text - 1 ? n : sizeof text - 1);
  long v = std::strtol(text, nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

// Result of read_in_time when the deadline passed first.
constexpr long kTimedOut = -110;

// Waits for input until the request's deadline, then reads: the read's
// result, -1 when the wait failed, or kTimedOut.
long read_in_time(const RequestSource& src, char* buf, std::size_t len) {
  for (;;) {
    std::uint64_t now = platform::monotonic_ms();
    if (now >= src.deadline_ms) return kTimedOut;
    std::uint64_t left = src.deadline_ms - now;
    int ready = src.ready(src.ctx, left > INT_MAX ? INT_MAX : static_cast<int>(left));
    if (ready == 0) return kTimedOut;
    if (ready < 0) return kFailed;
    long n = src.read(src.ctx, buf, len);
    if (n != kReadAgain) return n;
  }
}

}  // namespace

int recv_wait_ms() { return test_seams::get(&test_seams::Seams::recv_wait_ms).value_or(kDefaultRecvWaitMs); }

int read_http_request(const RequestSource& src, char* buf) {
  RD_LOG_IN(src.file, src.func);
  // The first read takes up to three bytes; a read error counts as a closed
  // peer, since a failed socket would otherwise be read forever. Every wait
  // below ends at the request's deadline, whatever the client has sent.
  long n = read_in_time(src, buf, 3);
  if (n == kTimedOut) return timed_out(src);
  if (n <= 0) {
    RD_ERROR("recv failed");
    return kFailed;
  }
  std::size_t len = static_cast<std::size_t>(n);
  // One byte at a time, so that nothing after the blank line is consumed.
  while (!ends_with_blank_line(buf, len)) {
    if (len >= kRawCapacity) return refuse_too_large(src);
    n = read_in_time(src, buf + len, 1);
    if (n == kTimedOut) return timed_out(src);
    if (n <= 0) {
      RD_ERROR("recv failed in loop");
      return kFailed;
    }
    len += static_cast<std::size_t>(n);
  }
  buf[len] = '\0';
  RD_INFO("Request Header Received");

  bool present = false;
  int content_length = content_length_of(buf, &present);
  if (!present) {
    RD_INFO("Current Request will have only Header(No Body)");
    return static_cast<int>(len);
  }
  RD_INFO(" content_length is: %d", content_length);
  if (content_length < 1) {
    RD_INFO("Current Request will have only Header(No Body)");
    return static_cast<int>(len);
  }
  if (static_cast<std::size_t>(content_length) > kRawCapacity - len) return refuse_too_large(src);

  RD_INFO("Going to get request body");
  std::size_t outstanding = static_cast<std::size_t>(content_length);
  while (outstanding > 0) {
    n = read_in_time(src, buf + len, outstanding);
    if (n == kTimedOut) return timed_out(src);
    if (n < 1) {
      RD_ERROR("Receiving Body, From Socket Failed");
      return kFailed;
    }
    len += static_cast<std::size_t>(n);
    if (static_cast<std::size_t>(n) == outstanding) break;
    RD_INFO("Received :%d  Expected size: %d", static_cast<int>(n), static_cast<int>(outstanding));
    outstanding -= static_cast<std::size_t>(n);
  }
  buf[len] = '\0';
  return static_cast<int>(len);
}
