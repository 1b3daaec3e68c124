// The local listener through real sockets: port choice and restarts, request
// reading in every shape, clients that misbehave, and failures inside a
// connection thread.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "front_test_util.h"
#include "common/request_reader.h"
#include "platform/socket_extra.h"
#include "ssl/sslCommunication.h"
#include "test_sys.h"

using namespace fronttest;

namespace {

using ListenerTest = FrontTest;

TEST_F(ListenerTest, WaitsHaveTheirRealDefaults) {
  EXPECT_EQ(recv_wait_ms(), 60000);
  EXPECT_EQ(accept_wait_ms(), 15000);
  EXPECT_EQ(accept_pause_ms(), 100u);
}

// Ports other programs listen on are skipped; with every port taken start-up
// fails. A port that cannot be held is blocked already (by the TIME_WAIT of a
// listener without SO_REUSEADDR, such as another build's): it counts as held.
TEST_F(ListenerTest, TakesTheFirstPortNoOtherProgramListensOn) {
  std::vector<int> held;
  for (int port = 11100; port <= 11104; ++port) held.push_back(hold_port(port));
  int expected = 11105;
  while (expected < 11120 && !port_bindable(expected, true)) ++expected;
  int port = start_server();
  ASSERT_EQ(port, expected);
  for (int p = 11100; p < expected; ++p) {
    EXPECT_TRUE(log_has("server", "prepare_http_socket",
                        "binding_tcp_socket : failed on port = " + std::to_string(p) + ", Trying for next port"));
  }
  const std::string port_text = std::to_string(port);
  EXPECT_TRUE(log_has("server", "prepare_http_socket", "socket is bound on port: " + port_text));
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "....................Server Listening On 127.0.0.1 And Port " + port_text + "..................."));
  EXPECT_EQ(round_trip(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port));

  for (int p = port + 1; p <= 11120; ++p) held.push_back(hold_port(p));
  platform::socket_t server = platform::kInvalidSocket;
  EXPECT_EQ(prepare_http_socket(&server), -1);
  EXPECT_EQ(server, platform::kInvalidSocket);
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "binding_tcp_socket : failed on Port 11120\nAll Ports are in use, RD Service Can't Run"));
  for (int s : held) platform::close_socket(s);
}

// A service in a child process answers one request and closes first, so its
// side of the connection lingers in TIME_WAIT on its port (11100 unless that
// is blocked); then it is killed. The restarted service gets the same port
// back at once; a second listener in the same process still moves on.
// The other service: this program's helper case, in the test's folder. It
// writes its port (0 when it could not bind) into "child.port" and serves
// until it is killed.
TEST(DISABLED_ListenerHelper, ServesUntilKilled) {
  zlog_init("child.log");
  rd_identity_update([](RdIdentity& id) {
    id.mi = "VX100";
    id.scanner_name = "Aratek_A600";
  });
  platform::socket_t server = platform::kInvalidSocket;
  const int result = prepare_http_socket(&server) == 0 ? service_port() : 0;
  testutil::write_file("child.port", std::to_string(result) + "\n");
  if (result != 0) client_connection_handler(&server);
  testsys::end_helper(1);
}

// Starts the helper service; its port, 0 when it did not start.
int start_child_service(std::unique_ptr<testsys::Process>* child) {
  *child = std::make_unique<testsys::Process>(testsys::helper_case("DISABLED_ListenerHelper.ServesUntilKilled"),
                                              "child.out");
  if (!(*child)->started() || !testutil::wait_for_text("child.port", "\n", 30000)) return 0;
  return std::stoi(testutil::read_file("child.port"));
}

