// Scanner and handheld locks: across real processes (fork), across threads,
// and through their start-up from the configured scanner name.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "platform/platform.h"
#include "semaphore/semaphore_syc.h"
#include "test_util.h"
#include "platform/test_seams.h"

namespace {

constexpr unsigned kShortMs = 300;

class LockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_seams::update([&](test_seams::Seams& s) { s.lock_dir = dir_.path(); });
    test_seams::update([&](test_seams::Seams& s) {
      s.scanner_lock_ms = kShortMs;
      s.handheld_lock_ms = kShortMs;
    });
    semaphore_reset_for_test();
    rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Aratek_A600"; });
  }
  void TearDown() override {
    semaphore_reset_for_test();
    zlog_fini();
  }
  testutil::WorkDir dir_;
};

// Runs fn in a child process that opens the lock afresh; returns its exit code.
template <typename Fn>
int in_child(Fn fn) {
  pid_t pid = fork();
  if (pid == 0) {
    semaphore_reset_for_test();
    _exit(init_semaphore() == 0 ? fn() : 99);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Another user plants things at the lock path before the service starts:
// nothing is followed, nothing of theirs changes mode, and a name taken by
// anything but a plain file stops start-up, naming the path. A plain file
// with one link is a lock of another user's service and is shared as it is.
TEST_F(LockTest, NamesPlantedByAnotherUserAreNeverFollowedOrChanged) {
  struct Row {
    const char* name;
    bool (*plant)(const std::string& lock, const std::string& other);
    int expected;
    bool lock_is_victim;  // the mode to watch is the lock path's own, not the other file's
  };
  const Row rows[] = {
      {"link to a private file",
       [](auto& l, auto& o) { return creat(o.c_str(), 0600) >= 0 && !symlink(o.c_str(), l.c_str()); }, -1, false},
      {"link to nothing", [](auto& l, auto& o) { return !symlink(o.c_str(), l.c_str()); }, -1, false},
      {"second link of a private file",
       [](auto& l, auto& o) { return creat(o.c_str(), 0600) >= 0 && !link(o.c_str(), l.c_str()); }, -1, false},
      {"FIFO", [](auto& l, auto&) { return !mkfifo(l.c_str(), 0600); }, -1, true},
      {"folder", [](auto& l, auto&) { return !mkdir(l.c_str(), 0700); }, -1, true},
      {"plain file 0644", [](auto& l, auto&) { return creat(l.c_str(), 0644) >= 0; }, 0, true},
      {"plain file 0666", [](auto& l, auto&) { return creat(l.c_str(), 0666) >= 0; }, 0, true},
  };
  int n = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string folder = testutil::shared_folder(dir_, "s" + std::to_string(n++));
    test_seams::update([&](test_seams::Seams& s) { s.lock_dir = folder; });
    semaphore_reset_for_test();
    const std::string lock = folder + "/Global_QDX_WIN_010.lock";
    const std::string other = folder + "/other";
    ASSERT_TRUE(testutil::as_other_user([&] { return row.plant(lock, other); }));
    const std::string watched = row.lock_is_victim ? lock : other;
    const int mode = testutil::mode_of(watched);
    EXPECT_EQ(init_semaphore(), row.expected);
    EXPECT_EQ(testutil::mode_of(watched), mode);
    if (row.expected != 0) {
      const std::string status = testutil::last_status();
      EXPECT_NE(status.find(" | semaphore_syc | init_semaphore | Lock file " + lock + " cannot be used"),
                std::string::npos)
          << status;
    } else {
      EXPECT_EQ(Lock_Semaphore(), 0);
      EXPECT_EQ(Unlock_Semaphore(), 0);
    }
  }
  // A file made here is shared with every user, whatever the umask.
  const std::string folder = testutil::shared_folder(dir_, "fresh");
  test_seams::update([&](test_seams::Seams& s) { s.lock_dir = folder; });
  semaphore_reset_for_test();
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_EQ(testutil::mode_of(folder + "/Global_QDX_WIN_010.lock"), 0666);
  // The handheld lock's name is refused the same way.
  const std::string tavio = folder + "/Global_QDX_WIN_009_Tavio.lock";
  ASSERT_TRUE(testutil::as_other_user([&] { return !symlink((folder + "/x").c_str(), tavio.c_str()); }));
  semaphore_reset_for_test();
  rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Tavio_TX9"; });
  EXPECT_EQ(init_semaphore(), -1);
  EXPECT_NE(testutil::last_status().find(" | semaphore_Tavio | init_semaphore_Tavio | Lock file " + tavio),
            std::string::npos)
      << testutil::last_status();
  EXPECT_FALSE(std::filesystem::exists(folder + "/x"));
}

TEST(LockNames, ScannerTable) {
  const struct {
    const char* scanner;
    const char* lock;
  } cases[] = {
      {"UAREU", "Global\\QDX_WIN_001"},
      {"FUTRONIC", "Global\\QDX_WIN_002"},
      {"GEMALTO", "Global\\QDX_WIN_004"},
      {"MANTRA", "Global\\QDX_WIN_005"},
      {"MORPHO", "Global\\QDX_WIN_006"},
      {"SECUGEN", "Global\\QDX_WIN_007"},
      {"TX9", "Global\\QDX_WIN_008"},
      {"Tavio_TX9", "Global\\QDX_WIN_009"},
      {"Aratek_A600", "Global\\QDX_WIN_010"},
      {"Aratek_A400", "Global\\QDX_WIN_011"},
      {"aratek_a600", nullptr},
      {"Aratek_A600 ", nullptr},
      {"Aratek", nullptr},
      {"", nullptr},
      {"TX", nullptr},
      {"Tavio_TX9|COM3|x", nullptr},
  };
  for (const auto& c : cases) {
    const char* got = semaphore_name_for_scanner(c.scanner);
    if (c.lock == nullptr) {
      EXPECT_EQ(got, nullptr) << c.scanner;
    } else {
      ASSERT_NE(got, nullptr) << c.scanner;
      EXPECT_STREQ(got, c.lock) << c.scanner;
    }
  }
  EXPECT_EQ(semaphore_name_for_scanner(nullptr), nullptr);
}

TEST_F(LockTest, SecondProcessTimesOutWhileFirstHolds) {
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_TRUE(platform::file_exists(dir_.file("Global_QDX_WIN_010.lock")));
  ASSERT_EQ(Lock_Semaphore(), 0);
  int waited = in_child([] {
    std::uint64_t start = platform::monotonic_ms();
    int rc = Lock_Semaphore();
    std::uint64_t took = platform::monotonic_ms() - start;
    if (rc != -2) return 1;
    return took >= kShortMs - 10 && took < kShortMs + 2000 ? 0 : 2;
  });
  EXPECT_EQ(waited, 0);
  // A child that uses the handles it inherited cannot drop the parent's lock.
  pid_t pid = fork();
  if (pid == 0) _exit(Unlock_Semaphore() == -1 && Lock_Semaphore() == -2 ? 0 : 1);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(in_child([] { return Lock_Semaphore() == -2 ? 0 : 1; }), 0);
  ASSERT_EQ(Unlock_Semaphore(), 0);
  EXPECT_EQ(in_child([] { return Lock_Semaphore() == 0 && Unlock_Semaphore() == 0 ? 0 : 1; }), 0);
  // Another scanner model has a lock of its own.
  ASSERT_EQ(Lock_Semaphore(), 0);
  EXPECT_EQ(in_child([] {
              semaphore_reset_for_test();
              rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Aratek_A400"; });
              return init_semaphore() == 0 && Lock_Semaphore() == 0 ? 0 : 1;
            }),
            0);
  EXPECT_EQ(Unlock_Semaphore(), 0);
}

TEST_F(LockTest, KilledHolderDoesNotKeepTheLock) {
  ASSERT_EQ(init_semaphore(), 0);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = fork();
  if (pid == 0) {
    semaphore_reset_for_test();
    char ok = (init_semaphore() == 0 && Lock_Semaphore() == 0) ? 'y' : 'n';
    (void)!write(ready[1], &ok, 1);
    for (;;) pause();
  }
  close(ready[1]);
  char ok = 0;
  ASSERT_EQ(read(ready[0], &ok, 1), 1);
  close(ready[0]);
  ASSERT_EQ(ok, 'y');
  EXPECT_EQ(Lock_Semaphore(), -2);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(Lock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore(), 0);
}

TEST_F(LockTest, ThreadsExcludeEachOtherAndAnyThreadReleases) {
  ASSERT_EQ(init_semaphore(), 0);
  ASSERT_EQ(Lock_Semaphore(), 0);
  int second = 0;
  std::thread([&] { second = Lock_Semaphore(); }).join();
  EXPECT_EQ(second, -2);
  int released = -5;
  std::thread([&] { released = Unlock_Semaphore(); }).join();
  EXPECT_EQ(released, 0);
  // A waiter is woken by a release from another thread before its time-out.
  ASSERT_EQ(Lock_Semaphore(), 0);
  test_seams::update([&](test_seams::Seams& s) {
    s.scanner_lock_ms = 5000;
    s.handheld_lock_ms = kShortMs;
  });
  std::uint64_t start = platform::monotonic_ms();
  std::thread waiter([&] { second = Lock_Semaphore(); });
  platform::sleep_ms(100);
  EXPECT_EQ(Unlock_Semaphore(), 0);
  waiter.join();
  EXPECT_EQ(second, 0);
  EXPECT_LT(platform::monotonic_ms() - start, 3000u);
  EXPECT_EQ(Unlock_Semaphore(), 0);
}

TEST_F(LockTest, ReleasingAFreeLockFails) {
  ASSERT_EQ(zlog_init("rd.log"), 0);
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore(), -1);
  ASSERT_EQ(Lock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore(), -1);
  zlog_fini();
  EXPECT_NE(testutil::read_file("rd.log").find("error at sem_release"), std::string::npos);
}

