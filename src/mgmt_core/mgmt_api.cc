// The Management operations the host drives: each frames a request, sends
// it, acts on the answer, moves the service status and hands the server's
// next action back to the host.
#include "mgmt_core/mgmt_api.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "common/config_file.h"
#include "common/file_crc.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "mgmt_core/Base64.h"
#include "mgmt_core/download.h"
#include "common/hash.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/device_lock.h"
#include "vexo.h"
#include "web_service/curl_api.h"
#include "web_service/json/json_frame_parse.h"

namespace {

constexpr const char* kAppFile = "App_Vexo";
constexpr const char* kSignedMcFile = "cert/public/signed_mc.cer";
// Connect and whole-transfer limits of a UIDAI certificate fetch, and its size.
constexpr long kCertFetchConnectSeconds = 60;
constexpr long kCertFetchSeconds = 90;
constexpr long long kMaxCertBytes = 64 * 1024;

void set_next_action(char* next_action, const std::string& text) {
  std::snprintf(next_action, VEXO_NEXT_ACTION_LEN, "%s", text.c_str());
}

std::string app_file_path() { return rd_identity_copy().prefix + kAppFile; }

bool is_handheld() { return rd_scanner_name() == "Tavio_TX9"; }

// The status after a refused Init: the handheld stays USED, a scanner NOTREADY.
void set_refused_status() {
  RD_LOG_AS("Init");
  if (is_handheld()) {
    RD_INFO("RD Service is in USED state");
    set_rd_status_used();
  } else {
    RD_INFO("RD Service is NOTREADY");
    set_rd_status_notready();
  }
}

void set_ready() {
  RD_INFO("RD Service is READY");
  set_rd_status_ready();
}

// The UIDAI certificate an update names: fetched, checked against checksum
// and installed with it in cert/uidai/. 0 or -1 (nothing stored).
int fetch_uidai_cert(const std::string& path, const std::string& checksum) {
  RD_LOG_AS("uidai_cert_update");
  std::string name = path.substr(path.find_last_of('/') + 1);
  name = name.substr(0, name.find('?'));
  UidaiCert which;
  if (!uidai_cert_from_file_name(name, &which)) {
    RD_ERROR("UIDAI certificate name is not known: %.64s", name.c_str());
    return -1;
  }
  const std::string prefix = rd_identity_copy().prefix;
  std::string staging = prefix;
  staging += "cert/uidai/";
  if (platform::make_dirs(staging) != 0) {
    RD_ERROR("Unable to create %s", staging.c_str());
    return -1;
  }
  staging += name;
  staging += ".download";
  const int rc = Curl_Download_File(path, kCertFetchConnectSeconds, kCertFetchSeconds, staging);
  std::string pem;
  const bool fetched = rc == 0 && platform::file_size(staging) <= kMaxCertBytes &&
                       platform::read_file(staging, &pem) == 0;
  std::remove(staging.c_str());
  if (!fetched) {
    RD_ERROR("Unable to download UIDAI certificate %s", name.c_str());
    return -1;
  }
  if (uidai_install_cert(prefix, which, pem, checksum) != 0) {
    RD_ERROR("UIDAI certificate %s does not match its checksum", name.c_str());
    RD_STATUS("UIDAI certificate checksum mismatch ");
    return -1;
  }
  if (which == UidaiCert::kProd) set_uidai_prod_cert_newer(true);
  RD_INFO("UIDAI certificate %s is updated", name.c_str());
  return 0;
}

}  // namespace

int json_format_check(const std::string& response) {
  // '{' and '[' differ only in the case bit.
  if (response.empty() || (static_cast<unsigned char>(response[0]) | 0x20) != '{') {
    RD_ERROR("Response : Invalid JSON format");
    return -1;
  }
  RD_INFO("Response : Valid JSON format");
  return 0;
}

int IsAppFilePresent() {
  if (platform::file_exists(app_file_path())) return 0;
  RD_INFO("App file is not present, key rotation is pending");
  rd_config_update([](RdConfig& c) { c.dc_missing = 1; });
  return -1;
}

int CreateAppFile() { return platform::write_file_atomic(app_file_path(), "", 0, 0600) == 0 ? 0 : -1; }

int RemoveAppFile() { return std::remove(app_file_path().c_str()) == 0 || errno == ENOENT ? 0 : -1; }

int uidai_cert_checksum_verification_from_buff(std::string_view cert_pem, const std::string& checksum) {
  const std::string hash_buf = hex_lower(sha256(cert_pem));
  if (hash_buf.size() != 64) {
    RD_ERROR("Get_sha2 failed");
    return -1;
  }
  RD_INFO("cert_checksum is %.64s", checksum.c_str());
  RD_INFO("hash_buf is %s", hash_buf.c_str());
  if (hash_buf != checksum) {
    RD_ERROR("Check-Sum Verification failed ");
    return -1;
  }
  return 0;
}

