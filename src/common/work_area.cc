#include "common/work_area.h"

#include "platform/pages.h"

void WorkAreaFree::operator()(char* area) const { platform::free_zeroed_pages(area, kWorkAreaSize); }

WorkAreaPtr new_work_area() { return WorkAreaPtr(static_cast<char*>(platform::alloc_zeroed_pages(kWorkAreaSize))); }
