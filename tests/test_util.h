// What the tests share: the library fixture (a working folder, the run log,
// the status pipe, the test seams and the resets), ports reserved for the
// listener, child processes, sockets, the run log, XML read back with libxml2,
// and the answer headers as clients receive them.
#ifndef VEXO_TESTS_TEST_UTIL_H
#define VEXO_TESTS_TEST_UTIL_H

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/test_seams.h"
#include "test_sys.h"

namespace testutil {

using test_seams::Seams;

// ---------------------------------------------------------------- files
// A fresh folder under the system's temporary folder ($TMPDIR or /tmp; %TEMP%
// on Windows), the current folder while it lives; removed on destruction.
class WorkDir {
 public:
  WorkDir();
  ~WorkDir();
  WorkDir(const WorkDir&) = delete;
  WorkDir& operator=(const WorkDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
  std::string old_cwd_;
};

std::string read_file(const std::string& path);  // "" when it cannot be read
void write_file(const std::string& path, const std::string& data);
// Occurrences of needle in text (overlapping ones included).
int count_of(const std::string& text, const std::string& needle);
// Succeeds when text holds needle; the failure shows the whole text.
testing::AssertionResult has(const std::string& text, const std::string& needle);
// A file of the source tree's tests/data.
std::string data_file(const std::string& name);
// text with each {name} of values replaced by its value; other braces stay.
std::string fill(const std::string& text, const std::map<std::string, std::string>& values);

// The permission bits of path (not following a symbolic link), or -1; on
// Windows only the read-only bit shows (0666 or 0444).
int mode_of(const std::string& path);

// POSIX only (test_util_posix.cc; the Windows list leaves out their tests):
// Runs fn in a child process that plays another user of the machine: as root
// the child drops to nobody (uid and gid 65534), otherwise it stays this user.
// True when fn returned true.
bool as_other_user(const std::function<bool()>& fn);
bool other_user_available();
// dir/name, a folder every user may create files in (1777, like /tmp).
std::string shared_folder(const WorkDir& dir, const std::string& name);

// ---------------------------------------------------------------- waiting
// Waits up to timeout_ms for done() to hold, looking every few milliseconds.
bool wait_until(const std::function<bool()>& done, int timeout_ms = 10000);

// ---------------------------------------------------------------- status pipe
// The status pipe's server end (a FIFO in dir on POSIX, a named pipe on
// Windows) that the library writes to, read by a thread.
class PipeReader {
 public:
  explicit PipeReader(const std::string& dir);
  ~PipeReader();
  PipeReader(const PipeReader&) = delete;
  PipeReader& operator=(const PipeReader&) = delete;
  std::string received();
  // Waits until received() holds needle at or after offset from.
  bool wait_for(const std::string& needle, int timeout_ms = 5000, std::size_t from = 0);

