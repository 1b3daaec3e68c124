// Result codes of the library, in one table: the name call sites use, the
// value the design gives, and the message that goes with it.
//
// Codes are grouped by family, because the same value means different things
// to different callers (-1 is a failed start-up step, and also the PostAuth
// text "Command Not Sent to Device"). Each family is an X-macro list:
// X(name, value, message). The RD family carries the errInfo texts of
// PidData and PostAuthResp byte for byte; other messages are descriptions
// for readers of the code and the README, not wire texts.
//
// Call sites name every result: no function of src/ or rd_lib/ returns a bare
// negative number (tests/code_table_check.sh holds this). The platform layer
// is the exception: it sits below this table and keeps the system's -1.
//
// Thread-safety: constant data only.
#ifndef VEXO_COMMON_RD_CODES_H
#define VEXO_COMMON_RD_CODES_H

// The tables keep their column layout.
// clang-format off

// Functions whose only results are success and failure (the design's "0 or
// -1"), and helpers whose caller gives the failure its meaning.
#define VEXO_RESULT_CODES(X)                                                 \
  X(kOk, 0, "success")                                                       \
  X(kFailed, -1, "failure")

// Initialize_process results.
#define VEXO_INIT_CODES(X)                                                   \
  X(kInitOk, 0, "success")                                                   \
  X(kInitFailed, -1, "run log or status pipe not opened, scanner global initialisation failed, or clock unreadable") \
  X(kInitHostId, -2, "host identifier not read")                             \
  X(kInitLocks, -3, "locks not created")                                     \
  X(kInitLoadConfig, -4, "load_config_file failed")                          \
  X(kInitConfig, -5, "config.ini not read or not valid")                     \
  X(kInitSerialRead, -6, "Serial_number not readable")                       \
  X(kInitSerialWrite, -7, "Serial_number not written")                       \
  X(kInitSerialOpen, -8, "Serial_number not opened for writing")             \
  X(kInitNoDevice, -10, "no scanner answered")                               \
  X(kInitAppData, -11, "APPDATA not set")                                    \
  X(kInitLogStream, -12, "log stream not obtained")                          \
  X(kInitProxy, -13, "proxy file without its URL")                           \
  X(kInitTlsCert, -14, "TLS certificate file missing")                       \
  X(kInitTlsKey, -15, "TLS key file missing")                                \
  X(kInitFileMissing, -16, "a required file or TLS file missing")            \
  X(kInitDllLoading, 1, "vendor libraries not loaded")

// Start_RDservice results.
#define VEXO_START_CODES(X)                                                  \
  X(kStartOk, 0, "success")                                                  \
  X(kStartClock, -1, "clock unreadable while reporting")                     \
  X(kStartSocket, -2, "server socket not created")                           \
  X(kStartTls, -3, "TLS context not created")                                \
  X(kStartThread, -4, "accept thread not started")

// attach_device and detach_device results.
#define VEXO_ATTACH_CODES(X)                                                 \
  X(kAttachSame, 0, "same scanner as before")                                \
  X(kAttachFailed, -1, "no scanner answered, or clock unreadable")           \
  X(kAttachChanged, -10, "a different scanner was attached")

// read_config_file results.
#define VEXO_CONFIG_CODES(X)                                                 \
  X(kConfigOk, 0, "success")                                                 \
  X(kConfigFailed, -1, "seal, lock, decryption or overlong value")           \
  X(kConfigNotLoadable, -2, "config.ini not loadable")                       \
  X(kConfigNoRdVer, -4, "RD_VER missing")                                    \
  X(kConfigNoDc, -10, "dc missing")                                          \
  X(kConfigNoDomain, -13, "DOMAIN_NAME missing")                             \
  X(kConfigNoValidity, -18, "DEV_PUB_KEY_VALIDITY missing")                  \
  X(kConfigUnlock, -19, "scanner lock not released")

// CRC seal of config.ini (add_crc, verify_crc). -1 is add_crc's alone.
#define VEXO_CRC_CODES(X)                                                    \
  X(kCrcOk, 0, "sealed, or the seal matches (or no seal asked for)")         \
  X(kCrcFileNotCreated, -1, "add_crc: CRC file not created")                 \
  X(kCrcFailed, 3, "arguments, reading, writing or the comparison failed")

