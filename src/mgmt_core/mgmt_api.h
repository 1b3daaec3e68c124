// The Management client's operations. The exports (Init, Key_Rotation,
// Software_Update, uidai_cert_update, uidai_cert_force_update) are declared
// in vexo.h; these are the internal pieces the rest of the library and the
// tests use.
//
// Thread-safety: the operations run one at a time on the host's calling
// thread; Key_Rotation holds the scanner lock for its whole exchange.
#ifndef VEXO_MGMT_CORE_MGMT_API_H
#define VEXO_MGMT_CORE_MGMT_API_H

#include <string>
#include <string_view>

// Key rotation asked for by the keystore ("KEY_ROTATION"): Key_Rotation with
// a buffer of its own. 0 or negative.
int mgmt_key_rotation(const char* operation);
// Software update asked for by the UIDAI certificate check. 0 or negative.
int mgmt_software_update();

// The marker file App_Vexo of the working folder: present after a completed
// key rotation. IsAppFilePresent marks a rotation pending (dc_missing) when
// the file is absent: 0 present, -1 absent. Create and Remove: 0 or -1
// (removing a missing file succeeds).
int IsAppFilePresent();
int CreateAppFile();
int RemoveAppFile();

// The JSON test of an answer: 0 when its first byte is '{' or '[' (case bit
// ignored), else -1. Both outcomes are logged.
int json_format_check(const std::string& response);

// 0 when the SHA-256 of cert_pem, as 64 lower-case hex digits, is checksum;
// -1 otherwise.
int uidai_cert_checksum_verification_from_buff(std::string_view cert_pem, const std::string& checksum);

// Reports a stored UIDAI certificate to the server; next_action
// (VEXO_NEXT_ACTION_LEN bytes) receives its answer. 0, the send code, -3 not
// JSON, -4 not parsed.
int uidai_cert_update_status(char* next_action);

#endif  // VEXO_MGMT_CORE_MGMT_API_H
