// The local listener through real sockets: port choice, request reading in
// every shape, and clients that misbehave.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "front_test_util.h"
#include "http/request_reader.h"
#include "http/server.h"
#include "init/rd_config.h"
#include "init/rd_log.h"
#include "test_util.h"

using namespace fronttest;

namespace {

class ListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(zlog_init("rd.log"), 0);
    rd_identity().mi = "VX100";
    rd_identity().scanner_name = "Aratek_A600";
  }
  void TearDown() override { zlog_fini(); }
  testutil::WorkDir dir_;
};

const char kAnyPortLine[] = "RDSERVICE / HTTP/1.1\r\n";

TEST_F(ListenerTest, WaitsHaveTheirRealDefaults) {
  EXPECT_EQ(recv_wait_ms(), 60000);
  EXPECT_EQ(accept_wait_ms(), 15000);
}

// Ports already blocked on this machine (for example by the TIME_WAIT state a
// previous run left) are skipped like held ones; the expected port is the first
// one that binds.
TEST_F(ListenerTest, SkipsPortsHeldByOtherPrograms) {
  std::vector<int> held;
  for (int port = 11100; port <= 11104; ++port) {
    int s = hold_port(port);
    if (s >= 0) held.push_back(s);
  }
  // A port the test could not hold is already taken (for example by the
  // TIME_WAIT of an earlier test's connection): it counts as held too.
  int expected = 11100;
  while (expected <= 11120 && !port_bindable(expected)) ++expected;
  ASSERT_GE(expected, 11105);
  ASSERT_LE(expected, 11120);
  int port = start_server();
  ASSERT_EQ(port, expected);
  for (int p = 11100; p < expected; ++p) {
    EXPECT_TRUE(log_has("server", "prepare_http_socket",
                        "binding_tcp_socket : failed on port = " + std::to_string(p) + ", Trying for next port"));
  }
  const std::string port_text = std::to_string(expected);
  EXPECT_TRUE(log_has("server", "prepare_http_socket", "socket is bound on port: " + port_text));
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "....................Server Listening On 127.0.0.1 And Port " + port_text +
                          "..................."));

  std::string answer = round_trip(port, std::string(kAnyPortLine) + "\r\n");
  EXPECT_EQ(answer.rfind(ok_header(expected, "/", discovery_body("READY", "VX100").size()), 0), 0u) << answer;
  EXPECT_NE(answer.find("LOCATION: http://127.0.0.1:" + port_text + "/\r\n"), std::string::npos);
  for (int s : held) ::close(s);
}

TEST_F(ListenerTest, FailsWhenAllPortsAreHeld) {
  std::vector<int> held;
  for (int port = 11100; port <= 11120; ++port) {
    int s = hold_port(port);
    if (s >= 0) held.push_back(s);
  }
  platform::socket_t server = platform::kInvalidSocket;
  EXPECT_EQ(prepare_http_socket(&server), -1);
  EXPECT_EQ(server, platform::kInvalidSocket);
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "binding_tcp_socket : failed on Port 11120\nAll Ports are in use, RD Service Can't Run"));
  EXPECT_TRUE(log_has("server", "prepare_http_socket", "binding_tcp_socket : failed on port = 11119, Trying for next port"));
  EXPECT_FALSE(log_has("server", "prepare_http_socket", "binding_tcp_socket : failed on port = 11120, Trying for next port"));
  for (int s : held) ::close(s);
}

