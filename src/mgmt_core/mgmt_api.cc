// The Management operations the host drives: each frames a request, sends
// it, acts on the answer, moves the service status and hands the server's
// next action back to the host.
#include "mgmt_core/mgmt_api.h"

#include <atomic>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/config_file.h"
#include "common/file_crc.h"
#include "common/hash.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/Base64.h"
#include "mgmt_core/download.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/device_lock.h"
#include "vexo.h"
#include "web_service/curl_api.h"
#include "web_service/json/json_frame_parse.h"

namespace {

using namespace rd_codes;

constexpr const char* kAppFile = "App_Vexo";
constexpr const char* kSignedMcFile = "cert/public/signed_mc.cer";
constexpr const char* kDevPubKeyFile = "cert/public/DevPubKey";
constexpr const char* kEncKeyFile = "keystore/enc_private_key";
// The time of the last successful Init: seconds since 1970 as decimal text,
// owner-only beside the key, so that the offline grace survives a restart.
constexpr const char* kLastInitFile = "keystore/last_init";
// Connect and whole-transfer limits of a UIDAI certificate fetch, and its size.
constexpr long kCertFetchConnectSeconds = 60;
constexpr long kCertFetchSeconds = 90;
constexpr long long kMaxCertBytes = 64 * 1024;

// Set by a capture that found the UIDAI certificate out of date; the host
// runs Software_Update, which clears it.
std::atomic<bool> g_software_update_pending{false};

void set_next_action(char* next_action, const std::string& text) {
  std::snprintf(next_action, VEXO_NEXT_ACTION_LEN, "%s", text.c_str());
}

std::string working_path(const char* rel) { return rd_identity_copy().prefix + rel; }

bool is_handheld() { return rd_scanner_name() == "Tavio_TX9"; }

// A round of the Management client: Init and the follow-ups its answer names.
// A failed exchange within the offline grace period returns the service to
// the status it had when the round began: the client's own USED (busy, a
// follow-up due) and NOTREADY (a package to install) in between do not count.
// The round ends when the service settles: READY, a refusal's status, or the
// status a failure returned to. Only the host's management thread moves them.
std::atomic<bool> g_round_open{false};
std::atomic<unsigned> g_round_status{kRdReady};

// The status the current round began with; a round begins when none is open.
unsigned round_status() {
  if (!g_round_open.exchange(true)) g_round_status.store(get_rd_status_index());
  return g_round_status.load();
}

void end_round() { g_round_open.store(false); }

void set_busy(const char* function) {
  RD_LOG_AS(function);
  RD_INFO("RD Service is BUSY");
  set_rd_status_used();
}

void set_ready(const char* function) {
  RD_LOG_AS(function);
  RD_INFO("RD Service is READY");
  set_rd_status_ready();
  end_round();
}

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
  end_round();
}

// ---------------------------------------------------------------- offline grace

void record_successful_init() {
  RD_LOG_AS("Init");
  const std::time_t now = platform::now();
  const std::string text = std::to_string(static_cast<long long>(now)) + "\n";
  if (now == static_cast<std::time_t>(-1) ||
      platform::write_file_atomic(working_path(kLastInitFile), text.data(), text.size(), 0600) != 0) {
    RD_ERROR("Unable to record the time of this Init in %s", kLastInitFile);
  }
}

// Seconds since 1970 of the last successful Init; nullopt when none is recorded.
std::optional<long long> last_successful_init() {
  std::string text;
  if (platform::read_file(working_path(kLastInitFile), &text) != 0 || text.size() > 32) return std::nullopt;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  long long t = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), t);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return t;
}

// The registration in force is whole: a device code, the key, and a signed
// certificate for that key.
bool registration_intact() {
  const RdConfig config = rd_config_copy();
  std::string signed_der, device_cert;
  return !config.dc.empty() && config.dc_missing == 0 && platform::file_exists(working_path(kEncKeyFile)) &&
         platform::read_file(working_path(kSignedMcFile), &signed_der) == 0 &&
         platform::read_file(working_path(kDevPubKeyFile), &device_cert) == 0 &&
         signed_cert_for_key(signed_der, device_cert) == 0;
}

