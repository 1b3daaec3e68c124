// src/platform/win32/ against the real system: sockets over the loopback, a
// named pipe server, named semaphores held by a child process, files in a
// folder of the test's own.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <aclapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "platform/pages.h"
#include "platform/platform.h"
#include "platform/socket_extra.h"
#include "platform/test_seams.h"

namespace {

// A folder of this test run's own below the system's temporary folder.
class TempDir {
 public:
  TempDir() {
    char base[MAX_PATH];
    ::GetTempPathA(sizeof base, base);
    path_ =
        std::string(base) + "vexo-win32-" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(counter_++);
    ::CreateDirectoryA(path_.c_str(), nullptr);
  }
  ~TempDir() { remove_tree(path_); }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "\\" + name; }

 private:
  static void remove_tree(const std::string& dir) {
    WIN32_FIND_DATAA found;
    HANDLE h = ::FindFirstFileA((dir + "\\*").c_str(), &found);
    if (h != INVALID_HANDLE_VALUE) {
      do {
        const std::string name = found.cFileName;
        if (name == "." || name == "..") continue;
        const std::string full = dir + "\\" + name;
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
          remove_tree(full);
        } else {
          ::DeleteFileA(full.c_str());
        }
      } while (::FindNextFileA(h, &found));
      ::FindClose(h);
    }
    ::RemoveDirectoryA(dir.c_str());
  }
  static inline int counter_ = 0;
  std::string path_;
};

std::vector<std::string> list_dir(const std::string& dir) {
  std::vector<std::string> names;
  WIN32_FIND_DATAA found;
  HANDLE h = ::FindFirstFileA((dir + "\\*").c_str(), &found);
  if (h == INVALID_HANDLE_VALUE) return names;
  do {
    const std::string name = found.cFileName;
    if (name != "." && name != "..") names.push_back(name);
  } while (::FindNextFileA(h, &found));
  ::FindClose(h);
  std::sort(names.begin(), names.end());
  return names;
}

void put_file(const std::string& path, const std::string& data) {
  HANDLE h = ::CreateFileA(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE) << path;
  DWORD n = 0;
  ::WriteFile(h, data.data(), static_cast<DWORD>(data.size()), &n, nullptr);
  ::CloseHandle(h);
}

TEST(Win32Files, AtomicReplacementKeepsBytesAndCleansUp) {
  TempDir dir;
  const std::string path = dir.file("config.ini");
  std::string got;
  ASSERT_EQ(platform::write_file_atomic(path, "one", 3), 0);
  ASSERT_EQ(platform::write_file_atomic(path, "second\n", 7), 0);
  ASSERT_EQ(platform::read_file(path, &got), 0);
  EXPECT_EQ(got, "second\n");
  EXPECT_EQ(platform::file_size(path), 7);

  const struct {
    platform::WriteFault fault;
    int rc;
  } faults[] = {{platform::WriteFault::kOpen, -1}, {platform::WriteFault::kWrite, -2}};
  for (const auto& f : faults) {
    test_seams::update([&](test_seams::Seams& s) { s.write_fault = f.fault; });
    EXPECT_EQ(platform::write_file_atomic(path, "lost", 4), f.rc);
    test_seams::update([](test_seams::Seams& s) { s.write_fault = platform::WriteFault::kNone; });
    ASSERT_EQ(platform::read_file(path, &got), 0);
    EXPECT_EQ(got, "second\n") << "fault " << static_cast<int>(f.fault);
  }
  // A stream is written in binary: no carriage return before the line feeds.
  ASSERT_EQ(platform::write_file_atomic_stream(path, [](std::FILE* f) { return std::fputs("a\nb\n", f) >= 0; }), 0);
  ASSERT_EQ(platform::read_file(path, &got), 0);
  EXPECT_EQ(got, "a\nb\n");
  EXPECT_EQ(platform::write_file_atomic_stream(path, [](std::FILE*) { return false; }), -1);
  ASSERT_EQ(platform::read_file(path, &got), 0);
  EXPECT_EQ(got, "a\nb\n");
  EXPECT_EQ(list_dir(dir.path()), std::vector<std::string>{"config.ini"});
  EXPECT_EQ(platform::read_file(dir.file("missing"), &got), -1);
}

