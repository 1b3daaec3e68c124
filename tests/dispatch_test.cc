// Request dispatch through the real listener: every verb and edge case checked
// on the exact bytes the client receives.
#include <cstdlib>

#include "common/rd_config.h"
#include "common/work_area.h"
#include "http/server.h"
#include "test_util.h"

using namespace testutil;

namespace {

const char kCors[] =
    "\r\nAccess-Control-Allow-Origin: *\r\nAccess-Control-Allow-Methods:RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH\r\n"
    "ACCESS-CONTROL-ALLOW-HEADERS:Content-Type\r\nContent-Type: text/xml; charset=utf-8";
const char kOkOptions[] =
    "HTTP/1.1 200 OK\r\nACCESS-CONTROL-ALLOW-HEADERS: Content-Type\r\nACCESS-CONTROL-ALLOW-METHODS: "
    "RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH\r\nACCESS-CONTROL-ALLOW-ORIGIN: *\r\nContent-Length: 0\r\nConnection: "
    "close\r\nContent-Type: text/xml; charset=utf-8\r\n";
const char kBadPidOptions[] =
    "<PidData>\n<Resp errCode=\"100\" errInfo=\"Invalid input Pid-Options, XML should strictly adhere to spec\"\n"
    "<PidData />\n";
const char kPostAuth[] = "POSTAUTH /rd/postauth HTTP/1.1\r\nContent-Length: 11\r\n\r\n<PostAuth/>";

std::string capture_request(const std::string& path, const std::string& version, const std::string& body) {
  return "CAPTURE " + path + " " + version + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class DispatchTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    port_ = start_server();
    ASSERT_NE(port_, 0);
  }
  int port_ = 0;
};

