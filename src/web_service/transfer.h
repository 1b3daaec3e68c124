// The libcurl toolkit of the Management client: the process's one global
// initialisation, the owners of easy handles, header lists and connection
// shares, each call's options as a table, and the trust settings that every
// transfer to the Management server and its files carries.
//
// Trust: a transfer may use HTTPS, and plain HTTP only while the register URL
// (config mgmt_url_register) is an http:// one; no other protocol, also not
// after a redirect. It asks for HTTP/1.1 and keeps a proxy's CONNECT answer
// out of the collected headers. Over HTTPS (TLS 1.2 or later) the CA file
// cert/server.crt is the only trust anchor: its bytes are checked against the
// pinned SHA-256 and those very bytes are handed to libcurl, with no CA folder
// and no system store; the server's name must match its certificate, and the
// certificate must name serverAuth among its extended key usages.
//
// Thread-safety: every function may run on any thread; an easy handle, a
// header list or a share belongs to one thread at a time.
#ifndef VEXO_WEB_SERVICE_TRANSFER_H
#define VEXO_WEB_SERVICE_TRANSFER_H

#include <curl/curl.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <variant>

namespace transfer {

// The CA file that vouches for the Management server, and its pinned SHA-256
// (64 lower-case hexadecimal digits, fixed when the library is built).
inline constexpr const char* kCaFile = "./cert/server.crt";
extern const char* const kCaSha256;
// True when the pin is the demonstration CA's, whose private key is public.
bool pin_is_demonstration();

struct EasyFree {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;
struct SlistFree {
  void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using Slist = std::unique_ptr<curl_slist, SlistFree>;
struct ShareFree {
  void operator()(CURLSH* s) const { curl_share_cleanup(s); }
};
using Share = std::unique_ptr<CURLSH, ShareFree>;

// A new easy handle, after the process's one curl_global_init. Null when
// libcurl cannot make one.
Easy new_easy();
// A share of connections, TLS sessions and name lookups for handles that run
// one after another on one thread, so that they reuse one connection. Null
// when libcurl cannot make one (the handles then connect on their own).
Share new_share();

// The module and function that a toolkit's log and last-status lines name.
struct Caller {
  const char* module;
  const char* function;
};

// A value of an option: a number, a pointer (text, buffer, list, blob,
// share), or one of the two callback types the calls use.
using Value = std::variant<long, const void*, curl_write_callback, curl_ssl_ctx_callback>;
// A null pointer value (a bare nullptr would fit every pointer alternative).
inline constexpr const void* kNull = nullptr;

// One row of a call's option table: the option, its value and the text that
// is logged when it cannot be set. A row whose `when` is false is skipped.
struct Option {
  CURLoption option;
  Value value;
  const char* failure;
  bool when = true;
};

// Sets the rows in table order. On the first failure logs its text in the run
// log and the last-status line under caller and returns false. With
// log_success every option that was set logs "CURLOPT_<NAME> success".
bool set_options(const Caller& caller, CURL* c, std::initializer_list<Option> table, bool log_success = false);

// The scheme of url as curl_url parses it, in lower case ("https" for
// "HTTPS://..."); empty when url does not parse.
std::string url_scheme(const std::string& url);

// The trust settings of one transfer, prepared before its handle is set up.
struct Trust {
  std::string protocols;  // "https", or "http,https" under an http:// register URL
  bool tls = false;       // the transfer's URL is an https:// one
  std::string ca;         // the checked bytes of the CA file (tls only)
};

// Prepares the trust of a transfer to url. For an https:// URL reads the CA
// file and checks its SHA-256 against the pin, logging the outcome under
// caller. 0; kTransportCaMissing when the file cannot be read,
// kTransportCaTampered when it is another file (both also reported in the
// last-status line and on the status pipe). *out is complete only on 0.
int prepare_trust(const Caller& caller, const std::string& url, Trust* out);

// Sets the trust options of a prepared transfer, failures as set_options.
bool set_trust(const Caller& caller, CURL* c, const Trust& trust, bool log_success = false);

}  // namespace transfer

#endif  // VEXO_WEB_SERVICE_TRANSFER_H
