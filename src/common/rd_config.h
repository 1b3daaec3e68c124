// Process-wide configuration and device identity, owned by this module.
//
// RdConfig is filled by read_config_file and read_proxy_file (init/config) and
// later changed by the exported setters and the Management client; RdIdentity
// by Initialize_process and load_config_file (init/init). Request threads read
// both while these writers may run, so neither record is handed out by
// reference: readers get a consistent copy, writers change the record through
// an update function. Each record is guarded by its own mutex inside
// rd_config.cc (the config mutex and the identity mutex); the two are never
// held together, and no other lock is taken while one is held.
#ifndef VEXO_COMMON_RD_CONFIG_H
#define VEXO_COMMON_RD_CONFIG_H

#include <functional>
#include <string>

// The offline grace period when config.ini names none, and the longest one taken.
inline constexpr int kOfflineGraceHoursDefault = 72;
inline constexpr int kOfflineGraceHoursMax = 8760;

struct RdConfig {
  std::string ssl_enable_text;       // IS_SSL_ENABLE as written (at most 8 bytes)
  int ssl_enabled = 0;               // atoi(IS_SSL_ENABLE)
  int verbose = 0;                   // atoi(Verbose)
  std::string rd_ver;                // RD_VER
  std::string dev_pub_key_validity;  // DEV_PUB_KEY_VALIDITY, minutes as text
  std::string dc;                    // device code
  int dc_missing = 0;                // dc present but empty
  std::string prod_register_url;     // PROD_REGISTER_URL (optional): production register endpoint
  // OFFLINE_GRACE_HOURS (optional): how long after its last successful Init a
  // registered device keeps working while the Management server fails it.
  int offline_grace_hours = kOfflineGraceHoursDefault;
  std::string mgmt_url_register;
  std::string mgmt_url_keyrotation;
  std::string mgmt_url_uidaiupdate;
  std::string mgmt_url_updatestatus;
  std::string mgmt_url_softupdate;
  std::string mgmt_url_getcert_pp;
  std::string mgmt_url_getcert_p;
  std::string lock_folder;      // LOCK_FOLDER (optional): folder of the machine-wide lock files
  std::string allowed_origins;  // ALLOWED_ORIGINS (optional): the only browser origins served
  std::string proxy_url;
  std::string proxy_username;
  std::string proxy_password;
};

struct RdIdentity {
  std::string scanner_name;    // from Initialize_process's argument
  std::string port_path;       // handheld serial port (platform::serial_port_path)
  std::string security_param;  // handheld security-library parameter
  std::string prefix = "./";   // working-folder prefix before keystore/ and cert/public/
  std::string clId;            // Management client identifier
  std::string clVer;           // "1.0"
  std::string host_type;       // "WINDOWS"
  std::string dpId;            // device provider code
  std::string rdsId;           // RD service identifier, e.g. "QDX.WIN.002"
  std::string make;            // vendor name in capitals
  std::string mi;              // model identifier
  std::string model;           // same as mi
  std::string appdata;         // APPDATA folder
  std::string ssl_cert_path;   // "./cert/ssl/public.crt"
  std::string ssl_key_path;    // "./cert/ssl/private.key"
  int device_changed = 0;      // Init must run: new scanner or no device certificate
};

// A consistent copy of the record, taken under its mutex.
RdConfig rd_config_copy();
RdIdentity rd_identity_copy();

// Runs change on the record under its mutex. REQUIRES: change takes no other
// lock and calls nothing that reads these records.
void rd_config_update(const std::function<void(RdConfig&)>& change);
void rd_identity_update(const std::function<void(RdIdentity&)>& change);

// Single fields that request threads read often, without copying the record.
std::string rd_scanner_name();
bool rd_ssl_enabled();

#endif  // VEXO_COMMON_RD_CONFIG_H