// After an exchange failed (no answer, an HTTP error, a refused or unusable
// answer), a registered device whose last successful Init lies within the
// offline grace period goes back from `designed`, the status the operation
// set, to the one its round began with (a detached scanner stays NOTREADY), so
// that one server outage does not stop every operator.
void keep_status_within_grace(const char* function, unsigned designed, unsigned before) {
  RD_LOG_AS(function);
  const std::optional<long long> last = last_successful_init();
  const long long now = static_cast<long long>(platform::now());
  const long long grace = static_cast<long long>(rd_config_copy().offline_grace_hours) * 3600;
  if (!last || now < *last || now - *last > grace || !registration_intact()) return;
  const unsigned target = get_device_detached() != 0 ? static_cast<unsigned>(RdStatusIndex::kRdNotReady) : before;
  if (target != designed && rd_status_replace(designed, target)) {
    RD_INFO("Management server failed; the registered device keeps working (last Init %lld s ago)", now - *last);
    end_round();
  }
}

// ---------------------------------------------------------------- the exchange

// One operation's request: the name its lines carry, the name in "Trying to
// send ... Request", its endpoint, and what a failed send adds.
struct Operation {
  const char* function;
  const char* request;
  std::string RdConfig::*url;
  const char* unreachable;
};

constexpr Operation kInitOp{"Init", "Init", &RdConfig::mgmt_url_register, "Unable to connect to Management server"};
constexpr Operation kKeyRotationOp{"Key_Rotation", "Key-Rotation", &RdConfig::mgmt_url_keyrotation, nullptr};
constexpr Operation kSoftwareUpdateOp{"Software_Update", "Software_Update", &RdConfig::mgmt_url_softupdate, nullptr};
constexpr Operation kUidaiUpdateOp{"uidai_cert_update", "uidai_cert_update", &RdConfig::mgmt_url_uidaiupdate, nullptr};
constexpr Operation kUpdateStatusOp{"uidai_cert_update_status", "uidai_cert_update_status",
                                    &RdConfig::mgmt_url_updatestatus, nullptr};

using Frame = std::function<int(std::string*)>;
using Parse = std::function<int(const std::string&)>;

// One exchange with the server: frame, send, the JSON test, parse. 0; the
// send code; kMgmtFailed (not framed); kMgmtNotJson; kMgmtNotParsed.
int exchange(const Operation& op, const Frame& frame, const Parse& parse) {
  RD_LOG_AS(op.function);
  std::string request;
  if (frame(&request) != 0) {
    RD_ERROR("Error at framing the %s request", op.request);
    return kMgmtFailed;
  }
  RD_INFO("Trying to send %s Request to Management server", op.request);
  std::string response;
  if (const int rc = sendData2Zelm(rd_config_copy().*op.url, request, &response); rc != 0) {
    RD_ERROR("Error at sendData2Zelm");
    if (op.unreachable != nullptr) RD_ERROR("%s", op.unreachable);
    return rc;
  }
  if (json_format_check(response, op.function) != 0) return kMgmtNotJson;
  return parse(response) == 0 ? kMgmtOk : kMgmtNotParsed;
}

// ---------------------------------------------------------------- Init

// Init's action after the device's own needs: a pending key rotation (dc
// missing) or software update comes first when the server asks for neither.
std::string init_follow_up(const std::string& action) {
  if (action == "KEY_ROTATION" || action == "UIDAI_CERT_UPDATE" || action == "SOFTWARE_UPDATE") {
    rd_config_update([](RdConfig& c) { c.dc_missing = 0; });
    return action;
  }
  if (rd_config_copy().dc_missing != 0) {
    set_rd_status_ready();
    return "KEY_ROTATION";
  }
  if (action == "NO_ACTION_NECESSARY" && g_software_update_pending.load()) return "SOFTWARE_UPDATE";
  return action;
}

