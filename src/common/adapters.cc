// The network adapters' addresses belong to the keystore module of the design:
// its lines keep that name.
#define VEXO_LOG_FILE "keystore"
#include "common/adapters.h"

#include <algorithm>
#include <new>

#include "common/rd_codes.h"
#include "common/rd_log.h"
#include "platform/platform.h"

using rd_codes::kFailed;

namespace {

using Mac = std::array<std::uint8_t, 6>;

// The adapter dump of GetAdaptersInfo's sample output, debugging output only.
void print_adapter(const platform::Adapter& a) {
  RD_DEBUG("\tComboIndex: \t%lu\n", static_cast<unsigned long>(a.index));
  RD_DEBUG("\tAdapter Name: \t%s\n", a.name.c_str());
  RD_DEBUG("\tAdapter Desc: \t%s\n", a.description.c_str());
  RD_DEBUG("\tAdapter Addr: \t%.2X-%.2X-%.2X-%.2X-%.2X-%.2X\n", a.address[0], a.address[1], a.address[2], a.address[3],
           a.address[4], a.address[5]);
  RD_DEBUG("\tIndex: \t%lu\n", static_cast<unsigned long>(a.index));
  RD_DEBUG("\tType: \t%s\n", a.ethernet ? "Ethernet" : "Other");
}

}  // namespace

int GetAdapterID(std::vector<std::array<std::uint8_t, 6>>* ids) {
  ids->clear();
  try {
    std::vector<platform::Adapter> adapters;
    if (platform::list_adapters(&adapters) != 0) {
      // Like an empty list: the callers report a count below 1.
      RD_ERROR("GetAdaptersInfo failed");
      return 0;
    }
    for (const auto& a : adapters) {
      if (rd_verbose() >= 3) print_adapter(a);
      Mac mac;
      std::copy(a.address, a.address + 6, mac.begin());
      ids->push_back(mac);
    }
  } catch (const std::bad_alloc&) {
    ids->clear();
    RD_ERROR("Error allocating memory needed to call GetAdaptersinfo\n");
    return 1;
  }
  return 0;
}

int GetMAC(std::array<std::uint8_t, 6>* mac) {
  mac->fill(0);
  std::vector<Mac> ids;
  if (GetAdapterID(&ids) != 0 || ids.empty()) return kFailed;
  *mac = ids.front();
  return 0;
}