TEST_F(ListenerTest, RestartedServiceGetsItsPortBackAtOnce) {
  // The child is ended on every path out, failed assertions included.
  std::unique_ptr<testsys::Process> child;
  const int child_port = start_child_service(&child);
  ASSERT_NE(child_port, 0) << testutil::read_file("child.out");
  int s = connect_to(child_port);
  ASSERT_GE(s, 0);
  std::string request = "RDSERVICE / HTTP/1.1\r\n\r\n";
  ASSERT_EQ(platform::send_socket(s, request.data(), request.size()), static_cast<long>(request.size()));
  EXPECT_EQ(read_until_close(s), discovery_answer(child_port));
  platform::close_socket(s);
  child->kill();
  // Windows binds a port in TIME_WAIT anyway: there only the restart shows.
  if (testsys::kTimeWaitBlocksBind) {
    ASSERT_FALSE(port_bindable(child_port)) << "no TIME_WAIT left behind; the test shows nothing";
  }

  EXPECT_EQ(start_server(), child_port);
  platform::socket_t second = platform::kInvalidSocket;
  EXPECT_EQ(prepare_http_socket(&second), 0);
  EXPECT_GT(service_port(), child_port);
  close_http_socket(second);
}

// Clients whose localhost resolves to ::1 first reach the service at once:
// it listens on [::1] at the port it chose on 127.0.0.1, and the answers keep
// 127.0.0.1 in LOCATION. A second service (another process) moves to the next
// port on both addresses; its [::1] listener neither blocks nor takes the
// first service's port.
TEST_F(ListenerTest, AlsoListensOnIpv6LoopbackAtTheSamePort) {
  std::unique_ptr<testsys::Process> child;
  const int first = start_child_service(&child);
  ASSERT_NE(first, 0) << testutil::read_file("child.out");
  int second = start_server();
  ASSERT_GT(second, first);
  for (int p = first + 1; p < second; ++p) EXPECT_FALSE(port_bindable(p, true)) << p;
  const std::string request = "RDSERVICE / HTTP/1.1\r\n\r\n";
  EXPECT_EQ(round_trip6(first, request), discovery_answer(first));
  EXPECT_EQ(round_trip6(second, request), discovery_answer(second));
  EXPECT_EQ(round_trip(second, request), discovery_answer(second));
  const std::string port_text = std::to_string(second);
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "....................Server Listening On [::1] And Port " + port_text + "..................."));

  // A listener that is dropped gives both addresses back.
  platform::socket_t third = platform::kInvalidSocket;
  ASSERT_EQ(prepare_http_socket(&third), 0);
  const int third_port = service_port();
  EXPECT_GT(third_port, second);
  ASSERT_NE(ipv6_companion_socket(third), platform::kInvalidSocket);
  int probe = connect_to6(third_port);
  EXPECT_GE(probe, 0);
  platform::close_socket(probe);
  close_http_socket(third);
  EXPECT_EQ(ipv6_companion_socket(third), platform::kInvalidSocket);
  EXPECT_EQ(connect_to6(third_port), -1);
}

// Another program holding [::1] at the first free port would answer every
// browser whose localhost resolves to ::1 first: the service skips that port
// and takes the next one where both addresses are free.
TEST_F(ListenerTest, SkipsAPortHeldOnIpv6Loopback) {
  int held = 11100;
  while (held < 11119 && !(port_bindable(held, true) && port_bindable(held + 1, true))) ++held;
  platform::socket_t holder = platform::tcp6_socket();
  ASSERT_NE(holder, platform::kInvalidSocket);
  ASSERT_EQ(platform::bind_loopback6(holder, static_cast<std::uint16_t>(held)), 0);
  ASSERT_EQ(platform::listen_socket(holder, 1), 0);

  int port = start_server();
  EXPECT_EQ(port, held + 1);
  EXPECT_TRUE(log_has("server", "prepare_http_socket", "Port " + std::to_string(held) +
                                                           " is held on [::1] by another program"));
  EXPECT_EQ(round_trip6(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port));
  EXPECT_EQ(round_trip(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port));
  platform::close_socket(holder);
}

