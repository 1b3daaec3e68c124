// Acquisition through the scanner SDK belongs to the pidblock_A600 module.
#define VEXO_LOG_FILE "pidblock_A600"
#include "rd_core/scanner.h"

#include <cstring>
#include <map>
#include <memory>
#include <new>

#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/mutex.h"
#include "platform/platform.h"
#include "postauth/handheld.h"

using rd_codes::kScannerFailed;
using rd_codes::kScannerNoDescription;
using rd_codes::kScannerNoMemory;

namespace {

// Serialises loading: the loaded flags, the handle cache and the writes of
// the entry-point tables.
platform::Mutex g_load_mutex;
// Written under g_load_mutex during start-up, before any request thread
// exists; read without a lock afterwards.
AratekSdk g_aratek;
bool g_scanner_loaded GUARDED_BY(g_load_mutex) = false;
bool g_handheld_loaded GUARDED_BY(g_load_mutex) = false;
// Every library opened stays loaded for the life of the process. Keeping the
// handles by path means a repeated attempt never opens a library twice.
std::map<std::string, void*> g_handles GUARDED_BY(g_load_mutex);

// The helper libraries are loaded ahead of the SDK that needs them.
constexpr const char* kScannerHelpers[] = {"openjp2.dll", "ImgFormatConvert.dll", "AraWSQ.dll", "AraNFIQ.dll"};
constexpr const char* kScannerSdk = "AraTrustFinger.dll";
constexpr const char* kHandheldLib = "Tavio.dll";
constexpr const char* kHandheldSecurityLib = "BT_Hmac.dll";
constexpr const char* kHandheldScanner = "Tavio_TX9";

// Opens folder/dll (or finds it already open). nullptr after logging the failure.
void* open_library(const char* folder, const char* dll) REQUIRES(g_load_mutex) {
  RD_LOG_AS("dll_loading");
  const std::string path = platform::library_path(folder, dll);
  auto it = g_handles.find(path);
  if (it != g_handles.end()) return it->second;
  void* lib = platform::library_open(path);
  if (lib == nullptr) {
    RD_ERROR("Loading %s failed: %s", dll, platform::library_error().c_str());
    return nullptr;
  }
  g_handles.emplace(path, lib);
  return lib;
}

// Looks up one entry point into *fn. false after logging which one is missing.
template <typename Fn>
bool resolve(void* lib, const char* dll, const char* name, Fn* fn) {
  RD_LOG_AS("dll_loading");
  void* sym = platform::library_symbol(lib, name);
  if (sym == nullptr) {
    RD_ERROR("Entry point %s not found in %s", name, dll);
    return false;
  }
  *fn = reinterpret_cast<Fn>(sym);
  return true;
}

int load_scanner(const char* folder) REQUIRES(g_load_mutex) {
  for (const char* dll : kScannerHelpers) {
    if (open_library(folder, dll) == nullptr) return kScannerFailed;
  }
  void* lib = open_library(folder, kScannerSdk);
  if (lib == nullptr) return kScannerFailed;
  AratekSdk sdk;
  const bool ok = resolve(lib, kScannerSdk, "ARAFPSCAN_GlobalInit", &sdk.GlobalInit) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_GlobalFree", &sdk.GlobalFree) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_OpenDevice", &sdk.OpenDevice) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_CloseDevice", &sdk.CloseDevice) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_GetDeviceDescription", &sdk.GetDeviceDescription) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_GetImageInfo", &sdk.GetImageInfo) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_SetLedStatus", &sdk.SetLedStatus) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_CaptureRawData", &sdk.CaptureRawData) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_ExtractISOFeature", &sdk.ExtractISOFeature) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_GetISOFeatureLength", &sdk.GetISOFeatureLength) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_ImgQuality", &sdk.ImgQuality) &&
                  resolve(lib, kScannerSdk, "ARAFPSCAN_GetNFIQScore", &sdk.GetNFIQScore);
  if (!ok) return kScannerFailed;
  g_aratek = sdk;
  return 0;
}

int load_handheld(const char* folder) REQUIRES(g_load_mutex) {
  void* lib = open_library(folder, kHandheldLib);
  if (lib == nullptr) return kScannerFailed;
  TavioSdk sdk;
  bool ok = resolve(lib, kHandheldLib, "OpenCom_port", &sdk.OpenCom_port) &&
            resolve(lib, kHandheldLib, "ClosePort", &sdk.ClosePort) &&
            resolve(lib, kHandheldLib, "Get_BatteryStatus", &sdk.Get_BatteryStatus) &&
            resolve(lib, kHandheldLib, "Get_FWVersion", &sdk.Get_FWVersion) &&
            resolve(lib, kHandheldLib, "Get_SerialNumber", &sdk.Get_SerialNumber) &&
            resolve(lib, kHandheldLib, "Print_Data", &sdk.Print_Data) &&
            resolve(lib, kHandheldLib, "TavioLogs_Init", &sdk.TavioLogs_Init);
  if (!ok) return kScannerFailed;
  void* security = open_library(folder, kHandheldSecurityLib);
  if (security == nullptr) return kScannerFailed;
  if (!resolve(security, kHandheldSecurityLib, "Initialize_BT_Security", &sdk.Initialize_BT_Security))
    return kScannerFailed;
  set_tavio_sdk(sdk);
  return 0;
}

}  // namespace

int dll_loading(const char* folder) {
  if (folder == nullptr) return kScannerFailed;
  platform::MutexLock lock(&g_load_mutex);
  const bool handheld = rd_scanner_name() == kHandheldScanner;
  if (!g_scanner_loaded) {
    if (load_scanner(folder) != 0) return kScannerFailed;
    g_scanner_loaded = true;
  }
  if (handheld && !g_handheld_loaded) {
    if (load_handheld(folder) != 0) return kScannerFailed;
    g_handheld_loaded = true;
  }
  RD_INFO("DLL Loading SUCCESS");
  return 0;
}

const AratekSdk& aratek_sdk() { return g_aratek; }

int getdeviceserialnumber(std::string* serial) {
  serial->clear();
  std::unique_ptr<char[]> description(new (std::nothrow) char[ARAFPSCAN_DESCRIPTION_LEN]());
  if (!description) {
    RD_ERROR("Memory allocation failed");
    return kScannerNoMemory;
  }
  const AratekSdk& sdk = aratek_sdk();
  int rc = sdk.GetDeviceDescription != nullptr ? sdk.GetDeviceDescription(0, description.get()) : -1;
  description[ARAFPSCAN_DESCRIPTION_LEN - 1] = '\0';
  // The serial is the description's first word; a description without one is
  // as useless as none.
  const char* text = description.get();
  text += std::strspn(text, " ");
  const std::size_t len = std::strcspn(text, " ");
  if (rc != 0 || len == 0) {
    RD_ERROR("GetDeviceDescription failed");
    RD_STATUS("Getting serial number failed ");
    return kScannerNoDescription;
  }
  serial->assign(text, len);
  return 0;
}
