// The local listener through real sockets on ports the test reserved: port
// choice and restarts, request reading in every shape, clients that
// misbehave, and failures inside a connection thread.
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <netinet/in.h>
#include <unistd.h>

#include <chrono>
#include <future>

#include "common/rd_log.h"
#include "common/request_reader.h"
#include "common/work_area.h"
#include "http/server.h"
#include "test_util.h"

using namespace testutil;

namespace {

using ListenerTest = LibraryTest;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

const std::string kDiscovery = "RDSERVICE / HTTP/1.1\r\n\r\n";

// Ports other programs listen on are skipped; with every port taken start-up fails.
TEST_F(ListenerTest, TakesTheFirstPortNoOtherProgramListensOn) {
  std::vector<int> held;
  for (int p = first_port_; p < first_port_ + 3; ++p) held.push_back(hold_port(p));
  const int port = start_server();
  ASSERT_EQ(port, first_port_ + 3);
  for (int p = first_port_; p < port; ++p) {
    EXPECT_TRUE(log_has("server", "prepare_http_socket",
                        "binding_tcp_socket : failed on port = " + std::to_string(p) + ", Trying for next port"));
  }
  const std::string text = std::to_string(port);
  EXPECT_TRUE(log_has("server", "prepare_http_socket", "socket is bound on port: " + text));
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "....................Server Listening On 127.0.0.1 And Port " + text + "..................."));
  EXPECT_EQ(http_exchange(port, kDiscovery), discovery_answer(port));

  for (int p = port + 1; p <= first_port_ + 7; ++p) held.push_back(hold_port(p));
  platform::socket_t server = platform::kInvalidSocket;
  EXPECT_EQ(prepare_http_socket(&server), -1);
  EXPECT_EQ(server, platform::kInvalidSocket);
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "binding_tcp_socket : failed on Port " + std::to_string(first_port_ + 7) +
                          "\nAll Ports are in use, RD Service Can't Run"));
  for (int s : held) ::close(s);
}

// A service in a child process takes the first port on 127.0.0.1 and [::1];
// one in this process moves on to the next port on both. The child answers
// and closes first, so its side lingers in TIME_WAIT after it is killed: a
// restarted service still gets the port back at once. A listener that is
// dropped gives both addresses back.
TEST_F(ListenerTest, ServicesShareTheRangeOnBothLoopbacksAndRestartAtOnce) {
  // The child starts threads of its own, so it must be forked from a process
  // of one thread (ThreadSanitizer refuses anything else): no pipe reader.
  pipe_.reset();
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  Reaper reaper{child};
  if (child == 0) {
    platform::socket_t server = platform::kInvalidSocket;
    int port = prepare_http_socket(&server) == 0 ? service_port() : 0;
    (void)!::write(ready[1], &port, sizeof port);
    if (port != 0) client_connection_handler(&server);
    ::_exit(1);
  }
  int first = 0;
  ASSERT_EQ(::read(ready[0], &first, sizeof first), static_cast<ssize_t>(sizeof first));
  ::close(ready[0]);
  ::close(ready[1]);
  ASSERT_EQ(first, first_port_);
  const int second = start_server();
  EXPECT_EQ(second, first + 1);
  EXPECT_EQ(http_exchange(first, {kDiscovery}, 0, true), discovery_answer(first));
  EXPECT_EQ(http_exchange(second, {kDiscovery}, 0, true), discovery_answer(second));
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "....................Server Listening On [::1] And Port " + std::to_string(second) +
                          "..................."));
  // Without a half-close the child closes first.
  const int s = connect_to(first);
  ASSERT_EQ(::send(s, kDiscovery.data(), kDiscovery.size(), MSG_NOSIGNAL), static_cast<ssize_t>(kDiscovery.size()));
  EXPECT_EQ(read_until_close(s), discovery_answer(first));
  ::close(s);
  reaper.reap();
  ASSERT_FALSE(port_bindable(first, false)) << "no TIME_WAIT left behind; the test shows nothing";

  platform::socket_t third = platform::kInvalidSocket;
  ASSERT_EQ(prepare_http_socket(&third), 0);
  EXPECT_EQ(service_port(), first);
  ASSERT_NE(ipv6_companion_socket(third), platform::kInvalidSocket);
  const int probe = connect_to6(first);
  EXPECT_GE(probe, 0);
  ::close(probe);
  close_http_socket(third);
  EXPECT_EQ(ipv6_companion_socket(third), platform::kInvalidSocket);
  EXPECT_EQ(connect_to6(first), -1);
}

