/*
 * Entry points of the scanner maker's SDK ("AraTrustFinger"), as the RD
 * service loads them by name. The simulated SDK in sim/ exports exactly these.
 * Every function returns 0 for success or a negative SDK error code.
 */
#ifndef ARATEK_SDK_H
#define ARATEK_SDK_H

#ifdef __cplusplus
extern "C" {
#endif

#define ARAFPSCAN_ERROR_TIMEOUT (-113)      /* no finger within the wait */
#define ARAFPSCAN_ERROR_ALREADY_INIT (-115) /* GlobalInit called twice */
#define ARAFPSCAN_DESCRIPTION_LEN 248       /* GetDeviceDescription buffer */

typedef void* ARAFPSCAN_HANDLE;

typedef int (*ARAFPSCAN_GlobalInit_t)(void);
typedef int (*ARAFPSCAN_GlobalFree_t)(void);
/* Opens device number index and stores its handle. */
typedef int (*ARAFPSCAN_OpenDevice_t)(int index, ARAFPSCAN_HANDLE* handle);
typedef int (*ARAFPSCAN_CloseDevice_t)(ARAFPSCAN_HANDLE handle);
/* Writes a NUL-terminated description of device index into a 248-byte buffer;
 * its leading text, up to the first blank, is the serial number. */
typedef int (*ARAFPSCAN_GetDeviceDescription_t)(int index, char* description);
/* Sensor image width and height in pixels and resolution in pixels per inch. */
typedef int (*ARAFPSCAN_GetImageInfo_t)(ARAFPSCAN_HANDLE handle, int* width, int* height, int* resolution);
/* Switches LED number led on (1) or off (0). */
typedef int (*ARAFPSCAN_SetLedStatus_t)(ARAFPSCAN_HANDLE handle, int led, int on);
/* Waits up to timeout_s seconds for a finger and writes width*height 8-bit
 * pixels into raw. ARAFPSCAN_ERROR_TIMEOUT when no finger came. */
typedef int (*ARAFPSCAN_CaptureRawData_t)(ARAFPSCAN_HANDLE handle, int timeout_s, unsigned char* raw);
/* ISO/IEC 19794-2 minutiae record of the last captured image (mode 0) into
 * feature (at least 1568 bytes). */
typedef int (*ARAFPSCAN_ExtractISOFeature_t)(ARAFPSCAN_HANDLE handle, int mode, unsigned char* feature);
/* Length in bytes of the record that ExtractISOFeature wrote. */
typedef int (*ARAFPSCAN_GetISOFeatureLength_t)(const unsigned char* feature, int* length);
/* Image quality, 0..100, of a raw image. */
typedef int (*ARAFPSCAN_ImgQuality_t)(int width, int height, const unsigned char* raw, int* quality);
/* NFIQ score, 1 (best) .. 5 (worst), of a raw image. */
typedef int (*ARAFPSCAN_GetNFIQScore_t)(int width, int height, const unsigned char* raw, int* nfiq);

#ifdef __cplusplus
}
#endif

#endif /* ARATEK_SDK_H */
