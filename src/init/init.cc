#include "init/init.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>

#include "http/server.h"
#include "http/work_area.h"
#include "init/config.h"
#include "init/rd_config.h"
#include "init/rd_log.h"
#include "init/rd_status.h"
#include "mgmt_core/keystore.h"
#include "mgmt_core/mgmt_api.h"
#include "platform/platform.h"
#include "rd_core/scanner.h"
#include "semaphore/semaphore_syc.h"
#include "ssl/sslCommunication.h"
#include "vexo.h"

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

// One flag per one-time step: set until the step has succeeded, so a repeated
// call skips what is done and resumes at the step that failed.
struct PendingSteps {
  bool log = true, pipe = true, host_id = true, locks = true, dll = true, scanner_start = true,
       handheld = true, load_config = true, read_config = true, proxy = true, appdata = true,
       tls_paths = true;
};
PendingSteps g_pending;
std::array<std::uint8_t, 6> g_host_id{};

// A file the service needs: present, or reported in the log, the last-status
// line and the pipe.
bool check_required_file(const char* path, const char* present_message) {
  if (platform::file_exists(path)) {
    RD_INFO("%s", present_message);
    return true;
  }
  RD_ERROR("File Not Found : %s", path);
  RD_STATUS("File Not Found : %s", path);
  RD_PIPE("10000", "File Not Found : %s\n", path);
  return false;
}

int IsFilePresent() {
  return check_required_file("bin_crc.txt", "bin_crc file present") &&
                 check_required_file("config.ini", "config file present") &&
                 check_required_file("cert/server.crt", "Server certificate file present")
             ? 0
             : -1;
}

int Is_SSL_FilePresent() {
  return check_required_file("cert/ssl/private.key", "SSL key file present") &&
                 check_required_file("cert/ssl/public.crt", "SSL certificate file present")
             ? 0
             : -1;
}

// Takes the scanner description apart: a model name, or the handheld form
// "...Tavio_TX9|PORT|SECURITY".
void set_scanner(const char* details) {
  RdIdentity& id = rd_identity();
  std::string text = details ? details : "";
  if (text.find("Tavio_TX9") == std::string::npos) {
    id.scanner_name = text;
    RD_INFO("Attached scanner is %s", text.c_str());
    return;
  }
  RD_INFO(" scanner details : %s", text.c_str());
  RD_INFO(" Vexo library with semaphore lock for Quokka port open");
  id.scanner_name = "Tavio_TX9";
  std::size_t first = text.find('|');
  std::size_t second = first == std::string::npos ? std::string::npos : text.find('|', first + 1);
  std::string port = first == std::string::npos ? "" : text.substr(first + 1, second - first - 1);
  id.security_param = second == std::string::npos ? "" : text.substr(second + 1);
  id.port_path = "/dev/" + port;
  RD_INFO("Port is %s", id.port_path.c_str());
}

int open_run_log() {
  rd_config() = RdConfig{};
  if (zlog_init("rd.log") != 0) {
    write_error_log("zlog_init failed\n");
    return -1;
  }
  if (zlog_get_category("Vexo") == nullptr) {
    write_error_log("zlog_get_category call failed\n");
    zlog_fini();
    return -12;
  }
  RD_INFO("\n****************************************************************************************************");
  RD_INFO("zlog initialized successfully");
  return 0;
}

}  // namespace

const ScannerModel* find_scanner_model(const std::string& name) {
  for (const ScannerModel& m : kScannerModels) {
    if (name == m.name) return &m;
  }
  return nullptr;
}

int load_config_file() {
  RdIdentity& id = rd_identity();
  id.prefix = "./";
  rd_set_log_size_limit_kb(kLogSizeLimitKb);
  id.clId = kClientId;
  id.clVer = kClientVersion;
  id.host_type = kHostType;
  id.dpId = kProviderCode;
  const ScannerModel* model = find_scanner_model(id.scanner_name);
  if (model == nullptr) return -1;
  id.rdsId = model->rdsId;
  id.make = model->make;
  id.mi = model->mi;
  id.model = model->mi;
  return 0;
}

void init_reset_for_test() {
  g_pending = PendingSteps{};
  rd_identity() = RdIdentity{};
  zlog_fini();
}