// Each row is sent in pieces; the answer must start with the given bytes and
// the receive function must have logged each of the given lines.
TEST_F(ListenerTest, ReadsRequestsOfEveryShape) {
  int port = start_server();
  ASSERT_NE(port, 0);
  const std::string ok = ok_header(port, "/", discovery_body("READY", "VX100").size());
  const std::string too_large = error_header(413, port, "");
  const std::string digits = "0123456789";
  // A request of exactly 2047 bytes fills the area; one more byte does not fit.
  const std::string fit_head = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2001\r\n\r\n";
  const std::string over_head = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2002\r\n\r\n";
  ASSERT_EQ(fit_head.size() + 2001, 2047u);
  struct Row {
    const char* name;
    std::vector<std::string> pieces;
    std::string answer_prefix;
    std::vector<std::string> logged;
  };
  const std::vector<Row> rows = {
      {"no Content-Length", {"RDSERVICE / HTTP/1.1\r\nHost: a\r\n\r\n"}, ok,
       {"Request Header Received", "Current Request will have only Header(No Body)"}},
      {"Content-Length 0", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 0\r\n\r\n"}, ok,
       {" content_length is: 0", "Current Request will have only Header(No Body)"}},
      {"Content-Length not a number", {"RDSERVICE / HTTP/1.1\r\nContent-Length: abc\r\n\r\n"}, ok,
       {" content_length is: 0", "Current Request will have only Header(No Body)"}},
      {"header in single bytes", {"R", "D", "SERVICE / HTTP/1.1\r\n", "\r", "\n"}, ok, {"Request Header Received"}},
      {"body in three pieces",
       {"RDSERVICE / HTTP/1.1\r\nContent-Length: 30\r\n\r\n" + digits, digits, digits},
       ok,
       {" content_length is: 30", "Going to get request body", "Received :10  Expected size: 30",
        "Received :10  Expected size: 20"}},
      {"request filling the area exactly", {fit_head + std::string(2001, 'x')}, ok, {" content_length is: 2001"}},
      {"body one byte past the area", {over_head + std::string(2002, 'x')}, too_large,
       {"Request too large for the receive area"}},
      {"Content-Length far past the area", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 5000\r\n\r\n" +
                                            std::string(5000, 'y')},
       too_large, {"Request too large for the receive area"}},
      {"huge Content-Length", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 99999999999999\r\n\r\n"}, too_large,
       {" content_length is: 2147483647", "Request too large for the receive area"}},
      {"header without its blank line", {"RDSERVICE / HTTP/1.1\r\nX-Pad: " + std::string(2100, 'z')}, too_large,
       {"Request too large for the receive area"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::size_t offset = log_text().size();
    std::string answer = exchange_pieces(port, row.pieces, 100);
    EXPECT_EQ(answer.substr(0, row.answer_prefix.size()), row.answer_prefix);
    if (row.answer_prefix == too_large) {
      EXPECT_EQ(answer, too_large);
    }
    for (const std::string& line : row.logged) {
      EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", line, offset)) << line;
    }
  }
  // The pieces were joined into one request.
  EXPECT_NE(log_text().find("Request is:\nRDSERVICE / HTTP/1.1\r\nContent-Length: 30\r\n\r\n" + digits + digits +
                            digits + "\n"),
            std::string::npos);
}

TEST_F(ListenerTest, DropsClientsThatCloseOrStaySilent) {
  set_recv_wait_ms_for_test(300);
  int port = start_server();
  ASSERT_NE(port, 0);
  struct Row {
    const char* name;
    std::string sent;  // then the client closes (or, when silent, waits)
    bool silent;
    const char* logged;
  };
  const Row rows[] = {
      {"close before any byte", "", false, "recv failed"},
      {"close inside the header", "RDSERVICE / HTTP/1.1\r\nHo", false, "recv failed in loop"},
      {"close inside the body", "RDSERVICE / HTTP/1.1\r\nContent-Length: 9\r\n\r\n<ab", false,
       "Receiving Body, From Socket Failed"},
      {"silent client", "", true, "Timeout to receive data from client"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::size_t offset = log_text().size();
    int s = connect_to(port);
    ASSERT_GE(s, 0);
    if (!row.sent.empty()) {
      ASSERT_EQ(::send(s, row.sent.data(), row.sent.size(), MSG_NOSIGNAL), static_cast<ssize_t>(row.sent.size()));
    }
    if (row.silent) {
      // The server gives up after the shortened wait and closes: no answer.
      auto start = std::chrono::steady_clock::now();
      EXPECT_EQ(read_until_close(s, 3000), "");
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
    } else {
      ::shutdown(s, SHUT_WR);
    }
    ::close(s);
    EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", row.logged, offset));
    EXPECT_TRUE(
        wait_log("server", "process_incoming_message", "recv failed : Could not received data bytes", offset));
  }
  std::string status = testutil::last_status();
  EXPECT_NE(status.find(" | server | process_incoming_message | recv failed : Could not received data bytes "),
            std::string::npos)
      << status;
}

// After each connection thread starts the accept loop pauses 100 ms, so the
// third of three simultaneous clients is answered no sooner than 200 ms later.
TEST_F(ListenerTest, PausesBetweenAccepts) {
  int port = start_server();
  ASSERT_NE(port, 0);
  auto start = std::chrono::steady_clock::now();
  std::vector<std::future<std::string>> answers;
  for (int i = 0; i < 3; ++i) {
    answers.push_back(std::async(std::launch::async, [port] {
      return round_trip(port, "RDSERVICE / HTTP/1.1\r\n\r\n");
    }));
  }
  for (auto& a : answers) EXPECT_EQ(a.get().rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

}  // namespace
