// The Management client's operations. The exports (Init, Key_Rotation,
// Software_Update, uidai_cert_update, uidai_cert_force_update) are declared
// in vexo.h; these are the internal pieces the rest of the library and the
// tests use.
//
// A failed exchange (no answer, an HTTP error, a refused or unusable answer)
// returns a registered device to the status it had before Init and its
// follow-ups made it busy, while its last successful Init lies within
// config:OFFLINE_GRACE_HOURS (72 by default); the time of that Init is kept
// in keystore/last_init.
//
// Thread-safety: the operations run one at a time on the host's calling
// thread; Key_Rotation holds the scanner lock for its whole exchange.
#ifndef VEXO_MGMT_CORE_MGMT_API_H
#define VEXO_MGMT_CORE_MGMT_API_H

#include <string>
#include <string_view>

// A key rotation forced by the keystore's key read, run under the scanner lock
// the reader holds (and never releases). 0 or Key_Rotation's negative codes.
int mgmt_forced_key_rotation();
// A capture found the UIDAI certificate out of date: the host is to run
// Software_Update, which Software_Update_Pending tells it (and Init answers
// "SOFTWARE_UPDATE" instead of "NO_ACTION_NECESSARY" until it has run).
void mgmt_request_software_update();

// The marker file App_Vexo of the working folder: present once a key rotation
// was committed. IsAppFilePresent marks a rotation pending (dc_missing) when
// the file is absent: 0 present, -1 absent. CreateAppFile stages the marker,
// which the rotation commits with the new key: 0 or -1.
int IsAppFilePresent();
int CreateAppFile();

// The JSON test of an answer: 0 when its first byte is '{' or '[' (case bit
// ignored), else -1. Both outcomes are logged under function, the operation
// that received the answer.
int json_format_check(const std::string& response, const char* function);

// 0 when the SHA-256 of cert_pem, as 64 lower-case hex digits, is checksum;
// -1 otherwise.
int uidai_cert_checksum_verification_from_buff(std::string_view cert_pem, const std::string& checksum);

// Reports a stored UIDAI certificate to the server; next_action
// (VEXO_NEXT_ACTION_LEN bytes) receives its answer. 0, the send code, -3 not
// JSON, -4 not parsed.
int uidai_cert_update_status(char* next_action);

#endif  // VEXO_MGMT_CORE_MGMT_API_H