// Machine-wide and handheld lock results.
#define VEXO_LOCK_CODES(X)                                                   \
  X(kLockOk, 0, "acquired or released")                                      \
  X(kLockFailed, -1, "no lock, or not held")                                 \
  X(kLockTimeout, -2, "time-out or failure while waiting")

// Keystore results.
#define VEXO_KEYSTORE_CODES(X)                                               \
  X(kKeystoreOk, 0, "success")                                               \
  X(kKeystoreFailed, -1, "failure")                                          \
  X(kKeystoreTampered, -100, "keystore tampered; key rotation failed")

// Management operations (Init, Key_Rotation, Software_Update,
// uidai_cert_update, uidai_cert_force_update). A value means different things
// to different operations; each name says whose it is. Transport failures
// pass sendData2Zelm's own codes through.
#define VEXO_MGMT_CODES(X)                                                   \
  X(kMgmtOk, 0, "success")                                                   \
  X(kMgmtFailed, -1, "request not framed, or no next-action buffer")         \
  X(kMgmtProdFetch, -2, "uidai_cert_force_update: production fetch failed")  \
  X(kMgmtNotJson, -3, "answer is not JSON")                                  \
  X(kMgmtNotParsed, -4, "answer refused by the server or not understood")    \
  X(kMgmtTimeSync, -5, "Init: clocks differ (TIME_STAMP_SYNC)")              \
  X(kMgmtLockNotTaken, -5, "Key_Rotation: scanner lock not taken")           \
  X(kMgmtDownload, -5, "Software_Update: package not downloaded")            \
  X(kMgmtStatusReport, -5, "uidai_cert_update: status report failed")        \
  X(kMgmtStagingFetch, -5, "uidai_cert_force_update: staging fetch failed")  \
  X(kMgmtNotRegistered, -6, "Init: DEVICE_NOT_REGISTERED")                   \
  X(kMgmtNoKeyPair, -6, "Key_Rotation: no new key pair")                     \
  X(kMgmtUnexpectedAction, -6, "uidai_cert_update: an answer other than UPDATE_STATUS") \
  X(kMgmtStagingNotParsed, -6, "uidai_cert_force_update: staging answer not understood") \
  X(kMgmtSealWrong, -7, "Key_Rotation: seal of config.ini wrong")            \
  X(kMgmtCertNotInstalled, -7, "uidai_cert_update: certificate not fetched, implausible or not matching its checksum") \
  X(kMgmtDcNotWritten, -8, "Key_Rotation: dc not written")                   \
  X(kMgmtSealNotRenewed, -9, "Key_Rotation: seal not renewed")               \
  X(kMgmtSignedCertInvalid, -10, "Key_Rotation: signed certificate not Base64 or not for the new key") \
  X(kMgmtSignedCertNotOpened, -11, "Key_Rotation: signed certificate file not opened") \
  X(kMgmtCommitFailed, -12, "Key_Rotation: new identity not committed")      \
  X(kMgmtLockNotReleased, -13, "Key_Rotation: scanner lock not released")    \
  X(kMgmtSignedCertNotWritten, -14, "Key_Rotation: signed certificate file not written")

// TLS transport of the local server.
#define VEXO_TLS_CODES(X)                                                    \
  X(kTlsOk, 0, "success")                                                    \
  X(kTlsCertUnusable, -1, "certificate or key not read, or not a pair")      \
  X(kTlsFailed, -2, "context, handshake, receive or send failed")            \
  X(kTlsNoConnection, -3, "closeSSLConnection: no connection object")

// Scanner library and acquisition (dll_loading, getdeviceserialnumber and
// FP_Cap, which also answers kRdTimeout and kRdCaptureFailed).
#define VEXO_SCANNER_CODES(X)                                                \
  X(kScannerOk, 0, "success")                                                \
  X(kScannerFailed, -1, "library not loaded, or a capture step failed (answered as 999)") \
  X(kScannerNoMemory, -2, "getdeviceserialnumber: buffer not allocated")     \
  X(kScannerNoDescription, -3, "getdeviceserialnumber: device description not read")

