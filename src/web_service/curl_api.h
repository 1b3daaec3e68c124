// HTTP(S) transport between the Management client and the Management server,
// on libcurl's easy interface.
//
// Every call keeps its buffers and counters to itself, so calls may run on
// different threads at once. Endpoints, proxy and the debug level come from
// the configuration record; protocols, HTTP version and the pinned CA are the
// trust settings of web_service/transfer.h, common to every transfer.
#ifndef VEXO_WEB_SERVICE_CURL_API_H
#define VEXO_WEB_SERVICE_CURL_API_H

#include <cstddef>
#include <string>

// Limits of one exchange with the Management server.
inline constexpr std::size_t kZelmMaxBody = 29999;      // POST response body
inline constexpr std::size_t kZelmMaxHeaders = 4095;    // POST response headers
inline constexpr std::size_t kZelmMaxGetBody = 4095;    // GET response body
inline constexpr long kZelmTimeoutSeconds = 90;         // whole transfer, POST and GET
inline constexpr long kZelmConnectTimeoutSeconds = 60;  // GET connect

// POSTs the JSON request with its RD_DRT header and checks the response's
// RD_DRT. *response receives the body (at most kZelmMaxBody bytes). Codes of
// the transport family (common/rd_codes.h): 0 when a verified response
// arrived; -1 an option could not be set; -14 no RD_DRT; -15 CA file
// unreadable; -16 CA file not the pinned one; -17 time-out; -18 cannot
// connect; -19 out of memory; -20 any other transfer failure (an oversized
// response, a refused certificate or protocol included); -22 no RD_DRT in
// the response; -23 an RD_DRT that does not verify.
int sendData2Zelm(const std::string& url, const std::string& request, std::string* response);

// GETs a small document (at most kZelmMaxGetBody bytes) into *response.
// The second argument is not used. 0, or -1 (the CA file not usable
// included).
int GetDataFromZelm(const std::string& url, const void* unused, std::string* response);

// GETs url into path, which is replaced in one step after a complete
// transfer; a transfer that would pass max_bytes stops as soon as it does.
// The libcurl result (0 on success; 23 for a body over max_bytes), or -1 when
// path cannot be written, an option cannot be set or the CA file is not usable.
int Curl_Download_File(const std::string& url, long connect_timeout, long timeout, const std::string& path,
                       std::size_t max_bytes);

// The whole-transfer time-out of the POST and the GET in seconds:
// kZelmTimeoutSeconds unless a test shortened it.
long zelm_timeout_seconds();

#endif  // VEXO_WEB_SERVICE_CURL_API_H