TEST_F(DispatchTest, AnswersEveryVerbByteForByte) {
  const int p = port_;
  const std::string body = discovery_body("READY"), origin = "http://localhost:3000";
  const std::string bad_capture = ok_header(p, "/rd/capture", 114) + kBadPidOptions;
  // Without the handheld library (another scanner) there is no port to open.
  const std::string no_port =
      "<PostAuthResp>\n\t<Device Dev_ErrorCode = \"-1\"  Description = \"Command Not Sent to Device\"  Response_value = "
      "\"(null)\" />\n\t<RD RD_ErrorCode = \"-10\"   Description = \"Opening COM Port is failed for device\"  "
      "RD_Status = \"READY\" />\n</PostAuthResp>";
  const struct {
    const char* name;
    std::string request, answer;
  } rows[] = {
      {"OPTIONS without Origin", "OPTIONS /rd/capture HTTP/1.1\r\n\r\n",
       std::string("HTTP/1.1 405 \r\nContent-Length: 0") + kCors + "\r\n"},
      {"OPTIONS with Origin", "OPTIONS /rd/capture HTTP/1.1\r\nOrigin: " + origin + "\r\n\r\n",
       std::string(kOkOptions) + "\r\n"},
      {"OPTIONS with Origin: but no line feed after it", "OPTIONS / HTTP/1.1\r\nContent-Length: 8\r\n\r\nOrigin:x",
       std::string("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close") + kCors + "\r\n\r\n"},
      {"RDSERVICE, any path", "RDSERVICE /whatever HTTP/1.1\r\n\r\n", ok_header(p, "/", body.size()) + body},
      {"RDSERVICE with Origin: two blanks before the value", "RDSERVICE / HTTP/1.1\r\nOrigin: " + origin + "\r\n\r\n",
       ok_header(p, "/", body.size(), (" " + origin).c_str()) + body},
      {"RDSERVICE with Origin: null echoes \" null\"", "RDSERVICE / HTTP/1.1\r\nOrigin: null\r\n\r\n",
       ok_header(p, "/", body.size(), " null") + body},
      {"RDSERVICE with Origin:null uses the no-origin form", "RDSERVICE / HTTP/1.1\r\nOrigin:null\r\n\r\n",
       ok_header(p, "/", body.size()) + body},
      {"RDSERVICE over HTTP/1.0 with Origin", "RDSERVICE /x HTTP/1.0\r\nOrigin: " + origin + "\r\n\r\n",
       error_header(505, p, "/x", (" " + origin).c_str())},
      {"RDSERVICE: the version comes from the request line only", "RDSERVICE /x\r\nHTTP/1.1 y\r\n\r\n",
       error_header(505, p, "/x")},
      {"CAPTURE with /rd/Capture", capture_request("/rd/Capture", "HTTP/1.1", "<PidOptions/>"),
       error_header(400, p, "/rd/capture")},
      {"CAPTURE over HTTP/1.0", capture_request("/rd/capture", "HTTP/1.0", "<PidOptions/>"),
       error_header(505, p, "/rd/capture")},
      {"CAPTURE with a 1025-byte body", capture_request("/rd/capture", "HTTP/1.1", "<" + std::string(1024, 'a')),
       bad_capture},
      {"CAPTURE without a body", "CAPTURE /rd/capture HTTP/1.1\r\n\r\n", bad_capture},
      {"CAPTURE without a version", "CAPTURE /rd/capture\r\nContent-Length: 4\r\n\r\n<a/>", bad_capture},
      {"CAPTURE path longer than its field", capture_request("/" + std::string(60, 'x'), "HTTP/1.1", "<a/>"),
       error_header(400, p, "/rd/capture")},
      {"CAPTURE without Content-Length", "CAPTURE /rd/capture HTTP/1.1\r\nHost: a\r\n\r\n<a/>", bad_capture},
      {"CAPTURE whose body is not Content-Length long",
       "CAPTURE /rd/capture HTTP/1.1\r\nContent-Length: 3\r\nX: <\r\n\r\n<a/>", bad_capture},
      {"capture in lower case", "capture /rd/capture HTTP/1.1\r\nContent-Length: 4\r\n\r\n<a/>",
       error_header(405, p, "")},
      {"GET with a long path is still an unknown verb", "GET /" + std::string(400, 'g') + " HTTP/1.1\r\n\r\n",
       error_header(405, p, "")},
      {"DEVICEINFO for /info", "DEVICEINFO /info HTTP/1.1\r\n\r\n", error_header(400, p, "/info")},
      {"DEVICEINFO over HTTP/1.0", "DEVICEINFO /rd/info HTTP/1.0\r\n\r\n", error_header(505, p, "/rd/info")},
      {"DEVICEINFO, wrong path and version", "DEVICEINFO /info HTTP/1.0\r\n\r\n", error_header(505, p, "/info")},
      {"POSTAUTH for /postauth", "POSTAUTH /postauth HTTP/1.1\r\n\r\n", error_header(400, p, "/postauth")},
      {"POSTAUTH over HTTP/1.0", "POSTAUTH /rd/postauth HTTP/1.0\r\n\r\n", error_header(505, p, "/rd/postauth")},
      {"POSTAUTH without a body", "POSTAUTH /rd/postauth HTTP/1.1\r\n\r\n", error_header(422, p, "/rd/postauth")},
      {"POSTAUTH without a handheld device", kPostAuth, ok_header(p, "/rd/postauth", no_port.size()) + no_port},
      {"verb too long", std::string(20, 'V') + " / HTTP/1.1\r\n\r\n", error_header(400, p, "")},
      {"RDSERVICE path too long", "RDSERVICE /" + std::string(300, 'q') + " HTTP/1.1\r\n\r\n",
       error_header(400, p, "")},
      {"RDSERVICE version too long", "RDSERVICE / HTTP/1.1xxxxxxxxxxxxxxx\r\n\r\n", error_header(400, p, "")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(http_exchange(p, row.request), row.answer);
  }
  // Lines logged by the design's functions, not by helpers; a refused capture
  // is reported to the front end.
  EXPECT_TRUE(wait_log("server", "process_incoming_message", "PATH VALIDATION FAILED"));
  EXPECT_TRUE(wait_log("server", "Get_PostAuthBody", "Post Auth request doesn't have Body"));
  EXPECT_TRUE(wait_log("server", "process_incoming_message",
                       "Origin value is: " + origin + " AND length of origin is:" + std::to_string(origin.size() + 1)));
  EXPECT_TRUE(pipe_->wait_for("10000|Error at Parsing the capture request\n"));
  EXPECT_NE(last_status().find(" | server | process_incoming_message | Error at Parsing the capture request "),
            std::string::npos);
}

// A pre-flight from a public page to this local service asks with
// Access-Control-Request-Private-Network; only an OPTIONS answer of 200 to
// such a header line grants it, and every other answer keeps its bytes.
TEST_F(DispatchTest, GrantsPrivateNetworkOnlyToPreflightsThatAsk) {
  const std::string grant = "Access-Control-Allow-Private-Network: true\r\n", body = discovery_body("READY");
  auto options = [](const std::string& extra) {
    return "OPTIONS /rd/capture HTTP/1.1\r\nOrigin: https://portal.example\r\nAccess-Control-Request-Method: "
           "CAPTURE\r\n" +
           extra + "\r\n";
  };
  const struct {
    const char* name;
    std::string request, answer;
  } rows[] = {
      {"asks", options("Access-Control-Request-Private-Network: true\r\n"), kOkOptions + grant + "\r\n"},
      {"asks in lower case, no blank", options("access-control-request-private-network:true\r\n"),
       kOkOptions + grant + "\r\n"},
      {"asks with a trailing blank", options("Access-Control-Request-Private-Network: true \r\n"),
       kOkOptions + grant + "\r\n"},
      {"does not ask", options(""), std::string(kOkOptions) + "\r\n"},
      {"value false", options("Access-Control-Request-Private-Network: false\r\n"), std::string(kOkOptions) + "\r\n"},
      {"value True", options("Access-Control-Request-Private-Network: True\r\n"), std::string(kOkOptions) + "\r\n"},
      {"another header's name ends so", options("X-Access-Control-Request-Private-Network: true\r\n"),
       std::string(kOkOptions) + "\r\n"},
      {"only in the body, after the blank line",
       "OPTIONS / HTTP/1.1\r\nOrigin: https://portal.example\r\nContent-Length: 46\r\n\r\n"
       "Access-Control-Request-Private-Network: true\r\n",
       std::string(kOkOptions) + "\r\n"},
      {"no Origin: the 405 stays as it is",
       "OPTIONS / HTTP/1.1\r\nAccess-Control-Request-Private-Network: true\r\n\r\n",
       std::string("HTTP/1.1 405 \r\nContent-Length: 0") + kCors + "\r\n"},
      {"Origin: without a line feed after it",
       "OPTIONS / HTTP/1.1\r\nAccess-Control-Request-Private-Network: true\r\nContent-Length: 8\r\n\r\nOrigin:x",
       std::string("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close") + kCors + "\r\n" + grant + "\r\n"},
      {"not an OPTIONS request", "RDSERVICE / HTTP/1.1\r\nAccess-Control-Request-Private-Network: true\r\n\r\n",
       ok_header(port_, "/", body.size()) + body},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(http_exchange(port_, row.request), row.answer);
  }
}

// However long the origin, every answer that echoes it keeps its header
// within 1024 bytes, ends it with the blank line, and announces the body's
// real length.
TEST_F(DispatchTest, LongOriginsNeverCutTheHeader) {
  const std::string long_path = "/" + std::string(250, 'p');
  for (std::size_t length : {840u, 1000u, 1023u, 1500u}) {
    for (const std::string& start :
         {std::string("RDSERVICE / HTTP/1.1\r\n"), "RDSERVICE " + long_path + " HTTP/1.0\r\n",
          "DEVICEINFO " + long_path + " HTTP/1.1\r\n", std::string("OPTIONS / HTTP/1.1\r\n"),
          std::string("CAPTURE /rd/capture HTTP/1.1\r\nContent-Length: 4\r\n")}) {
      SCOPED_TRACE(start + " origin of " + std::to_string(length));
      const std::string body = start[0] == 'C' ? "<a/>" : "";
      const std::string answer = http_exchange(port_, start + "Origin:" + std::string(length, 'o') + "\r\n\r\n" + body);
      const std::size_t end = answer.find("\r\n\r\n"), cl = answer.find("Content-Length: ");
      ASSERT_NE(end, std::string::npos) << answer;
      EXPECT_LE(end + 4, 1023u);
      ASSERT_LT(cl, end);
      EXPECT_EQ(std::strtoul(answer.c_str() + cl + 16, nullptr, 10), answer.size() - end - 4);
    }
  }
  EXPECT_TRUE(wait_log("server", "process_incoming_message",
                       "Origin value is:" + std::string(1023, 'o') + " AND length of origin is:1023"));
}

// With ALLOWED_ORIGINS set, pages of other origins get no CORS grant and no
// device verb; programs (no Origin) and the listed portals are served as
// before, and discovery stays open to all. "null" (sandboxed pages, local
// files) is never on the list.
TEST_F(DispatchTest, OriginListDecidesWhoIsServed) {
  rd_config_update([](RdConfig& c) { c.allowed_origins = "https://bank.example, https://branch.example:8443"; });
  const int p = port_;
  const std::string body = discovery_body("READY");
  const struct {
    const char* origin;  // the header line, "" for none
    const char* echoed;  // the origin form's value; "" the form without it; nullptr refused
  } rows[] = {
      {"Origin: https://bank.example\r\n", " https://bank.example"},
      {"Origin: HTTPS://Branch.Example:8443\r\n", " HTTPS://Branch.Example:8443"},
      {"", ""},
      {"Origin: https://evil.example\r\n", nullptr},
      {"Origin: https://bank.example.evil\r\n", nullptr},
      {"Origin: null\r\n", nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.origin);
    auto ask = [&](const std::string& start, const std::string& rest = "\r\n") {
      return http_exchange(p, start + row.origin + rest);
    };
    const char* echo = row.echoed == nullptr || *row.echoed == '\0' ? nullptr : row.echoed;
    EXPECT_EQ(ask("RDSERVICE / HTTP/1.1\r\n"), ok_header(p, "/", body.size(), echo) + body);
    if (row.echoed == nullptr) {
      EXPECT_EQ(ask("OPTIONS /rd/capture HTTP/1.1\r\n"), error_header(403, p, ""));
      EXPECT_EQ(ask("DEVICEINFO /rd/info HTTP/1.1\r\n"), error_header(403, p, "/rd/info"));
      EXPECT_EQ(ask("POSTAUTH /rd/postauth HTTP/1.1\r\n"), error_header(403, p, "/rd/postauth"));
      EXPECT_EQ(ask("CAPTURE /rd/capture HTTP/1.1\r\n", "\r\n<a/>"), error_header(403, p, "/rd/capture"));
    } else {
      EXPECT_EQ(ask("CAPTURE /rd/capture HTTP/1.1\r\n", "\r\n<a/>"),  // no Content-Length: errCode 100
                ok_header(p, "/rd/capture", 114, echo) + kBadPidOptions);
      EXPECT_EQ(ask("POSTAUTH /postauth HTTP/1.1\r\n"), error_header(400, p, "/postauth", echo));
      EXPECT_EQ(ask("OPTIONS /rd/capture HTTP/1.1\r\n").rfind(*row.origin ? "HTTP/1.1 200 OK" : "HTTP/1.1 405 ", 0),
                0u);
    }
  }
  EXPECT_TRUE(wait_log("server", "process_incoming_message",
                       "Origin https://evil.example is not in ALLOWED_ORIGINS: no CORS grant"));
}

// The largest capture body passes the checks and reaches the request-body
// region whole; one byte more is refused (above, through the listener).
TEST(ParseCaptureRequest, TakesABodyOfExactly1024Bytes) {
  const std::string body = "<" + std::string(1023, 'c');
  std::vector<char> region(kReqBodySize, '\x7f');
  EXPECT_EQ(ParseHTTP_ReqCapture(capture_request("/rd/capture", "HTTP/1.1", body).c_str(), region.data()), 0);
  EXPECT_EQ(std::string(region.data()), body);
}

}  // namespace
