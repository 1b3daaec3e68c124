#include "common/rd_status.h"
#include "platform/mutex.h"

#include <atomic>

namespace {
// The texts carry their own quotes so they drop into status=%s unchanged.
const char* const kStatusText[] = {"\"READY\"", "\"USED\"", "\"NOTREADY\""};
std::atomic<unsigned> g_status{kRdReady};
std::atomic<int> g_detached{0};
platform::Mutex g_serial_mutex;
std::string g_serial GUARDED_BY(g_serial_mutex);
}  // namespace

const char* get_rd_status() { return kStatusText[g_status.load(std::memory_order_relaxed) % 3]; }
unsigned get_rd_status_index() { return g_status.load(std::memory_order_relaxed); }
void set_rd_status_ready() { g_status.store(kRdReady, std::memory_order_relaxed); }
void set_rd_status_used() { g_status.store(kRdUsed, std::memory_order_relaxed); }
void set_rd_status_notready() { g_status.store(kRdNotReady, std::memory_order_relaxed); }

bool rd_status_claim() {
  unsigned expected = kRdReady;
  return g_status.compare_exchange_strong(expected, kRdUsed, std::memory_order_acq_rel);
}

void rd_status_release() {
  unsigned expected = kRdUsed;
  g_status.compare_exchange_strong(expected, kRdReady, std::memory_order_acq_rel);
}

bool rd_status_replace(unsigned from, unsigned to) {
  return g_status.compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

int get_device_detached() { return g_detached.load(std::memory_order_relaxed); }
void set_device_detached(int detached) { g_detached.store(detached, std::memory_order_relaxed); }

std::string get_device_serial() {
  platform::MutexLock lock(&g_serial_mutex);
  return g_serial;
}

void set_device_serial(const std::string& serial) {
  platform::MutexLock lock(&g_serial_mutex);
  g_serial = serial;
}
