/*
 * Vexo: Registered Device service for fingerprint scanners.
 *
 * The public C interface of libVexo.so and Vexo.dll. A host program loads the library,
 * calls Initialize_process and Start_RDservice, and then drives the
 * Management client through Init and the operations its next action names.
 * Every export returns a signed 32-bit code: 0 for success, a negative code
 * (or, where noted, another value) for failure. The reason for a failure is
 * read with Get_Last_RDservice_Status.
 *
 * Thread-safety: exports may be called from any host thread; the Management
 * operations are meant to run one at a time.
 */
#ifndef VEXO_H
#define VEXO_H

/* VEXO_CALL is the calling convention of every export, which a host's
 * function pointers must carry too: the C convention (__cdecl) on 32-bit and
 * 64-bit Windows, the platform's only one elsewhere. Vexo.dll exports the
 * undecorated names through its module-definition file (src/init/Vexo.def);
 * libVexo.so exports what VEXO_EXPORT marks. */
#if defined(_WIN32)
#define VEXO_EXPORT
#define VEXO_CALL __cdecl
#else
#define VEXO_EXPORT __attribute__((visibility("default")))
#define VEXO_CALL
#endif

#ifdef __cplusplus
#define VEXO_NOEXCEPT noexcept
extern "C" {
#else
#define VEXO_NOEXCEPT
#endif

/* Size of the buffer Get_Last_RDservice_Status copies into. */
#define VEXO_STATUS_LEN 2048
/* Size of the next-action buffer passed to the Management operations. */
#define VEXO_NEXT_ACTION_LEN 256
/* Prepares the service for the scanner named by scanner_details ("Aratek_A600",
 * "Aratek_A400", ... or "Tavio_TX9|PORT|SECURITY"). Returns 0, a negative code,
 * or (vendor libraries not loaded) a non-zero value outside the negative codes.
 * May be called again after a failure: it resumes at the step that failed.
 * It opens the status pipe, which the host makes first and reads: on Windows
 * the named pipe "\\.\pipe\qdx.win.002"; elsewhere the FIFO
 * "$XDG_RUNTIME_DIR/qdx.win.002" (an absolute XDG_RUNTIME_DIR), else
 * "/run/user/<effective uid>/qdx.win.002", used only when it is a FIFO of the
 * same effective user that other users can neither read nor write. A host
 * that keeps the FIFO elsewhere sets XDG_RUNTIME_DIR to that folder (a folder
 * only its user can write) before this call. */
VEXO_EXPORT int VEXO_CALL Initialize_process(const char* scanner_details) VEXO_NOEXCEPT;

/* Binds the first free port of 11100..11120 on 127.0.0.1 and starts serving.
 * Returns 0; -2 server socket not created; -3 TLS context not created;
 * -4 accept thread not started. Meant to be called once. */
VEXO_EXPORT int VEXO_CALL Start_RDservice(void) VEXO_NOEXCEPT;

/* Copies the last-status line into status (at least VEXO_STATUS_LEN bytes).
 * Always returns 0; the line is empty until the first report. */
VEXO_EXPORT int VEXO_CALL Get_Last_RDservice_Status(char* status) VEXO_NOEXCEPT;

/* The host reports that the scanner was plugged in. Returns 0 for the same
 * scanner as before, -10 for another scanner (call Init), -1 when no scanner
 * answered. */
VEXO_EXPORT int VEXO_CALL attach_device(void) VEXO_NOEXCEPT;

/* The host reports that the scanner was pulled out. Returns 0. */
VEXO_EXPORT int VEXO_CALL detach_device(void) VEXO_NOEXCEPT;

/* Management operations. next_action receives the server's next action
 * (VEXO_NEXT_ACTION_LEN bytes).
 *
 * The protocol: each operation POSTs one JSON object to the Management
 * server's base URL (config.ini's DOMAIN_NAME) plus its route
 * ("/rest/register/", "/rest/keyRotation/", "/rest/softUpdate/",
 * "/rest/uidaiUpdate", "/rest/updateStatus"); the forced certificate update
 * GETs "/rest/getCert/P" or "/rest/getCert/PP". A request carries the device
 * identity, an IST time stamp "ts", and "sKey"/"hmac": the SHA-256 of
 * "serial@ts" sealed under a fresh session key, and that key sealed under the
 * master key agreed with the server (AES-256-ECB, Base64). Its RD_DRT header
 * is the sealed SHA-256 of the whole body. The answer carries respStatus,
 * respCode, respDesc, the echoed device, nextAction (an array; the last
 * entry counts) and ts, and an RD_DRT header that seals SHA-256 of the answer
 * together with the request's hash, so an answer cannot be moved to another
 * request. Over https:// the server must present a certificate for its
 * name with the serverAuth extended key usage, issued by the CA in
 * cert/server.crt, whose SHA-256 is compiled into the library (CMake cache
 * variable VEXO_MGMT_CA_SHA256): that CA alone is trusted. Plain http:// is
 * used only when the configured Management URL is an http:// one, and every
 * exchange speaks HTTP/1.1. Answers are at most 29999
 * bytes; an exchange gives up after 90 s. A reference server
 * (build/vexo-mgmt-server, see the README) serves all of this for tests and
 * for makers' server teams. */
/* Results. Init: 0; a transport code (-14..-23) when sending failed; -3 the
 * answer is not JSON; -4 not understood, or refused by the server; -5 clocks
 * differ (TIME_STAMP_SYNC); -6 DEVICE_NOT_REGISTERED. Key_Rotation: 0; -5
 * device lock not taken; -1 the request could not be made; -6 no new key
 * pair; a transport code; -3; -4 (also a device code that is not 1 to 64
 * letters, digits, '-', '.' or '_'); -7 seal of config.ini wrong; -8 dc not
 * written; -9 seal not renewed; -10 the signed certificate is not Base64 or
 * not for the new key; -11 / -14 its file not opened / written; -12 the new
 * identity not committed; -13 lock not released. A new key pair is made
 * beside the registered one and replaces it, with dc, the signed certificate
 * and the marker App_Vexo, only once the server's answer is verified: after
 * any failure the registered key, dc and certificate stay in force.
 * uidai_cert_update: 0; a transport code; -3; -4; -5 status report failed;
 * -6 an answer other than UPDATE_STATUS; -7 the certificate could not be
 * fetched, is not plausible (an RSA key of at least 2048 bits, valid now,
 * organisation UIDAI) or does not match its checksum (nothing stored).
 * uidai_cert_force_update: 0; -2 / -5 fetch failed (production / staging);
 * -3; -4 / -6 answer not understood. Software_Update: 0; a transport code;
 * -3; -4; -5 download failed. A package already downloaded and verified is
 * not fetched again. A capture that finds the UIDAI certificate out of date
 * never runs Software_Update itself: until one succeeds, Init answers
 * "SOFTWARE_UPDATE" where the server asks for nothing.
 *
 * Offline grace: when an exchange fails (no answer, an HTTP error, a refused
 * or unusable answer), a registered device (key, dc and signed certificate
 * consistent) whose last successful Init lies within config.ini's
 * OFFLINE_GRACE_HOURS (default 72) gets back the status it had before Init
 * and the follow-ups it named made it busy; otherwise the status is the one
 * each operation sets. TIME_STAMP_SYNC and DEVICE_NOT_REGISTERED always set
 * theirs. */
VEXO_EXPORT int VEXO_CALL Init(char* next_action) VEXO_NOEXCEPT;
VEXO_EXPORT int VEXO_CALL Key_Rotation(char* next_action, const char* operation) VEXO_NOEXCEPT;
VEXO_EXPORT int VEXO_CALL Software_Update(void) VEXO_NOEXCEPT;
VEXO_EXPORT int VEXO_CALL uidai_cert_update(char* next_action) VEXO_NOEXCEPT;
VEXO_EXPORT int VEXO_CALL uidai_cert_force_update(char* next_action) VEXO_NOEXCEPT;

/* Writes IS_SSL_ENABLE ("0" or "1") into config.ini and reseals it. 0 or -1. */
VEXO_EXPORT int VEXO_CALL Https_Set_Api(const char* value) VEXO_NOEXCEPT;

/* Writes proxy.ini from "URL|USER|PASSWORD". 0 or -1. */
VEXO_EXPORT int VEXO_CALL Set_Proxy_Api(const char* proxy) VEXO_NOEXCEPT;

/* Deletes proxy.ini if there is one. Always 0. */
VEXO_EXPORT int VEXO_CALL Remove_Proxy_Api(void) VEXO_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* VEXO_H */