int init_impl(char* next_action) {
  RD_LOG_AS("Init");
  const unsigned before = round_status();
  set_busy("Init");
  set_next_action(next_action, "INIT_RETRY");
  std::string action(next_action);
  const int rc = exchange(kInitOp, json_frame_init,
                          [&](const std::string& answer) { return json_parse_init(answer, mgmt_identity(), &action); });
  if (rc != kMgmtOk) {
    if (rc == kMgmtNotParsed) RD_ERROR("Error at json response of init call");
    keep_status_within_grace("Init", kRdUsed, before);
    return rc;
  }
  set_next_action(next_action, action);
  if (action == "TIME_STAMP_SYNC") {
    set_refused_status();
    RD_STATUS("Time stamp miss match ");
    RD_PIPE("10000", "System time not sync with server\n");
    return kMgmtTimeSync;
  }
  if (action == "DEVICE_NOT_REGISTERED") {
    set_refused_status();
    RD_STATUS("Device is not registered with management server ");
    RD_PIPE("10000", "Device is not registered with|management server\n");
    return kMgmtNotRegistered;
  }
  action = init_follow_up(action);
  set_next_action(next_action, action);
  if (action == "NO_ACTION_NECESSARY") set_ready("Init");
  record_successful_init();
  RD_INFO("Init method success");
  RD_STATUS("INIT function success ");
  return kMgmtOk;
}

// ---------------------------------------------------------------- Key_Rotation

// What the server answers a new key with.
struct RotationAnswer {
  std::string action;
  std::string dc;
  std::vector<std::uint8_t> signed_der;
};

// Sends the staged key's certificate and checks the answer: parsed, and a
// signed certificate for that very key.
int send_new_key(const std::string& cert_pem, const char* operation, RotationAnswer* answer) {
  RD_LOG_AS("Key_Rotation");
  std::string pkey;
  if (Base64Encode(
          std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(cert_pem.data()), cert_pem.size()),
          &pkey) != 0) {
    RD_ERROR("Error at Base64Encode of the device certificate");
    return kMgmtFailed;
  }
  std::string spkey;
  const int rc = exchange(
      kKeyRotationOp, [&](std::string* out) { return json_frame_key_rotation(pkey, out); },
      [&](const std::string& body) {
        return json_parse_key_rotation(body, mgmt_identity(), &answer->action, const_cast<char*>(operation),
                                       &answer->dc, &spkey);
      });
  if (rc == kMgmtNotParsed) RD_ERROR("Error at response of management server for key rotation");
  if (rc != kMgmtOk) return rc;
  if (Base64Decode(spkey, &answer->signed_der) != 0) {
    RD_ERROR("Error at Base64Decode of signed public key");
    return kMgmtSignedCertInvalid;
  }
  if (signed_cert_for_key(std::string(answer->signed_der.begin(), answer->signed_der.end()), cert_pem) != 0) {
    RD_ERROR("The signed certificate from management server is not for the new key");
    return kMgmtSignedCertInvalid;
  }
  return kMgmtOk;
}

// Stages the answer beside the identity in force: dc in a sealed copy of
// config.ini, the signed certificate and the marker.
int stage_answer(const RotationAnswer& answer) {
  RD_LOG_AS("Key_Rotation");
  if (verify_crc(kCrc16, kConfigPath, kCrcPath) != 0) {
    RD_ERROR("verify_crc failed");
    return kMgmtSealWrong;
  }
  RD_INFO("CRC check is passed");
  if (stage_config_file_dc(answer.dc.c_str()) != 0) {
    RD_ERROR("Error at writing device code(DC) to config file");
    RD_STATUS("Error at writing device code(DC) to config file");
    RD_PIPE("10000", "Error at writing device code(DC)|to config file\n");
    return kMgmtDcNotWritten;
  }
  RD_INFO("Writing Device code to file successful");
  if (add_crc(kCrc16, kConfigStaged, kCrcStaged) != 0) {
    RD_ERROR("Adding crc on file failed");
    return kMgmtSealNotRenewed;
  }
  RD_INFO("Adding crc to file is done successfully");
  const int written = platform::write_file_atomic(staged_path(working_path(kSignedMcFile)), answer.signed_der.data(),
                                                  answer.signed_der.size(), 0600);
  if (written == -1) {
    RD_ERROR("Unable open signed device public key file");
    RD_STATUS("Unable to open signed device public key file ");
    RD_PIPE("10000", "File Not Found : %s\n", kSignedMcFile);
    return kMgmtSignedCertNotOpened;
  }
  if (written != 0) {
    RD_ERROR("writing signed_pub_key to fie is failed");
    RD_STATUS("writing signed_pub_key to fie is failed");
    RD_PIPE("10000", "Writing signed_pub_key to file failed\n");
    return kMgmtSignedCertNotWritten;
  }
  if (CreateAppFile() != 0) {
    RD_ERROR("Create App File Function failed");
    return kMgmtCommitFailed;
  }
  return kMgmtOk;
}

