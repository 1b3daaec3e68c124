/* Deliberately incomplete vendor libraries: each lacks its last entry point,
 * so the loader must check every name, not just the first ones. */
#define EXPORT SIM_VISIBLE

#ifdef INCOMPLETE_SCANNER
EXPORT int ARAFPSCAN_GlobalInit(void) { return 0; }
EXPORT int ARAFPSCAN_GlobalFree(void) { return 0; }
EXPORT int ARAFPSCAN_OpenDevice(int i, void** h) {
  (void)i;
  *h = 0;
  return 0;
}
EXPORT int ARAFPSCAN_CloseDevice(void* h) {
  (void)h;
  return 0;
}
EXPORT int ARAFPSCAN_GetDeviceDescription(int i, char* d) {
  (void)i;
  d[0] = 0;
  return 0;
}
EXPORT int ARAFPSCAN_GetImageInfo(void* h, int* w, int* ht, int* r) {
  (void)h;
  *w = *ht = *r = 0;
  return 0;
}
EXPORT int ARAFPSCAN_SetLedStatus(void* h, int l, int o) {
  (void)h;
  (void)l;
  (void)o;
  return 0;
}
EXPORT int ARAFPSCAN_CaptureRawData(void* h, int t, unsigned char* r) {
  (void)h;
  (void)t;
  (void)r;
  return 0;
}
EXPORT int ARAFPSCAN_ExtractISOFeature(void* h, int m, unsigned char* f) {
  (void)h;
  (void)m;
  (void)f;
  return 0;
}
EXPORT int ARAFPSCAN_GetISOFeatureLength(const unsigned char* f, int* l) {
  (void)f;
  *l = 0;
  return 0;
}
EXPORT int ARAFPSCAN_ImgQuality(int w, int h, const unsigned char* r, int* q) {
  (void)w;
  (void)h;
  (void)r;
  *q = 0;
  return 0;
}
#endif

#ifdef INCOMPLETE_HANDHELD
EXPORT int OpenCom_port(const char* p) {
  (void)p;
  return 0;
}
EXPORT int ClosePort(void) { return 0; }
EXPORT int Get_BatteryStatus(char* o, int n) {
  (void)o;
  (void)n;
  return 0;
}
EXPORT int Get_FWVersion(char* o, int n) {
  (void)o;
  (void)n;
  return 0;
}
EXPORT int Get_SerialNumber(char* o, int n) {
  (void)o;
  (void)n;
  return 0;
}
EXPORT int Print_Data(const char* t, char* o, int n) {
  (void)t;
  (void)o;
  (void)n;
  return 0;
}
#endif
