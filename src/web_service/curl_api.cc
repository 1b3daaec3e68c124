#include "web_service/curl_api.h"

#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "web_service/auth_format.h"
#include "common/hash.h"
#include "platform/platform.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "rds_hash.h"

#ifndef VEXO_MGMT_CA_SHA256
#error "VEXO_MGMT_CA_SHA256 must name the SHA-256 of the Management CA file"
#endif
const char* const kZelmCaSha256 = VEXO_MGMT_CA_SHA256;

namespace {

struct CurlEasyFree {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyFree>;
struct CurlSlistFree {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using CurlSlist = std::unique_ptr<curl_slist, CurlSlistFree>;

std::atomic<long> g_timeout_for_test{0};

// A download larger than this is not a certificate or a package of ours.
constexpr std::size_t kMaxDownloadBytes = 256u * 1024u * 1024u;

CurlEasy new_easy() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  return CurlEasy(curl_easy_init());
}

// One response, collected piece by piece up to its limit. A piece that would
// pass the limit is refused, which makes libcurl abort the transfer.
struct Collector {
  std::string data;
  std::size_t limit;
};

size_t collect(char* piece, size_t size, size_t count, void* user) {
  auto* c = static_cast<Collector*>(user);
  const size_t bytes = size * count;
  if (bytes > c->limit - c->data.size()) return 0;
  c->data.append(piece, bytes);
  return bytes;
}

// A download written straight into the temporary file that replaces the
// target once the transfer has succeeded.
struct FileSink {
  std::FILE* file;
  std::size_t written = 0;
};

size_t sink(char* piece, size_t size, size_t count, void* user) {
  RD_LOG_AS("Curl_Download_File");
  auto* s = static_cast<FileSink*>(user);
  const size_t bytes = size * count;
  if (bytes > kMaxDownloadBytes - s->written) {
    RD_ERROR("Not enough memory (realloc returned NULL)");
    return 0;
  }
  if (std::fwrite(piece, 1, bytes, s->file) != bytes) {
    RD_ERROR("Couldn't write download file");
    return 0;
  }
  s->written += bytes;
  return bytes;
}

// Sets one option; a failure is logged with failure under the caller's name.
template <typename T>
bool set_option(const char* caller, CURL* curl, CURLoption option, T value, const char* failure) {
  RD_LOG_AS(caller);
  if (curl_easy_setopt(curl, option, value) == CURLE_OK) return true;
  RD_ERROR("%s", failure);
  RD_STATUS("%s", failure);
  return false;
}

// The options every exchange with the server starts with: the debug level,
// the URL and the proxy, tunnelled.
bool set_endpoint_options(const char* caller, CURL* c, const RdConfig& config, const std::string& url) {
  if (config.verbose > 1 && !set_option(caller, c, CURLOPT_VERBOSE, 1L, "Error in Curl CURLOPT_VERBOSE")) return false;
  return set_option(caller, c, CURLOPT_URL, url.c_str(), "Error in Curl CURLOPT_URL") &&
         set_option(caller, c, CURLOPT_PROXY, config.proxy_url.c_str(), "Error in Curl CURLOPT_PROXY") &&
         set_option(caller, c, CURLOPT_HTTPPROXYTUNNEL, 1L, "Error in Curl CURLOPT_HTTPPROXYTUNNEL");
}

// The server is checked against the pinned CA file, by name and chain.
bool set_ca_options(const char* caller, CURL* c) {
  return set_option(caller, c, CURLOPT_CAINFO, kZelmCaFile, "Error in Curl CURLOPT_CAINFO") &&
         set_option(caller, c, CURLOPT_SSL_VERIFYHOST, 2L, "Error in Curl CURLOPT_SSL_VERIFYHOST") &&
         set_option(caller, c, CURLOPT_SSL_VERIFYPEER, 1L, "Error in Curl CURLOPT_SSL_VERIFYPEER");
}

bool uses_tls(const RdConfig& config) { return config.mgmt_url_register.find("https://") != std::string::npos; }

// The pinned CA file, checked before any connection is made. 0, -15 or -16.
int check_ca_file() {
  RD_LOG_AS("sendData2Zelm");
  std::string hex;
  if (Get_Sha2(kZelmCaFile, &hex) != 0) {
    RD_ERROR("File Not found: cert/server.crt");
    RD_STATUS("File Not found: cert/server.crt ");
    RD_PIPE("10000", "File Not found: cert/server.crt\n");
    return -15;
  }
  if (hex != kZelmCaSha256) {
    RD_ERROR("server.crt is not a valid SSL certificate, please put a valid SSL certificate");
    RD_STATUS("File Tampered: cert/server.crt ");
    RD_PIPE("10000", "File Tampered: cert/server.crt\n");
    return -16;
  }
  RD_INFO("server.crt is a valid SSL certificate");
  return 0;
}

// Reports a failed POST transfer and maps libcurl's result to ours.
int transfer_failure(CURLcode rc, const std::string& url, const char* error_text) {
  RD_LOG_AS("sendData2Zelm");
  const int code = static_cast<int>(rc);
  RD_ERROR("Response code from curl is %d", code);
  switch (rc) {
    case CURLE_OPERATION_TIMEDOUT: {
      const int seconds = static_cast<int>(zelm_timeout_seconds());
      RD_STATUS("Server Connection Timeout (%d sec) ", seconds);
      RD_PIPE("5000", "Server Connection Timeout|(%d sec)\n", seconds);
      return -17;
    }
    case CURLE_COULDNT_CONNECT:
      RD_STATUS("Internet connectivity issue, not able to connect Url - %.1024s) ", url.c_str());
      RD_PIPE("10000", "Internet connectivity issue,|not able to connect to MS\n");
      return -18;
    case CURLE_OUT_OF_MEMORY:
      RD_STATUS("Curl Out of Memory ");
      RD_PIPE("10000", "Curl Out of Memory\n");
      return -19;
    default:
      break;
  }
  if (rc == CURLE_SEND_ERROR) RD_ERROR("Failed sending network data");
  RD_ERROR("Query Unsuccessful,Curl return code %d", code);
  RD_ERROR("Description: %s", curl_easy_strerror(rc));
  RD_ERROR("Error Msg - %s", error_text);
  RD_STATUS("Internet connectivity issue - %s ", curl_easy_strerror(rc));
  RD_PIPE("10000", "Internet connectivity issue,|not able to connect to MS\n");
  return -20;
}

}  // namespace

void set_zelm_timeout_for_test(long seconds) { g_timeout_for_test.store(seconds); }

long zelm_timeout_seconds() {
  const long t = g_timeout_for_test.load();
  return t > 0 ? t : kZelmTimeoutSeconds;
}

int sendData2Zelm(const std::string& url, const std::string& request, std::string* response) {
  response->clear();
  const RdConfig config = rd_config_copy();
  Collector body{{}, kZelmMaxBody};
  Collector headers{{}, kZelmMaxHeaders};

  CurlSlist header_list(curl_slist_append(nullptr, "Content-Type: application/json; charset=utf-8"));
  std::string request_drt;
  if (rds_hmac_sign(request.c_str(), std::strlen(request.c_str()), 1, &request_drt) != 0) {
    RD_ERROR("Error at RD_DRT_hash_gen");
    RD_STATUS("Error at RD_DRT_hash_gen");
    return -14;
  }
  std::string drt_header("RD_DRT: ");
  drt_header += request_drt;
  curl_slist* with_drt = header_list ? curl_slist_append(header_list.get(), drt_header.c_str()) : nullptr;
  if (with_drt == nullptr) {
    RD_ERROR("Error at RD_DRT_hash_gen");
    RD_STATUS("Error at RD_DRT_hash_gen");
    return -14;
  }

  const curl_version_info_data* version = curl_version_info(CURLVERSION_NOW);
  RD_DEBUG("d->version = %s\n", version->version);
  RD_DEBUG("d->ssl_version = %s\n", version->ssl_version != nullptr ? version->ssl_version : "");

  CurlEasy curl = new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return -1;
  }
  char error_text[CURL_ERROR_SIZE] = {};
  CURL* c = curl.get();
  const char* fn = "sendData2Zelm";
  if (!set_endpoint_options(fn, c, config, url)) return -1;
  if (!config.proxy_username.empty() &&
      !set_option(fn, c, CURLOPT_PROXYUSERNAME, config.proxy_username.c_str(), "Error in Curl CURLOPT_PROXYUSERNAME")) {
    return -1;
  }
  if (!config.proxy_password.empty() &&
      !set_option(fn, c, CURLOPT_PROXYPASSWORD, config.proxy_password.c_str(), "Error in Curl CURLOPT_PROXYPASSWORD")) {
    return -1;
  }
  if (!set_option(fn, c, CURLOPT_POST, 1L, "Error in Curl CURLOPT_POST") ||
      !set_option(fn, c, CURLOPT_POSTFIELDS, request.c_str(), "Error in Curl CURLOPT_POSTFIELDS") ||
      !set_option(fn, c, CURLOPT_POSTFIELDSIZE, static_cast<long>(std::strlen(request.c_str())),
                  "Error in Curl CURLOPT_POSTFIELDSIZE") ||
      !set_option(fn, c, CURLOPT_HTTPHEADER, header_list.get(), "Error in Curl CURLOPT_HTTPHEADER") ||
      !set_option(fn, c, CURLOPT_ERRORBUFFER, error_text, "Error in Curl CURLOPT_ERRORBUFFER")) {
    return -1;
  }

