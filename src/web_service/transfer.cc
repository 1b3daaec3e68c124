#include "web_service/transfer.h"

#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <mutex>

#include "common/hash.h"
#include "common/rd_codes.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"

#if !defined(VEXO_MGMT_CA_SHA256) || !defined(VEXO_MGMT_CA_DEMO)
#error "VEXO_MGMT_CA_SHA256 and VEXO_MGMT_CA_DEMO come from the build (see CMakeLists.txt)"
#endif

namespace transfer {

const char* const kCaSha256 = VEXO_MGMT_CA_SHA256;

bool pin_is_demonstration() { return VEXO_MGMT_CA_DEMO != 0; }

namespace {

struct UrlFree {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

// The verify callback: the chain is OpenSSL's to judge; the server's own
// certificate must in addition carry an extended key usage with serverAuth
// (OpenSSL accepts a certificate without the extension for any purpose).
int require_server_auth(int preverified, X509_STORE_CTX* store) {
  if (preverified != 1 || X509_STORE_CTX_get_error_depth(store) != 0) return preverified;
  X509* leaf = X509_STORE_CTX_get_current_cert(store);
  if (leaf != nullptr && (X509_get_extension_flags(leaf) & EXFLAG_XKUSAGE) != 0 &&
      (X509_get_extended_key_usage(leaf) & XKU_SSL_SERVER) != 0) {
    return 1;
  }
  X509_STORE_CTX_set_error(store, X509_V_ERR_INVALID_PURPOSE);
  return 0;
}

// Called by libcurl for every new TLS connection, after its own set-up.
CURLcode install_server_auth_check(CURL*, void* ssl_ctx, void*) {
  auto* ctx = static_cast<SSL_CTX*>(ssl_ctx);
  SSL_CTX_set_verify(ctx, SSL_CTX_get_verify_mode(ctx), require_server_auth);
  return CURLE_OK;
}

// The process's one curl_global_init, before its first handle.
void global_init() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

Easy new_easy() {
  global_init();
  return Easy(curl_easy_init());
}

Share new_share() {
  global_init();
  Share share(curl_share_init());
  for (curl_lock_data data : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_DNS}) {
    if (share && curl_share_setopt(share.get(), CURLSHOPT_SHARE, data) != CURLSHE_OK) share.reset();
  }
  return share;
}

bool set_options(const Caller& caller, CURL* c, std::initializer_list<Option> table, bool log_success) {
  RD_LOG_IN(caller.module, caller.function);
  for (const Option& row : table) {
    if (!row.when) continue;
    const CURLcode rc = std::visit([&](auto value) { return curl_easy_setopt(c, row.option, value); }, row.value);
    if (rc != CURLE_OK) {
      RD_ERROR("%s", row.failure);
      RD_STATUS("%s", row.failure);
      return false;
    }
    if (log_success) {
      const curl_easyoption* about = curl_easy_option_by_id(row.option);
      RD_INFO("CURLOPT_%s success", about != nullptr ? about->name : "?");
    }
  }
  return true;
}

std::string url_scheme(const std::string& url) {
  std::unique_ptr<CURLU, UrlFree> parsed(curl_url());
  char* scheme = nullptr;
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) {
    return std::string();
  }
  std::string text(scheme);
  curl_free(scheme);
  return text;
}

int prepare_trust(const Caller& caller, const std::string& url, Trust* out) {
  RD_LOG_IN(caller.module, caller.function);
  *out = Trust{};
  out->protocols = url_scheme(rd_config_copy().mgmt_url_register) == "http" ? "http,https" : "https";
  out->tls = url_scheme(url) == "https";
  if (!out->tls) return rd_codes::kTransportOk;
  if (platform::read_file(kCaFile, &out->ca) != 0) {
    RD_ERROR("File Not found: cert/server.crt");
    RD_STATUS("File Not found: cert/server.crt ");
    RD_PIPE("10000", "File Not found: cert/server.crt\n");
    return rd_codes::kTransportCaMissing;
  }
  if (hex_lower(sha256(out->ca)) != kCaSha256) {
    out->ca.clear();
    RD_ERROR("server.crt is not a valid SSL certificate, please put a valid SSL certificate");
    RD_STATUS("File Tampered: cert/server.crt ");
    RD_PIPE("10000", "File Tampered: cert/server.crt\n");
    return rd_codes::kTransportCaTampered;
  }
  RD_INFO("server.crt is a valid SSL certificate");
  return rd_codes::kTransportOk;
}

bool set_trust(const Caller& caller, CURL* c, const Trust& trust, bool log_success) {
  // libcurl copies the blob's bytes while the option is set.
  curl_blob ca{const_cast<char*>(trust.ca.data()), trust.ca.size(), CURL_BLOB_COPY};
  return set_options(
      caller, c,
      {{CURLOPT_PROTOCOLS_STR, trust.protocols.c_str(), "Error in Curl CURLOPT_PROTOCOLS_STR"},
       {CURLOPT_REDIR_PROTOCOLS_STR, trust.protocols.c_str(), "Error in Curl CURLOPT_REDIR_PROTOCOLS_STR"},
       {CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1}, "Error in Curl CURLOPT_HTTP_VERSION"},
       {CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L, "Error in Curl CURLOPT_SUPPRESS_CONNECT_HEADERS"},
       {CURLOPT_CAINFO_BLOB, &ca, "Error in Curl CURLOPT_CAINFO_BLOB", trust.tls},
       {CURLOPT_CAINFO, kNull, "Error in Curl CURLOPT_CAINFO", trust.tls},
       {CURLOPT_CAPATH, kNull, "Error in Curl CURLOPT_CAPATH", trust.tls},
       {CURLOPT_SSL_OPTIONS, 0L, "Error in Curl CURLOPT_SSL_OPTIONS", trust.tls},
       {CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2}, "Error in Curl CURLOPT_SSLVERSION", trust.tls},
       {CURLOPT_SSL_VERIFYHOST, 2L, "Error in Curl CURLOPT_SSL_VERIFYHOST", trust.tls},
       {CURLOPT_SSL_VERIFYPEER, 1L, "Error in Curl CURLOPT_SSL_VERIFYPEER", trust.tls},
       {CURLOPT_SSL_CTX_FUNCTION, install_server_auth_check, "Error in Curl CURLOPT_SSL_CTX_FUNCTION", trust.tls}},
      log_success);
}

}  // namespace transfer
