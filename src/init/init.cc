#include "init/init.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <thread>

#include "http/server.h"
#include "common/adapters.h"
#include "common/file_ptr.h"
#include "common/work_area.h"
#include "init/config.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "mgmt_core/keystore.h"
#include "mgmt_core/mgmt_api.h"
#include "platform/platform.h"
#include "postauth/handheld.h"
#include "rd_core/scanner.h"
#include "semaphore/semaphore_syc.h"
#include "ssl/sslCommunication.h"
#include "vexo.h"
#include "web_service/transfer.h"

namespace {

// The maker's codes. clId and dpId are the same for every scanner.
constexpr const char* kClientId = "40172";
constexpr const char* kClientVersion = "1.0";
constexpr const char* kHostType = "WINDOWS";
constexpr const char* kProviderCode = "KORVANE.QDX";
constexpr int kLogSizeLimitKb = 2048;

constexpr ScannerModel kScannerModels[] = {
    {"UAREU", "QDX.WIN.003", "UAREU", "QDX.UAR.U450.W"},
    {"FUTRONIC", "QDX.WIN.003", "FUTRONIC", "QDX.FUT.FS80.W"},
    {"GEMALTO", "QDX.WIN.003", "GEMALTO", "QDX.GEM.MS13.W"},
    {"MANTRA", "QDX.WIN.003", "MANTRA", "QDX.MAN.MF10.W"},
    {"MORPHO", "QDX.WIN.003", "MORPHO", "QDX.MOR.M130.W"},
    {"TX9", "QDX.WIN.003", "TAVIO", "QDX.TAV.TX09.W"},
    {"Tavio_TX9", "QDX.WIN.003", "TAVIO", "QDX.TAV.TX9B.W"},
    {"SECUGEN", "QDX.WIN.007", "SECUGEN", "QDX.SEC.HU20.W"},
    {"Aratek_A600", "QDX.WIN.002", "ARATEK", "QDX.ARA.A600.W"},
    {"Aratek_A400", "QDX.WIN.001", "ARATEK", "QDX.ARA.A400.W"},
};

constexpr const char* kSslFolder = "./cert/ssl/";
constexpr const char* kDeviceCertificate = "cert/public/signed_mc.cer";

// Required files, in the order they are checked, with the line that says each is there.
struct RequiredFile {
  const char* path;
  const char* present_message;
};
constexpr RequiredFile kRequiredFiles[] = {{"bin_crc.txt", "bin_crc file present"},
                                           {"config.ini", "config file present"},
                                           {"cert/server.crt", "Server certificate file present"}};
constexpr RequiredFile kSslFiles[] = {{"cert/ssl/private.key", "SSL key file present"},
                                      {"cert/ssl/public.crt", "SSL certificate file present"}};

// The checks of IsFilePresent and Is_SSL_FilePresent, reported under the
// caller's name: the first missing file in the log, the last-status line and
// the pipe. 0 or -1.
template <std::size_t N>
int check_files(const RequiredFile (&files)[N], const char* caller) {
  RD_LOG_AS(caller);
  for (const RequiredFile& f : files) {
    if (!platform::file_exists(f.path)) {
      RD_ERROR("File Not Found : %s", f.path);
      RD_STATUS("File Not Found : %s", f.path);
      RD_PIPE("10000", "File Not Found : %s\n", f.path);
      return rd_codes::kFailed;
    }
    RD_INFO("%s", f.present_message);
  }
  return 0;
}

std::array<std::uint8_t, 6> g_host_id{};

// ---------------------------------------------------------------- the steps
// Each step of Initialize_process, in order. A step returns 0 or the result
// Initialize_process returns; its lines carry Initialize_process's name.

int step_open_log() {
  RD_LOG_AS("Initialize_process");
  rd_config_update([](RdConfig& c) { c = RdConfig{}; });
  if (zlog_init("rd.log") != 0) {
    write_error_log("zlog_init failed\n");
    return rd_codes::kInitFailed;
  }
  if (zlog_get_category("Vexo") == nullptr) {
    write_error_log("zlog_get_category call failed\n");
    zlog_fini();
    return rd_codes::kInitLogStream;
  }
  RD_INFO("\n****************************************************************************************************");
  RD_INFO("zlog initialized successfully");
  if (transfer::pin_is_demonstration()) {
    RD_INFO(
        "WARNING: the Management CA pin is the demonstration CA (VEXO_DEMO_CA), whose key is public: "
        "not for production");
  }
  // The library's files are closed to other users, but in a folder they may
  // write they could still replace or plant files under the names it uses.
  if (platform::folder_writable_by_others(".")) {
    std::error_code ec;
    RD_ERROR("Warning: other users can write to the working folder %s: they could replace its files",
             std::filesystem::current_path(ec).string().c_str());
  }
  return 0;
}

// Takes the scanner description apart: a model name, or the handheld form
// "...Tavio_TX9|PORT|SECURITY".
void step_scanner(const char* details) {
  RD_LOG_AS("Initialize_process");
  std::string text = details ? details : "";
  if (text.find("Tavio_TX9") == std::string::npos) {
    rd_identity_update([&](RdIdentity& id) { id.scanner_name = text; });
    RD_INFO("Attached scanner is %s", text.c_str());
    return;
  }
  RD_INFO(" scanner details : %s", text.c_str());
  RD_INFO(" Vexo library with semaphore lock for Quokka port open");
  std::size_t first = text.find('|');
  std::size_t second = first == std::string::npos ? std::string::npos : text.find('|', first + 1);
  const std::string port = first == std::string::npos ? "" : text.substr(first + 1, second - first - 1);
  const std::string port_path = platform::serial_port_path(port);
  rd_identity_update([&](RdIdentity& id) {
    id.scanner_name = "Tavio_TX9";
    id.security_param = second == std::string::npos ? "" : text.substr(second + 1);
    id.port_path = port_path;
  });
  RD_INFO("Port is %s", port_path.c_str());
}

int step_pipe() {
  RD_LOG_AS("Initialize_process");
  if (create_Pipe() != 0) return rd_codes::kInitFailed;
  RD_INFO("Pipe created successfully\n");
  return 0;
}

int step_required_files() {
  RD_LOG_AS("Initialize_process");
  if (IsFilePresent() != 0) {
    RD_ERROR("File checking failed");
    return rd_codes::kInitFileMissing;
  }
  RD_INFO("IsFilePresent function success");
  return 0;
}

int step_host_id() {
  RD_LOG_AS("Initialize_process");
  if (GetMAC(&g_host_id) != 0) {
    RD_ERROR("Error at Getting HostID");
    return rd_codes::kInitHostId;
  }
  RD_INFO("Host ID is: %02x%02x%02x%02x%02x%02x", g_host_id[0], g_host_id[1], g_host_id[2], g_host_id[3], g_host_id[4],
          g_host_id[5]);
  return 0;
}

int step_locks() {
  RD_LOG_AS("Initialize_process");
  // The lock folder is a setting of config.ini, which is read under these
  // locks: it is taken from the file first. A file that fails its seal
  // leaves the default, and the reading step reports the file.
  if (read_lock_folder() == 0) platform::set_lock_dir(rd_config_copy().lock_folder);
  if (init_semaphore() != 0) {
    RD_ERROR("init_semaphore failed");
    return rd_codes::kInitLocks;
  }
  RD_INFO("init_semaphore success");
  return 0;
}

int step_vendor_libraries() {
  RD_LOG_AS("Initialize_process");
  if (dll_loading(".\\RefDll") != 0) {
    RD_ERROR("DLL Loading failed");
    return rd_codes::kInitDllLoading;
  }
  return 0;
}

int step_scanner_start() {
  RD_LOG_AS("Initialize_process");
  const std::string scanner = rd_scanner_name();
  if (scanner != "Aratek_A600" && scanner != "Aratek_A400") return 0;
  int rc = aratek_sdk().GlobalInit();
  if (rc != 0 && rc != ARAFPSCAN_ERROR_ALREADY_INIT) {
    RD_ERROR("Global init failed");
    RD_STATUS("Aratek fingerprint scanner: Global init failed ");
    RD_PIPE("10000", "Aratek fingerprint scanner:|Global init failed\n");
    return rd_codes::kInitFailed;
  }
  return 0;
}

int step_handheld() {
  const RdIdentity id = rd_identity_copy();
  if (id.scanner_name == "Tavio_TX9") {
    // The handheld libraries' own start-up; their results are theirs to report.
    tavio_sdk().TavioLogs_Init("rd.log");
    tavio_sdk().Initialize_BT_Security(id.security_param.c_str());
  }
  return 0;
}

int step_load_config() {
  RD_LOG_AS("Initialize_process");
  if (load_config_file() != 0) {
    RD_ERROR("load_config_file failed");
    return rd_codes::kInitLoadConfig;
  }
  RD_INFO("Loading config file parameters is done successfully");
  return 0;
}

int step_read_config() {
  RD_LOG_AS("Initialize_process");
  if (read_config_file() != 0) {
    RD_ERROR("Config file reading failed");
    RD_STATUS("Config file reading failed");
    RD_PIPE("10000", "Config file reading failed\n");
    return rd_codes::kInitConfig;
  }
  RD_INFO("Config file reading is successful");
  return 0;
}

int step_ssl_files() {
  RD_LOG_AS("Initialize_process");
  if (!rd_ssl_enabled()) return 0;
  if (Is_SSL_FilePresent() != 0) {
    RD_ERROR("SSL File checking failed");
    return rd_codes::kInitFileMissing;
  }
  RD_INFO("Is_SSL_FilePresent function success");
  return 0;
}

int step_proxy() {
  RD_LOG_AS("Initialize_process");
  if (read_proxy_file() == -1) {
    RD_ERROR("read_proxy_file failed,PROXY_URL field is missing");
    return rd_codes::kInitProxy;
  }
  return 0;
}

int step_appdata() {
  RD_LOG_AS("Initialize_process");
  const std::string appdata = platform::appdata_dir();
  if (appdata.empty()) {
    RD_ERROR("GetEnvironmentVariable Failed");
    return rd_codes::kInitAppData;
  }
  rd_identity_update([&](RdIdentity& id) { id.appdata = appdata; });
  RD_VERBOSE("APPDATA Path is %s", appdata.c_str());
  return 0;
}

int step_tls_paths() {
  RD_LOG_AS("Initialize_process");
  if (!rd_ssl_enabled()) return 0;
  const std::string cert = std::string(kSslFolder) + "public.crt";
  const std::string key = std::string(kSslFolder) + "private.key";
  struct {
    const std::string& path;
    int code;
  } files[] = {{cert, rd_codes::kInitTlsCert}, {key, rd_codes::kInitTlsKey}};
  for (const auto& f : files) {
    const FilePtr fp(std::fopen(f.path.c_str(), "r"));
    // A folder opens on Linux but is no certificate or key: read one byte to be sure.
    const bool ok = fp != nullptr && (std::fgetc(fp.get()), !std::ferror(fp.get()));
    if (!ok) {
      RD_ERROR("%s file is not exist in the path", f.path.c_str());
      RD_STATUS("%s file is not exist in the path", f.path.c_str());
      RD_PIPE("10000", "%s file not found\n", f.path.c_str());
      return f.code;
    }
  }
  rd_identity_update([&](RdIdentity& id) {
    id.ssl_cert_path = cert;
    id.ssl_key_path = key;
  });
  return 0;
}

// The old and the new serial number, the Serial_number file and the
// device-changed flag. Runs on every call.
int step_serial() {
  RD_LOG_AS("Initialize_process");
  std::string old_serial;
  if (!platform::file_exists("Serial_number")) {
    RD_INFO("Serial_number file is not there");
  } else {
    if (platform::read_file("Serial_number", &old_serial) != 0) {
      RD_ERROR("Reading from Serial_number file is failed");
      return rd_codes::kInitSerialRead;
    }
    if (old_serial.size() > 128) old_serial.resize(128);
    old_serial = old_serial.c_str();  // the text ends at its first NUL, as read into a buffer
    RD_INFO("old_serial_number is: %s", old_serial.c_str());
  }

  std::string serial;
  int rc = getdeviceserialnumber(&serial);
  if (rc != 0) {
    RD_ERROR("fingerprint device not attached");
    RD_STATUS("fingerprint device not attached, err_code: %d ", rc);
    RD_PIPE("10000", "Fingerprint device disconnected\n");
    return rd_codes::kInitNoDevice;
  }
  set_device_serial(serial);
  RD_INFO("fingerprint is attached, serial number is %s", serial.c_str());
  // Replaced atomically: a file that cannot be made is an open failure, one
  // that cannot be written, flushed or put in place is a write failure.
  switch (platform::write_file_atomic("Serial_number", serial.data(), serial.size())) {
    case 0:
      break;
    case -1:
      RD_ERROR("opening Serial_number file failed");
      return rd_codes::kInitSerialOpen;
    default:
      RD_ERROR("writing to serial_number file is failed");
      return rd_codes::kInitSerialWrite;
  }

  int changed = 0;
  if (serial == old_serial) {
    RD_INFO("old_serial_number and serial_number are same");
  } else {
    changed = 1;
    RD_INFO("old_serial_number and serial_number are different");
  }
  if (!platform::file_readable(rd_identity_copy().prefix + kDeviceCertificate)) {
    RD_INFO("device public key not present");
    changed = 1;
  }
  rd_identity_update([changed](RdIdentity& id) { id.device_changed = changed; });
  return 0;
}

// One-time steps keep a flag each: set until the step has succeeded, so a
// repeated call skips what is done and resumes at the step that failed.
struct OnceStep {
  int (*run)();
  bool pending;
};
struct OnceSteps {
  OnceStep log{step_open_log, true};
  OnceStep pipe{step_pipe, true};
  OnceStep host_id{step_host_id, true};
  OnceStep locks{step_locks, true};
  OnceStep dll{step_vendor_libraries, true};
  OnceStep scanner_start{step_scanner_start, true};
  OnceStep handheld{step_handheld, true};
  OnceStep load_config{step_load_config, true};
  OnceStep read_config{step_read_config, true};
  OnceStep proxy{step_proxy, true};
  OnceStep appdata{step_appdata, true};
  OnceStep tls_paths{step_tls_paths, true};
};
OnceSteps g_once;

// Runs a one-time step unless it already succeeded. 0 or the step's result.
int once(OnceStep& step) {
  if (!step.pending) return 0;
  int rc = step.run();
  if (rc == 0) step.pending = false;
  return rc;
}

}  // namespace

