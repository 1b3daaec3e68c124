#include "web_service/curl_api.h"

#include <cstdio>
#include <cstring>

#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "platform/test_seams.h"
#include "rds_hash.h"
#include "web_service/auth_format.h"
#include "web_service/transfer.h"

namespace {

using transfer::Caller;
using transfer::kNull;

constexpr Caller kPost{"curl_api", "sendData2Zelm"};
constexpr Caller kGet{"curl_api", "GetDataFromZelm"};
constexpr Caller kDownload{"curl_api", "Curl_Download_File"};

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
// target once the transfer has succeeded, and stopped at its limit.
struct FileSink {
  std::FILE* file;
  std::size_t limit;
  std::size_t written = 0;
};

size_t sink(char* piece, size_t size, size_t count, void* user) {
  RD_LOG_AS("Curl_Download_File");
  auto* s = static_cast<FileSink*>(user);
  const size_t bytes = size * count;
  if (bytes > s->limit - s->written) {
    RD_ERROR("Download larger than %zu bytes", s->limit);
    return 0;
  }
  if (std::fwrite(piece, 1, bytes, s->file) != bytes) {
    RD_ERROR("Couldn't write download file");
    return 0;
  }
  s->written += bytes;
  return bytes;
}

// The options every exchange with the server starts with: the debug level,
// the URL and the proxy, tunnelled, with its credentials when it has them.
bool set_endpoint(const Caller& caller, CURL* c, const RdConfig& config, const std::string& url) {
  return transfer::set_options(caller, c,
                               {{CURLOPT_VERBOSE, 1L, "Error in Curl CURLOPT_VERBOSE", config.verbose > 1},
                                {CURLOPT_URL, url.c_str(), "Error in Curl CURLOPT_URL"},
                                {CURLOPT_PROXY, config.proxy_url.c_str(), "Error in Curl CURLOPT_PROXY"},
                                {CURLOPT_HTTPPROXYTUNNEL, 1L, "Error in Curl CURLOPT_HTTPPROXYTUNNEL"},
                                {CURLOPT_PROXYUSERNAME, config.proxy_username.c_str(),
                                 "Error in Curl CURLOPT_PROXYUSERNAME", !config.proxy_username.empty()},
                                {CURLOPT_PROXYPASSWORD, config.proxy_password.c_str(),
                                 "Error in Curl CURLOPT_PROXYPASSWORD", !config.proxy_password.empty()}});
}

// Reports a failed POST transfer and maps libcurl's result to ours.
int transfer_failure(CURLcode rc, const std::string& url, const char* error_text) {
  RD_LOG_AS("sendData2Zelm");
  const int code = static_cast<int>(rc);
  RD_ERROR("Response code from curl is %d", code);
  if (rc == CURLE_SEND_ERROR) {
    RD_ERROR("Failed sending network data");
  } else {
    RD_ERROR("Query Unsuccessful,Curl return code %d", code);
    RD_ERROR("Description: %s", curl_easy_strerror(rc));
    RD_ERROR("Error Msg - %s", error_text);
  }
  switch (rc) {
    case CURLE_OPERATION_TIMEDOUT: {
      const int seconds = static_cast<int>(zelm_timeout_seconds());
      RD_STATUS("Server Connection Timeout (%d sec) ", seconds);
      RD_PIPE("5000", "Server Connection Timeout|(%d sec)\n", seconds);
      return rd_codes::kTransportTimeout;
    }
    case CURLE_COULDNT_CONNECT:
      RD_STATUS("Internet connectivity issue, not able to connect Url - %.1024s) ", url.c_str());
      RD_PIPE("10000", "Internet connectivity issue,|not able to connect to MS\n");
      return rd_codes::kTransportConnect;
    case CURLE_OUT_OF_MEMORY:
      RD_STATUS("Curl Out of Memory ");
      RD_PIPE("10000", "Curl Out of Memory\n");
      return rd_codes::kTransportMemory;
    default:
      RD_STATUS("Internet connectivity issue - %s ", curl_easy_strerror(rc));
      RD_PIPE("10000", "Internet connectivity issue,|not able to connect to MS\n");
      return rd_codes::kTransportOther;
  }
}

// Signs the request text (its first length bytes) and makes the header list
// that carries the signature as RD_DRT. 0, or kTransportDrtNotMade.
int make_signed_headers(const std::string& request, std::size_t length, transfer::Slist* header_list,
                        std::string* request_drt) {
  RD_LOG_AS("sendData2Zelm");
  header_list->reset(curl_slist_append(nullptr, "Content-Type: application/json; charset=utf-8"));
  const bool signed_ok = rds_hmac_sign(request.c_str(), length, 1, request_drt) == 0;
  curl_slist* with_drt =
      signed_ok && *header_list ? curl_slist_append(header_list->get(), ("RD_DRT: " + *request_drt).c_str()) : nullptr;
  if (with_drt == nullptr) {
    RD_ERROR("Error at RD_DRT_hash_gen");
    RD_STATUS("Error at RD_DRT_hash_gen");
    return rd_codes::kTransportDrtNotMade;
  }
  return 0;
}

// The POST itself: endpoint, the request's first length bytes, its headers
// and the buffer that takes libcurl's error text. False when an option
// cannot be set.
bool set_post_request(CURL* c, const RdConfig& config, const std::string& url, const std::string& request,
                      std::size_t length, curl_slist* header_list, char* error_text) {
  return set_endpoint(kPost, c, config, url) &&
         transfer::set_options(
             kPost, c,
             {{CURLOPT_POST, 1L, "Error in Curl CURLOPT_POST"},
              {CURLOPT_POSTFIELDS, request.c_str(), "Error in Curl CURLOPT_POSTFIELDS"},
              {CURLOPT_POSTFIELDSIZE, static_cast<long>(length), "Error in Curl CURLOPT_POSTFIELDSIZE"},
              {CURLOPT_HTTPHEADER, header_list, "Error in Curl CURLOPT_HTTPHEADER"},
              {CURLOPT_ERRORBUFFER, error_text, "Error in Curl CURLOPT_ERRORBUFFER"}});
}

// The trust of the transfer (prepared into *trust, which must outlive the
// transfer), its time limit and the collectors of the answer's body and
// headers. 0, the trust's failure code, or kTransportFailed.
int set_post_receivers(CURL* c, const std::string& url, transfer::Trust* trust, Collector* body, Collector* headers) {
  RD_LOG_AS("sendData2Zelm");
  if (const int pin = transfer::prepare_trust(kPost, url, trust); pin != 0) return pin;
  RD_INFO("%s", trust->tls ? "Communication is Happening through HTTPs" : "Communication is Happening through HTTP");
  if (!transfer::set_trust(kPost, c, *trust) ||
      !transfer::set_options(kPost, c,
                             {{CURLOPT_WRITEFUNCTION, collect, "Error in Curl CURLOPT_WRITEFUNCTION"},
                              {CURLOPT_TIMEOUT, zelm_timeout_seconds(), "Error in Setting CURLOPT_TIMEOUT Option"},
                              {CURLOPT_HEADERFUNCTION, collect, "Error in Curl CURLOPT_HEADERFUNCTION"},
                              {CURLOPT_HEADERDATA, headers, "Error in Curl CURLOPT_HEADERDATA"},
                              {CURLOPT_WRITEDATA, body, "Error in Curl CURLOPT_WRITEDATA"}})) {
    return rd_codes::kTransportFailed;
  }
  return 0;
}

// Checks the RD_DRT the server put on its answer against the answer and our
// request's own. 0, or ResponseDRTCheck's code, reported as poisoned data.
int check_response_drt(const Collector& body, const Collector& headers, const std::string& request_drt) {
  RD_LOG_AS("sendData2Zelm");
  const int check = ResponseDRTCheck(body.data, headers.data, request_drt);
  if (check != 0) {
    RD_ERROR("Data from server is poisoned");
    RD_STATUS("Data from server is poisoned ");
    RD_PIPE("10000", "Data from server is poisoned\n");
  }
  return check;
}

}  // namespace