  if (uses_tls(config)) {
    RD_INFO("Communication is Happening through HTTPs");
    if (const int pin = check_ca_file(); pin != 0) return pin;
    if (!set_ca_options(fn, c)) return -1;
  } else {
    RD_INFO("Communication is Happening through HTTP");
  }

  if (!set_option(fn, c, CURLOPT_WRITEFUNCTION, collect, "Error in Curl CURLOPT_WRITEFUNCTION") ||
      !set_option(fn, c, CURLOPT_TIMEOUT, zelm_timeout_seconds(), "Error in Setting CURLOPT_TIMEOUT Option") ||
      !set_option(fn, c, CURLOPT_HEADERFUNCTION, collect, "Error in Curl CURLOPT_HEADERFUNCTION") ||
      !set_option(fn, c, CURLOPT_HEADERDATA, &headers, "Error in Curl CURLOPT_HEADERDATA") ||
      !set_option(fn, c, CURLOPT_WRITEDATA, &body, "Error in Curl CURLOPT_WRITEDATA")) {
    return -1;
  }

  RD_INFO("sending request to management server");
  const CURLcode rc = curl_easy_perform(c);
  curl.reset();
  header_list.reset();
  if (rc != CURLE_OK) return transfer_failure(rc, url, error_text);

  if (const int check = ResponseDRTCheck(body.data, headers.data, request_drt); check != 0) {
    RD_ERROR("Data from server is poisoned");
    RD_STATUS("Data from server is poisoned ");
    RD_PIPE("10000", "Data from server is poisoned\n");
    return check;
  }
  RD_INFO("Got Response from management server");
  *response = std::move(body.data);
  return 0;
}

