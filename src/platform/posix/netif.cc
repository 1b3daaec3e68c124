#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/mutex.h"
#include "platform/platform.h"
#include "platform/shared.h"

namespace platform::sys {

namespace {
struct IfaddrsFree {
  void operator()(ifaddrs* p) const { freeifaddrs(p); }
};

bool all_zero(const std::uint8_t* a) {
  return std::all_of(a, a + 6, [](std::uint8_t b) { return b == 0; });
}
}  // namespace

int list_system_adapters(std::vector<Adapter>* out) {
  ifaddrs* raw = nullptr;
  if (getifaddrs(&raw) != 0) return -1;
  std::unique_ptr<ifaddrs, IfaddrsFree> list(raw);
  std::vector<Adapter> found;
  for (ifaddrs* it = list.get(); it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_PACKET) continue;
    if ((it->ifa_flags & IFF_LOOPBACK) != 0) continue;
    const auto* ll = reinterpret_cast<const sockaddr_ll*>(it->ifa_addr);
    if (ll->sll_halen != 6 || all_zero(ll->sll_addr)) continue;
    Adapter a;
    std::memcpy(a.address, ll->sll_addr, 6);
    a.index = static_cast<unsigned>(ll->sll_ifindex);
    a.ethernet = ll->sll_hatype == ARPHRD_ETHER;
    a.name = it->ifa_name ? it->ifa_name : "";
    // Linux keeps no adapter description; the interface name stands in for it.
    a.description = a.name;
    found.push_back(std::move(a));
  }
  std::stable_sort(found.begin(), found.end(), [](const Adapter& x, const Adapter& y) { return x.index < y.index; });
  *out = std::move(found);
  return 0;
}

}  // namespace platform::sys
