/* Deliberately incomplete vendor libraries: each lacks its last entry point,
 * so the loader must check every name, not just the first ones. The loader
 * refuses such a library before it calls anything, so every entry point is a
 * stub whatever its real signature. */
// clang-format off
#define STUB(name) SIM_VISIBLE int name(void) { return 0; }
// clang-format on

#ifdef INCOMPLETE_SCANNER
STUB(ARAFPSCAN_GlobalInit)
STUB(ARAFPSCAN_GlobalFree)
STUB(ARAFPSCAN_OpenDevice)
STUB(ARAFPSCAN_CloseDevice)
STUB(ARAFPSCAN_GetDeviceDescription)
STUB(ARAFPSCAN_GetImageInfo)
STUB(ARAFPSCAN_SetLedStatus)
STUB(ARAFPSCAN_CaptureRawData)
STUB(ARAFPSCAN_ExtractISOFeature)
STUB(ARAFPSCAN_GetISOFeatureLength)
STUB(ARAFPSCAN_ImgQuality)
#endif

#ifdef INCOMPLETE_HANDHELD
STUB(OpenCom_port)
STUB(ClosePort)
STUB(Get_BatteryStatus)
STUB(Get_FWVersion)
STUB(Get_SerialNumber)
STUB(Print_Data)
#endif