int uidai_cert_update_status(char* next_action) {
  std::string request;
  if (json_frame_uidai_cert_update_status(&request) != 0) return -1;
  RD_INFO("Trying to send uidai_cert_update_status Request to Management server");
  std::string response;
  if (const int rc = sendData2Zelm(rd_config_copy().mgmt_url_updatestatus, request, &response); rc != 0) {
    RD_ERROR("Error at sendData2Zelm");
    return rc;
  }
  if (json_format_check(response) != 0) return -3;
  std::string action;
  if (json_parse_uidai_cert_update_status(response, mgmt_identity(), &action) != 0) return -4;
  set_next_action(next_action, action);
  RD_INFO("Updating UIDAI file status at Management server is success");
  return 0;
}

int mgmt_key_rotation(const char* operation) {
  char next_action[VEXO_NEXT_ACTION_LEN] = {};
  return Key_Rotation(next_action, operation);
}

int mgmt_software_update() { return Software_Update(); }

namespace {

int init_impl(char* next_action) {
  RD_LOG_AS("Init");
  RD_INFO("RD Service is BUSY");
  set_rd_status_used();
  set_next_action(next_action, "INIT_RETRY");

  std::string request;
  if (json_frame_init(&request) != 0) {
    RD_ERROR("Error at json_frame_init");
    return -1;
  }
  RD_INFO("Trying to send Init Request to Management server");
  std::string response;
  if (const int rc = sendData2Zelm(rd_config_copy().mgmt_url_register, request, &response); rc != 0) {
    RD_ERROR("Error at sendData2Zelm");
    RD_ERROR("Unable to connect to Management server");
    return rc;
  }
  if (json_format_check(response) != 0) return -3;
  std::string action(next_action);
  if (json_parse_init(response, mgmt_identity(), &action) != 0) {
    RD_ERROR("Error at json response of init call");
    return -4;
  }
  set_next_action(next_action, action);

  if (action == "TIME_STAMP_SYNC") {
    set_refused_status();
    RD_STATUS("Time stamp miss match ");
    RD_PIPE("10000", "System time not sync with server\n");
    return -5;
  }
  if (action == "DEVICE_NOT_REGISTERED") {
    set_refused_status();
    RD_STATUS("Device is not registered with management server ");
    RD_PIPE("10000", "Device is not registered with|management server\n");
    return -6;
  }
  if (action == "KEY_ROTATION" || action == "UIDAI_CERT_UPDATE" || action == "SOFTWARE_UPDATE") {
    rd_config_update([](RdConfig& c) { c.dc_missing = 0; });
  } else if (rd_config_copy().dc_missing != 0) {
    action = "KEY_ROTATION";
    set_next_action(next_action, action);
    set_rd_status_ready();
  }
  if (action == "NO_ACTION_NECESSARY") set_ready();
  RD_INFO("Init method success");
  RD_STATUS("INIT function success ");
  return 0;
}

int key_rotation_impl(char* next_action, const char* operation) {
  RD_LOG_AS("Key_Rotation");
  RD_INFO("RD Service is BUSY");
  set_rd_status_used();
  set_next_action(next_action, "KEY_ROTATION_RETRY");
  const std::string signed_mc_path = rd_identity_copy().prefix + kSignedMcFile;

  // Held for the whole exchange: no capture reads the key, the device code or
  // the certificate while they are being replaced.
  ScannerLock lock;
  if (!lock.held()) {
    RD_ERROR("Error at Lock_Semaphore");
    return -5;
  }
  if (RemoveAppFile() != 0) {
    RD_ERROR("Removing App File failed");
    return -1;
  }
  std::string cert_pem;
  if (GenerateKeyPair(&cert_pem) != 0) {
    RD_ERROR("Error at to GenerateKeyPair");
    return -6;
  }
  RD_INFO("RSA key pair generated successfully");

  std::string pkey;
  std::string request;
  if (Base64Encode(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(cert_pem.data()),
                                                 cert_pem.size()),
                   &pkey) != 0 ||
      json_frame_key_rotation(pkey, &request) != 0) {
    RD_ERROR("Error at json_frame_key_rotation");
    return -1;
  }
  RD_INFO("Trying to send Key-Rotation Request to Management server");
  std::string response;
  if (const int rc = sendData2Zelm(rd_config_copy().mgmt_url_keyrotation, request, &response); rc != 0) {
    RD_ERROR("Error at sendData2Zelm");
    return rc;
  }
  if (json_format_check(response) != 0) return -3;
  std::string action, dc, spkey;
  if (json_parse_key_rotation(response, mgmt_identity(), &action, const_cast<char*>(operation), &dc, &spkey) != 0) {
    RD_ERROR("Error at response of management server for key rotation");
    return -4;
  }

