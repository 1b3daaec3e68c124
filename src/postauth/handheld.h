// The handheld device's entry points (Tavio.dll and BT_Hmac.dll). dll_loading
// fills the table once at start-up, for the handheld scanner only; the
// PostAuth commands and the start-up then call through it.
//
// Thread-safety: written once by dll_loading under its loader mutex before
// any request thread starts; read without a lock afterwards.
#ifndef VEXO_POSTAUTH_HANDHELD_H
#define VEXO_POSTAUTH_HANDHELD_H

#include "tavio_sdk.h"

struct TavioSdk {
  OpenCom_port_t OpenCom_port = nullptr;
  ClosePort_t ClosePort = nullptr;
  Get_BatteryStatus_t Get_BatteryStatus = nullptr;
  Get_FWVersion_t Get_FWVersion = nullptr;
  Get_SerialNumber_t Get_SerialNumber = nullptr;
  Print_Data_t Print_Data = nullptr;
  TavioLogs_Init_t TavioLogs_Init = nullptr;
  Initialize_BT_Security_t Initialize_BT_Security = nullptr;
};

// The entry points; all null until dll_loading loaded the handheld libraries.
const TavioSdk& tavio_sdk();
// Installs the entry points that dll_loading resolved.
void set_tavio_sdk(const TavioSdk& sdk);

#endif  // VEXO_POSTAUTH_HANDHELD_H
