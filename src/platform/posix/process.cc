#include <sys/prctl.h>

#include "platform/platform.h"

namespace platform {

int forbid_core_dumps() { return ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 ? 0 : -1; }

}  // namespace platform
