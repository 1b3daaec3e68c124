// Simulated scanner SDK: a healthy 500-ppi optical sensor by default, every
// answer scriptable through the control file.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>

#include "aratek_sdk.h"
#include "control.h"
#include "fingerprint.h"
#include "sim_codes.h"

#define SIM_EXPORT extern "C" SIM_VISIBLE

namespace {

using simctl::guarded;
using simctl::scripted;

// The one simulated device.
struct Device {
  bool global_init = false;
  bool open = false;
  int width = 0, height = 0, resolution = 0;  // fixed when the device is opened
  int led = 0;
  bool have_image = false;
  std::uint32_t image_seed = 0;
};
Device g_device GUARDED_BY(simctl::g_sim_mutex);

std::uint32_t fnv1a(const std::string& s) {
  std::uint32_t h = 2166136261u;
  for (unsigned char c : s) h = (h ^ c) * 16777619u;
  return h;
}

bool present(const simctl::ControlCall& c) { return c.number("present", 1) != 0; }
bool valid_handle(ARAFPSCAN_HANDLE h) REQUIRES(simctl::g_sim_mutex) { return h == &g_device && g_device.open; }

void sleep_ms(long ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace

SIM_EXPORT int ARAFPSCAN_GlobalInit(void) {
  return guarded(__func__, [](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (int r = scripted(c, "global_init")) return r;
    if (g_device.global_init) return ARAFPSCAN_ERROR_ALREADY_INIT;
    g_device.global_init = true;
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_GlobalFree(void) {
  return guarded(__func__, [](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (int r = scripted(c, "global_free")) return r;
    g_device.global_init = false;
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_OpenDevice(int index, ARAFPSCAN_HANDLE* handle) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (handle == nullptr) return SIM_ERR_BAD_PARAM;
    *handle = nullptr;
    if (c.number("require_global_init", 0) != 0 && !g_device.global_init) return SIM_ERR_NOT_INIT;
    if (!present(c) || index != 0) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, "open")) return r;
    if (!g_device.open) {
      g_device.width = static_cast<int>(c.bounded("image_width", SIM_DEFAULT_WIDTH, 16, 2048));
      g_device.height = static_cast<int>(c.bounded("image_height", SIM_DEFAULT_HEIGHT, 16, 2048));
      g_device.resolution = static_cast<int>(c.bounded("resolution", SIM_DEFAULT_RESOLUTION, 100, 2000));
      g_device.open = true;
      g_device.have_image = false;
    }
    *handle = &g_device;
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_CloseDevice(ARAFPSCAN_HANDLE handle) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (!valid_handle(handle)) return SIM_ERR_BAD_HANDLE;
    if (int r = scripted(c, "close")) return r;
    g_device.open = false;
    g_device.have_image = false;
    g_device.led = 0;
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_GetDeviceDescription(int index, char* description) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (description == nullptr) return SIM_ERR_BAD_PARAM;
    if (!present(c) || index != 0) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, "description")) return r;
    const std::string serial = c.text("serial", SIM_DEFAULT_SERIAL);
    const std::string text = c.text("description", (serial + " A600 optical fingerprint scanner (simulated)").c_str());
    const std::size_t n = std::min<std::size_t>(text.size(), ARAFPSCAN_DESCRIPTION_LEN - 1);
    std::memcpy(description, text.data(), n);
    description[n] = '\0';
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_GetImageInfo(ARAFPSCAN_HANDLE handle, int* width, int* height, int* resolution) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (width == nullptr || height == nullptr || resolution == nullptr) return SIM_ERR_BAD_PARAM;
    if (!valid_handle(handle)) return SIM_ERR_BAD_HANDLE;
    if (!present(c)) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, "image_info")) return r;
    *width = g_device.width;
    *height = g_device.height;
    *resolution = g_device.resolution;
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_SetLedStatus(ARAFPSCAN_HANDLE handle, int led, int on) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (led < 0 || (on != 0 && on != 1)) return SIM_ERR_BAD_PARAM;
    if (!valid_handle(handle)) return SIM_ERR_BAD_HANDLE;
    if (!present(c)) return SIM_ERR_NO_DEVICE;
    if (int r = scripted(c, "led")) return r;
    g_device.led = on;
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_CaptureRawData(ARAFPSCAN_HANDLE handle, int timeout_s, unsigned char* raw) {
  int result = 0;
  long wait_ms = 0;
  int width = 0, height = 0;
  std::uint32_t seed = 0;
  result = guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (raw == nullptr || timeout_s < 0) return SIM_ERR_BAD_PARAM;
    if (!valid_handle(handle)) return SIM_ERR_BAD_HANDLE;
    if (!present(c)) return SIM_ERR_NO_DEVICE;
    wait_ms = c.bounded("capture_wait_ms", SIM_DEFAULT_CAPTURE_WAIT_MS, 0, 60000);
    const int r = static_cast<int>(c.next("capture_results", "capture_result", 0));
    // Each capture, counted from the current control file, shows another finger.
    const unsigned long n = c.bump("capture");
    const auto base = static_cast<std::uint32_t>(
        c.number("image_seed", static_cast<long>(fnv1a(c.text("serial", SIM_DEFAULT_SERIAL)))));
    seed = base + static_cast<std::uint32_t>(n) * 7919u;
    width = g_device.width;
    height = g_device.height;
    return r;
  });
  if (width == 0) return result;  // refused before the device was asked
  // The finger arrives (or the wait runs out) without holding the simulator.
  sleep_ms(wait_ms);
  if (result != 0) return result;
  simfp::render_fingerprint(width, height, seed, raw);
  return guarded(nullptr, [&](simctl::ControlCall&) REQUIRES(simctl::g_sim_mutex) {
    g_device.have_image = true;
    g_device.image_seed = seed;
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_ExtractISOFeature(ARAFPSCAN_HANDLE handle, int mode, unsigned char* feature) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (feature == nullptr || mode != 0) return SIM_ERR_BAD_PARAM;
    if (!valid_handle(handle)) return SIM_ERR_BAD_HANDLE;
    if (int r = scripted(c, "extract")) return r;
    if (!g_device.have_image) return SIM_ERR_NO_IMAGE;
    const int count = static_cast<int>(c.bounded("minutiae_count", SIM_DEFAULT_MINUTIAE, 0, simfp::kMaxMinutiae));
    const int quality = static_cast<int>(c.bounded("quality", SIM_DEFAULT_QUALITY, 0, 100));
    simfp::build_minutiae_record(g_device.width, g_device.height, g_device.resolution, quality, count,
                                 g_device.image_seed, feature);
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_GetISOFeatureLength(const unsigned char* feature, int* length) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (feature == nullptr || length == nullptr) return SIM_ERR_BAD_PARAM;
    *length = 0;
    if (int r = scripted(c, "feature_length")) return r;
    const std::size_t len = simfp::record_length(feature);
    if (len < simfp::fmr_length(0) || len > simfp::fmr_length(simfp::kMaxMinutiae)) return SIM_ERR_BAD_PARAM;
    *length = static_cast<int>(len);
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_ImgQuality(int width, int height, const unsigned char* raw, int* quality) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (width <= 0 || height <= 0 || raw == nullptr || quality == nullptr) return SIM_ERR_BAD_PARAM;
    if (int r = scripted(c, "quality")) return r;
    *quality = static_cast<int>(c.next("quality_values", "quality", SIM_DEFAULT_QUALITY));
    *quality = *quality < 0 ? 0 : (*quality > 100 ? 100 : *quality);
    return 0;
  });
}