long zelm_timeout_seconds() {
  return test_seams::get(&test_seams::Seams::mgmt_timeout_s).value_or(kZelmTimeoutSeconds);
}

int sendData2Zelm(const std::string& url, const std::string& request, std::string* response) {
  response->clear();
  const RdConfig config = rd_config_copy();
  Collector body{{}, kZelmMaxBody};
  Collector headers{{}, kZelmMaxHeaders};

  // The request's RD_DRT covers its text up to the first zero byte, as sent.
  const std::size_t length = std::strlen(request.c_str());
  std::string request_drt;
  transfer::Slist header_list;
  if (const int made = make_signed_headers(request, length, &header_list, &request_drt); made != 0) return made;

  const curl_version_info_data* version = curl_version_info(CURLVERSION_NOW);
  RD_DEBUG("d->version = %s\n", version->version);
  RD_DEBUG("d->ssl_version = %s\n", version->ssl_version != nullptr ? version->ssl_version : "");

  transfer::Easy curl = transfer::new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return rd_codes::kTransportFailed;
  }
  char error_text[CURL_ERROR_SIZE] = {};
  CURL* c = curl.get();
  if (!set_post_request(c, config, url, request, length, header_list.get(), error_text)) {
    return rd_codes::kTransportFailed;
  }
  transfer::Trust trust;
  if (const int set = set_post_receivers(c, url, &trust, &body, &headers); set != 0) return set;

  RD_INFO("sending request to management server");
  const CURLcode rc = curl_easy_perform(c);
  curl.reset();
  header_list.reset();
  if (rc != CURLE_OK) return transfer_failure(rc, url, error_text);
  if (const int check = check_response_drt(body, headers, request_drt); check != 0) return check;
  RD_INFO("Got Response from management server");
  *response = std::move(body.data);
  return rd_codes::kTransportOk;
}