// A key rotation under the scanner lock the caller holds: a new key staged
// beside the one in force, sent, and committed together with the answer's dc
// and certificate only once the answer was verified. Any failure leaves the
// registered key, dc and certificate in force. *exchange_failed tells a
// failure of the server's part from a local one.
int rotate_key(char* next_action, const char* operation, bool* exchange_failed) REQUIRES(g_scanner_lock) {
  RD_LOG_AS("Key_Rotation");
  *exchange_failed = false;
  recover_staged_identity();
  std::string cert_pem;
  if (stage_key_pair(&cert_pem) != 0) {
    RD_ERROR("Error at to GenerateKeyPair");
    discard_staged_identity();
    return kMgmtNoKeyPair;
  }
  RD_INFO("RSA key pair generated successfully");
  RotationAnswer answer;
  int rc = send_new_key(cert_pem, operation, &answer);
  *exchange_failed = rc != kMgmtOk;
  if (rc == kMgmtOk) rc = stage_answer(answer);
  if (rc != kMgmtOk) {
    discard_staged_identity();
    return rc;
  }
  // From the commit record on, a crash completes the change at the next start.
  if (commit_staged_identity() != 0) {
    RD_ERROR("Create App File Function failed");
    return kMgmtCommitFailed;
  }
  rd_config_update([&answer](RdConfig& c) {
    c.dc = answer.dc;
    c.dc_missing = 0;
  });
  RD_INFO("Key rotation is done successfully");
  RD_STATUS("Key rotation is done successfully");
  set_next_action(next_action, answer.action);
  return kMgmtOk;
}

int key_rotation_impl(char* next_action, const char* operation) {
  RD_LOG_AS("Key_Rotation");
  const unsigned before = round_status();
  set_busy("Key_Rotation");
  set_next_action(next_action, "KEY_ROTATION_RETRY");
  // Held for the whole exchange: no capture reads the key, the device code or
  // the certificate while they are being replaced.
  ScannerLock lock;
  if (!lock.held()) {
    RD_ERROR("Error at Lock_Semaphore");
    return kMgmtLockNotTaken;
  }
  bool exchange_failed = false;
  const int rc = rotate_key(next_action, operation, &exchange_failed);
  if (rc == kMgmtOk && std::string(next_action) == "NO_ACTION_NECESSARY") set_ready("Key_Rotation");
  if (exchange_failed) keep_status_within_grace("Key_Rotation", kRdUsed, before);
  if (lock.unlock() != 0) {
    RD_ERROR("Error at Unlock_Semaphore");
    if (rc == kMgmtOk) return kMgmtLockNotReleased;
  }
  RD_INFO("Returning from Key-Rotation with return value %d", rc);
  return rc;
}

// ---------------------------------------------------------------- Software_Update

// The package at kDownloadTarget is the one checksum names, complete: it is
// not fetched again.
bool package_on_disk(const std::string& checksum) {
  RD_LOG_AS("Software_Update");
  std::string md5;
  if (!platform::file_exists(kDownloadTarget) || MD5_Generate(kDownloadTarget, &md5) != 0 ||
      md5.size() != checksum.size()) {
    return false;
  }
  for (std::size_t i = 0; i < md5.size(); ++i) {
    if (md5[i] != std::tolower(static_cast<unsigned char>(checksum[i]))) return false;
  }
  RD_INFO("The package %s is already downloaded and verified", kDownloadTarget);
  return true;
}

