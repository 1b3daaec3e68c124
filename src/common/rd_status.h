// Service status (READY, USED, NOTREADY), the device-detached flag and the
// stored scanner serial number.
//
// Thread-safety: the status index and the detached flag are atomics read and
// written without a lock from every thread; the stored serial has its own mutex.
#ifndef VEXO_COMMON_RD_STATUS_H
#define VEXO_COMMON_RD_STATUS_H

#include <string>

enum RdStatusIndex : unsigned { kRdReady = 0, kRdUsed = 1, kRdNotReady = 2 };

// The status text with its own double quotes: "\"READY\"", "\"USED\"", "\"NOTREADY\"".
const char* get_rd_status();
unsigned get_rd_status_index();
void set_rd_status_ready();
void set_rd_status_used();
void set_rd_status_notready();

// One step READY -> USED, for work that needs the device to itself (a capture).
// True when this caller made the change; false when the status was not READY.
bool rd_status_claim();
// One step USED -> READY, ending a claim. A status that something else changed
// meanwhile (a detach's NOTREADY) is left as it is.
void rd_status_release();

// One step from -> to; false (nothing changed) when the status was not from.
bool rd_status_replace(unsigned from, unsigned to);

// Holds the READY -> USED claim for a scope: READY again when it ends.
class RdStatusClaim {
 public:
  RdStatusClaim() : held_(rd_status_claim()) {}
  ~RdStatusClaim() {
    if (held_) rd_status_release();
  }
  RdStatusClaim(const RdStatusClaim&) = delete;
  RdStatusClaim& operator=(const RdStatusClaim&) = delete;
  bool held() const { return held_; }

 private:
  bool held_;
};

// 1 after detach_device (or a lost handheld connection), 0 after attach_device.
int get_device_detached();
void set_device_detached(int detached);

// Serial number of the scanner last identified (reported as srno).
std::string get_device_serial();
void set_device_serial(const std::string& serial);

#endif  // VEXO_COMMON_RD_STATUS_H
