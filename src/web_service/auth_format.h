// The RD_DRT header of a Management server's response: picked out of the
// collected response headers and checked against the response body and the
// request's own RD_DRT.
#ifndef VEXO_WEB_SERVICE_AUTH_FORMAT_H
#define VEXO_WEB_SERVICE_AUTH_FORMAT_H

#include <string>
#include <string_view>

// The value of the first RD_DRT header in headers (its name in any case, as
// HTTP allows), up to the first white space. 0, or -1 when the headers are
// empty or carry no RD_DRT (*rdt cleared).
int ParseResponseRDT(std::string_view headers, std::string* rdt);

// 0 when the response's RD_DRT binds body to request_drt; -22 when the
// headers carry no RD_DRT; -23 when it is present but does not verify.
int ResponseDRTCheck(std::string_view body, std::string_view headers, const std::string& request_drt);

#endif  // VEXO_WEB_SERVICE_AUTH_FORMAT_H