  if (verify_crc(kCrc16, "./config.ini", "bin_crc.txt") != 0) {
    RD_ERROR("verify_crc failed");
    return -7;
  }
  RD_INFO("CRC check is passed");
  if (write_config_file(dc.c_str()) != 0) {
    RD_ERROR("Error at writing device code(DC) to config file");
    RD_STATUS("Error at writing device code(DC) to config file");
    RD_PIPE("10000", "Error at writing device code(DC)|to config file\n");
    return -8;
  }
  RD_INFO("Writing Device code to file successful");
  if (seal_config_file() != 0) {
    RD_ERROR("Adding crc on file failed");
    return -9;
  }
  RD_INFO("Adding crc to file is done successfully");
  // The file and the shared record change together, inside the lock.
  rd_config_update([&dc](RdConfig& c) {
    c.dc = dc;
    c.dc_missing = 0;
  });

  std::vector<std::uint8_t> der;
  if (Base64Decode(spkey, &der) != 0) {
    RD_ERROR("Error at Base64Decode of signed public key");
    return -10;
  }
  const int written = platform::write_file_atomic(signed_mc_path, der.data(), der.size());
  if (written == -1) {
    RD_ERROR("Unable open signed device public key file");
    RD_STATUS("Unable to open signed device public key file ");
    RD_PIPE("10000", "File Not Found : %s\n", kSignedMcFile);
    return -11;
  }
  if (written != 0) {
    RD_ERROR("writing signed_pub_key to fie is failed");
    RD_STATUS("writing signed_pub_key to fie is failed");
    RD_PIPE("10000", "Writing signed_pub_key to file failed\n");
    return -14;
  }
  if (CreateAppFile() != 0) {
    RD_ERROR("Create App File Function failed");
    return -12;
  }
  RD_INFO("Key rotation is done successfully");
  RD_STATUS("Key rotation is done successfully");
  set_next_action(next_action, action);
  if (action == "NO_ACTION_NECESSARY") set_ready();
  if (lock.unlock() != 0) {
    RD_ERROR("Error at Unlock_Semaphore");
    return -13;
  }
  RD_INFO("Returning from Key-Rotation with return value %d", 0);
  return 0;
}

int software_update_impl() {
  RD_LOG_AS("Software_Update");
  RD_INFO("RD Service is NOTREADY");
  set_rd_status_notready();
  std::string request;
  if (json_frame_update(&request) != 0) {
    RD_ERROR("Error at json_frame_update");
    return -1;
  }
  RD_INFO("Trying to send Software_Update Request to Management server");
  std::string response;
  if (const int rc = sendData2Zelm(rd_config_copy().mgmt_url_softupdate, request, &response); rc != 0) {
    RD_ERROR("Error at sendData2Zelm");
    return rc;
  }
  if (json_format_check(response) != 0) return -3;
  std::string action, path, checksum;
  if (json_parse_update(response, mgmt_identity(), &action, &path, &checksum) != 0) {
    RD_ERROR("Error at to response from management server in update");
    return -4;
  }
  if (download_software_update(path, checksum, true) != 0) {
    RD_ERROR("Software download failed");
    return -5;
  }
  RD_INFO("Newer Version of RD Service is Downloaded successfully");
  RD_STATUS("Software download success, please install the new version software ");
  RD_PIPE("10000", "Software download success, please|install the new version software\n");
  RD_INFO("nextAction=%s", action.c_str());
  return 0;
}

int uidai_cert_update_impl(char* next_action) {
  RD_LOG_AS("uidai_cert_update");
  RD_INFO("RD Service is BUSY");
  set_rd_status_used();
  std::string request;
  if (json_frame_uidai_cert_update(&request) != 0) {
    RD_ERROR("Error at json_frame_uidai_cert_update");
    return -1;
  }
  RD_INFO("Trying to send uidai_cert_update Request to Management server");
  std::string response;
  if (const int rc = sendData2Zelm(rd_config_copy().mgmt_url_uidaiupdate, request, &response); rc != 0) {
    RD_ERROR("Error at sendData2Zelm");
    return rc;
  }
  if (json_format_check(response) != 0) return -3;
  std::string action, path, checksum;
  if (json_parse_uidai_cert_update(response, mgmt_identity(), &action, &path, &checksum) != 0) {
    set_next_action(next_action, "UIDAI_CERT_UPDATE_RETRY");
    RD_ERROR("Error at json response of uidai cert update call");
    return -4;
  }
  set_next_action(next_action, action);
  if (action == "UPDATE_STATUS") {
    // The certificate is in place before the server hears that it is.
    if (fetch_uidai_cert(path, checksum) != 0) {
      set_next_action(next_action, "UIDAI_CERT_UPDATE_RETRY");
      return -7;
    }
    RD_INFO("Updating UIDAI file downloading status, to Management server");
    set_next_action(next_action, "");
    if (uidai_cert_update_status(next_action) != 0) {
      RD_ERROR("update status function failed");
      set_next_action(next_action, "UIDAI_CERT_UPDATE_RETRY");
      return -5;
    }
    if (std::string(next_action) == "NO_ACTION_NECESSARY") set_ready();
    RD_STATUS("UIDAI Cert update success ");
    return 0;
  }
  RD_INFO("nextAction is supposed to be updating status to MS regarding UIDAI cert but next Action came as: '%.64s' ",
          action.c_str());
  if (action == "NO_ACTION_NECESSARY") set_ready();
  RD_STATUS("Error: nextAction is supposed to be updating status to MS regarding UIDAI cert but next Action came "
            "as: '%.64s'  ",
            action.c_str());
  return -6;
}

