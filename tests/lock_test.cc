// Scanner and handheld locks: across real processes (fork), across threads,
// and through their start-up from the configured scanner name.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "common/rd_config.h"
#include "semaphore/semaphore_syc.h"
#include "test_util.h"

namespace {

using testutil::last_status;

// The library fixture: locks in its folder "locks", 300 ms lock waits, an
// Aratek_A600 configured.
using LockTest = testutil::LibraryTest;

// Runs fn in a child process that opens the lock afresh (or uses the handles
// it inherited); returns its exit code.
template <typename Fn>
int in_child(Fn fn, bool reopen = true) {
  pid_t pid = fork();
  if (pid == 0) {
    if (reopen) semaphore_reset_for_test();
    _exit(!reopen || init_semaphore() == 0 ? fn() : 99);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void use_scanner(const char* name) {
  semaphore_reset_for_test();
  rd_identity_update([&](RdIdentity& r) { r.scanner_name = name; });
}

// Another user plants things at the lock path before the service starts:
// nothing is followed, nothing of theirs changes mode, and a name taken by
// anything but a plain file stops start-up, naming the path. A plain file
// with one link is a lock of another user's service and is shared as it is.
TEST_F(LockTest, NamesPlantedByAnotherUserAreNeverFollowedOrChanged) {
  const struct {
    const char* name;
    bool (*plant)(const std::string& lock, const std::string& other);
    int expected;
    bool lock_is_victim;  // the mode to watch is the lock path's own, not the other file's
  } rows[] = {
      {"link to a private file",
       [](auto& l, auto& o) { return creat(o.c_str(), 0600) >= 0 && !symlink(o.c_str(), l.c_str()); }, -1, false},
      {"link to nothing", [](auto& l, auto& o) { return !symlink(o.c_str(), l.c_str()); }, -1, false},
      {"second link of a private file",
       [](auto& l, auto& o) { return creat(o.c_str(), 0600) >= 0 && !link(o.c_str(), l.c_str()); }, -1, false},
      {"FIFO", [](auto& l, auto&) { return !mkfifo(l.c_str(), 0600); }, -1, true},
      {"folder", [](auto& l, auto&) { return !mkdir(l.c_str(), 0700); }, -1, true},
      {"plain file 0644", [](auto& l, auto&) { return creat(l.c_str(), 0644) >= 0; }, 0, true},
  };
  int n = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string folder = testutil::shared_folder(dir_, std::to_string(n++));
    seams([&](testutil::Seams& s) { s.lock_dir = folder; });
    semaphore_reset_for_test();
    const std::string lock = folder + "/Global_QDX_WIN_010.lock", other = folder + "/other";
    ASSERT_TRUE(testutil::as_other_user([&] { return row.plant(lock, other); }));
    const std::string watched = row.lock_is_victim ? lock : other;
    const int mode = testutil::mode_of(watched);
    EXPECT_EQ(init_semaphore(), row.expected);
    EXPECT_EQ(testutil::mode_of(watched), mode);
    if (row.expected != 0) {
      EXPECT_NE(last_status().find(" | semaphore_syc | init_semaphore | Lock file " + lock + " cannot be used"),
                std::string::npos)
          << last_status();
    } else {
      EXPECT_EQ(Lock_Semaphore(), 0);
      EXPECT_EQ(Unlock_Semaphore(), 0);
    }
  }
  // A file made here is shared with every user, whatever the umask.
  const std::string folder = testutil::shared_folder(dir_, "fresh");
  seams([&](testutil::Seams& s) { s.lock_dir = folder; });
  semaphore_reset_for_test();
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_EQ(testutil::mode_of(folder + "/Global_QDX_WIN_010.lock"), 0666);
  // The handheld lock's name is refused the same way.
  const std::string tavio = folder + "/Global_QDX_WIN_009_Tavio.lock";
  ASSERT_TRUE(testutil::as_other_user([&] { return !symlink((folder + "/x").c_str(), tavio.c_str()); }));
  use_scanner("Tavio_TX9");
  EXPECT_EQ(init_semaphore(), -1);
  EXPECT_NE(last_status().find(" | semaphore_Tavio | init_semaphore_Tavio | Lock file " + tavio), std::string::npos)
      << last_status();
  EXPECT_FALSE(std::filesystem::exists(folder + "/x"));
}

// Only the exact model names have a lock; the handheld's name is the whole
// scanner name, not a prefix of a longer one.
TEST(LockNames, ScannerTable) {
  const std::pair<const char*, const char*> cases[] = {
      {"Aratek_A400", "Global\\QDX_WIN_011"},
      {"aratek_a600", nullptr},
      {"Aratek", nullptr},
      {"Tavio_TX9|COM3|x", nullptr},
  };
  for (const auto& [scanner, lock] : cases) {
    const char* got = semaphore_name_for_scanner(scanner);
    EXPECT_EQ(std::string(got ? got : "(none)"), std::string(lock ? lock : "(none)")) << scanner;
  }
  EXPECT_EQ(semaphore_name_for_scanner(nullptr), nullptr);
}

TEST_F(LockTest, SecondProcessTimesOutWhileFirstHolds) {
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_TRUE(platform::file_exists(dir_.file("locks/Global_QDX_WIN_010.lock")));
  ASSERT_EQ(Lock_Semaphore(), 0);
  // The wait of another process that opened the lock itself:
  // HandheldHostProcess.ServesPostAuthAndYieldsToAnotherHolder. A child that
  // uses the handles it inherited times out too, and cannot drop the parent's lock.
  EXPECT_EQ(in_child([] { return Unlock_Semaphore() == -1 && Lock_Semaphore() == -2 ? 0 : 1; }, false), 0);
  ASSERT_EQ(Unlock_Semaphore(), 0);
  EXPECT_EQ(in_child([] { return Lock_Semaphore() == 0 && Unlock_Semaphore() == 0 ? 0 : 1; }), 0);
  // A holder that dies without releasing (_exit runs no clean-up, as after a
  // kill) does not keep the lock.
  EXPECT_EQ(in_child([] { return Lock_Semaphore(); }), 0);
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
  seams([](testutil::Seams& s) { s.scanner_lock_ms = 5000; });
  std::uint64_t start = platform::monotonic_ms();
  std::thread waiter([&] { second = Lock_Semaphore(); });
  platform::sleep_ms(100);
  EXPECT_EQ(Unlock_Semaphore(), 0);
  waiter.join();
  EXPECT_EQ(second, 0);
  EXPECT_LT(platform::monotonic_ms() - start, 3000u);
  EXPECT_EQ(Unlock_Semaphore(), 0);
}

// Without a lock to use: no lock before start-up, no release of a free lock;
// a Tavio scanner has the handheld lock beside the scanner lock, each
// independent of the other.
TEST_F(LockTest, FreeLocksRefuseReleaseAndTavioAddsTheHandheldLock) {
  EXPECT_EQ(Lock_Semaphore(), -1);        // nothing created yet
  EXPECT_EQ(Lock_Semaphore_Tavio(), -2);  // nor the handheld lock
  use_scanner("Tavio_TX9");
  ASSERT_EQ(init_semaphore(), 0);
  EXPECT_TRUE(platform::file_exists(dir_.file("locks/Global_QDX_WIN_009.lock")));
  EXPECT_EQ(Unlock_Semaphore(), -1);  // nobody holds it
  EXPECT_EQ(Unlock_Semaphore_Tavio(), -1);
  ASSERT_EQ(Lock_Semaphore_Tavio(), 0);
  EXPECT_EQ(Lock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore(), 0);
  EXPECT_EQ(Unlock_Semaphore_Tavio(), 0);
  const std::string log = testutil::log_text();
  for (const char* line :
       {" - openSemaphore error\n", " - error at sem_release\n", " - error at sem_release for Tavio Semaphore\n"}) {
    EXPECT_TRUE(testutil::has(log, line));
  }
}

}  // namespace