// Each row is sent in pieces; the answer must start with the given bytes and
// the receive function must have logged each of the given lines.
TEST_F(ListenerTest, ReadsRequestsOfEveryShape) {
  int port = start_server();
  ASSERT_NE(port, 0);
  const std::string ok = discovery_answer(port);
  const std::string too_large = error_header(413, port, "");
  const std::string digits = "0123456789";
  // A request of exactly 2047 bytes fills the area; one more byte does not fit.
  const std::string fit_head = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2001\r\n\r\n";
  const std::string over_head = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2002\r\n\r\n";
  ASSERT_EQ(fit_head.size() + 2001, 2047u);
  struct Row {
    const char* name;
    std::vector<std::string> pieces;
    std::string answer;
    std::vector<std::string> logged;
  };
  const std::vector<Row> rows = {
      {"no Content-Length", {"RDSERVICE / HTTP/1.1\r\nHost: a\r\n\r\n"}, ok,
       {"Request Header Received", "Current Request will have only Header(No Body)"}},
      {"Content-Length not a number", {"RDSERVICE / HTTP/1.1\r\nContent-Length: abc\r\n\r\n"}, ok,
       {" content_length is: 0", "Current Request will have only Header(No Body)"}},
      {"header in single bytes", {"R", "D", "SERVICE / HTTP/1.1\r\n", "\r", "\n"}, ok, {"Request Header Received"}},
      {"body in three pieces",
       {"RDSERVICE / HTTP/1.1\r\nContent-Length: 30\r\n\r\n" + digits, digits, digits},
       ok,
       {"Going to get request body", "Received :10  Expected size: 30", "Received :10  Expected size: 20"}},
      {"request filling the area exactly", {fit_head + std::string(2001, 'x')}, ok, {" content_length is: 2001"}},
      {"body one byte past the area", {over_head + std::string(2002, 'x')}, too_large,
       {"Request too large for the receive area"}},
      {"huge Content-Length", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 99999999999999\r\n\r\n"}, too_large,
       {" content_length is: 2147483647", "Request too large for the receive area"}},
      {"header without its blank line", {"RDSERVICE / HTTP/1.1\r\nX-Pad: " + std::string(2100, 'z')}, too_large,
       {"Request too large for the receive area"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::size_t offset = log_text().size();
    EXPECT_EQ(exchange_pieces(port, row.pieces, 100), row.answer);
    for (const std::string& line : row.logged) {
      EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", line, offset)) << line;
    }
  }
  // The pieces were joined into one request; its body is never logged.
  EXPECT_TRUE(log_has("server", "process_incoming_message", "Request is: RDSERVICE /, body of 30 bytes, origin: none"));
  EXPECT_EQ(log_text().find(digits + digits), std::string::npos);
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
    (void)platform::send_socket(s, row.sent.data(), row.sent.size());
    if (row.silent) {
      // The server gives up after the shortened wait and closes: no answer.
      auto start = std::chrono::steady_clock::now();
      EXPECT_EQ(read_until_close(s, 3000), "");
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
    } else {
      testsys::shutdown_send(s);
    }
    platform::close_socket(s);
    EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", row.logged, offset));
    EXPECT_TRUE(
        wait_log("server", "process_incoming_message", "recv failed : Could not received data bytes", offset));
  }
  expect_status_line(" | server | process_incoming_message | recv failed : Could not received data bytes ");
}

// The receive limit covers the whole request, header and body: a client that
// stops, or trickles a byte at a time so that no single wait ever runs out, is
// dropped when the limit ends, whatever it sent. A slow client that finishes
// within the limit is served.
TEST_F(ListenerTest, WholeRequestMustArriveWithinTheLimit) {
  constexpr int kLimitMs = 800;
  set_recv_wait_ms_for_test(kLimitMs);
  int port = start_server();
  ASSERT_NE(port, 0);
  const std::string head_with_body = "RDSERVICE / HTTP/1.1\r\nContent-Length: 100\r\n\r\nab";
  struct Row {
    const char* name;
    std::string first;  // sent at once
    bool trickle;       // then one more byte every 100 ms, or nothing
  };
  const Row rows[] = {
      {"three bytes, then silence", "RDS", false},
      {"three bytes, then a byte every 100 ms", "RDS", true},
      {"header complete, body stalls", head_with_body, false},
      {"header complete, body trickles", head_with_body, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::size_t offset = log_text().size();
    int s = connect_to(port);
    ASSERT_GE(s, 0);
    auto send_next = [&](int i) {
      if (i == 0) (void)platform::send_socket(s, row.first.data(), row.first.size());
      if (i > 0 && row.trickle) (void)platform::send_socket(s, "a", 1);
    };
    long acted_ms = feed_until_server_acts(s, send_next, 100, 5000);
    EXPECT_GE(acted_ms, kLimitMs - 100);
    EXPECT_LE(acted_ms, kLimitMs + 1000);
    // Closed without an answer.
    EXPECT_EQ(read_until_close(s, 1000), "");
    platform::close_socket(s);
    EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", "Timeout to receive data from client", offset));
    EXPECT_TRUE(
        wait_log("server", "process_incoming_message", "recv failed : Could not received data bytes", offset));
  }
  EXPECT_EQ(exchange_pieces(port, {"RDSERVICE / HT", "TP/1.1\r\nHost: a\r\n", "\r\n"}, 200),
            discovery_answer(port));
}

// Requests refused before they are read whole still write lines, and every
// line may rotate the log: a run of 413s cannot grow it past its limit.
TEST_F(ListenerTest, RefusedRequestsRotateTheLog) {
  int port = start_server();
  ASSERT_NE(port, 0);
  rd_set_log_size_limit_kb(4);
  while (platform::file_size("rd.log") / 1024 <= 4) RD_INFO("filler up to the limit");
  ASSERT_FALSE(platform::file_exists("rd1.log"));
  EXPECT_EQ(round_trip(port, "RDSERVICE / HTTP/1.1\r\nContent-Length: 99999\r\n\r\n"), error_header(413, port, ""));
  const std::string old = testutil::read_file("rd1.log");
  EXPECT_NE(old.find(") - ..................RD Log Reached  5KB of size..............................\n",
                     old.size() - 100),
            std::string::npos)
      << old;
  EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", "Request too large for the receive area"));
}

// A client that stops reading cannot hold a connection thread and its work
// area: the answer must be out within the request limit (shortened here).
TEST_F(ListenerTest, AnswerToAClientThatStopsReadingIsGivenUp) {
  set_recv_wait_ms_for_test(300);
  int listener = bound_socket(0, false);
  ASSERT_GE(listener, 0);
  ASSERT_EQ(platform::listen_socket(listener, 1), 0);
  int client = connect_to(testsys::local_port(listener));
  platform::socket_t served = platform::accept_socket(listener);
  ASSERT_NE(served, platform::kInvalidSocket);
  const std::string body(64 << 20, 'x');  // more than the sockets' buffers hold
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send_thru_tcp_socket(served, "HTTP/1.1 200 OK\r\n\r\n", 19, body.data(), body.size()), -1);
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(250));
  EXPECT_LT(took, std::chrono::milliseconds(3000));
  EXPECT_TRUE(log_has("server", "send_thru_tcp_socket", "Error at sending body data on http"));
  for (platform::socket_t s : {served, platform::socket_t(client), platform::socket_t(listener)}) {
    platform::close_socket(s);
  }
}

// After each connection thread starts the accept loop pauses 100 ms, so the
// third of three simultaneous clients is answered no sooner than 200 ms later.
TEST_F(ListenerTest, PausesBetweenAccepts) {
  int port = start_server();
  ASSERT_NE(port, 0);
  auto start = std::chrono::steady_clock::now();
  std::vector<std::future<std::string>> answers;
  for (int i = 0; i < 3; ++i) {
    answers.push_back(std::async(std::launch::async, [port] { return round_trip(port, "RDSERVICE / HTTP/1.1\r\n\r\n"); }));
  }
  for (auto& a : answers) EXPECT_EQ(a.get(), discovery_answer(port));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

// An exception inside a connection thread costs that request only: the
// socket is closed without an answer and the next client is served.
TEST_F(ListenerTest, ExceptionInsideARequestLeavesTheServiceRunning) {
  int port = start_server();
  ASSERT_NE(port, 0);
  set_dispatch_faults_for_test(2);
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(round_trip(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), "");
  // Closed at once, not left open until the client gives up.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
  EXPECT_TRUE(wait_log("server", "process_incoming_message", "Request not answered: std::bad_alloc"));
  EXPECT_EQ(round_trip(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port));
}

}  // namespace