int GetDataFromZelm(const std::string& url, const void* /*unused*/, std::string* response) {
  response->clear();
  const RdConfig config = rd_config_copy();
  Collector body{{}, kZelmMaxGetBody};
  CurlEasy curl = new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return -1;
  }
  char error_text[CURL_ERROR_SIZE] = {};
  CURL* c = curl.get();
  const char* fn = "GetDataFromZelm";
  if (!set_endpoint_options(fn, c, config, url) ||
      !set_option(fn, c, CURLOPT_ERRORBUFFER, error_text, "Error in Curl CURLOPT_ERRORBUFFER")) {
    return -1;
  }
  if (uses_tls(config) && !set_ca_options(fn, c)) return -1;
  if (!set_option(fn, c, CURLOPT_WRITEFUNCTION, collect, "Error in Curl CURLOPT_WRITEFUNCTION") ||
      !set_option(fn, c, CURLOPT_TIMEOUT, zelm_timeout_seconds(), "Error in Setting CURLOPT_TIMEOUT Option") ||
      !set_option(fn, c, CURLOPT_CONNECTTIMEOUT, kZelmConnectTimeoutSeconds,
                  "Error in Setting CURLOPT_CONNECTTIMEOUT Option") ||
      !set_option(fn, c, CURLOPT_WRITEDATA, &body, "Error in Curl CURLOPT_WRITEDATA")) {
    return -1;
  }
  const CURLcode rc = curl_easy_perform(c);
  if (rc != CURLE_OK) {
    RD_ERROR("Query Unsuccessful,Curl return code %d", static_cast<int>(rc));
    RD_STATUS("Query Unsuccessful,Curl return code %d ", static_cast<int>(rc));
    return -1;
  }
  *response = std::move(body.data);
  return 0;
}