extern "C" VEXO_EXPORT int Initialize_process(const char* scanner_details) noexcept try {
  if (g_pending.log) {
    int rc = open_run_log();
    if (rc != 0) return rc;
    g_pending.log = false;
  }
  set_scanner(scanner_details);
  RdIdentity& id = rd_identity();

  if (g_pending.pipe) {
    if (create_Pipe() != 0) return -1;
    RD_INFO("Pipe created successfully\n");
    g_pending.pipe = false;
  }

  if (IsFilePresent() != 0) {
    RD_ERROR("File checking failed");
    return -16;
  }
  RD_INFO("IsFilePresent function success");

  if (g_pending.host_id) {
    if (GetMAC(&g_host_id) != 0) {
      RD_ERROR("Error at Getting HostID");
      return -2;
    }
    RD_INFO("Host ID is: %02x%02x%02x%02x%02x%02x", g_host_id[0], g_host_id[1], g_host_id[2], g_host_id[3],
            g_host_id[4], g_host_id[5]);
    g_pending.host_id = false;
  }

  if (g_pending.locks) {
    if (init_semaphore() != 0) {
      RD_ERROR("init_semaphore failed");
      return -3;
    }
    RD_INFO("init_semaphore success");
    g_pending.locks = false;
  }

  if (g_pending.dll) {
    if (dll_loading(".\\RefDll") != 0) {
      RD_ERROR("DLL Loading failed");
      return kDllLoadingFailed;
    }
    g_pending.dll = false;
  }

  if (g_pending.scanner_start) {
    if (id.scanner_name == "Aratek_A600" || id.scanner_name == "Aratek_A400") {
      int rc = aratek_sdk().GlobalInit();
      if (rc != 0 && rc != ARAFPSCAN_ERROR_ALREADY_INIT) {
        RD_ERROR("Global init failed");
        RD_STATUS("Aratek fingerprint scanner: Global init failed ");
        RD_PIPE("10000", "Aratek fingerprint scanner:|Global init failed\n");
        return -1;
      }
    }
    g_pending.scanner_start = false;
  }

  if (g_pending.handheld) {
    if (id.scanner_name == "Tavio_TX9") {
      // The handheld libraries' own start-up; their results are theirs to report.
      tavio_sdk().TavioLogs_Init("rd.log");
      tavio_sdk().Initialize_BT_Security(id.security_param.c_str());
    }
    g_pending.handheld = false;
  }

  if (g_pending.load_config) {
    if (load_config_file() != 0) {
      RD_ERROR("load_config_file failed");
      return -4;
    }
    RD_INFO("Loading config file parameters is done successfully");
    g_pending.load_config = false;
  }

  if (g_pending.read_config) {
    if (read_config_file() != 0) {
      RD_ERROR("Config file reading failed");
      RD_STATUS("Config file reading failed");
      RD_PIPE("10000", "Config file reading failed\n");
      return -5;
    }
    RD_INFO("Config file reading is successful");
    g_pending.read_config = false;
  }

  const bool tls = rd_config().ssl_enabled != 0;
  if (tls) {
    if (Is_SSL_FilePresent() != 0) {
      RD_ERROR("SSL File checking failed");
      return -16;
    }
    RD_INFO("Is_SSL_FilePresent function success");
  }

  if (g_pending.proxy) {
    if (read_proxy_file() == -1) {
      RD_ERROR("read_proxy_file failed,PROXY_URL field is missing");
      return -13;
    }
    g_pending.proxy = false;
  }

  if (g_pending.appdata) {
    id.appdata = platform::appdata_dir();
    if (id.appdata.empty()) {
      RD_ERROR("GetEnvironmentVariable Failed");
      return -11;
    }
    RD_VERBOSE("APPDATA Path is %s", id.appdata.c_str());
    g_pending.appdata = false;
  }

  if (g_pending.tls_paths && tls) {
    const std::string cert = std::string(kSslFolder) + "public.crt";
    const std::string key = std::string(kSslFolder) + "private.key";
    struct {
      const std::string& path;
      int code;
    } files[] = {{cert, -14}, {key, -15}};
    for (const auto& f : files) {
      std::FILE* fp = std::fopen(f.path.c_str(), "r");
      // A folder opens on Linux but is no certificate or key: read one byte to be sure.
      bool ok = fp != nullptr && (std::fgetc(fp), !std::ferror(fp));
      if (fp) std::fclose(fp);
      if (!ok) {
        RD_ERROR("%s file is not exist in the path", f.path.c_str());
        RD_STATUS("%s file is not exist in the path", f.path.c_str());
        RD_PIPE("10000", "%s file not found\n", f.path.c_str());
        return f.code;
      }
    }
    id.ssl_cert_path = cert;
    id.ssl_key_path = key;
    g_pending.tls_paths = false;
  }

  {
    std::string old_serial;
    if (!platform::file_exists("Serial_number")) {
      RD_INFO("Serial_number file is not there");
    } else {
      if (platform::read_file("Serial_number", &old_serial) != 0) {
        RD_ERROR("Reading from Serial_number file is failed");
        return -6;
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
      return -10;
    }
    set_device_serial(serial);
    RD_INFO("fingerprint is attached, serial number is %s", serial.c_str());
    if (platform::write_file_atomic("Serial_number", serial.data(), serial.size()) != 0) {
      RD_ERROR("opening Serial_number file failed");
      return -8;
    }

    if (serial == old_serial) {
      id.device_changed = 0;
      RD_INFO("old_serial_number and serial_number are same");
    } else {
      id.device_changed = 1;
      RD_INFO("old_serial_number and serial_number are different");
    }
    if (!platform::file_readable(id.prefix + kDeviceCertificate)) {
      RD_INFO("device public key not present");
      id.device_changed = 1;
    }
      }

  IsAppFilePresent();  // informational: marks a pending key rotation
  RD_INFO("Returning from Initialize_process");
  if (RD_STATUS("Initialize_process Success ") != 0) return -1;
  return 0;
} catch (...) {
  return -1;
}

extern "C" VEXO_EXPORT int Start_RDservice(void) noexcept try {
  static platform::socket_t server = platform::kInvalidSocket;
  if (prepare_http_socket(&server) != 0) {
    RD_ERROR("http server creation failed");
    if (RD_STATUS(" http server creation failed") != 0) return -1;
    RD_PIPE("5000", "http server creation failed\n");
    return -2;
  }
  RD_INFO("http-Socket prepared successfully");

  if (rd_config().ssl_enabled != 0) {
    SslSettings settings{rd_identity().ssl_cert_path, rd_identity().ssl_key_path};
    if (validateServerCertAndInitSSLCTX(settings) != 0) {
      RD_ERROR("Error at validateServerCertAndInitSSLCTX()");
      if (RD_STATUS(" SSL server init failed") != 0) return -1;
      RD_PIPE("5000", "SSL server init failed\n");
      return -3;
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
    if (RD_STATUS(" pthread creation failed") != 0) return -1;
    RD_PIPE("5000", "pthread creation failed\n");
    return -4;
  }
  RD_INFO("client_connection_handler Thread created successfully");
  if (RD_STATUS("RD service started successfully") != 0) return -1;
  return 0;
} catch (...) {
  return -4;
}

extern "C" VEXO_EXPORT int detach_device(void) noexcept {
  RD_INFO("RD_Service Is NOTREADY");
  set_device_detached(1);
  set_rd_status_notready();
  if (RD_STATUS("Fingerprint device not attached ") != 0) return -1;
  RD_PIPE("5000", "Fingerprint device disconnected\n");
  return 0;
}

extern "C" VEXO_EXPORT int attach_device(void) noexcept {
  try {
    RD_INFO("Device is attached");
    if (RD_STATUS("Fingerprint device is attached ") != 0) return -1;
    RD_PIPE("5000", "Fingerprint device connected\n");
    set_device_detached(0);
    std::string serial;
    if (getdeviceserialnumber(&serial) != 0) {
      RD_ERROR("fingerprint device not attached");
      RD_STATUS("fingerprint device not attached ");
      RD_PIPE("5000", "Fingerprint device disconnected\n");
      return -1;
    }
    RD_INFO("Getting Serial Number is Success");
    int result = 0;
    if (serial == get_device_serial()) {
      RD_INFO("Old and New Serial numbers are matched");
    } else {
      RD_INFO("Old and New Serial numbers did not matched, calling init");
      set_device_serial(serial);
      result = -10;
    }
    set_rd_status_ready();
    return result;
  } catch (...) {
    return -1;
  }
}
