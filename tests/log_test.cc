// Run log, last-status line, rotation and status pipe.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <regex>
#include <thread>

#include "common/rd_log.h"
#include "common/rd_status.h"
#include "platform/platform.h"
#include "test_util.h"
#include "platform/test_seams.h"
#include "vexo.h"

namespace {

using testutil::read_file;

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rd_log_reset_for_test();
    rd_set_verbose(0);
    ASSERT_EQ(zlog_init("rd.log"), 0);
  }
  void TearDown() override {
    zlog_fini();
    test_seams::update([&](test_seams::Seams& s) { s.now = std::nullopt; });
    rd_log_reset_for_test();
  }
  testutil::WorkDir dir_;
};

TEST_F(LogTest, LinesCarryIstTimeLevelFileFunctionAndLine) {
  test_seams::update([&](test_seams::Seams& s) { s.now = 0; });  // 1970-01-01 00:00:00 UTC
  const unsigned info_line = __LINE__ + 1;
  RD_INFO("socket is bound on port: %hd", static_cast<short>(11100));
  const unsigned error_line = __LINE__ + 1;
  RD_ERROR("Listen error");
  std::string expected = "1970-01-01 05:30:00 INFO   (log_test:TestBody:" + std::to_string(info_line) +
                         ") - socket is bound on port: 11100\n" +
                         "1970-01-01 05:30:00 ERROR  (log_test:TestBody:" + std::to_string(error_line) +
                         ") - Listen error\n";
  EXPECT_EQ(read_file("rd.log"), expected);
}

TEST_F(LogTest, VerboseLinesOnlyWithTheFlag) {
  RD_VERBOSE("hidden");
  RD_INFO("shown");
  rd_set_verbose(1);
  RD_VERBOSE("traced");
  std::string log = read_file("rd.log");
  EXPECT_EQ(log.find("hidden"), std::string::npos);
  EXPECT_NE(log.find("- shown\n"), std::string::npos);
  EXPECT_NE(log.find("- traced\n"), std::string::npos);
}

TEST_F(LogTest, UnreadableClockWritesNoTimestampAndKeepsLastStatus) {
  char buf[VEXO_STATUS_LEN];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(Get_Last_RDservice_Status(buf), 0);
  EXPECT_STREQ(buf, "");  // nothing reported yet

  test_seams::update([&](test_seams::Seams& s) { s.now = 0; });
  EXPECT_EQ(RD_STATUS("Listen error "), 0);
  EXPECT_EQ(testutil::last_status(), "1970-01-01 05:30:00 | log_test | TestBody | Listen error ");

  test_seams::update([&](test_seams::Seams& s) { s.now = static_cast<std::time_t>(-1); });
  EXPECT_EQ(RD_STATUS("other"), -1);
  EXPECT_EQ(testutil::last_status(), "1970-01-01 05:30:00 | log_test | TestBody | Listen error ");
  RD_INFO("no clock");
  EXPECT_EQ(read_file("rd.log"), "INFO   (log_test:TestBody:" + std::to_string(__LINE__ - 1) + ") - no clock\n");
}

TEST_F(LogTest, RotatesOnlyAboveTheLimit) {
  struct Case {
    long bytes;
    bool rotated;
  } cases[] = {{2097152, false}, {2098175, false}, {2098176, true}, {3000000, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    zlog_fini();
    std::remove("rd1.log");
    testutil::write_file("rd.log", "");
    ASSERT_EQ(truncate("rd.log", c.bytes), 0);
    ASSERT_EQ(zlog_init("rd.log"), 0);
    EXPECT_EQ(logfile_size_check(), 0);
    EXPECT_EQ(platform::file_exists("rd1.log"), c.rotated);
    RD_INFO("after check");
    if (c.rotated) {
      std::string old = read_file("rd1.log");
      std::string tail = old.substr(old.rfind('\n', old.size() - 2) + 1);
      EXPECT_NE(tail.find("INFO   (rd_log:logfile_size_check:"), std::string::npos) << tail;
      EXPECT_NE(tail.find(") - ..................RD Log Reached  " + std::to_string(c.bytes / 1024) +
                          "KB of size..............................\n"),
                std::string::npos)
          << tail;
      std::string fresh = read_file("rd.log");
      EXPECT_EQ(fresh.find("after check"), fresh.find(") - ") + 4);
    } else {
      EXPECT_GT(platform::file_size("rd.log"), c.bytes);  // the same file grew
    }
  }
}

// Every line checks the size first, so threads writing at once rotate the
// log themselves; the limit is set so that it rotates once, and each line is
// then whole in rd1.log or rd.log, none lost, none torn.
TEST_F(LogTest, NoLineLostWhenManyThreadsRotate) {
  constexpr int kThreads = 4, kLines = 3000;
  rd_set_log_size_limit_kb(500);  // the run writes about 800 KB
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) RD_INFO("thread %d line %d", t, i);
    });
  }
  for (auto& th : threads) th.join();
  zlog_fini();
  const std::string old = read_file("rd1.log");
  ASSERT_GT(old.size(), 500u * 1024);
  EXPECT_NE(old.find("RD Log Reached  501KB of size"), std::string::npos);
  std::regex line_re(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (INFO   |ERROR  )\([a-z_]+:[^:]+:\d+\) - .*$)");
  std::istringstream in(old + read_file("rd.log"));
  std::string line;
  std::set<std::string> seen;
  while (std::getline(in, line)) {
    ASSERT_TRUE(std::regex_match(line, line_re)) << line;
    auto pos = line.find("thread ");
    if (pos != std::string::npos) seen.insert(line.substr(pos));
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kLines));
}