 private:
  std::mutex mutex_;
  std::string data_;
  std::unique_ptr<testsys::PipeServer> server_;
};

// ---------------------------------------------------------------- run log
// The run log rd.log of the current folder.
std::string log_text();
// True when the log holds "(file:func:N) - text" as a whole line after offset.
bool log_has(const std::string& file, const std::string& func, const std::string& text, std::size_t offset = 0);
bool wait_log(const std::string& file, const std::string& func, const std::string& text, std::size_t offset = 0);
// The last-status line as the host reads it.
std::string last_status();

// ---------------------------------------------------------------- sockets
int connect_to(int port);   // 127.0.0.1:port, -1 when refused
int connect_to6(int port);  // [::1]:port
// Reads until the peer closes or timeout_ms pass in silence.
std::string read_until_close(int s, int timeout_ms = 5000);
// Sends the pieces (pause_ms apart), half-closes, and reads the answer; "" when
// the connection is refused.
std::string http_exchange(int port, const std::vector<std::string>& pieces, int pause_ms = 0, bool ipv6 = false);
std::string http_exchange(int port, const std::string& request);
// Calls send_next(0), send_next(1), ... every pause_ms on connection s until
// the server acts (sends something or closes) or give_up_ms pass: the time it
// took the server, in ms, or -1.
long feed_until_server_acts(int s, const std::function<void(int)>& send_next, int pause_ms, int give_up_ms);
// A socket bound to 127.0.0.1:port (port 0: any) and listening, or -1.
int hold_port(int port);
// True when a socket (with SO_REUSEADDR when reuse) can bind 127.0.0.1:port.
bool port_bindable(int port, bool reuse = true);
// Finds count consecutive ports that are free on 127.0.0.1 and [::1], away
// from the service's own range and below the system's ephemeral ports, and
// returns the first.
int reserve_ports(int count);

// ---------------------------------------------------------------- programs
// A program of the build folder ("vexoctl", "vexo-host", ...).
std::string program(const std::string& name);
struct Run {
  int rc = -1;      // exit status, -1 when it did not exit normally
  std::string out;  // standard output and standard error together
};
// Runs argv[0] to its end with the extra environment ("NAME=value").
Run run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
// vexoctl init-workdir DIR --scanner SCANNER --mgmt-url URL, plus extra.
Run init_workdir(const std::string& dir, const std::string& scanner = "Aratek_A600",
                 const std::vector<std::string>& extra = {}, const std::string& url = "https://mgmt.test/Zelm");

// A program running beside the test, its output collected in a file.
class Child {
 public:
  Child(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
  ~Child();  // stop()
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  std::string output();
  // Waits until the output holds needle count times.
  bool wait_for(const std::string& needle, int timeout_ms = 20000, int count = 1);
  void signal(int sig);  // POSIX only (test_util_posix.cc)
  // SIGTERM, then its exit status (-1 when it did not exit normally).
  int stop();

 private:
  std::string out_;
  std::unique_ptr<testsys::Process> process_;
};

// The port a service logged in the run log at path ("Server Listening On
// 127.0.0.1 And Port N"), the latest one; 0 when none.
int logged_port(const std::string& log_path);

// ---------------------------------------------------------------- XML
struct XmlFree {
  void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
};
using Xml = std::unique_ptr<xmlDoc, XmlFree>;
using Attrs = std::map<std::string, std::string>;
Xml parse_xml(const std::string& text);  // no network, no entities
xmlNode* root(const Xml& doc);
xmlNode* child(xmlNode* parent, const char* name);  // the first element so named
std::vector<xmlNode*> children(xmlNode* parent);    // the element children
Attrs attrs(xmlNode* node);  // empty for a null node
std::string content(xmlNode* node);

// ---------------------------------------------------------------- answers
// The headers clients receive, written out independently of the code.
std::string ok_header(int port, const std::string& path, std::size_t length, const char* origin = nullptr);
std::string error_header(int code, int port, const std::string& path, const char* origin = nullptr);
std::string discovery_body(const std::string& status, const std::string& mi = "A600");
std::string discovery_answer(int port, const std::string& status = "READY");

// ---------------------------------------------------------------- the fixture
// Every test that runs the library in its own process starts here: a fresh
// working folder (the current folder, APPDATA inside it) with the run log and
// a status pipe read by the test; the locks in a folder of the test, one fixed
// network adapter, eight reserved ports for the listener and 300 ms lock
// waits (test_seams.h); the identity of an "Aratek_A600" with rdsId
// QDX.WIN.002, dpId KORVANE.AR and mi A600; the service READY. TearDown puts
// the seams and the process-wide records back.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Binds the listener on the reserved ports and runs its accept loop on a
  // detached thread. The port, 0 on failure.
  int start_server();
  static void seams(const std::function<void(Seams&)>& change) { test_seams::update(change); }

  WorkDir dir_;
  std::unique_ptr<PipeReader> pipe_;
  int first_port_ = 0;  // the reserved range: first_port_ .. first_port_ + 7
};

}  // namespace testutil

#endif  // VEXO_TESTS_TEST_UTIL_H
