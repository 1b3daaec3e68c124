// Request dispatch through the real listener: every verb and edge case checked
// on the exact bytes the client receives.
#include <cstdlib>
#include <sstream>

#include "common/rd_config.h"
#include "common/work_area.h"
#include "http/server.h"
#include "test_util.h"

using namespace testutil;

namespace {

// A text of a data file: \r \n \t and \\ stand for those bytes, {PORT}
// for the listener's port and {N*c} for the character c N times.
std::string unescape(const std::string& in, int port) {
  std::string out;
  for (std::size_t i = 0; i < in.size(); ++i) {
    if (in[i] == '\\') {
      const char c = in[++i];
      out += c == 'r' ? '\r' : c == 'n' ? '\n' : c == 't' ? '\t' : c;
    } else if (in.compare(i, 6, "{PORT}") == 0) {
      out += std::to_string(port);
      i += 5;
    } else if (in[i] == '{') {
      const std::size_t star = in.find('*', i);
      out.append(std::stoul(in.substr(i + 1, star - i - 1)), in[star + 1]);
      i = star + 2;
    } else {
      out += in[i];
    }
  }
  return out;
}

class DispatchTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    port_ = start_server();
    ASSERT_NE(port_, 0);
  }

  // Plays the count exchanges of a data file: "== name" starts one, "> " gives
  // its request and "< " the answer the client must receive, byte for byte.
  void play(const std::string& file, std::size_t count) {
    struct Exchange {
      std::string name, request, answer;
    };
    std::vector<Exchange> rows;
    std::istringstream in(data_file(file));
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with("== ")) rows.push_back({line.substr(3), "", ""});
      if (line.starts_with("> ")) rows.back().request = unescape(line.substr(2), port_);
      if (line.starts_with("< ")) rows.back().answer = unescape(line.substr(2), port_);
    }
    ASSERT_EQ(rows.size(), count) << file;
    for (const Exchange& row : rows) {
      SCOPED_TRACE(row.name);
      EXPECT_EQ(http_exchange(port_, row.request), row.answer);
    }
  }

  int port_ = 0;
};

// OPTIONS, RDSERVICE, CAPTURE, DEVICEINFO and POSTAUTH with wrong paths,
// versions, bodies and lengths; POSTAUTH without the handheld library (another
// scanner) finds no port to open. Then pre-flights from a public page to this
// local service: only an OPTIONS answer of 200 to a request with
// Access-Control-Request-Private-Network grants it, and every other answer
// keeps its bytes.
TEST_F(DispatchTest, AnswersEveryVerbAndPreflightByteForByte) {
  play("dispatch_verbs.txt", 29);
  play("dispatch_private_network.txt", 11);
  // Lines logged by the design's functions, not by helpers; a refused capture
  // is reported to the front end.
  EXPECT_TRUE(wait_log("server", "process_incoming_message", "PATH VALIDATION FAILED"));
  EXPECT_TRUE(wait_log("server", "Get_PostAuthBody", "Post Auth request doesn't have Body"));
  EXPECT_TRUE(wait_log("server", "process_incoming_message",
                       "Origin value is: http://localhost:3000 AND length of origin is:22"));
  EXPECT_TRUE(pipe_->wait_for("10000|Error at Parsing the capture request\n"));
  EXPECT_NE(last_status().find(" | server | process_incoming_message | Error at Parsing the capture request "),
            std::string::npos);
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
  play("dispatch_allowed_origins.txt", 27);
  EXPECT_TRUE(wait_log("server", "process_incoming_message",
                       "Origin https://evil.example is not in ALLOWED_ORIGINS: no CORS grant"));
}

// The largest capture body passes the checks and reaches the request-body
// region whole; one byte more is refused (above, through the listener).
TEST(ParseCaptureRequest, TakesABodyOfExactly1024Bytes) {
  const std::string body = "<" + std::string(1023, 'c');
  std::vector<char> region(kReqBodySize, '\x7f');
  const std::string request = "CAPTURE /rd/capture HTTP/1.1\r\nContent-Length: 1024\r\n\r\n" + body;
  EXPECT_EQ(ParseHTTP_ReqCapture(request.c_str(), region.data()), 0);
  EXPECT_EQ(std::string(region.data()), body);
}

}  // namespace
