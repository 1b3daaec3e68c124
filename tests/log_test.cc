// Run log, last-status line, rotation and status pipe.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "common/rd_log.h"
#include "test_util.h"
#include "vexo.h"

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

using testutil::last_status;
using testutil::read_file;
using LogTest = testutil::LibraryTest;

// Log lines carry the IST time, the level, file, function and line; verbose
// lines appear only with the flag. The last-status line starts empty, and a
// clock that cannot be read leaves it as it was and the time off log lines.
// The error log takes its text unchanged.
TEST_F(LogTest, LinesStatusAndClock) {
  zlog_fini();
  std::remove("rd.log");
  ASSERT_EQ(zlog_init("rd.log"), 0);
  rd_log_reset_for_test();
  char buf[VEXO_STATUS_LEN];
  std::memset(buf, 'x', sizeof buf);
  EXPECT_EQ(Get_Last_RDservice_Status(buf), 0);
  EXPECT_STREQ(buf, "");                         // nothing reported yet
  seams([](testutil::Seams& s) { s.now = 0; });  // 1970-01-01 00:00:00 UTC
  const int line = __LINE__ + 1;
  RD_INFO("socket is bound on port: %hd", static_cast<short>(11100));
  RD_ERROR("Listen error");
  RD_VERBOSE("hidden");
  rd_set_verbose(1);
  RD_VERBOSE("traced");
  EXPECT_EQ(RD_STATUS("Listen error "), 0);
  EXPECT_EQ(last_status(), "1970-01-01 05:30:00 | log_test | TestBody | Listen error ");
  seams([](testutil::Seams& s) { s.now = static_cast<std::time_t>(-1); });
  EXPECT_EQ(RD_STATUS("other"), -1);
  EXPECT_EQ(last_status(), "1970-01-01 05:30:00 | log_test | TestBody | Listen error ");
  RD_INFO("no clock");
  const auto site = [&](int offset) { return "(log_test:TestBody:" + std::to_string(line + offset) + ") - "; };
  EXPECT_EQ(read_file("rd.log"), "1970-01-01 05:30:00 INFO   " + site(0) + "socket is bound on port: 11100\n" +
                                     "1970-01-01 05:30:00 ERROR  " + site(1) + "Listen error\n" +
                                     "1970-01-01 05:30:00 INFO   " + site(4) + "traced\n" + "INFO   " + site(10) +
                                     "no clock\n");
  write_error_log("zlog_init failed\n");
  write_error_log("second\n");
  EXPECT_EQ(read_file("Vexo_Error.log"), "zlog_init failed\nsecond\n");
}

TEST_F(LogTest, RotatesOnlyAboveTheLimit) {
  const std::pair<long, bool> cases[] = {{2098175, false}, {2098176, true}};
  for (const auto& [bytes, rotated] : cases) {
    SCOPED_TRACE(bytes);
    zlog_fini();
    std::remove("rd1.log");
    testutil::write_file("rd.log", "");
    std::filesystem::resize_file("rd.log", static_cast<std::uintmax_t>(bytes));
    ASSERT_EQ(zlog_init("rd.log"), 0);
    EXPECT_EQ(logfile_size_check(), 0);
    EXPECT_EQ(platform::file_exists("rd1.log"), rotated);
    RD_INFO("after check");
    if (!rotated) {
      EXPECT_GT(platform::file_size("rd.log"), bytes);  // the same file grew
      continue;
    }
    const std::string old = read_file("rd1.log");
    const std::string tail = old.substr(old.find_last_of(std::string("\n\0", 2), old.size() - 2) + 1);
    EXPECT_TRUE(std::regex_match(tail, std::regex(R"(.* INFO   \(rd_log:logfile_size_check:\d+\) - )"
                                                  R"(\.{18}RD Log Reached  2049KB of size\.{30}\n)")))
        << tail;
    const std::string fresh = read_file("rd.log");
    EXPECT_EQ(fresh.find("after check"), fresh.find(") - ") + 4);
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
  std::set<std::string> seen;
  for (std::string line; std::getline(in, line);) {
    ASSERT_TRUE(std::regex_match(line, line_re)) << line;
    if (auto pos = line.find("thread "); pos != std::string::npos) seen.insert(line.substr(pos));
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kLines));
}

// Once the reader is gone a write fails (EPIPE, not a signal that would end
// the process). The messages' bytes: every test that reads the pipe.
TEST_F(LogTest, WriteFailsOnceTheReaderIsGone) {
  RD_PIPE("10000", "File Not Found : %s\n", "config.ini");
  ASSERT_TRUE(pipe_->wait_for("10000|File Not Found : config.ini\n"));
  pipe_.reset();
  EXPECT_EQ(write_to_pipe("x\n", 2), -1);
  EXPECT_NE(last_status().find("Write to pipe failed, error_code = "), std::string::npos) << last_status();
}

#ifndef _WIN32
// The status pipe is opened only when it is a FIFO of this user that others
// can neither read nor write: another user's FIFO could read the messages or
// inject its own, and a link could lead anywhere. Each failure carries its
// error number, as the host shows it.
TEST_F(LogTest, PipeMustBeAPrivateFifoOfThisUser) {
  const std::string folder = testutil::shared_folder(dir_, "run");
  const struct {
    const char* name;
    bool (*plant)(const std::string& path);
    bool other_user;  // planted by another user
    int error;        // 0: opened
  } rows[] = {
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
  for (const auto& row : rows) {
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
    const int reader = ::open(opened.c_str(), O_RDONLY | O_NONBLOCK);
    platform::set_status_pipe_path(path);
    EXPECT_EQ(create_Pipe(), row.error == 0 ? 0 : -1);
    if (row.error != 0) {
      EXPECT_TRUE(last_status().ends_with(
          " | rd_log | create_Pipe | Create pipe failed, error_code = " + std::to_string(row.error) + "\n "))
          << last_status();
    }
    if (reader >= 0) ::close(reader);
    rd_log_reset_for_test();
  }
  EXPECT_NE(read_file("rd.log").find(") - Create pipe failed\n\n"), std::string::npos);
  // Without a test's path: the user's private runtime folder, from an
  // absolute XDG_RUNTIME_DIR only.
  platform::set_status_pipe_path("");
  const std::string fallback = "/run/user/" + std::to_string(geteuid()) + "/qdx.win.002";
  const std::pair<const char*, std::string> paths[] = {
      {nullptr, fallback}, {"run", fallback}, {"/run/user/4242", "/run/user/4242/qdx.win.002"}};
  for (const auto& [runtime, expected] : paths) {
    testsys::set_env("XDG_RUNTIME_DIR", runtime);
    EXPECT_EQ(platform::status_pipe_path(), expected) << (runtime ? runtime : "(unset)");
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
  EXPECT_TRUE(last_status().ends_with("Write to pipe failed, error_code = " + std::to_string(EAGAIN) + "\n "))
      << last_status();
  ::close(idle_reader);
}
#endif  // the status FIFO of POSIX

}  // namespace
