// Simulated handheld device library: a serial link that opens, answers the
// status queries and prints, each answer and failure scriptable.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

#include "control.h"
#include "sim_codes.h"
#include "tavio_sdk.h"

#define SIM_EXPORT extern "C" SIM_VISIBLE

namespace {

using simctl::guarded;
using simctl::scripted;

bool g_port_open GUARDED_BY(simctl::g_sim_mutex) = false;

int copy_answer(const std::string& text, char* out, int out_len) {
  const std::size_t n = std::min<std::size_t>(text.size(), static_cast<std::size_t>(out_len) - 1);
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
  return 0;
}

// One status query: the port must be open; a scripted failure leaves out empty.
int query(const char* name, const char* key, const char* answer_key, const char* def, char* out, int out_len) {
  return guarded(name, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (out == nullptr || out_len <= 0) return SIM_ERR_BAD_PARAM;
    out[0] = '\0';
    if (!g_port_open) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, key)) return r;
    return copy_answer(c.text(answer_key, def), out, out_len);
  });
}

}  // namespace

SIM_EXPORT int OpenCom_port(const char* port_path) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (port_path == nullptr) return SIM_ERR_BAD_PARAM;
    if (c.number("tavio_present", 1) == 0) return SIM_ERR_NO_DEVICE;
    // A link that needs several tries: the first N opens fail.
    const unsigned long failures = static_cast<unsigned long>(c.bounded("tavio_open_failures", 0, 0, 1000000));
    if (c.bump("tavio_open_calls") < failures) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, "tavio_open")) return r;
    g_port_open = true;
    return 0;
  });
}

SIM_EXPORT int ClosePort(void) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (!g_port_open) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, "tavio_close")) return r;
    g_port_open = false;
    return 0;
  });
}

SIM_EXPORT int Get_BatteryStatus(char* out, int out_len) {
  return query(__func__, "tavio_battery", "tavio_battery", SIM_DEFAULT_TAVIO_BATTERY, out, out_len);
}

SIM_EXPORT int Get_FWVersion(char* out, int out_len) {
  return query(__func__, "tavio_firmware", "tavio_firmware", SIM_DEFAULT_TAVIO_FIRMWARE, out, out_len);
}

SIM_EXPORT int Get_SerialNumber(char* out, int out_len) {
  return query(__func__, "tavio_serial", "tavio_serial", SIM_DEFAULT_TAVIO_SERIAL, out, out_len);
}

SIM_EXPORT int Print_Data(const char* text, char* out, int out_len) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (text == nullptr || out == nullptr || out_len <= 0) return SIM_ERR_BAD_PARAM;
    out[0] = '\0';
    if (!g_port_open) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, "tavio_print")) return r;
    // The paper: every printed text lands in sim_printer.txt for tests to read.
    const std::string path = simctl::library_dir() + "/sim_printer.txt";
    if (FILE* f = std::fopen(path.c_str(), "ab")) {
      std::fprintf(f, "%s\n", text);
      std::fclose(f);
    }
    return copy_answer(c.text("tavio_print", SIM_DEFAULT_TAVIO_PRINT), out, out_len);
  });
}

SIM_EXPORT int TavioLogs_Init(const char* log_param) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (log_param == nullptr) return SIM_ERR_BAD_PARAM;
    return scripted(c, "tavio_logs_init");
  });
}

static_assert(std::is_same_v<decltype(&OpenCom_port), OpenCom_port_t>);
static_assert(std::is_same_v<decltype(&ClosePort), ClosePort_t>);
static_assert(std::is_same_v<decltype(&Get_BatteryStatus), Get_BatteryStatus_t>);
static_assert(std::is_same_v<decltype(&Get_FWVersion), Get_FWVersion_t>);
static_assert(std::is_same_v<decltype(&Get_SerialNumber), Get_SerialNumber_t>);
static_assert(std::is_same_v<decltype(&Print_Data), Print_Data_t>);
static_assert(std::is_same_v<decltype(&TavioLogs_Init), TavioLogs_Init_t>);