SIM_EXPORT int ARAFPSCAN_GetNFIQScore(int width, int height, const unsigned char* raw, int* nfiq) {
  return guarded(__func__, [&](simctl::ControlCall& c) REQUIRES(simctl::g_sim_mutex) {
    if (width <= 0 || height <= 0 || raw == nullptr || nfiq == nullptr) return SIM_ERR_BAD_PARAM;
    if (int r = scripted(c, "nfiq")) return r;
    *nfiq = static_cast<int>(c.next("nfiq_scores", "nfiq", SIM_DEFAULT_NFIQ));
    *nfiq = *nfiq < 1 ? 1 : (*nfiq > 5 ? 5 : *nfiq);
    return 0;
  });
}

// The exports must keep the SDK's signatures exactly.
static_assert(std::is_same_v<decltype(&ARAFPSCAN_GlobalInit), ARAFPSCAN_GlobalInit_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_GlobalFree), ARAFPSCAN_GlobalFree_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_OpenDevice), ARAFPSCAN_OpenDevice_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_CloseDevice), ARAFPSCAN_CloseDevice_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_GetDeviceDescription), ARAFPSCAN_GetDeviceDescription_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_GetImageInfo), ARAFPSCAN_GetImageInfo_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_SetLedStatus), ARAFPSCAN_SetLedStatus_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_CaptureRawData), ARAFPSCAN_CaptureRawData_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_ExtractISOFeature), ARAFPSCAN_ExtractISOFeature_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_GetISOFeatureLength), ARAFPSCAN_GetISOFeatureLength_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_ImgQuality), ARAFPSCAN_ImgQuality_t>);
static_assert(std::is_same_v<decltype(&ARAFPSCAN_GetNFIQScore), ARAFPSCAN_GetNFIQScore_t>);