TEST_F(LockTest, UnknownScannerAndMissingHandle) {
  ASSERT_EQ(zlog_init("rd.log"), 0);
  EXPECT_EQ(Lock_Semaphore(), -1);  // nothing created yet
  rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Aratek_A900"; });
  EXPECT_EQ(init_semaphore(), -1);
  EXPECT_EQ(Lock_Semaphore(), -1);
  zlog_fini();
  std::string log = testutil::read_file("rd.log");
  EXPECT_NE(log.find("ERROR  ("), std::string::npos) << log;
  EXPECT_NE(log.find(" - FP sensor is not valid sensor\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" - openSemaphore error\n"), std::string::npos) << log;
}

TEST_F(LockTest, TavioScannerCreatesBothLocks) {
  ASSERT_EQ(zlog_init("rd.log"), 0);
  EXPECT_EQ(Lock_Semaphore_Tavio(), -2);  // not created yet
  rd_identity_update([&](RdIdentity& r) { r.scanner_name = "Tavio_TX9"; });
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_TRUE(platform::file_exists(dir_.file("Global_QDX_WIN_009.lock")));
  EXPECT_EQ(Unlock_Semaphore_Tavio(), -1);
  ASSERT_EQ(Lock_Semaphore_Tavio(), 0);
  std::uint64_t start = platform::monotonic_ms();
  EXPECT_EQ(Lock_Semaphore_Tavio(), -2);
  EXPECT_GE(platform::monotonic_ms() - start, kShortMs - 10);
  int released = -5;
  std::thread([&] { released = Unlock_Semaphore_Tavio(); }).join();
  EXPECT_EQ(released, 0);
  EXPECT_EQ(Lock_Semaphore_Tavio(), 0);
  // The scanner lock is independent of the handheld lock.
  EXPECT_EQ(Lock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore_Tavio(), 0);
  zlog_fini();
  std::string log = testutil::read_file("rd.log");
  EXPECT_NE(log.find(" - sem_timedwait Tavio timeout\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" - error at sem_release for Tavio Semaphore\n"), std::string::npos) << log;
}

TEST_F(LockTest, OtherScannersDoNotCreateTheHandheldLock) {
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_EQ(Lock_Semaphore_Tavio(), -2);
}

}  // namespace