int GetDataFromZelm(const std::string& url, const void* /*unused*/, std::string* response) {
  response->clear();
  const RdConfig config = rd_config_copy();
  Collector body{{}, kZelmMaxGetBody};
  transfer::Easy curl = transfer::new_easy();
  if (!curl) {
    RD_ERROR("Error in curl_easy_init");
    return rd_codes::kTransportFailed;
  }
  char error_text[CURL_ERROR_SIZE] = {};
  CURL* c = curl.get();
  transfer::Trust trust;
  if (!set_endpoint(kGet, c, config, url) ||
      !transfer::set_options(kGet, c, {{CURLOPT_ERRORBUFFER, error_text, "Error in Curl CURLOPT_ERRORBUFFER"}}) ||
      transfer::prepare_trust(kGet, url, &trust) != 0 || !transfer::set_trust(kGet, c, trust) ||
      !transfer::set_options(
          kGet, c,
          {{CURLOPT_WRITEFUNCTION, collect, "Error in Curl CURLOPT_WRITEFUNCTION"},
           {CURLOPT_TIMEOUT, zelm_timeout_seconds(), "Error in Setting CURLOPT_TIMEOUT Option"},
           {CURLOPT_CONNECTTIMEOUT, kZelmConnectTimeoutSeconds, "Error in Setting CURLOPT_CONNECTTIMEOUT Option"},
           {CURLOPT_WRITEDATA, &body, "Error in Curl CURLOPT_WRITEDATA"}})) {
    return rd_codes::kTransportFailed;
  }
  const CURLcode rc = curl_easy_perform(c);
  if (rc != CURLE_OK) {
    RD_ERROR("Query Unsuccessful,Curl return code %d ", static_cast<int>(rc));
    RD_ERROR("Error Msg - %s", error_text);
    RD_STATUS("Query Unsuccessful,Curl return code %d ", static_cast<int>(rc));
    return rd_codes::kTransportFailed;
  }
  *response = std::move(body.data);
  return rd_codes::kTransportOk;
}

int Curl_Download_File(const std::string& url, long connect_timeout, long timeout, const std::string& path,
                       std::size_t max_bytes) {
  RD_LOG_AS("Curl_Download_File");
  const RdConfig config = rd_config_copy();
  transfer::Trust trust;
  if (transfer::prepare_trust(kDownload, url, &trust) != 0) return rd_codes::kTransportFailed;
  int result = rd_codes::kTransportFailed;
  // The body goes into a temporary file beside path, which replaces path only
  // after a complete transfer: a failed download leaves the old file whole.
  const int replaced = platform::write_file_atomic_stream(path, [&](std::FILE* file) {
    FileSink out{file, max_bytes};
    transfer::Easy curl = transfer::new_easy();
    if (!curl) {
      RD_ERROR("Error in curl_easy_init");
      return false;
    }
    CURL* c = curl.get();
    constexpr bool kLogEach = true;
    if (!transfer::set_options(kDownload, c,
                               {{CURLOPT_URL, url.c_str(), "Error at curl_easy_setopt CURLOPT_URL"},
                                {CURLOPT_PROXY, config.proxy_url.c_str(), "Error at curl_easy_setopt CURLOPT_PROXY"},
                                {CURLOPT_FAILONERROR, 1L, "Error at curl_easy_setopt CURLOPT_FAILONERROR"},
                                {CURLOPT_WRITEFUNCTION, sink, "Error at curl_easy_setopt CURLOPT_WRITEFUNCTION"},
                                {CURLOPT_WRITEDATA, &out, "Error at curl_easy_setopt CURLOPT_WRITEDATA"}},
                               kLogEach) ||
        !transfer::set_trust(kDownload, c, trust, kLogEach) ||
        !transfer::set_options(
            kDownload, c,
            {{CURLOPT_VERBOSE, 1L, "Error at curl_easy_setopt CURLOPT_VERBOSE", config.verbose > 1},
             {CURLOPT_USERAGENT, "libcurl-agent/1.0", "Error at curl_easy_setopt CURLOPT_USERAGENT"},
             {CURLOPT_CONNECTTIMEOUT, connect_timeout, "Error at curl_easy_setopt CURLOPT_CONNECTTIMEOUT"},
             {CURLOPT_TIMEOUT, timeout, "Error at curl_easy_setopt CURLOPT_TIMEOUT"}},
            kLogEach)) {
      return false;
    }
    const CURLcode rc = curl_easy_perform(c);
    RD_INFO("curl_easy_perform return value %d", static_cast<int>(rc));
    if (rc != CURLE_OK) {
      RD_ERROR("Query Unsuccessful,Curl return code %d ", static_cast<int>(rc));
      long http_status = 0;
      if (curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &http_status) == CURLE_OK) {
        RD_ERROR("Curl return code %d, HTTP Error Code  %ld", static_cast<int>(rc), http_status);
      }
      result = static_cast<int>(rc);
      return false;
    }
    RD_INFO("chunk size is %d", static_cast<int>(out.written));
    result = rd_codes::kTransportOk;
    return true;
  });
  // The transfer worked but the file was not replaced.
  if (replaced != 0 && result == rd_codes::kTransportOk) result = rd_codes::kTransportFailed;
  if (result == rd_codes::kTransportOk) RD_INFO("returning from curl download");
  return result;
}
