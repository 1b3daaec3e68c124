// Simulated Bluetooth link-security library of the handheld device.
#include <type_traits>

#include "control.h"
#include "sim_codes.h"
#include "tavio_sdk.h"

extern "C" SIM_VISIBLE int Initialize_BT_Security(const char* security_param) {
  return simctl::guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (security_param == nullptr) return SIM_ERR_BAD_PARAM;
    return simctl::scripted(c, "bt_security");
  });
}

static_assert(std::is_same_v<decltype(&Initialize_BT_Security), Initialize_BT_Security_t>);