TEST(Win32Files, StaleTemporariesAreRemovedOthersStay) {
  TempDir dir;
  const struct {
    const char* name;
    bool removed;
  } cases[] = {
      {"config.ini.tmpAb12Cd", true}, {"dm.conf.tmpzzzzzz", true}, {"config.ini", false},
      {"config.ini.tmpAb1", false},   {".tmpAb12Cd", false},       {"config.ini.tmpAb12Cde", false},
  };
  for (const auto& c : cases) put_file(dir.file(c.name), "x");
  ::CreateDirectoryA(dir.file("folder.tmpAb12Cd").c_str(), nullptr);
  platform::remove_stale_temporaries(dir.path());
  for (const auto& c : cases) EXPECT_EQ(platform::file_exists(dir.file(c.name)), !c.removed) << c.name;
  EXPECT_TRUE(platform::file_exists(dir.file("folder.tmpAb12Cd")));
}

TEST(Win32Files, FoldersTimesAndOwnerOnlyPermissions) {
  TempDir dir;
  const struct {
    std::string path;
    int rc;
  } cases[] = {
      {dir.file("a\\b\\c"), 0},
      {dir.path() + "/d/e", 0},
      {dir.file("a\\b"), 0},
      {"", -1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(platform::make_dirs(c.path), c.rc) << c.path;
    if (c.rc == 0) {
      EXPECT_TRUE(platform::file_exists(c.path)) << c.path;
    }
  }
  put_file(dir.file("plain"), "x");
  EXPECT_EQ(platform::make_dirs(dir.file("plain")), -1);

  // A new folder grants access to the user, SYSTEM and the administrators
  // alone, whatever its parent allows.
  PSID user = nullptr;
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  ASSERT_EQ(::GetNamedSecurityInfoA(dir.file("a").c_str(), SE_FILE_OBJECT,
                                    OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &user, nullptr, &dacl,
                                    nullptr, &sd),
            ERROR_SUCCESS);
  ASSERT_NE(dacl, nullptr);
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    ACCESS_ALLOWED_ACE* ace = nullptr;
    ASSERT_TRUE(::GetAce(dacl, i, reinterpret_cast<void**>(&ace)));
    if (ace->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || ace->Mask == 0) continue;
    PSID sid = &ace->SidStart;
    EXPECT_TRUE(::EqualSid(sid, user) || ::IsWellKnownSid(sid, WinLocalSystemSid) ||
                ::IsWellKnownSid(sid, WinBuiltinAdministratorsSid))
        << "entry " << i << " grants " << std::hex << ace->Mask << " to another account";
  }
  ::LocalFree(sd);

  const long long now_ns = static_cast<long long>(std::time(nullptr)) * 1000000000LL;
  const long long day_ns = 86400LL * 1000000000LL;
  EXPECT_LT(std::llabs(platform::file_modify_time_ns(dir.file("plain")) - now_ns), day_ns);
  EXPECT_LT(std::llabs(platform::file_access_time(dir.file("plain")) - std::time(nullptr)), 86400);
  EXPECT_EQ(platform::file_modify_time_ns(dir.file("missing")), -1);
  EXPECT_EQ(platform::file_size(dir.file("missing")), -1);
  EXPECT_TRUE(platform::file_readable(dir.file("plain")));
  EXPECT_TRUE(platform::file_readable(dir.path()));
  EXPECT_FALSE(platform::file_readable(dir.file("missing")));
}

TEST(Win32Files, FileIdentity) {
  TempDir dir;
  platform::FileIdentity created, opened, other;
  ASSERT_EQ(platform::file_identity(dir.file("node.txt"), true, &created), 0);
  EXPECT_EQ(platform::file_identity(dir.file("node.txt"), true, &other), -1);
  EXPECT_EQ(platform::last_error(), ERROR_FILE_EXISTS);
  ASSERT_EQ(platform::file_identity(dir.file("node.txt"), false, &opened), 0);
  EXPECT_EQ(opened.volume_serial, created.volume_serial);
  EXPECT_EQ(opened.index_high, created.index_high);
  EXPECT_EQ(opened.index_low, created.index_low);
  ASSERT_EQ(platform::file_identity(dir.file("other.txt"), true, &other), 0);
  EXPECT_EQ(other.volume_serial, created.volume_serial);
  EXPECT_TRUE(other.index_high != created.index_high || other.index_low != created.index_low);
  EXPECT_EQ(platform::file_identity(dir.file("missing.txt"), false, &other), -1);
  EXPECT_EQ(other.index_low, 0u);
}

