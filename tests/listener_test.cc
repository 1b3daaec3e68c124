// The local listener through real sockets on ports the test reserved: port
// choice and restarts, request reading in every shape, a client that stops
// reading, and failures inside a connection thread.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "common/rd_status.h"
#include "common/work_area.h"
#include "http/server.h"
#include "platform/socket_extra.h"
#include "test_sys.h"
#include "test_util.h"

using namespace testutil;

namespace {

using ListenerTest = LibraryTest;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

const std::string kDiscovery = "RDSERVICE / HTTP/1.1\r\n\r\n";

// The other service: this program's helper case, in the test's folder. It
// takes a port of the range that the file "ports" names, writes it (0 when it
// could not bind) into "child.port", and serves until it is killed.
TEST(DISABLED_ListenerHelper, ServesUntilKilled) {
  const int first = std::stoi(read_file("ports"));
  test_seams::update([&](Seams& s) {
    s.first_port = first;
    s.last_port = first + 7;
  });
  rd_identity_update([](RdIdentity& id) {
    id.scanner_name = "Aratek_A600";
    id.mi = "A600";
  });
  set_rd_status_ready();
  zlog_init("child.log");
  platform::socket_t server = platform::kInvalidSocket;
  const int port = prepare_http_socket(&server) == 0 ? service_port() : 0;
  write_file("child.port", std::to_string(port) + "\n");
  if (port != 0) client_connection_handler(&server);
  testsys::end_helper(1);
}

// Ports other programs listen on, on 127.0.0.1 or on [::1] (which would
// answer every browser whose localhost resolves to ::1 first), are skipped: a
// service in a child process takes the first port on both, a program holds
// the next one on [::1] only, and this process listens on both at the port
// after. The child answers and closes first, so its side lingers in TIME_WAIT
// after it is killed: a restarted service still gets the port back at once. A
// listener that is dropped gives both addresses back; with every port taken
// start-up fails.
TEST_F(ListenerTest, ServicesShareTheRangeOnBothLoopbacksAndRestartAtOnce) {
  write_file("ports", std::to_string(first_port_));
  testsys::Process child(testsys::helper_case("DISABLED_ListenerHelper.ServesUntilKilled"), "child.out");
  ASSERT_TRUE(child.started());
  ASSERT_TRUE(wait_until([] { return read_file("child.port").find('\n') != std::string::npos; }, 30000))
      << read_file("child.out");
  const int first = std::stoi(read_file("child.port"));
  ASSERT_EQ(first, first_port_) << read_file("child.out");
  const platform::socket_t holder6 = platform::tcp6_socket();
  ASSERT_NE(holder6, platform::kInvalidSocket);
  ASSERT_EQ(platform::bind_loopback6(holder6, static_cast<std::uint16_t>(first + 1)), 0);
  ASSERT_EQ(platform::listen_socket(holder6, 1), 0);
  const int second = start_server();
  ASSERT_EQ(second, first + 2);
  const auto logged = [](const std::string& text) { return log_has("server", "prepare_http_socket", text); };
  EXPECT_TRUE(logged("binding_tcp_socket : failed on port = " + std::to_string(first) + ", Trying for next port"));
  EXPECT_TRUE(logged("Port " + std::to_string(first + 1) + " is held on [::1] by another program"));
  for (const char* address : {"127.0.0.1", "[::1]"}) {
    EXPECT_TRUE(logged(std::string("....................Server Listening On ") + address + " And Port " +
                       std::to_string(second) + "..................."));
  }
  EXPECT_EQ(http_exchange(first, {kDiscovery}, 0, true), discovery_answer(first));
  EXPECT_EQ(http_exchange(second, {kDiscovery}, 0, true), discovery_answer(second));
  // Without a half-close the child closes first.
  const int s = connect_to(first);
  ASSERT_EQ(platform::send_socket(s, kDiscovery.data(), kDiscovery.size()), static_cast<long>(kDiscovery.size()));
  EXPECT_EQ(read_until_close(s), discovery_answer(first));
  platform::close_socket(s);
  child.kill();
  // Windows binds a port in TIME_WAIT anyway: there only the restart shows.
  if (testsys::kTimeWaitBlocksBind) {
    ASSERT_FALSE(port_bindable(first, false)) << "no TIME_WAIT left behind; the test shows nothing";
  }

  platform::socket_t third = platform::kInvalidSocket;
  ASSERT_EQ(prepare_http_socket(&third), 0);
  EXPECT_EQ(service_port(), first);
  ASSERT_NE(ipv6_companion_socket(third), platform::kInvalidSocket);
  const int probe = connect_to6(first);
  EXPECT_GE(probe, 0);
  platform::close_socket(probe);
  close_http_socket(third);
  EXPECT_EQ(ipv6_companion_socket(third), platform::kInvalidSocket);
  EXPECT_EQ(connect_to6(first), -1);

  std::vector<int> held = {hold_port(first)};
  for (int p = second + 1; p <= first_port_ + 7; ++p) held.push_back(hold_port(p));
  platform::socket_t none = platform::kInvalidSocket;
  EXPECT_EQ(prepare_http_socket(&none), -1);
  EXPECT_EQ(none, platform::kInvalidSocket);
  EXPECT_TRUE(logged("binding_tcp_socket : failed on Port " + std::to_string(first_port_ + 7) +
                     "\nAll Ports are in use, RD Service Can't Run"));
  for (int h : held) platform::close_socket(h);
  platform::close_socket(holder6);
}

// Each row is sent in pieces; the answer, and the line that says why a
// request was refused.
TEST_F(ListenerTest, ReadsRequestsOfEveryShape) {
  const int port = start_server();
  ASSERT_NE(port, 0);
  const std::string ok = discovery_answer(port), too_large = error_header(413, port, "");
  const std::string digits = "0123456789";
  // A request of exactly 2047 bytes fills the area; one more byte does not fit.
  const std::string fit = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2001\r\n\r\n" + std::string(2001, 'x');
  const std::string over = "RDSERVICE / HTTP/1.1\r\nContent-Length: 2002\r\n\r\n" + std::string(2002, 'x');
  ASSERT_EQ(fit.size(), 2047u);
  const std::string refused = "Request too large for the receive area";
  const struct {
    const char* name;
    std::vector<std::string> pieces;
    std::string answer, logged;
  } rows[] = {
      {"Content-Length not a number", {"RDSERVICE / HTTP/1.1\r\nContent-Length: abc\r\n\r\n"}, ok, ""},
      {"header in single bytes", {"R", "D", "SERVICE / HTTP/1.1\r\n", "\r", "\n"}, ok, ""},
      // How many reads the body takes depends on the machine's load; the
      // whole 30 bytes must arrive (the "body of 30 bytes" line below).
      {"body in three pieces", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 30\r\n\r\n" + digits, digits, digits}, ok, ""},
      {"request filling the area exactly", {fit}, ok, ""},
      {"body one byte past the area", {over}, too_large, refused},
      {"huge Content-Length", {"RDSERVICE / HTTP/1.1\r\nContent-Length: 99999999999999\r\n\r\n"}, too_large, refused},
      {"header without its blank line",
       {"RDSERVICE / HTTP/1.1\r\nX-Pad: " + std::string(2100, 'z')},
       too_large,
       refused},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::size_t offset = log_text().size();
    EXPECT_EQ(http_exchange(port, row.pieces, 100), row.answer);
    EXPECT_TRUE(row.logged.empty() || wait_log("server", "recv_thru_tcp_socket", row.logged, offset));
  }
  // The pieces were joined into one request. That bodies are never logged:
  // CaptureEndToEnd.CapturesOpenWithTheUidaiKey.
  EXPECT_TRUE(log_has("server", "process_incoming_message", "Request is: RDSERVICE /, body of 30 bytes, origin: none"));
}

// Clients that close, stall or trickle: TlsTest.ClientsThatCloseStallOrTrickleAreDropped.

// A client that stops reading cannot hold a connection thread and its work
// area: the answer must be out within the request limit (shortened here).
TEST_F(ListenerTest, AnswerToAClientThatStopsReadingIsGivenUp) {
  seams([](Seams& s) { s.recv_wait_ms = 300; });
  const int listener = hold_port(0);
  ASSERT_GE(listener, 0);
  const int client = connect_to(testsys::local_port(listener));
  const platform::socket_t served = platform::accept_socket(listener);
  ASSERT_NE(served, platform::kInvalidSocket);
  const std::string body(64 << 20, 'x');  // more than the sockets' buffers hold
  const auto start = Clock::now();
  EXPECT_EQ(send_thru_tcp_socket(served, "HTTP/1.1 200 OK\r\n\r\n", 19, body.data(), body.size()), -1);
  EXPECT_GE(Clock::now() - start, milliseconds(250));
  EXPECT_LT(Clock::now() - start, milliseconds(3000));
  EXPECT_TRUE(log_has("server", "send_thru_tcp_socket", "Error at sending body data on http"));
  for (platform::socket_t s : {served, platform::socket_t(client), platform::socket_t(listener)}) {
    platform::close_socket(s);
  }
}

// After each connection thread starts the accept loop pauses 100 ms, so the
// third of three simultaneous clients is answered no sooner than 200 ms later.
// An exception inside a connection thread costs that request only: the
// socket is closed at once without an answer and the next client is served.
TEST_F(ListenerTest, PausesBetweenAcceptsAndSurvivesAnException) {
  const int port = start_server();
  ASSERT_NE(port, 0);
  auto start = Clock::now();
  std::vector<std::future<std::string>> answers;
  for (int i = 0; i < 3; ++i)
    answers.push_back(std::async(std::launch::async, [port] { return http_exchange(port, kDiscovery); }));
  for (auto& a : answers) EXPECT_EQ(a.get(), discovery_answer(port));
  EXPECT_GE(Clock::now() - start, milliseconds(200));

  seams([](Seams& s) { s.dispatch_faults = 2; });
  start = Clock::now();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(http_exchange(port, kDiscovery), "");
  EXPECT_LT(Clock::now() - start, milliseconds(2000));
  EXPECT_TRUE(wait_log("server", "process_incoming_message", "Request not answered: std::bad_alloc"));
  EXPECT_EQ(http_exchange(port, kDiscovery), discovery_answer(port));
}

}  // namespace
