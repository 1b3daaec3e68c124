// Management operations as the rest of the library calls them. The exported
// operations (Init, Key_Rotation, ...) belong to the Management client; until
// it is built, these internal entry points report failure.
#ifndef VEXO_MGMT_CORE_MGMT_API_H
#define VEXO_MGMT_CORE_MGMT_API_H

// Key rotation asked for by the keystore ("KEY_ROTATION"). 0 or negative.
int mgmt_key_rotation(const char* operation);
// Software update asked for by the UIDAI certificate check. 0 or negative.
int mgmt_software_update();
// Checks the marker file App_Vexo at start-up; its result is informational.
int IsAppFilePresent();

#endif  // VEXO_MGMT_CORE_MGMT_API_H