int Curl_Download_File(const std::string& url, long connect_timeout, long timeout, const std::string& path) {
  RD_LOG_AS("Curl_Download_File");  // also for the lambdas below
  const RdConfig config = rd_config_copy();
  int result = -1;
  // The body goes into a temporary file beside path, which replaces path only
  // after a complete transfer: a failed download leaves the old file whole.
  const int replaced = platform::write_file_atomic_stream(path, [&](std::FILE* file) {
    FileSink out{file};
    CurlEasy curl = new_easy();
    if (!curl) {
      RD_ERROR("Error in curl_easy_init");
      return false;
    }
    CURL* c = curl.get();
    const bool tls = url.rfind("https://", 0) == 0;
    auto step = [&](CURLoption option, auto value, const char* name) {
      if (curl_easy_setopt(c, option, value) != CURLE_OK) {
        RD_ERROR("Error at curl_easy_setopt %s", name);
        return false;
      }
      RD_INFO("%s success", name);
      return true;
    };
    if (!step(CURLOPT_URL, url.c_str(), "CURLOPT_URL") ||
        !step(CURLOPT_PROXY, config.proxy_url.c_str(), "CURLOPT_PROXY") ||
        !step(CURLOPT_FAILONERROR, 1L, "CURLOPT_FAILONERROR") ||
        !step(CURLOPT_WRITEFUNCTION, sink, "CURLOPT_WRITEFUNCTION") ||
        !step(CURLOPT_WRITEDATA, &out, "CURLOPT_WRITEDATA")) {
      return false;
    }
    // Peer verification stays off for downloads; the package is checked by
    // its checksum afterwards.
    if (tls && (!step(CURLOPT_CAINFO, kZelmCaFile, "CURLOPT_CAINFO") ||
                !step(CURLOPT_SSL_VERIFYPEER, 0L, "CURLOPT_SSL_VERIFYPEER"))) {
      return false;
    }
    if ((config.verbose > 1 && !step(CURLOPT_VERBOSE, 1L, "CURLOPT_VERBOSE")) ||
        !step(CURLOPT_USERAGENT, "libcurl-agent/1.0", "CURLOPT_USERAGENT") ||
        !step(CURLOPT_CONNECTTIMEOUT, connect_timeout, "CURLOPT_CONNECTTIMEOUT") ||
        !step(CURLOPT_TIMEOUT, timeout, "CURLOPT_TIMEOUT")) {
      return false;
    }
    const CURLcode rc = curl_easy_perform(c);
    RD_INFO("curl_easy_perform return value %d", static_cast<int>(rc));
    if (rc != CURLE_OK) {
      RD_ERROR("Query Unsuccessful,Curl return code %d", static_cast<int>(rc));
      long http_status = 0;
      if (curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &http_status) == CURLE_OK) {
        RD_ERROR("Curl return code %d, HTTP Error Code  %ld", static_cast<int>(rc), http_status);
      }
      result = static_cast<int>(rc);
      return false;
    }
    RD_INFO("chunk size is %d", static_cast<int>(out.written));
    result = 0;
    return true;
  });
  if (replaced != 0 && result == 0) result = -1;  // the transfer worked but the file was not replaced
  if (result == 0) RD_INFO("returning from curl download");
  return result;
}