int IsFilePresent() { return check_files(kRequiredFiles, "IsFilePresent"); }

int Is_SSL_FilePresent() { return check_files(kSslFiles, "Is_SSL_FilePresent"); }

const ScannerModel* find_scanner_model(const std::string& name) {
  for (const ScannerModel& m : kScannerModels) {
    if (name == m.name) return &m;
  }
  return nullptr;
}

int load_config_file() {
  rd_set_log_size_limit_kb(kLogSizeLimitKb);
  const ScannerModel* model = find_scanner_model(rd_scanner_name());
  rd_identity_update([model](RdIdentity& id) {
    id.prefix = "./";
    id.clId = kClientId;
    id.clVer = kClientVersion;
    id.host_type = kHostType;
    id.dpId = kProviderCode;
    if (model == nullptr) return;
    id.rdsId = model->rdsId;
    id.make = model->make;
    id.mi = model->mi;
    id.model = model->mi;
  });
  return model == nullptr ? rd_codes::kFailed : 0;
}

void init_reset_for_test() {
  g_once = OnceSteps{};
  rd_identity_update([](RdIdentity& id) { id = RdIdentity{}; });
  zlog_fini();
}

extern "C" VEXO_EXPORT int Initialize_process(const char* scanner_details) noexcept try {
  // From here on the process holds keys and fingerprints: no core file, no
  // debugger of another process.
  const int dumps_error = platform::forbid_core_dumps() == 0 ? 0 : platform::last_error();
  int rc = once(g_once.log);
  if (rc != 0) return rc;
  if (dumps_error != 0) RD_ERROR("Core dumps could not be switched off (errno %d)", dumps_error);
  step_scanner(scanner_details);
  if ((rc = once(g_once.pipe)) != 0) return rc;
  if ((rc = step_required_files()) != 0) return rc;
  if ((rc = once(g_once.host_id)) != 0) return rc;
  if ((rc = once(g_once.locks)) != 0) return rc;
  if ((rc = once(g_once.dll)) != 0) return rc;
  if ((rc = once(g_once.scanner_start)) != 0) return rc;
  if ((rc = once(g_once.handheld)) != 0) return rc;
  if ((rc = once(g_once.load_config)) != 0) return rc;
  if ((rc = once(g_once.read_config)) != 0) return rc;
  if ((rc = step_ssl_files()) != 0) return rc;
  if ((rc = once(g_once.proxy)) != 0) return rc;
  if ((rc = once(g_once.appdata)) != 0) return rc;
  if ((rc = once(g_once.tls_paths)) != 0) return rc;
  if ((rc = step_serial()) != 0) return rc;

  IsAppFilePresent();  // informational: marks a pending key rotation
  RD_INFO("Returning from Initialize_process");
  if (RD_STATUS("Initialize_process Success ") != 0) return rd_codes::kInitFailed;
  return rd_codes::kInitOk;
} catch (...) {
  return rd_codes::kInitFailed;
}

