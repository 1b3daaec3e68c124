#include "platform/win32/win32_util.h"

// After windows.h, which they need.
#include <iphlpapi.h>

#include <algorithm>
#include <vector>

#include "platform/platform.h"
#include "platform/shared.h"

namespace platform::sys {

namespace {
bool all_zero(const BYTE* a) {
  return std::all_of(a, a + 6, [](BYTE b) { return b == 0; });
}
}  // namespace

int list_system_adapters(std::vector<Adapter>* out) {
  // The list may grow between the size query and the call: ask again.
  std::vector<unsigned char> buffer(16 * sizeof(IP_ADAPTER_INFO));
  DWORD rc = ERROR_BUFFER_OVERFLOW;
  for (int attempt = 0; attempt < 4 && rc == ERROR_BUFFER_OVERFLOW; ++attempt) {
    ULONG size = static_cast<ULONG>(buffer.size());
    rc = ::GetAdaptersInfo(reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data()), &size);
    if (rc == ERROR_BUFFER_OVERFLOW) buffer.resize(size);
  }
  if (rc == ERROR_NO_DATA) return 0;
  if (rc != ERROR_SUCCESS) {
    ::SetLastError(rc);
    return -1;
  }
  std::vector<Adapter> found;
  for (auto* it = reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data()); it != nullptr; it = it->Next) {
    if (it->Type == MIB_IF_TYPE_LOOPBACK || it->AddressLength != 6 || all_zero(it->Address)) continue;
    Adapter a;
    std::copy(it->Address, it->Address + 6, a.address);
    a.index = it->Index;
    a.ethernet = it->Type == MIB_IF_TYPE_ETHERNET;
    a.name = it->AdapterName;
    a.description = it->Description;
    found.push_back(std::move(a));
  }
  std::stable_sort(found.begin(), found.end(), [](const Adapter& x, const Adapter& y) { return x.index < y.index; });
  *out = std::move(found);
  return 0;
}

}  // namespace platform::sys
