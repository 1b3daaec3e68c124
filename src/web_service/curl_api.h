// HTTP(S) transport between the Management client and the Management server,
// on libcurl's easy interface.
//
// Every call keeps its buffers and counters to itself, so calls may run on
// different threads at once. Endpoints, proxy and the debug level come from
// the configuration record; TLS is used for the POST and the GET when the
// register URL is an "https://" one.
#ifndef VEXO_WEB_SERVICE_CURL_API_H
#define VEXO_WEB_SERVICE_CURL_API_H

#include <cstddef>
#include <string>

// Limits of one exchange with the Management server.
inline constexpr std::size_t kZelmMaxBody = 29999;    // POST response body
inline constexpr std::size_t kZelmMaxHeaders = 4095;  // POST response headers
inline constexpr std::size_t kZelmMaxGetBody = 4095;  // GET response body
inline constexpr long kZelmTimeoutSeconds = 90;       // whole transfer, POST and GET
inline constexpr long kZelmConnectTimeoutSeconds = 60;  // GET connect
// The CA file that vouches for the Management server, and its pinned SHA-256.
inline constexpr const char* kZelmCaFile = "./cert/server.crt";
extern const char* const kZelmCaSha256;

// POSTs the JSON request with its RD_DRT header and checks the response's
// RD_DRT. *response receives the body (at most kZelmMaxBody bytes).
// 0 when a verified response arrived; -1 an option could not be set;
// -14 no RD_DRT; -15 CA file unreadable; -16 CA file not the pinned one;
// -17 time-out; -18 cannot connect; -19 out of memory; -20 any other
// transfer failure (an oversized response included); -22 no RD_DRT in the
// response; -23 an RD_DRT that does not verify.
int sendData2Zelm(const std::string& url, const std::string& request, std::string* response);

// GETs a small document (at most kZelmMaxGetBody bytes) into *response.
// The second argument is not used. 0 or -1.
int GetDataFromZelm(const std::string& url, const void* unused, std::string* response);

// GETs url into memory, then replaces path with it in one step. The libcurl
// result (0 on success), or -1 when path cannot be written or an option
// cannot be set.
int Curl_Download_File(const std::string& url, long connect_timeout, long timeout, const std::string& path);

// Test seam: the whole-transfer time-out of the POST and the GET in seconds
// (0 restores kZelmTimeoutSeconds).
void set_zelm_timeout_for_test(long seconds);
// The time-out in effect.
long zelm_timeout_seconds();

#endif  // VEXO_WEB_SERVICE_CURL_API_H
