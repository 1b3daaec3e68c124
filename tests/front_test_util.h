// Helpers of the listener, dispatch and TLS tests: a fixture that starts the
// real listener in the test process, sockets that hold ports, the answers as
// clients receive them, and the run log.
#ifndef VEXO_TESTS_FRONT_TEST_UTIL_H
#define VEXO_TESTS_FRONT_TEST_UTIL_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "http/server.h"
#include "common/work_area.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "test_sys.h"
#include "test_util.h"

namespace fronttest {

using testutil::read_until_close;

// Binds the listener and runs the accept loop on a detached thread (it never
// returns; the test process ends it). Returns the port, 0 on failure.
inline int start_server() {
  static platform::socket_t server = platform::kInvalidSocket;
  if (prepare_http_socket(&server) != 0) return 0;
  std::thread(client_connection_handler, &server).detach();
  return service_port();
}

// A socket bound to 127.0.0.1:port, with SO_REUSEADDR when reuse; -1 when
// the port cannot be bound.
inline int bound_socket(int port, bool reuse) { return testsys::bind_port(port, reuse); }

// Another program listening on port (with SO_REUSEADDR, as servers usually
// have it). The socket, or -1 when the port is taken already.
inline int hold_port(int port) {
  int s = bound_socket(port, true);
  if (s >= 0 && platform::listen_socket(s, 1) != 0) {
    platform::close_socket(s);
    return -1;
  }
  return s;
}

// True when a socket can bind port, with or without SO_REUSEADDR.
inline bool port_bindable(int port, bool reuse = false) {
  int s = bound_socket(port, reuse);
  if (s >= 0) platform::close_socket(s);
  return s >= 0;
}

inline int connect_to(int port) { return testsys::connect_loopback(port); }

// Sends the pieces with a pause between them, then reads the answer. The
// client half-closes first, so the TIME_WAIT state stays on its side.
inline std::string exchange_pieces(int port, const std::vector<std::string>& pieces, int pause_ms) {
  int s = connect_to(port);
  if (s < 0) return "";
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
    (void)platform::send_socket(s, pieces[i].data(), pieces[i].size());
  }
  testsys::shutdown_send(s);
  std::string answer = read_until_close(s);
  platform::close_socket(s);
  return answer;
}

// Calls send_next(0), send_next(1), ... every pause_ms on connection s until
// the server acts (sends something or closes) or give_up_ms pass. The time
// from the call until the server acted, in ms; -1 when it never did.
inline long feed_until_server_acts(int s, const std::function<void(int)>& send_next, int pause_ms,
                                   int give_up_ms) {
  auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
  };
  for (int i = 0; elapsed() < give_up_ms; ++i) {
    send_next(i);
    if (platform::wait_readable(s, pause_ms) > 0) return elapsed();
  }
  return -1;
}

inline std::string round_trip(int port, const std::string& request) { return exchange_pieces(port, {request}, 0); }

// A connection to [::1]:port, -1 when refused.
inline int connect_to6(int port) { return testsys::connect_loopback6(port); }

// round_trip through [::1]; "" when the connection is refused.
inline std::string round_trip6(int port, const std::string& request) {
  int s = connect_to6(port);
  if (s < 0) return "";
  (void)platform::send_socket(s, request.data(), request.size());
  testsys::shutdown_send(s);
  std::string answer = read_until_close(s);
  platform::close_socket(s);
  return answer;
}

inline std::string log_text() { return testutil::read_file("rd.log"); }

// True when the log holds a line "(file:func:N) - text" after offset.
inline bool log_has(const std::string& file, const std::string& func, const std::string& text,
                    std::size_t offset = 0) {
  std::string log = log_text();
  std::string site = "(" + file + ":" + func + ":";
  for (std::size_t pos = log.find(site, offset); pos != std::string::npos; pos = log.find(site, pos + 1)) {
    std::size_t dash = log.find(") - ", pos);
    if (dash != std::string::npos && log.compare(dash + 4, text.size() + 1, text + "\n") == 0) return true;
  }
  return false;
}

// Waits up to timeout_ms for log_has to become true.
inline bool wait_log(const std::string& file, const std::string& func, const std::string& text,
                     std::size_t offset = 0, int timeout_ms = 3000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!log_has(file, func, text, offset)) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// The error header as clients receive it, written out independently of the code.
inline std::string error_header(int code, int port, const std::string& path, const char* origin = nullptr) {
  std::string head = "HTTP/1.1 " + std::to_string(code);
  std::string tail = "\r\nCACHE-CONTROL: no-cache\r\nLOCATION: http://127.0.0.1:" + std::to_string(port) + path +
                     "\r\nContent-Length: 0\r\nContent-Type: text/xml\r\nConnection: close\r\n";
  if (origin != nullptr) return head + " " + tail + "Access-Control-Allow-Origin: " + origin + "\r\n\r\n";
  return head + tail + "\r\n";
}

inline std::string ok_header(int port, const std::string& path, std::size_t length, const char* origin = nullptr) {
  std::string loc = "http://127.0.0.1:" + std::to_string(port) + path;
  return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: no-cache\r\nLOCATION: " + loc + "\r\nContent-Length: " +
         std::to_string(length) + "\r\nContent-Type: text/xml\r\nConnection: close\r\nAccess-Control-Allow-Origin: " +
         (origin ? std::string(origin) : loc) + "\r\n\r\n";
}

inline std::string discovery_body(const std::string& status, const std::string& mi = "VX100") {
  return "<RDService status=\"" + status + "\" info=\"Korvane RD service(" + mi +
         ") is running\">\n\t<Interface id=\"CAPTURE\" path=\"/rd/capture\" />\n\t<Interface id=\"DEVICEINFO\" "
         "path=\"/rd/info\" />\n\t<Interface id=\"POSTAUTH\" path=\"/rd/postauth\" />\n</RDService>\n";
}

inline std::string discovery_answer(int port, const std::string& status = "READY") {
  std::string body = discovery_body(status);
  return ok_header(port, "/", body.size()) + body;
}

inline void expect_status_line(const std::string& text) {
  std::string status = testutil::last_status();
  EXPECT_NE(status.find(text), std::string::npos) << status;
}

// A working folder with the run log open and a non-handheld scanner "VX100".
class FrontTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(zlog_init("rd.log"), 0);
    set_scanner("Aratek_A600");
  }
  void TearDown() override { zlog_fini(); }
  static void set_scanner(const std::string& name) {
    rd_identity_update([&](RdIdentity& id) {
      id.mi = "VX100";
      id.scanner_name = name;
    });
  }
  testutil::WorkDir dir_;
};

}  // namespace fronttest

#endif  // VEXO_TESTS_FRONT_TEST_UTIL_H