extern "C" VEXO_EXPORT int Start_RDservice(void) noexcept try {
  static platform::socket_t server = platform::kInvalidSocket;
  if (prepare_http_socket(&server) != 0) {
    RD_ERROR("http server creation failed");
    if (RD_STATUS(" http server creation failed") != 0) return rd_codes::kStartClock;
    RD_PIPE("5000", "http server creation failed\n");
    return rd_codes::kStartSocket;
  }
  RD_INFO("http-Socket prepared successfully");

  if (rd_ssl_enabled()) {
    const RdIdentity id = rd_identity_copy();
    SslSettings settings{id.ssl_cert_path, id.ssl_key_path};
    if (validateServerCertAndInitSSLCTX(settings) != 0) {
      RD_ERROR("Error at validateServerCertAndInitSSLCTX()");
      if (RD_STATUS(" SSL server init failed") != 0) return rd_codes::kStartClock;
      RD_PIPE("5000", "SSL server init failed\n");
      return rd_codes::kStartTls;
    }
    RD_INFO("SSL Initialization success");
  }

  bool started = false;
  try {
    // The accept thread runs for the life of the process.
    std::thread(client_connection_handler, &server).detach();
    started = true;
  } catch (const std::system_error&) {
  }
  if (!started) {
    RD_ERROR("pthread creation failed");
    if (RD_STATUS(" pthread creation failed") != 0) return rd_codes::kStartClock;
    RD_PIPE("5000", "pthread creation failed\n");
    return rd_codes::kStartThread;
  }
  RD_INFO("client_connection_handler Thread created successfully");
  if (RD_STATUS("RD service started successfully") != 0) return rd_codes::kStartClock;
  return rd_codes::kStartOk;
} catch (...) {
  return rd_codes::kStartThread;
}