int software_update_impl() {
  RD_LOG_AS("Software_Update");
  const unsigned before = round_status();
  RD_INFO("RD Service is NOTREADY");
  set_rd_status_notready();
  std::string action, path, checksum;
  int rc = exchange(kSoftwareUpdateOp, json_frame_update, [&](const std::string& answer) {
    return json_parse_update(answer, mgmt_identity(), &action, &path, &checksum);
  });
  if (rc == kMgmtNotParsed) RD_ERROR("Error at to response from management server in update");
  if (rc == kMgmtOk && !package_on_disk(checksum) && download_software_update(path, checksum, true) != 0) {
    RD_ERROR("Software download failed");
    rc = kMgmtDownload;
  }
  if (rc != kMgmtOk) {
    keep_status_within_grace("Software_Update", RdStatusIndex::kRdNotReady, before);
    return rc;
  }
  g_software_update_pending.store(false);
  RD_INFO("Newer Version of RD Service is Downloaded successfully");
  RD_STATUS("Software download success, please install the new version software ");
  RD_PIPE("10000", "Software download success, please|install the new version software\n");
  RD_INFO("nextAction=%s", action.c_str());
  return kMgmtOk;
}

// ---------------------------------------------------------------- UIDAI certificates

// The UIDAI certificate an update names: fetched, checked against checksum
// and for plausibility, and installed with it in cert/uidai/. 0 or -1
// (nothing stored).
int fetch_uidai_cert(const std::string& path, const std::string& checksum) {
  RD_LOG_AS("uidai_cert_update");
  std::string name = path.substr(path.find_last_of('/') + 1);
  name = name.substr(0, name.find('?'));
  UidaiCert which;
  if (!uidai_cert_from_file_name(name, &which)) {
    RD_ERROR("UIDAI certificate name is not known: %.64s", name.c_str());
    return kMgmtFailed;
  }
  const std::string prefix = rd_identity_copy().prefix;
  std::string staging = prefix;
  staging += "cert/uidai/";
  if (platform::make_dirs(staging) != 0) {
    RD_ERROR("Unable to create %s", staging.c_str());
    return kMgmtFailed;
  }
  staging += name;
  staging += ".download";
  const int rc = Curl_Download_File(path, kCertFetchConnectSeconds, kCertFetchSeconds, staging, kMaxCertBytes);
  std::string pem;
  const bool fetched =
      rc == 0 && platform::file_size(staging) <= kMaxCertBytes && platform::read_file(staging, &pem) == 0;
  std::remove(staging.c_str());
  if (!fetched) {
    RD_ERROR("Unable to download UIDAI certificate %s", name.c_str());
    return kMgmtFailed;
  }
  std::string why;
  if (uidai_cert_plausible(pem, platform::now(), &why) != 0) {
    RD_ERROR("UIDAI certificate %s is refused: %s", name.c_str(), why.c_str());
    RD_STATUS("UIDAI certificate refused: %s ", why.c_str());
    return kMgmtFailed;
  }
  if (uidai_install_cert(prefix, which, pem, checksum) != 0) {
    RD_ERROR("UIDAI certificate %s does not match its checksum", name.c_str());
    RD_STATUS("UIDAI certificate checksum mismatch ");
    return kMgmtFailed;
  }
  if (which == UidaiCert::kProd) set_uidai_prod_cert_newer(true);
  RD_INFO("UIDAI certificate %s is updated", name.c_str());
  return 0;
}

