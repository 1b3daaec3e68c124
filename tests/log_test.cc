// Run log, last-status line, rotation and status pipe.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
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
    platform::set_time_for_test(std::nullopt);
    rd_log_reset_for_test();
  }
  testutil::WorkDir dir_;
};

TEST_F(LogTest, LinesCarryIstTimeLevelFileFunctionAndLine) {
  platform::set_time_for_test(0);  // 1970-01-01 00:00:00 UTC
  const unsigned info_line = __LINE__ + 1;
  RD_INFO("socket is bound on port: %hd", static_cast<short>(11100));
  const unsigned error_line = __LINE__ + 1;
  RD_ERROR("Listen error");
  std::string expected = "1970-01-01 05:30:00 INFO   (log_test:TestBody:" + std::to_string(info_line) +
                         ") - socket is bound on port: 11100\n" + "1970-01-01 05:30:00 ERROR  (log_test:TestBody:" +
                         std::to_string(error_line) + ") - Listen error\n";
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

  platform::set_time_for_test(0);
  EXPECT_EQ(RD_STATUS("Listen error "), 0);
  EXPECT_EQ(testutil::last_status(), "1970-01-01 05:30:00 | log_test | TestBody | Listen error ");

  platform::set_time_for_test(static_cast<std::time_t>(-1));
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

TEST_F(LogTest, NoLineLostAcrossRotationByManyThreads) {
  rd_set_log_size_limit_kb(16);  // rotate often
  constexpr int kThreads = 4, kLines = 3000;
  std::vector<std::thread> threads;
  std::atomic<int> rotations{0};
  std::mutex rotate_mutex;  // one generation at a time, so rd1.log is never overwritten unread
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &rotations, &rotate_mutex] {
      for (int i = 0; i < kLines; ++i) {
        RD_INFO("thread %d line %d", t, i);
        if (i % 50 == 0) {
          std::lock_guard<std::mutex> lock(rotate_mutex);
          EXPECT_EQ(logfile_size_check(), 0);
          // Keep every generation: move rd1.log aside after each rotation.
          if (platform::file_exists("rd1.log")) {
            std::string name = "gen" + std::to_string(rotations.fetch_add(1)) + ".log";
            (void)std::rename("rd1.log", name.c_str());
          }
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  rd_set_log_size_limit_kb(2048);
  EXPECT_EQ(rd_log_size_limit_kb(), 2048);
  zlog_fini();
  std::string all = read_file("rd.log");
  for (int g = 0; g < rotations.load(); ++g) all += read_file("gen" + std::to_string(g) + ".log");
  if (platform::file_exists("rd1.log")) all += read_file("rd1.log");
  EXPECT_GT(rotations.load(), 2);
  int count = 0;
  std::regex line_re(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (INFO   |ERROR  )\([a-z_]+:[^:]+:\d+\) - .*$)");
  std::istringstream in(all);
  std::string line;
  std::set<std::string> seen;
  while (std::getline(in, line)) {
    ASSERT_TRUE(std::regex_match(line, line_re)) << line;
    auto pos = line.find("thread ");
    if (pos != std::string::npos) {
      ++count;
      seen.insert(line.substr(pos));
    }
  }
  EXPECT_EQ(count, kThreads * kLines);
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

TEST_F(LogTest, MissingPipeFailsWithErrorCode) {
  platform::set_status_pipe_path(dir_.file("no_such_fifo"));
  platform::set_time_for_test(0);
  EXPECT_EQ(create_Pipe(), -1);
  EXPECT_EQ(testutil::last_status(), "1970-01-01 05:30:00 | rd_log | create_Pipe | Create pipe failed, error_code = 2\n ");
  EXPECT_NE(read_file("rd.log").find("ERROR  (rd_log:create_Pipe:"), std::string::npos);
  EXPECT_NE(read_file("rd.log").find(") - Create pipe failed\n\n"), std::string::npos);

  // A plain file is not a FIFO either.
  testutil::write_file("plain", "");
  platform::set_status_pipe_path(dir_.file("plain"));
  EXPECT_EQ(create_Pipe(), -1);
  platform::set_status_pipe_path("/tmp/qdx.win.002");
  EXPECT_EQ(platform::status_pipe_path(), "/tmp/qdx.win.002");
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

TEST(StatusTest, TextsCarryTheirQuotes) {
  EXPECT_STREQ(get_rd_status(), "\"READY\"");  // zero at load
  set_rd_status_used();
  EXPECT_STREQ(get_rd_status(), "\"USED\"");
  set_rd_status_notready();
  EXPECT_STREQ(get_rd_status(), "\"NOTREADY\"");
  set_rd_status_ready();
  EXPECT_EQ(get_rd_status_index(), 0u);
  set_device_serial("A600-1");
  EXPECT_EQ(get_device_serial(), "A600-1");
}

}  // namespace
