// Stand-ins for the Management client, which is not built yet. Each logs
// that the operation is unavailable and fails, so callers take their failure
// paths (a forced key rotation ends in "Key rotation function failed").
#include "init/rd_log.h"
#include "mgmt_core/mgmt_api.h"

int mgmt_key_rotation(const char* operation) {
  RD_ERROR("Management client not available for %s", operation ? operation : "");
  return -1;
}

int mgmt_software_update() {
  RD_ERROR("Management client not available for Software_Update");
  return -1;
}

int IsAppFilePresent() { return 0; }