TEST(Win32Environment, AppData) {
  char saved[MAX_PATH] = "";
  const bool had = ::GetEnvironmentVariableA("APPDATA", saved, sizeof saved) > 0;
  const std::string long_value(600, 'x');
  const struct {
    const char* value;
    std::string expected;
  } cases[] = {
      {"C:\\Users\\operator\\AppData\\Roaming", "C:\\Users\\operator\\AppData\\Roaming"},
      {long_value.c_str(), long_value},
      {nullptr, ""},
  };
  for (const auto& c : cases) {
    ::SetEnvironmentVariableA("APPDATA", c.value);
    EXPECT_EQ(platform::appdata_dir(), c.expected);
  }
  ::SetEnvironmentVariableA("APPDATA", had ? saved : nullptr);
}

TEST(Win32Random, BytesDiffer) {
  std::uint8_t a[32] = {}, b[32] = {};
  ASSERT_EQ(platform::random_bytes(a, sizeof a), 0);
  ASSERT_EQ(platform::random_bytes(b, sizeof b), 0);
  EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
  EXPECT_EQ(platform::random_bytes(a, 0), 0);
}

TEST(Win32Clock, BeepAndSleepWaitTheirTime) {
  const struct {
    bool beep;
    unsigned ms;
  } cases[] = {{true, 60}, {false, 35}, {true, 0}};
  for (const auto& c : cases) {
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t start_ms = platform::monotonic_ms();
    if (c.beep) {
      platform::beep(2000, c.ms);
    } else {
      platform::sleep_ms(c.ms);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(c.ms)) << c.ms;
    EXPECT_GE(platform::monotonic_ms() - start_ms, c.ms);
  }
}

TEST(Win32Pages, ZeroedAndWritableToTheLastByte) {
  const std::size_t sizes[] = {1, 4096, 10000, 1 << 20};
  for (std::size_t size : sizes) {
    auto* p = static_cast<unsigned char*>(platform::alloc_zeroed_pages(size));
    ASSERT_NE(p, nullptr) << size;
    EXPECT_TRUE(std::all_of(p, p + size, [](unsigned char b) { return b == 0; })) << size;
    p[size - 1] = 0xff;
    // The guard page right after the block.
    MEMORY_BASIC_INFORMATION info;
    ASSERT_NE(::VirtualQuery(p + size, &info, sizeof info), 0u);
    EXPECT_EQ(info.Protect, static_cast<DWORD>(PAGE_NOACCESS)) << size;
    platform::free_zeroed_pages(p, size);
  }
  EXPECT_EQ(platform::alloc_zeroed_pages(0), nullptr);
}

TEST(Win32Dynlib, NamesLoadingAndErrors) {
  const struct {
    const char* folder;
    const char* dll;
    const char* path;
  } cases[] = {
      {".\\RefDll", "AraTrustFinger.dll", ".\\RefDll\\AraTrustFinger.dll"},
      {"./RefDll/", "Tavio.dll", ".\\RefDll\\Tavio.dll"},
      {"RefDll", "openjp2.dll", "RefDll\\openjp2.dll"},
  };
  for (const auto& c : cases) EXPECT_EQ(platform::library_path(c.folder, c.dll), c.path);

  void* kernel = platform::library_open("kernel32.dll");
  ASSERT_NE(kernel, nullptr) << platform::library_error();
  EXPECT_NE(platform::library_symbol(kernel, "GetTickCount64"), nullptr);
  EXPECT_EQ(platform::library_symbol(kernel, "NoSuchExport"), nullptr);
  const std::string error = platform::library_error();
  EXPECT_NE(error.find("NoSuchExport"), std::string::npos) << error;
  EXPECT_EQ(platform::library_error(), "");
  EXPECT_EQ(platform::library_open(".\\RefDll\\Missing.dll"), nullptr);
  EXPECT_NE(platform::library_error().find("Missing.dll"), std::string::npos);

  std::string self = platform::own_module_path();
  std::transform(self.begin(), self.end(), self.begin(), [](unsigned char c) { return std::tolower(c); });
  const std::string exe = "\\platform_win32_test.exe";
  ASSERT_GE(self.size(), exe.size());
  EXPECT_EQ(self.substr(self.size() - exe.size()), exe);
}