// PostAuth request parsing (PostAuth_Request_XML_Parse); a wrong root is
// kRdBadPidOptions.
#define VEXO_POSTAUTH_CODES(X)                                               \
  X(kPostAuthOk, 0, "parsed")                                                \
  X(kPostAuthNotXml, -1, "body is not XML")

// HTTP status codes the listener and dispatch answer with.
#define VEXO_HTTP_CODES(X)                                                   \
  X(kHttpOk, 200, "OK")                                                      \
  X(kHttpBadRequest, 400, "path not valid")                                  \
  X(kHttpForbidden, 403, "origin not allowed")                               \
  X(kHttpBadVerb, 405, "verb not known")                                     \
  X(kHttpTooLarge, 413, "request does not fit the receive area")             \
  X(kHttpNoBody, 422, "request without a body")                              \
  X(kHttpNotImplemented, 501, "not implemented")                             \
  X(kHttpBadVersion, 505, "version not HTTP/1.1")

// RD error codes of PidData and PostAuthResp with their errInfo texts.
// Negative codes and 3..73 are the handheld printer's states (PostAuth); the
// capture path uses -1, 0 and the codes from 100 upward. Some texts keep the
// spelling and blanks that clients already match on.
#define VEXO_RD_CODES(X)                                                                       \
  X(kRdGetIdsFailed, -60, "Getting ID's from Device is failed")                                \
  X(kRdPrintFailed, -50, "Printing data is Failed")                                            \
  X(kRdInvalidXml, -40, "Invalid XML is Recieved from Clinet")                                 \
  X(kRdFirmwareFailed, -30, "Getting Firmware Version is Failed from the Device")              \
  X(kRdBatteryFailed, -20, "Getting Battery Status is Failed from the Device ")                \
  X(kRdPortFailed, -10, "Opening COM Port is failed for device")                               \
  X(kRdNotSent, -1, "Command Not Sent to Device")                                              \
  X(kRdSuccess, 0, "SUCCESS")                                                                  \
  X(kRdPaperOut, 3, "Paper Roll is Finished or Not Present")                                   \
  X(kRdHot, 5, "Sensor Temperature Exceeded the Range")                                        \
  X(kRdHotPaperOut, 7, "Sensor Temperature Exceeded the Range and Paper Roll is also Finished or Not Present") \
  X(kRdPatchOpen, 9, "Paper Roll Patch is left Opened")                                        \
  X(kRdPatchOpenPaperOut, 11, "Paper Roll Patch is Opened and Paper Roll is also Finished or Not Present") \
  X(kRdHotPatchOpen, 13, "Sensor Temperature Exceeded the Range and Paper Roll Patch is also left Opened") \
  X(kRdBatteryLow, 65, "Battery of Device is Low")                                             \
  X(kRdBatteryLowPaperOut, 67, "Battery of Device is Low and Paper Roll is also Finished or Not Present") \
  X(kRdHotBatteryLow, 69, "Sensor Temperature Exceeded the Range and Battery of Device is also Low") \
  X(kRdPatchOpenBatteryLow, 73, "Paper Roll Patch is left Opened and Battery of Device is also Low") \
  X(kRdBadPidOptions, 100, "Invalid PidOptions input. XML should strictly adhere to spec.")     \
  X(kRdBadFType, 110, "Invalid value for fType")                                               \
  X(kRdBadFCount, 120, "Invalid value for fCount")                                             \
  X(kRdBadIType, 130, "Invalid value for iType")                                               \
  X(kRdBadICount, 140, "Invalid value for iCount")                                             \
  X(kRdBadPidVer, 150, "Invalid value for pidVer")                                             \
  X(kRdBadTimeout, 160, "Invalid value for timeout")                                           \
  X(kRdPoshCount, 170, "Number of posh positions are not equal to number of finger count")     \
  X(kRdNoFace, 180, "Face matching is not supported")                                          \
  X(kRdBadFormat, 190, "Invalid value for format")                                             \
  X(kRdBadDemo, 200, "Invalid Demo structure")                                                 \
  X(kRdNoProtobuf, 210, "Protobuf format not supported")                                       \
  X(kRdBadPosh, 220, "Invalid data in posh")                                                   \
  X(kRdBadUidaiCert, 240, "UIDAI Certificate is INVALID")                                      \
  X(kRdBadHttpVersion, 505, "Invalid Http Version")                                            \
  X(kRdTimeout, 700, "Capture timed out")                                                      \
  X(kRdBusy, 710, "Being used by another application")                                         \
  X(kRdNotReady, 720, "Device not ready")                                                      \
  X(kRdCaptureFailed, 730, "Capture Failed")                                                   \
  X(kRdReinit, 740, "Device needs to be re-initialized")                                       \
  X(kRdNoFingerprints, 750, "RD Service does not support fingerprints")                        \
  X(kRdNoIris, 760, "RD Service does not support Iris")                                        \
  X(kRdBadUrl, 770, "Invalid URL")                                                             \
  X(kRdBadCommand, 790, "Invalid Command/Request")                                             \
  X(kRdInternal, 999, "Internal error")