int uidai_cert_update_impl(char* next_action) {
  RD_LOG_AS("uidai_cert_update");
  const unsigned before = round_status();
  set_busy("uidai_cert_update");
  std::string action, path, checksum;
  int rc = exchange(kUidaiUpdateOp, json_frame_uidai_cert_update, [&](const std::string& answer) {
    return json_parse_uidai_cert_update(answer, mgmt_identity(), &action, &path, &checksum);
  });
  if (rc == kMgmtOk) {
    set_next_action(next_action, action);
    if (action != "UPDATE_STATUS") {
      RD_INFO(
          "nextAction is supposed to be updating status to MS regarding UIDAI cert but next Action came as: "
          "'%.64s' ",
          action.c_str());
      if (action == "NO_ACTION_NECESSARY") set_ready("uidai_cert_update");
      RD_STATUS(
          "Error: nextAction is supposed to be updating status to MS regarding UIDAI cert but next Action "
          "came as: '%.64s'  ",
          action.c_str());
      return kMgmtUnexpectedAction;
    }
    // The certificate is in place before the server hears that it is.
    rc = fetch_uidai_cert(path, checksum) == 0 ? kMgmtOk : kMgmtCertNotInstalled;
  } else if (rc == kMgmtNotParsed) {
    RD_ERROR("Error at json response of uidai cert update call");
  }
  if (rc == kMgmtOk) {
    RD_INFO("Updating UIDAI file downloading status, to Management server");
    set_next_action(next_action, "");
    if (uidai_cert_update_status(next_action) != 0) {
      RD_ERROR("update status function failed");
      rc = kMgmtStatusReport;
    }
  }
  if (rc != kMgmtOk) {
    // A send failure leaves no action of its own; the host retries through Init.
    if (rc == kMgmtNotParsed || rc == kMgmtCertNotInstalled || rc == kMgmtStatusReport) {
      set_next_action(next_action, "UIDAI_CERT_UPDATE_RETRY");
    }
    keep_status_within_grace("uidai_cert_update", kRdUsed, before);
    return rc;
  }
  if (std::string(next_action) == "NO_ACTION_NECESSARY") set_ready("uidai_cert_update");
  RD_STATUS("UIDAI Cert update success ");
  return kMgmtOk;
}

// Fetches one getCert document and parses it. 0, fetch_code or parse_code.
int fetch_cert_answer(const std::string& url, int fetch_code, const char* fetch_error, int parse_code,
                      const char* parse_error, std::string* chksum) {
  RD_LOG_AS("uidai_cert_force_update");
  std::string response, action, path, ci;
  if (GetDataFromZelm(url, nullptr, &response) != 0) {
    RD_ERROR("%s", fetch_error);
    return fetch_code;
  }
  if (json_format_check(response, "uidai_cert_force_update") != 0) return kMgmtNotJson;
  if (json_parse_uidai_cert_force_update(response, &action, &path, chksum, &ci) != 0) {
    RD_ERROR("%s", parse_error);
    return parse_code;
  }
  return kMgmtOk;
}

int uidai_cert_force_update_impl(char* next_action) {
  RD_LOG_AS("uidai_cert_force_update");
  const unsigned before = round_status();
  set_busy("uidai_cert_force_update");
  const RdConfig config = rd_config_copy();
  const std::string prefix = rd_identity_copy().prefix;
  std::string chksum;
  const bool production = !config.prod_register_url.empty() && config.mgmt_url_register == config.prod_register_url;
  const int rc =
      production
          ? fetch_cert_answer(config.mgmt_url_getcert_p, kMgmtProdFetch, "Error at production GetDataFromZelm",
                              kMgmtNotParsed, "Error at production json response of uidai cert update call", &chksum)
          : fetch_cert_answer(config.mgmt_url_getcert_pp, kMgmtStagingFetch, "Error at pre-production GetDataFromZelm",
                              kMgmtStagingNotParsed, "Error at pre-production json response of uidai cert update call",
                              &chksum);
  if (rc != kMgmtOk) {
    keep_status_within_grace("uidai_cert_force_update", kRdUsed, before);
    return rc;
  }
  if (production) {
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
    if (uidai_store_checksum(prefix, UidaiCert::kPreProd, chksum) != 0) {
      RD_ERROR("Unable to store the pre-production certificate checksum");
    }
    RD_INFO("preprod_cert_checksum is %.64s", chksum.c_str());
  }
  set_next_action(next_action, "NO_ACTION_NECESSARY");
  set_ready("uidai_cert_force_update");
  RD_STATUS("RD service is ready ");
  RD_PIPE("5000", "RD Service Started\n");
  return kMgmtOk;
}

