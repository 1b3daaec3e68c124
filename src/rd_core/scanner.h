// The scanner maker's SDK, loaded at run time, and the handheld device's
// libraries. dll_loading fills the process-wide entry-point tables once at
// start-up (the handheld device's table is postauth/handheld.h); the capture
// and PostAuth code then call through them.
#ifndef VEXO_RD_CORE_SCANNER_H
#define VEXO_RD_CORE_SCANNER_H

#include <string>

#include "aratek_sdk.h"

struct AratekSdk {
  ARAFPSCAN_GlobalInit_t GlobalInit = nullptr;
  ARAFPSCAN_GlobalFree_t GlobalFree = nullptr;
  ARAFPSCAN_OpenDevice_t OpenDevice = nullptr;
  ARAFPSCAN_CloseDevice_t CloseDevice = nullptr;
  ARAFPSCAN_GetDeviceDescription_t GetDeviceDescription = nullptr;
  ARAFPSCAN_GetImageInfo_t GetImageInfo = nullptr;
  ARAFPSCAN_SetLedStatus_t SetLedStatus = nullptr;
  ARAFPSCAN_CaptureRawData_t CaptureRawData = nullptr;
  ARAFPSCAN_ExtractISOFeature_t ExtractISOFeature = nullptr;
  ARAFPSCAN_GetISOFeatureLength_t GetISOFeatureLength = nullptr;
  ARAFPSCAN_ImgQuality_t ImgQuality = nullptr;
  ARAFPSCAN_GetNFIQScore_t GetNFIQScore = nullptr;
};

// Loads the scanner libraries from folder (".\\RefDll" in the design, mapped
// by the platform) and, for the handheld scanner, the handheld libraries.
// 0, or -1 after logging which library or entry point failed.
int dll_loading(const char* folder);
// The entry points; valid after dll_loading returned 0.
const AratekSdk& aratek_sdk();
// Serial number of device 0 (the description's leading text). 0; -2 no
// memory; -3 description not read.
int getdeviceserialnumber(std::string* serial);

#endif  // VEXO_RD_CORE_SCANNER_H