// Another program holding [::1] at the first port would answer every browser
// whose localhost resolves to ::1 first: the service takes the next port.
TEST_F(ListenerTest, SkipsAPortHeldOnIpv6Loopback) {
  const int holder = ::socket(AF_INET6, SOCK_STREAM, 0);
  const int one = 1;
  ASSERT_EQ(::setsockopt(holder, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one), 0);
  sockaddr_in6 addr{};
  addr.sin6_family = AF_INET6;
  addr.sin6_port = htons(static_cast<uint16_t>(first_port_));
  addr.sin6_addr = in6addr_loopback;
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(holder, 1), 0);
  const int port = start_server();
  EXPECT_EQ(port, first_port_ + 1);
  EXPECT_TRUE(log_has("server", "prepare_http_socket",
                      "Port " + std::to_string(first_port_) + " is held on [::1] by another program"));
  EXPECT_EQ(http_exchange(port, {kDiscovery}, 0, true), discovery_answer(port));
  EXPECT_EQ(http_exchange(port, kDiscovery), discovery_answer(port));
  ::close(holder);
}

// Each row is sent in pieces; the answer and the receive function's log lines.
TEST_F(ListenerTest, ReadsRequestsOfEveryShape) {
  const int port = start_server();
  ASSERT_NE(port, 0);
  const std::string ok = discovery_answer(port), too_large = error_header(413, port, "");
  const std::string digits = "0123456789";
  // A request of exactly 2047 bytes fills the area; one more byte does not fit.
  const std::string fit = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2001\r\n\r\n" + std::string(2001, 'x');
  const std::string over = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2002\r\n\r\n" + std::string(2002, 'x');
  ASSERT_EQ(fit.size(), 2047u);
  const struct {
    const char* name;
    std::vector<std::string> pieces;
    std::string answer;
    std::vector<std::string> logged;
  } rows[] = {
      {"no Content-Length", {"RDSERVICE / HTTP/1.1\r\nHost: a\r\n\r\n"}, ok,
       {"Request Header Received", "Current Request will have only Header(No Body)"}},
      {"Content-Length not a number", {"RDSERVICE / HTTP/1.1\r\nContent-Length: abc\r\n\r\n"}, ok,
       {" content_length is: 0", "Current Request will have only Header(No Body)"}},
      {"header in single bytes", {"R", "D", "SERVICE / HTTP/1.1\r\n", "\r", "\n"}, ok, {"Request Header Received"}},
      {"body in three pieces", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 30\r\n\r\n" + digits, digits, digits}, ok,
       {"Going to get request body", "Received :10  Expected size: 30", "Received :10  Expected size: 20"}},
      {"request filling the area exactly", {fit}, ok, {" content_length is: 2001"}},
      {"body one byte past the area", {over}, too_large, {"Request too large for the receive area"}},
      {"huge Content-Length", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 99999999999999\r\n\r\n"}, too_large,
       {" content_length is: 2147483647", "Request too large for the receive area"}},
      {"header without its blank line", {"RDSERVICE / HTTP/1.1\r\nX-Pad: " + std::string(2100, 'z')}, too_large,
       {"Request too large for the receive area"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::size_t offset = log_text().size();
    EXPECT_EQ(http_exchange(port, row.pieces, 100), row.answer);
    for (const std::string& line : row.logged) EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", line, offset)) << line;
  }
  // The pieces were joined into one request; its body is never logged.
  EXPECT_TRUE(log_has("server", "process_incoming_message", "Request is: RDSERVICE /, body of 30 bytes, origin: none"));
  EXPECT_EQ(log_text().find(digits + digits), std::string::npos);
}

// The receive limit covers the whole request, header and body: a client that
// closes, stops, or trickles a byte at a time so that no single wait runs out
// is dropped without an answer when the limit ends. A slow client that
// finishes within the limit is served.
TEST_F(ListenerTest, ClientsThatCloseStallOrTrickleAreDropped) {
  constexpr int kLimitMs = 800;
  seams([&](Seams& s) { s.recv_wait_ms = kLimitMs; });
  const int port = start_server();
  ASSERT_NE(port, 0);
  const std::string head_with_body = "RDSERVICE / HTTP/1.1\r\nContent-Length: 100\r\n\r\nab";
  const struct {
    const char* name;
    std::string first;  // sent at once
    bool close;         // then the client closes ...
    bool trickle;       // ... or sends a byte every 100 ms, or nothing
    const char* logged;
  } rows[] = {
      {"close before any byte", "", true, false, "recv failed"},
      {"close inside the header", "RDSERVICE / HTTP/1.1\r\nHo", true, false, "recv failed in loop"},
      {"close inside the body", "RDSERVICE / HTTP/1.1\r\nContent-Length: 9\r\n\r\n<ab", true, false,
       "Receiving Body, From Socket Failed"},
      {"silent", "", false, false, "Timeout to receive data from client"},
      {"three bytes, then a byte every 100 ms", "RDS", false, true, "Timeout to receive data from client"},
      {"header complete, body stalls", head_with_body, false, false, "Timeout to receive data from client"},
      {"header complete, body trickles", head_with_body, false, true, "Timeout to receive data from client"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::size_t offset = log_text().size();
    const int s = connect_to(port);
    ASSERT_GE(s, 0);
    if (row.close) {
      (void)::send(s, row.first.data(), row.first.size(), MSG_NOSIGNAL);
      ::shutdown(s, SHUT_WR);
    } else {
      const long acted_ms = feed_until_server_acts(s, [&](int i) {
        if (i == 0) (void)::send(s, row.first.data(), row.first.size(), MSG_NOSIGNAL);
        if (i > 0 && row.trickle) (void)::send(s, "a", 1, MSG_NOSIGNAL);
      }, 100, 5000);
      EXPECT_GE(acted_ms, kLimitMs - 100);
      EXPECT_LE(acted_ms, kLimitMs + 1000);
    }
    EXPECT_EQ(read_until_close(s, 1000), "");
    ::close(s);
    EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", row.logged, offset));
    EXPECT_TRUE(wait_log("server", "process_incoming_message", "recv failed : Could not received data bytes", offset));
  }
  EXPECT_NE(last_status().find(" | server | process_incoming_message | recv failed : Could not received data bytes "),
            std::string::npos);
  EXPECT_EQ(http_exchange(port, {"RDSERVICE / HT", "TP/1.1\r\nHost: a\r\n", "\r\n"}, 200), discovery_answer(port));
}

// Requests refused before they are read whole still write lines, and every
// line may rotate the log: a run of 413s cannot grow it past its limit.
TEST_F(ListenerTest, RefusedRequestsRotateTheLog) {
  const int port = start_server();
  ASSERT_NE(port, 0);
  rd_set_log_size_limit_kb(4);
  while (platform::file_size("rd.log") / 1024 <= 4) RD_INFO("filler up to the limit");
  EXPECT_EQ(http_exchange(port, "RDSERVICE / HTTP/1.1\r\nContent-Length: 99999\r\n\r\n"), error_header(413, port, ""));
  const std::string old = read_file("rd1.log");
  EXPECT_NE(old.find(") - ..................RD Log Reached  5KB of size..............................\n",
                     old.size() - 100),
            std::string::npos);
  EXPECT_TRUE(wait_log("server", "recv_thru_tcp_socket", "Request too large for the receive area"));
}

// A client that stops reading cannot hold a connection thread and its work
// area: the answer must be out within the request limit (shortened here).
TEST_F(ListenerTest, AnswerToAClientThatStopsReadingIsGivenUp) {
  seams([](Seams& s) { s.recv_wait_ms = 300; });
  const int listener = hold_port(0);
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  const int client = connect_to(ntohs(addr.sin_port));
  const int served = ::accept(listener, nullptr, nullptr);
  ASSERT_GE(served, 0);
  const std::string body(64 << 20, 'x');  // more than the sockets' buffers hold
  const auto start = Clock::now();
  EXPECT_EQ(send_thru_tcp_socket(served, "HTTP/1.1 200 OK\r\n\r\n", 19, body.data(), body.size()), -1);
  EXPECT_GE(Clock::now() - start, milliseconds(250));
  EXPECT_LT(Clock::now() - start, milliseconds(3000));
  EXPECT_TRUE(log_has("server", "send_thru_tcp_socket", "Error at sending body data on http"));
  for (int s : {served, client, listener}) ::close(s);
}

// After each connection thread starts the accept loop pauses 100 ms, so the
// third of three simultaneous clients is answered no sooner than 200 ms later.
TEST_F(ListenerTest, PausesBetweenAccepts) {
  const int port = start_server();
  ASSERT_NE(port, 0);
  const auto start = Clock::now();
  std::vector<std::future<std::string>> answers;
  for (int i = 0; i < 3; ++i) answers.push_back(std::async(std::launch::async, [port] { return http_exchange(port, kDiscovery); }));
  for (auto& a : answers) EXPECT_EQ(a.get(), discovery_answer(port));
  EXPECT_GE(Clock::now() - start, milliseconds(200));
}

// An exception inside a connection thread costs that request only: the
// socket is closed at once without an answer and the next client is served.
TEST_F(ListenerTest, ExceptionInsideARequestLeavesTheServiceRunning) {
  const int port = start_server();
  ASSERT_NE(port, 0);
  seams([](Seams& s) { s.dispatch_faults = 2; });
  const auto start = Clock::now();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(http_exchange(port, kDiscovery), "");
  EXPECT_LT(Clock::now() - start, milliseconds(2000));
  EXPECT_TRUE(wait_log("server", "process_incoming_message", "Request not answered: std::bad_alloc"));
  EXPECT_EQ(http_exchange(port, kDiscovery), discovery_answer(port));
}

}  // namespace