TEST_F(LogTest, StatusPipeMessagesArriveByteForByte) {
  testutil::PipeReader reader(dir_.path());
  ASSERT_EQ(create_Pipe(), 0);
  RD_PIPE("5000", "Listen error\n");
  RD_PIPE("10000", "File Not Found : %s\n", "config.ini");
  RD_PIPE("5000", "RD Service is in USED state,|please wait for some time\n");
  ASSERT_TRUE(reader.wait_for("wait for some time\n"));
  EXPECT_EQ(reader.received(),
            "5000|Listen error\n10000|File Not Found : config.ini\n"
            "5000|RD Service is in USED state,|please wait for some time\n");
}

// The status pipe is opened only when it is a FIFO of this user that others
// can neither read nor write: another user's FIFO could read the messages or
// inject its own, and a link could lead anywhere. Each failure carries its
// error number, as the host shows it.
TEST_F(LogTest, PipeMustBeAPrivateFifoOfThisUser) {
  const std::string folder = testutil::shared_folder(dir_, "run");
  struct Row {
    const char* name;
    bool (*plant)(const std::string& path);
    bool other_user;  // planted by another user
    int error;        // 0: opened
  };
  const Row rows[] = {
      {"private FIFO", [](const std::string& p) { return !mkfifo(p.c_str(), 0600); }, false, 0},
      {"nothing there", [](const std::string&) { return true; }, false, ENOENT},
      {"plain file", [](const std::string& p) { return creat(p.c_str(), 0600) >= 0; }, false, ENOENT},
      {"FIFO others may write",
       [](const std::string& p) { return !mkfifo(p.c_str(), 0600) && !chmod(p.c_str(), 0622); }, false, EPERM},
      {"link to a private FIFO",
       [](const std::string& p) {
         return !mkfifo((p + ".real").c_str(), 0600) && !symlink((p + ".real").c_str(), p.c_str());
       },
       false, ELOOP},
      {"another user's FIFO", [](const std::string& p) { return !mkfifo(p.c_str(), 0600); }, true, EPERM},
  };
  int n = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.other_user && !testutil::other_user_available()) {
      std::printf("skipped \"%s\": only root can play another user here\n", row.name);
      continue;
    }
    const std::string path = folder + "/fifo" + std::to_string(n++);
    auto plant = [&] { return row.plant(path); };
    ASSERT_TRUE(row.other_user ? testutil::as_other_user(plant) : plant());
    // A reader, so that a FIFO opens at all (as the front end would hold it).
    const std::string opened = testutil::mode_of(path + ".real") >= 0 ? path + ".real" : path;
    int reader = ::open(opened.c_str(), O_RDONLY | O_NONBLOCK);
    platform::set_status_pipe_path(path);
    EXPECT_EQ(create_Pipe(), row.error == 0 ? 0 : -1);
    if (row.error != 0) {
      EXPECT_TRUE(testutil::last_status().ends_with(
          " | rd_log | create_Pipe | Create pipe failed, error_code = " + std::to_string(row.error) + "\n "))
          << testutil::last_status();
    }
    if (reader >= 0) ::close(reader);
    rd_log_reset_for_test();
  }
  EXPECT_NE(read_file("rd.log").find(") - Create pipe failed\n\n"), std::string::npos);
  // Without a test's path: the user's private runtime folder, from an
  // absolute XDG_RUNTIME_DIR only.
  platform::set_status_pipe_path("");
  const std::string fallback = "/run/user/" + std::to_string(geteuid()) + "/qdx.win.002";
  const struct {
    const char* runtime;  // nullptr: unset
    std::string path;
  } paths[] = {
      {nullptr, fallback}, {"", fallback}, {"run", fallback}, {"/run/user/4242", "/run/user/4242/qdx.win.002"}};
  for (const auto& p : paths) {
    if (p.runtime == nullptr) {
      unsetenv("XDG_RUNTIME_DIR");
    } else {
      setenv("XDG_RUNTIME_DIR", p.runtime, 1);
    }
    EXPECT_EQ(platform::status_pipe_path(), p.path) << (p.runtime ? p.runtime : "(unset)");
  }
}

// A front end that stops reading costs messages, never a thread of the
// service: once the FIFO is full a write fails at once.
TEST_F(LogTest, FullPipeFailsInsteadOfBlocking) {
  const std::string path = dir_.file("fifo");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int idle_reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);  // never reads
  platform::set_status_pipe_path(path);
  ASSERT_EQ(create_Pipe(), 0);
  const std::string message(2000, 'm');
  int sent = 0;
  while (sent < 1000 && write_to_pipe(message.data(), message.size()) == 0) ++sent;
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 1000);
  EXPECT_TRUE(testutil::last_status().ends_with("Write to pipe failed, error_code = " + std::to_string(EAGAIN) + "\n "))
      << testutil::last_status();
  ::close(idle_reader);
}

TEST_F(LogTest, ReaderGoneGivesEpipeNotSignal) {
  {
    testutil::PipeReader reader(dir_.path());
    ASSERT_EQ(create_Pipe(), 0);
    RD_PIPE("5000", "first\n");
    ASSERT_TRUE(reader.wait_for("first\n"));
    // Keep the library's end open while the reader closes: reopen it after
    // the reader object resets it.
  }
  // The reader is gone and the pipe handle was reset: a write fails cleanly.
  EXPECT_EQ(write_to_pipe("x\n", 2), -1);
  EXPECT_NE(testutil::last_status().find("Write to pipe failed, error_code = "), std::string::npos);
}

TEST_F(LogTest, ErrorLogAppendsUnchanged) {
  write_error_log("zlog_init failed\n");
  write_error_log("second\n");
  EXPECT_EQ(read_file("Vexo_Error.log"), "zlog_init failed\nsecond\n");
}

}  // namespace