// Runs an export's body; nothing is thrown across the C boundary.
template <typename F>
int guarded(const char* function, F&& body) noexcept {
  try {
    return body();
  } catch (...) {
    RD_LOG_AS(function);
    RD_ERROR("Management operation failed unexpectedly");
    return kMgmtFailed;
  }
}

}  // namespace

int json_format_check(const std::string& response, const char* function) {
  RD_LOG_AS(function);
  // '{' and '[' differ only in the case bit.
  if (response.empty() || (static_cast<unsigned char>(response[0]) | 0x20) != '{') {
    RD_ERROR("Response : Invalid JSON format");
    return kMgmtFailed;
  }
  RD_INFO("Response : Valid JSON format");
  return 0;
}

int IsAppFilePresent() {
  if (platform::file_exists(working_path(kAppFile))) return 0;
  RD_INFO("App file is not present, key rotation is pending");
  rd_config_update([](RdConfig& c) { c.dc_missing = 1; });
  return kMgmtFailed;
}

int CreateAppFile() {
  return platform::write_file_atomic(staged_path(working_path(kAppFile)), "", 0, 0600) == 0 ? kMgmtOk : kMgmtFailed;
}

int uidai_cert_checksum_verification_from_buff(std::string_view cert_pem, const std::string& checksum) {
  const std::string hash_buf = hex_lower(sha256(cert_pem));
  if (hash_buf.size() != 64) {
    RD_ERROR("Get_sha2 failed");
    return kMgmtFailed;
  }
  RD_INFO("cert_checksum is %.64s", checksum.c_str());
  RD_INFO("hash_buf is %s", hash_buf.c_str());
  if (hash_buf != checksum) {
    RD_ERROR("Check-Sum Verification failed ");
    return kMgmtFailed;
  }
  return 0;
}

int uidai_cert_update_status(char* next_action) {
  std::string action;
  const int rc = exchange(kUpdateStatusOp, json_frame_uidai_cert_update_status, [&](const std::string& answer) {
    return json_parse_uidai_cert_update_status(answer, mgmt_identity(), &action);
  });
  if (rc != kMgmtOk) return rc;
  set_next_action(next_action, action);
  RD_INFO("Updating UIDAI file status at Management server is success");
  return kMgmtOk;
}

int mgmt_forced_key_rotation() {
  g_scanner_lock.AssertHeld();  // the keystore's key reader holds it
  char next_action[VEXO_NEXT_ACTION_LEN] = {};
  bool exchange_failed = false;
  return rotate_key(next_action, "KEY_ROTATION", &exchange_failed);
}

void mgmt_request_software_update() { g_software_update_pending.store(true); }

extern "C" VEXO_EXPORT int Init(char* next_action) noexcept {
  if (next_action == nullptr) return kMgmtFailed;
  return guarded("Init", [&] { return init_impl(next_action); });
}

extern "C" VEXO_EXPORT int Key_Rotation(char* next_action, const char* operation) noexcept {
  if (next_action == nullptr) return kMgmtFailed;
  return guarded("Key_Rotation", [&] { return key_rotation_impl(next_action, operation); });
}

extern "C" VEXO_EXPORT int Software_Update(void) noexcept {
  return guarded("Software_Update", [] { return software_update_impl(); });
}

extern "C" VEXO_EXPORT int uidai_cert_update(char* next_action) noexcept {
  if (next_action == nullptr) return kMgmtFailed;
  return guarded("uidai_cert_update", [&] { return uidai_cert_update_impl(next_action); });
}

extern "C" VEXO_EXPORT int uidai_cert_force_update(char* next_action) noexcept {
  if (next_action == nullptr) return kMgmtFailed;
  return guarded("uidai_cert_force_update", [&] { return uidai_cert_force_update_impl(next_action); });
}