TEST(Win32Netif, AdaptersHaveAddressesInIndexOrder) {
  std::vector<platform::Adapter> adapters;
  ASSERT_EQ(platform::list_adapters(&adapters), 0);
  for (std::size_t i = 0; i < adapters.size(); ++i) {
    EXPECT_TRUE(std::any_of(adapters[i].address, adapters[i].address + 6, [](std::uint8_t b) { return b != 0; }));
    if (i > 0) {
      EXPECT_LE(adapters[i - 1].index, adapters[i].index);
    }
  }
  platform::Adapter fake;
  fake.address[5] = 1;
  fake.name = "test";
  test_seams::update([&](test_seams::Seams& s) { s.adapters = std::vector<platform::Adapter>{fake}; });
  ASSERT_EQ(platform::list_adapters(&adapters), 0);
  ASSERT_EQ(adapters.size(), 1u);
  EXPECT_EQ(adapters[0].name, "test");
  test_seams::update([](test_seams::Seams& s) { s.adapters = std::nullopt; });
}

// ---------------------------------------------------------------- sockets

std::uint16_t bound_port(platform::socket_t s) {
  sockaddr_in addr{};
  int len = sizeof addr;
  ::getsockname(static_cast<SOCKET>(s), reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

SOCKET connect_to(std::uint16_t port) {
  SOCKET c = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(c, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::closesocket(c);
    return INVALID_SOCKET;
  }
  return c;
}

TEST(Win32Socket, ListenAcceptExchangeAndHangUp) {
  platform::socket_t server = platform::tcp_socket();
  ASSERT_NE(server, platform::kInvalidSocket) << platform::last_error();
  ASSERT_EQ(platform::set_reuse_address(server), 0);
  ASSERT_EQ(platform::bind_loopback(server, 0), 0);
  ASSERT_EQ(platform::listen_socket(server, 5), 0);
  const std::uint16_t port = bound_port(server);

  // A port that a socket listens on stays refused to a second one.
  platform::socket_t thief = platform::tcp_socket();
  ASSERT_EQ(platform::set_reuse_address(thief), 0);
  EXPECT_EQ(platform::bind_loopback(thief, port), -1);
  EXPECT_EQ(platform::last_error(), WSAEADDRINUSE);
  platform::close_socket(thief);

  EXPECT_EQ(platform::wait_readable(server, 0), 0);
  SOCKET client = connect_to(port);
  ASSERT_NE(client, INVALID_SOCKET);
  EXPECT_EQ(platform::wait_readable(server, 10000), 1);
  platform::socket_t conn = platform::accept_socket(server);
  ASSERT_NE(conn, platform::kInvalidSocket);

  ASSERT_EQ(::send(client, "hello", 5, 0), 5);
  const platform::socket_t watched[] = {platform::kInvalidSocket, server, conn};
  EXPECT_EQ(platform::wait_readable_any(watched, 3, 10000), 2);
  char buf[16] = {};
  EXPECT_EQ(platform::recv_socket(conn, buf, sizeof buf), 5);
  EXPECT_EQ(std::string(buf, 5), "hello");
  EXPECT_EQ(platform::wait_readable_any(watched, 3, 0), -1);
  EXPECT_EQ(platform::wait_writable(conn, 10000), 1);
  EXPECT_EQ(platform::send_socket(conn, "world", 5), 5);
  EXPECT_EQ(::recv(client, buf, sizeof buf, MSG_WAITALL), 5);
  ::closesocket(client);
  EXPECT_EQ(platform::wait_readable(conn, 10000), 1);
  EXPECT_EQ(platform::recv_socket(conn, buf, sizeof buf), 0);
  platform::close_socket(conn);

  // The connection of a non-blocking listener still blocks: a receive with
  // nothing to read yet waits for the byte sent after it started instead of
  // failing with WSAEWOULDBLOCK.
  ASSERT_EQ(platform::set_nonblocking(server, true), 0);
  client = connect_to(port);
  ASSERT_NE(client, INVALID_SOCKET);
  ASSERT_EQ(platform::wait_readable(server, 10000), 1);
  conn = platform::accept_socket(server);
  ASSERT_NE(conn, platform::kInvalidSocket);
  std::atomic<bool> receiving{false};
  long got = -2;
  int error = 0;
  std::thread reader([&] {
    receiving = true;
    got = platform::recv_socket(conn, buf, sizeof buf);
    error = platform::last_error();
  });
  while (!receiving) std::this_thread::yield();
  ASSERT_EQ(::send(client, "x", 1, 0), 1);
  reader.join();
  EXPECT_EQ(got, 1) << "error " << error;
  ::closesocket(client);
  platform::close_socket(conn);
  platform::close_socket(server);
  const platform::socket_t none[] = {platform::kInvalidSocket};
  EXPECT_EQ(platform::wait_readable_any(none, 1, 0), -2);
  EXPECT_EQ(platform::wait_readable(platform::kInvalidSocket, 0), -1);
}

TEST(Win32Socket, Ipv6LoopbackOnly) {
  platform::socket_t s = platform::tcp6_socket();
  if (s == platform::kInvalidSocket && platform::last_error() == WSAEAFNOSUPPORT) {
    GTEST_SKIP() << "no IPv6 on this machine";
  }
  ASSERT_NE(s, platform::kInvalidSocket);
  DWORD v6only = 0;
  int len = sizeof v6only;
  ::getsockopt(static_cast<SOCKET>(s), IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<char*>(&v6only), &len);
  EXPECT_EQ(v6only, 1u);
  EXPECT_EQ(platform::bind_loopback6(s, 0), 0);
  platform::close_socket(s);
}

// ---------------------------------------------------------------- status pipe

TEST(Win32Pipe, WritesReachTheServerAndFailuresCarryTheCode) {
  const std::string name = "\\\\.\\pipe\\vexo-test-" + std::to_string(::GetCurrentProcessId());
  HANDLE server =
      ::CreateNamedPipeA(name.c_str(), PIPE_ACCESS_INBOUND, PIPE_TYPE_BYTE | PIPE_WAIT, 1, 4096, 4096, 0, nullptr);
  ASSERT_NE(server, INVALID_HANDLE_VALUE);
  int err = 0;
  int fd = platform::pipe_open(name, &err);
  ASSERT_NE(fd, -1) << err;
  const std::string message = "5000|Capture Timeout|Try again\n";
  ASSERT_EQ(platform::pipe_write(fd, message.data(), message.size(), &err), 0);
  char buf[128];
  DWORD n = 0;
  ASSERT_TRUE(::ReadFile(server, buf, sizeof buf, &n, nullptr));
  EXPECT_EQ(std::string(buf, n), message);
  ::CloseHandle(server);
  EXPECT_EQ(platform::pipe_write(fd, message.data(), message.size(), &err), -1);
  EXPECT_TRUE(err == ERROR_NO_DATA || err == ERROR_BROKEN_PIPE || err == ERROR_PIPE_NOT_CONNECTED) << err;
  platform::pipe_close(fd);

  TempDir dir;
  put_file(dir.file("plain"), "x");
  const struct {
    std::string path;
    int err;
  } cases[] = {
      {name, ERROR_FILE_NOT_FOUND},  // the server is gone
      {"\\\\.\\pipe\\vexo-test-never-made", ERROR_FILE_NOT_FOUND},
      {dir.file("plain"), ERROR_FILE_NOT_FOUND},
  };
  for (const auto& c : cases) {
    err = 0;
    EXPECT_EQ(platform::pipe_open(c.path, &err), -1) << c.path;
    EXPECT_EQ(err, c.err) << c.path;
  }
  EXPECT_EQ(platform::status_pipe_path(), "\\\\.\\pipe\\qdx.win.002");
}

// ---------------------------------------------------------------- locks

std::string g_self;

// Runs this program as a lock holder: it takes name, signals "acquired",
// waits for "release", releases and ends with 0.
HANDLE start_holder(const std::string& dir, const std::string& name, const std::string& acquired,
                    const std::string& release) {
  std::string cmd = "\"" + g_self + "\" --hold-lock \"" + dir + "\" " + name + " " + acquired + " " + release;
  STARTUPINFOA si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  if (!::CreateProcessA(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) return nullptr;
  ::CloseHandle(pi.hThread);
  return pi.hProcess;
}

int hold_lock(const std::string& dir, const char* name, const char* acquired, const char* release) {
  test_seams::update([&](test_seams::Seams& s) { s.lock_dir = dir; });
  HANDLE acquired_event = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, acquired);
  HANDLE release_event = ::OpenEventA(SYNCHRONIZE, FALSE, release);
  platform::NamedLock* lock = platform::named_lock_open(name);
  if (!acquired_event || !release_event || !lock || platform::named_lock_acquire(lock, 20000) != 0) return 2;
  ::SetEvent(acquired_event);
  if (::WaitForSingleObject(release_event, 60000) != WAIT_OBJECT_0) return 3;
  if (platform::named_lock_release(lock) != 0) return 4;
  platform::named_lock_close(lock);
  return 0;
}

TEST(Win32Lock, NamedLockAcrossThreadsAndProcesses) {
  TempDir dir;
  test_seams::update([&](test_seams::Seams& s) { s.lock_dir = dir.path(); });
  const char* kName = "Global\\QDX_WIN_010";
  platform::NamedLock* a = platform::named_lock_open(kName);
  platform::NamedLock* b = platform::named_lock_open(kName);
  ASSERT_NE(a, nullptr) << platform::last_error();
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(platform::named_lock_release(a), -1);
  ASSERT_EQ(platform::named_lock_acquire(a, 20000), 0);
  int other_thread = -2;
  std::thread([&] { other_thread = platform::named_lock_acquire(b, 50); }).join();
  EXPECT_EQ(other_thread, 1);
  EXPECT_EQ(platform::named_lock_release(b), 0);  // one process, one lock: either handle releases
  EXPECT_EQ(platform::named_lock_release(a), -1);

  // Held by a child process: a time-out here, and a release from here must
  // not free the child's hold.
  const std::string tag = std::to_string(::GetCurrentProcessId());
  const std::string acquired = "vexo-test-acquired-" + tag, release = "vexo-test-release-" + tag;
  HANDLE acquired_event = ::CreateEventA(nullptr, TRUE, FALSE, acquired.c_str());
  HANDLE release_event = ::CreateEventA(nullptr, TRUE, FALSE, release.c_str());
  HANDLE child = start_holder(dir.path(), kName, acquired, release);
  ASSERT_NE(child, nullptr);
  HANDLE waits[] = {acquired_event, child};
  ASSERT_EQ(::WaitForMultipleObjects(2, waits, FALSE, 60000), WAIT_OBJECT_0) << "the holder ended early";
  EXPECT_EQ(platform::named_lock_acquire(a, 100), 1);
  EXPECT_EQ(platform::named_lock_release(a), -1);
  EXPECT_EQ(platform::named_lock_acquire(b, 100), 1);
  ::SetEvent(release_event);
  EXPECT_EQ(platform::named_lock_acquire(a, 20000), 0);
  EXPECT_EQ(platform::named_lock_release(a), 0);
  ASSERT_EQ(::WaitForSingleObject(child, 60000), WAIT_OBJECT_0);
  DWORD code = 99;
  ::GetExitCodeProcess(child, &code);
  EXPECT_EQ(code, 0u);
  ::CloseHandle(child);
  ::CloseHandle(acquired_event);
  ::CloseHandle(release_event);
  platform::named_lock_close(a);
  platform::named_lock_close(b);
  EXPECT_EQ(platform::named_lock_open(""), nullptr);
  test_seams::set({});
}

TEST(Win32Lock, LocalLock) {
  platform::LocalLock* lock = platform::local_lock_create();
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(platform::local_lock_release(lock), -1);
  ASSERT_EQ(platform::local_lock_acquire(lock, 2000), 0);
  int other_thread = -2;
  std::thread([&] { other_thread = platform::local_lock_acquire(lock, 50); }).join();
  EXPECT_EQ(other_thread, 1);
  EXPECT_EQ(platform::local_lock_release(lock), 0);
  EXPECT_EQ(platform::local_lock_release(lock), -1);
  platform::local_lock_destroy(lock);
  EXPECT_EQ(platform::local_lock_acquire(nullptr, 0), -1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::strcmp(argv[1], "--hold-lock") == 0) return hold_lock(argv[2], argv[3], argv[4], argv[5]);
  char self[MAX_PATH];
  ::GetModuleFileNameA(nullptr, self, sizeof self);
  g_self = self;
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
