// The per-request work area: one zero-filled block holding the response body,
// the response header, the request body and the raw request, in this order.
// The dispatcher allocates it; the capture, DeviceInfo and PostAuth workers
// write the response body at its start and the header at kRespHeaderOffset.
// Most of the block is never written for most requests, so it is made of
// fresh pages that cost resident memory only where they are written.
#ifndef VEXO_COMMON_WORK_AREA_H
#define VEXO_COMMON_WORK_AREA_H

#include <cstddef>
#include <memory>

constexpr std::size_t kRespBodySize = 3072000;
constexpr std::size_t kRespHeaderOffset = 3072000;
constexpr std::size_t kRespHeaderSize = 1024;
constexpr std::size_t kReqBodyOffset = 3073024;
constexpr std::size_t kReqBodySize = 2048;
constexpr std::size_t kRawReqOffset = 3075072;
constexpr std::size_t kRawReqSize = 2048;
constexpr std::size_t kWorkAreaSize = 3077120;
static_assert(kRawReqOffset + kRawReqSize == kWorkAreaSize);

// Returns a work area to the system; see new_work_area.
struct WorkAreaFree {
  void operator()(char* area) const;
};
using WorkAreaPtr = std::unique_ptr<char[], WorkAreaFree>;
// A zero-filled block of kWorkAreaSize bytes that costs nothing until written
// (an overrun past its end faults at once). Null when memory is short.
WorkAreaPtr new_work_area();

// The service port actually bound (11100..11120), 0 before binding.
int service_port();
// Records the port once the listener has bound it.
void set_service_port(int port);

#endif  // VEXO_COMMON_WORK_AREA_H