// Management transport results (sendData2Zelm, GetDataFromZelm,
// Curl_Download_File and the RD_DRT check); -1 is also every failure of the
// GET and the file download.
#define VEXO_TRANSPORT_CODES(X)                                              \
  X(kTransportOk, 0, "success")                                              \
  X(kTransportFailed, -1, "handle or option not set, CA file not usable, or no RD_DRT header") \
  X(kTransportDrtNotMade, -14, "request RD_DRT not made")                    \
  X(kTransportCaMissing, -15, "CA file cert/server.crt not readable")        \
  X(kTransportCaTampered, -16, "CA file cert/server.crt not the pinned one") \
  X(kTransportTimeout, -17, "time-out")                                      \
  X(kTransportConnect, -18, "cannot connect")                                \
  X(kTransportMemory, -19, "libcurl out of memory")                          \
  X(kTransportOther, -20, "any other transfer failure")                      \
  X(kTransportNoDrt, -22, "response without RD_DRT")                         \
  X(kTransportDrtMismatch, -23, "response RD_DRT does not verify")

// Resumable download results (download_manager, get_package_size,
// get_previous_download_info, download_part, update_to_conf).
#define VEXO_DOWNLOAD_CODES(X)                                               \
  X(kDownloadOk, 0, "success, or resume from the record")                    \
  X(kDownloadFailed, -1, "failure")                                          \
  X(kDownloadFresh, 1, "no usable record: start afresh")

namespace rd_codes {

#define VEXO_CODE_CONSTANT(name, value, message) inline constexpr int name = value;
VEXO_RESULT_CODES(VEXO_CODE_CONSTANT)
VEXO_INIT_CODES(VEXO_CODE_CONSTANT)
VEXO_START_CODES(VEXO_CODE_CONSTANT)
VEXO_ATTACH_CODES(VEXO_CODE_CONSTANT)
VEXO_CONFIG_CODES(VEXO_CODE_CONSTANT)
VEXO_CRC_CODES(VEXO_CODE_CONSTANT)
VEXO_LOCK_CODES(VEXO_CODE_CONSTANT)
VEXO_KEYSTORE_CODES(VEXO_CODE_CONSTANT)
VEXO_MGMT_CODES(VEXO_CODE_CONSTANT)
VEXO_TLS_CODES(VEXO_CODE_CONSTANT)
VEXO_SCANNER_CODES(VEXO_CODE_CONSTANT)
VEXO_POSTAUTH_CODES(VEXO_CODE_CONSTANT)
VEXO_HTTP_CODES(VEXO_CODE_CONSTANT)
VEXO_RD_CODES(VEXO_CODE_CONSTANT)
VEXO_TRANSPORT_CODES(VEXO_CODE_CONSTANT)
VEXO_DOWNLOAD_CODES(VEXO_CODE_CONSTANT)
#undef VEXO_CODE_CONSTANT

enum class Family {
  kResult, kInit, kStart, kAttach, kConfig, kCrc, kLock, kKeystore, kMgmt, kTls, kScanner, kPostAuth, kHttp, kRd,
  kTransport, kDownload
};

struct CodeInfo {
  int value;
  const char* name;     // "kRdBusy"
  const char* message;  // errInfo for the RD family; a description otherwise
};

// The entry of value in family, or nullptr when the family has no such code.
const CodeInfo* find_code(Family family, int value);

// The message of value in family, or nullptr when the family has no such code.
const char* code_message(Family family, int value);

}  // namespace rd_codes

// clang-format on

#endif  // VEXO_COMMON_RD_CODES_H
