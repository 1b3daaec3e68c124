// Request dispatch through the real listener: every verb and edge case checked
// on the exact bytes the client receives.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "front_test_util.h"
#include "common/rd_status.h"
#include "semaphore/semaphore_syc.h"

using namespace fronttest;

namespace {

const char kCors[] =
    "\r\nAccess-Control-Allow-Origin: *\r\nAccess-Control-Allow-Methods:RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH\r\n"
    "ACCESS-CONTROL-ALLOW-HEADERS:Content-Type\r\nContent-Type: text/xml; charset=utf-8";
const char kBadPidOptions[] =
    "<PidData>\n<Resp errCode=\"100\" errInfo=\"Invalid input Pid-Options, XML should strictly adhere to spec\"\n"
    "<PidData />\n";
const char kPostAuth[] = "POSTAUTH /rd/postauth HTTP/1.1\r\nContent-Length: 11\r\n\r\n<PostAuth/>";

class DispatchTest : public FrontTest {
 protected:
  void SetUp() override {
    FrontTest::SetUp();
    port_ = start_server();
    ASSERT_NE(port_, 0);
  }
  int port_ = 0;
};

std::string capture_request(const std::string& path, const std::string& version, const std::string& body) {
  return "CAPTURE " + path + " " + version + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A PostAuthResp refusal, written out independently.
std::string refused_postauth(int port, const std::string& code, const std::string& text, const std::string& status) {
  std::string body =
      "<PostAuthResp>\n\t<Device Dev_ErrorCode = \"-1\"  Description = \"Command Not Sent to Device\"  "
      "Response_value = \"(null)\" />\n\t<RD RD_ErrorCode = \"" + code + "\"   Description = \"" + text +
      "\"  RD_Status = \"" + status + "\" />\n</PostAuthResp>";
  return ok_header(port, "/rd/postauth", body.size()) + body;
}

std::string busy_postauth(int port) {
  return refused_postauth(port, "710", "Being used by another application", "USED");
}

// Without the handheld library (another scanner) there is no port to open.
std::string no_port_postauth(int port) {
  return refused_postauth(port, "-10", "Opening COM Port is failed for device", "READY");
}

TEST_F(DispatchTest, AnswersEveryVerbByteForByte) {
  const int p = port_;
  const std::string body = discovery_body("READY");
  const std::string origin = "http://localhost:3000";
  const std::string bad_capture = ok_header(p, "/rd/capture", 114) + kBadPidOptions;
  struct Row {
    const char* name;
    std::string request;
    std::string answer;
  };
  const std::vector<Row> rows = {
      {"OPTIONS without Origin", "OPTIONS /rd/capture HTTP/1.1\r\n\r\n",
       std::string("HTTP/1.1 405 \r\nContent-Length: 0") + kCors + "\r\n"},
      {"OPTIONS with Origin", "OPTIONS /rd/capture HTTP/1.1\r\nOrigin: " + origin + "\r\n\r\n",
       "HTTP/1.1 200 OK\r\nACCESS-CONTROL-ALLOW-HEADERS: Content-Type\r\nACCESS-CONTROL-ALLOW-METHODS: "
       "RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH\r\nACCESS-CONTROL-ALLOW-ORIGIN: *\r\nContent-Length: 0\r\nConnection: "
       "close\r\nContent-Type: text/xml; charset=utf-8\r\n\r\n"},
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
      {"POSTAUTH without a handheld device", kPostAuth, no_port_postauth(p)},
      {"verb too long", std::string(20, 'V') + " / HTTP/1.1\r\n\r\n", error_header(400, p, "")},
      {"RDSERVICE path too long", "RDSERVICE /" + std::string(300, 'q') + " HTTP/1.1\r\n\r\n",
       error_header(400, p, "")},
      {"RDSERVICE version too long", "RDSERVICE / HTTP/1.1xxxxxxxxxxxxxxx\r\n\r\n", error_header(400, p, "")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(round_trip(p, row.request), row.answer);
  }
  // Lines logged by the design's functions, not by helpers.
  EXPECT_TRUE(wait_log("server", "process_incoming_message", "PATH VALIDATION FAILED"));
  EXPECT_TRUE(wait_log("server", "Get_PostAuthBody", "Post Auth request doesn't have Body"));
  EXPECT_TRUE(wait_log("server", "process_incoming_message",
                       "Origin value is: " + origin + " AND length of origin is:" + std::to_string(origin.size() + 1)));
}

// A pre-flight from a public page to this local service asks with
// Access-Control-Request-Private-Network; only an OPTIONS answer of 200 to
// such a header line grants it, and every other answer keeps its bytes.
TEST_F(DispatchTest, GrantsPrivateNetworkOnlyToPreflightsThatAsk) {
  const int p = port_;
  const std::string origin = "https://portal.example";
  const std::string ok_options =
      "HTTP/1.1 200 OK\r\nACCESS-CONTROL-ALLOW-HEADERS: Content-Type\r\nACCESS-CONTROL-ALLOW-METHODS: "
      "RDSERVICE,DEVICEINFO,CAPTURE,POSTAUTH\r\nACCESS-CONTROL-ALLOW-ORIGIN: *\r\nContent-Length: 0\r\nConnection: "
      "close\r\nContent-Type: text/xml; charset=utf-8\r\n";
  const std::string grant = "Access-Control-Allow-Private-Network: true\r\n";
  const std::string body = discovery_body("READY");
  auto options = [&](const std::string& extra) {
    return "OPTIONS /rd/capture HTTP/1.1\r\nOrigin: " + origin + "\r\nAccess-Control-Request-Method: CAPTURE\r\n" +
           extra + "\r\n";
  };
  struct Row {
    const char* name;
    std::string request;
    std::string answer;
  };
  const std::vector<Row> rows = {
      {"asks", options("Access-Control-Request-Private-Network: true\r\n"), ok_options + grant + "\r\n"},
      {"asks in lower case, no blank", options("access-control-request-private-network:true\r\n"),
       ok_options + grant + "\r\n"},
      {"asks with a trailing blank", options("Access-Control-Request-Private-Network: true \r\n"),
       ok_options + grant + "\r\n"},
      {"does not ask", options(""), ok_options + "\r\n"},
      {"value false", options("Access-Control-Request-Private-Network: false\r\n"), ok_options + "\r\n"},
      {"value True", options("Access-Control-Request-Private-Network: True\r\n"), ok_options + "\r\n"},
      {"another header's name ends so", options("X-Access-Control-Request-Private-Network: true\r\n"),
       ok_options + "\r\n"},
      {"only in the body, after the blank line",
       "OPTIONS / HTTP/1.1\r\nOrigin: " + origin +
           "\r\nContent-Length: 46\r\n\r\nAccess-Control-Request-Private-Network: true\r\n",
       ok_options + "\r\n"},
      {"no Origin: the 405 stays as it is",
       "OPTIONS / HTTP/1.1\r\nAccess-Control-Request-Private-Network: true\r\n\r\n",
       std::string("HTTP/1.1 405 \r\nContent-Length: 0") + kCors + "\r\n"},
      {"Origin: without a line feed after it",
       "OPTIONS / HTTP/1.1\r\nAccess-Control-Request-Private-Network: true\r\nContent-Length: 8\r\n\r\nOrigin:x",
       std::string("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close") + kCors + "\r\n" + grant + "\r\n"},
      {"not an OPTIONS request", "RDSERVICE / HTTP/1.1\r\nAccess-Control-Request-Private-Network: true\r\n\r\n",
       ok_header(p, "/", body.size()) + body},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(round_trip(p, row.request), row.answer);
  }
}

// However long the origin, every answer that echoes it keeps its header
// within 1024 bytes, ends it with the blank line, and announces the body's
// real length.
TEST_F(DispatchTest, LongOriginsNeverCutTheHeader) {
  const std::string long_path = "/" + std::string(250, 'p');
  const std::vector<std::string> requests = {
      "RDSERVICE / HTTP/1.1\r\n",
      "RDSERVICE " + long_path + " HTTP/1.0\r\n",
      "DEVICEINFO " + long_path + " HTTP/1.1\r\n",
      "OPTIONS / HTTP/1.1\r\n",
      "CAPTURE /rd/capture HTTP/1.1\r\nContent-Length: 4\r\n",
  };
  for (std::size_t length : {840u, 1000u, 1023u, 1500u}) {
    for (const std::string& start : requests) {
      SCOPED_TRACE(start + " origin of " + std::to_string(length));
      std::string request = start + "Origin:" + std::string(length, 'o') + "\r\n\r\n";
      if (start.rfind("CAPTURE", 0) == 0) request += "<a/>";
      std::string answer = round_trip(port_, request);
      std::size_t end = answer.find("\r\n\r\n");
      ASSERT_NE(end, std::string::npos) << answer;
      EXPECT_LE(end + 4, 1023u);
      std::size_t cl = answer.find("Content-Length: ");
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
  struct Row {
    const char* origin;  // the header line, "" for none
    std::string echoed;  // the origin form's value; "" for the form without it
  };
  const Row rows[] = {
      {"Origin: https://bank.example\r\n", " https://bank.example"},
      {"Origin: HTTPS://Branch.Example:8443\r\n", " HTTPS://Branch.Example:8443"},
      {"", ""},
      {"Origin: https://evil.example\r\n", "refused"},
      {"Origin: https://bank.example.evil\r\n", "refused"},
      {"Origin: null\r\n", "refused"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.origin);
    auto ask = [&](const std::string& start, const std::string& rest = "\r\n") {
      return round_trip(p, start + row.origin + rest);
    };
    const bool refused = row.echoed == "refused";
    const char* echo = row.echoed.empty() || refused ? nullptr : row.echoed.c_str();
    EXPECT_EQ(ask("RDSERVICE / HTTP/1.1\r\n"), ok_header(p, "/", body.size(), echo) + body);
    if (refused) {
      EXPECT_EQ(ask("OPTIONS /rd/capture HTTP/1.1\r\n"), error_header(403, p, ""));
      EXPECT_EQ(ask("DEVICEINFO /rd/info HTTP/1.1\r\n"), error_header(403, p, "/rd/info"));
      EXPECT_EQ(ask("POSTAUTH /rd/postauth HTTP/1.1\r\n"), error_header(403, p, "/rd/postauth"));
      EXPECT_EQ(ask("CAPTURE /rd/capture HTTP/1.1\r\n", "\r\n<a/>"), error_header(403, p, "/rd/capture"));
    } else {
      EXPECT_EQ(ask("CAPTURE /rd/capture HTTP/1.1\r\n", "\r\n<a/>"),  // no Content-Length: errCode 100
                ok_header(p, "/rd/capture", 114, echo) + kBadPidOptions);
      EXPECT_EQ(ask("POSTAUTH /postauth HTTP/1.1\r\n"), error_header(400, p, "/postauth", echo));
      EXPECT_EQ(ask("OPTIONS /rd/capture HTTP/1.1\r\n").rfind(row.origin[0] ? "HTTP/1.1 200 OK" : "HTTP/1.1 405 ", 0),
                0u);
    }
  }
  EXPECT_TRUE(wait_log("server", "process_incoming_message",
                       "Origin https://evil.example is not in ALLOWED_ORIGINS: no CORS grant"));
}

// The status shows in the discovery answer; while it is USED a POSTAUTH is
// refused with RD code 710 and the device is not asked.
TEST_F(DispatchTest, StatusDecidesDiscoveryAndPostAuth) {
  const struct {
    void (*set)();
    const char* text;
    std::string postauth;
  } rows[] = {{set_rd_status_notready, "NOTREADY", refused_postauth(port_, "720", "Device not ready", "NOTREADY")},
              {set_rd_status_used, "USED", busy_postauth(port_)},
              {set_rd_status_ready, "READY", no_port_postauth(port_)}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    row.set();
    EXPECT_EQ(round_trip(port_, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port_, row.text));
    EXPECT_EQ(round_trip(port_, kPostAuth), row.postauth);
  }
  EXPECT_TRUE(wait_log("postauth", "PostAuth", "RD Service is in USED state, please wait for some time"));
}

// While another holder has the handheld device, discovery reports USED and a
// POSTAUTH is refused as busy.
TEST_F(DispatchTest, BusyHandheldDeviceMakesTheServiceUsed) {
  set_scanner("Tavio_TX9");
  set_lock_timeouts_for_test(200, 200);
  platform::set_lock_dir_for_test(dir_.path());
  ASSERT_EQ(init_semaphore_Tavio(), 0);
  ASSERT_EQ(Lock_Semaphore_Tavio(), 0);
  set_rd_status_ready();
  EXPECT_EQ(round_trip(port_, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port_, "USED"));
  // USED lasts as long as the request that found the device busy.
  EXPECT_EQ(get_rd_status_index(), kRdReady);
  EXPECT_EQ(round_trip(port_, kPostAuth), busy_postauth(port_));
  EXPECT_EQ(get_rd_status_index(), kRdReady);
  Unlock_Semaphore_Tavio();
}

TEST_F(DispatchTest, RejectedCaptureIsReportedToTheFrontEnd) {
  testutil::PipeReader pipe(dir_.path());
  ASSERT_EQ(create_Pipe(), 0);
  EXPECT_EQ(round_trip(port_, capture_request("/rd/capture", "HTTP/1.1", "<" + std::string(1024, 'b'))),
            ok_header(port_, "/rd/capture", 114) + kBadPidOptions);
  EXPECT_TRUE(pipe.wait_for("10000|Error at Parsing the capture request\n"));
  EXPECT_EQ(pipe.received(), "10000|Error at Parsing the capture request\n");
  expect_status_line(" | server | process_incoming_message | Error at Parsing the capture request ");
}

// The largest capture body passes the checks and reaches the request-body
// region whole; the refusals are answered through the listener above.
TEST(ParseCaptureRequest, TakesABodyOfExactly1024Bytes) {
  std::string body = "<" + std::string(1023, 'c');
  std::vector<char> region(kReqBodySize, '\x7f');
  EXPECT_EQ(ParseHTTP_ReqCapture(capture_request("/rd/capture", "HTTP/1.1", body).c_str(), region.data()), 0);
  EXPECT_EQ(std::string(region.data()), body);
}

}  // namespace
