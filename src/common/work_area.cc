#include "common/work_area.h"

#include <atomic>

#include "platform/pages.h"

namespace {

// The port the listener bound; workers name it in their answers' headers.
std::atomic<int> g_service_port{0};

}  // namespace

void WorkAreaFree::operator()(char* area) const { platform::free_zeroed_pages(area, kWorkAreaSize); }

WorkAreaPtr new_work_area() { return WorkAreaPtr(static_cast<char*>(platform::alloc_zeroed_pages(kWorkAreaSize))); }

int service_port() { return g_service_port.load(std::memory_order_relaxed); }

void set_service_port(int port) { g_service_port.store(port, std::memory_order_relaxed); }