int uidai_cert_force_update_impl(char* next_action) {
  RD_LOG_AS("uidai_cert_force_update");
  RD_INFO("RD Service is BUSY");
  set_rd_status_used();
  const RdConfig config = rd_config_copy();
  const std::string prefix = rd_identity_copy().prefix;
  std::string response, action, path, chksum, ci;
  if (!config.prod_register_url.empty() && config.mgmt_url_register == config.prod_register_url) {
    if (GetDataFromZelm(config.mgmt_url_getcert_p, nullptr, &response) != 0) {
      RD_ERROR("Error at production GetDataFromZelm");
      return -2;
    }
    if (json_format_check(response) != 0) return -3;
    if (json_parse_uidai_cert_force_update(response, &action, &path, &chksum, &ci) != 0) {
      RD_ERROR("Error at production json response of uidai cert update call");
      return -4;
    }
    // The server's checksum names the production certificate in force.
    if (uidai_cert_checksum_verification_from_buff(uidai_builtin_cert(UidaiCert::kProd), chksum) == 0) {
      set_uidai_prod_cert_newer(true);
    } else if (uidai_cert_checksum_verification_from_buff(uidai_builtin_cert(UidaiCert::kProdOld), chksum) == 0) {
      set_uidai_prod_cert_newer(false);
    } else {
      set_uidai_prod_cert_newer(true);
      RD_INFO("Going To download New version of RD Service");
      if (Software_Update() != 0) {
        RD_ERROR("..... Software_Update Failed ......");
        set_rd_status_ready();
      }
    }
    if (uidai_store_checksum(prefix, uidai_current_prod_cert(), chksum) != 0) {
      RD_ERROR("Unable to store the production certificate checksum");
    }
  } else {
    RD_INFO("Stagging path");
    if (GetDataFromZelm(config.mgmt_url_getcert_pp, nullptr, &response) != 0) {
      RD_ERROR("Error at pre-production GetDataFromZelm");
      return -5;
    }
    if (json_format_check(response) != 0) return -3;
    if (json_parse_uidai_cert_force_update(response, &action, &path, &chksum, &ci) != 0) {
      RD_ERROR("Error at pre-production json response of uidai cert update call");
      return -6;
    }
    if (uidai_store_checksum(prefix, UidaiCert::kPreProd, chksum) != 0) {
      RD_ERROR("Unable to store the pre-production certificate checksum");
    }
    RD_INFO("preprod_cert_checksum is %.64s", chksum.c_str());
  }
  set_next_action(next_action, "NO_ACTION_NECESSARY");
  set_ready();
  RD_STATUS("RD service is ready ");
  RD_PIPE("5000", "RD Service Started\n");
  return 0;
}

// Runs an export's body; nothing is thrown across the C boundary.
template <typename F>
int guarded(F&& body) noexcept {
  try {
    return body();
  } catch (...) {
    RD_ERROR("Management operation failed unexpectedly");
    return -1;
  }
}

}  // namespace

extern "C" VEXO_EXPORT int Init(char* next_action) noexcept {
  if (next_action == nullptr) return -1;
  return guarded([&] { return init_impl(next_action); });
}

extern "C" VEXO_EXPORT int Key_Rotation(char* next_action, const char* operation) noexcept {
  if (next_action == nullptr) return -1;
  return guarded([&] { return key_rotation_impl(next_action, operation); });
}

extern "C" VEXO_EXPORT int Software_Update(void) noexcept {
  return guarded([] { return software_update_impl(); });
}

extern "C" VEXO_EXPORT int uidai_cert_update(char* next_action) noexcept {
  if (next_action == nullptr) return -1;
  return guarded([&] { return uidai_cert_update_impl(next_action); });
}

extern "C" VEXO_EXPORT int uidai_cert_force_update(char* next_action) noexcept {
  if (next_action == nullptr) return -1;
  return guarded([&] { return uidai_cert_force_update_impl(next_action); });
}