extern "C" VEXO_EXPORT int detach_device(void) noexcept {
  RD_INFO("RD_Service Is NOTREADY");
  set_device_detached(1);
  set_rd_status_notready();
  if (RD_STATUS("Fingerprint device not attached ") != 0) return rd_codes::kAttachFailed;
  RD_PIPE("5000", "Fingerprint device disconnected\n");
  return 0;
}

extern "C" VEXO_EXPORT int attach_device(void) noexcept {
  try {
    RD_INFO("Device is attached");
    if (RD_STATUS("Fingerprint device is attached ") != 0) return rd_codes::kAttachFailed;
    RD_PIPE("5000", "Fingerprint device connected\n");
    set_device_detached(0);
    std::string serial;
    if (getdeviceserialnumber(&serial) != 0) {
      RD_ERROR("fingerprint device not attached");
      RD_STATUS("fingerprint device not attached ");
      RD_PIPE("5000", "Fingerprint device disconnected\n");
      return rd_codes::kAttachFailed;
    }
    RD_INFO("Getting Serial Number is Success");
    int result = rd_codes::kAttachSame;
    if (serial == get_device_serial()) {
      RD_INFO("Old and New Serial numbers are matched");
    } else {
      RD_INFO("Old and New Serial numbers did not matched, calling init");
      set_device_serial(serial);
      result = rd_codes::kAttachChanged;
    }
    set_rd_status_ready();
    return result;
  } catch (...) {
    return rd_codes::kAttachFailed;
  }
}
