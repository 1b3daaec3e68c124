/*
 * Entry points of the handheld device's libraries: "Tavio" (serial link,
 * queries, printer) and "BT_Hmac" (Bluetooth link security). Each returns 0
 * for success, a non-zero device code otherwise; text answers are written
 * NUL-terminated into out (out_len bytes).
 */
#ifndef TAVIO_SDK_H
#define TAVIO_SDK_H

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*OpenCom_port_t)(const char* port_path);
typedef int (*ClosePort_t)(void);
typedef int (*Get_BatteryStatus_t)(char* out, int out_len);
typedef int (*Get_FWVersion_t)(char* out, int out_len);
typedef int (*Get_SerialNumber_t)(char* out, int out_len);
typedef int (*Print_Data_t)(const char* text, char* out, int out_len);
typedef int (*TavioLogs_Init_t)(const char* log_param);
typedef int (*Initialize_BT_Security_t)(const char* security_param);

#ifdef __cplusplus
}
#endif

#endif /* TAVIO_SDK_H */
