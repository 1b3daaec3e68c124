// src/platform/win32/ against the real system: sockets over the loopback, a
// named pipe server, named semaphores held by a child process, files in a
// folder of the test's own; and the options the Windows build gives OpenSSL
// and libcurl.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/pages.h"
#include "platform/platform.h"
#include "platform/socket_extra.h"
#include "platform/test_seams.h"
#include "test_util.h"

namespace {

using testutil::WorkDir;
using testutil::write_file;

// The folders compiled into libcrypto must be ones only administrators can
// write, never a Unix path that becomes C:\usr\local\ssl; libcurl speaks
// HTTP and HTTPS alone, through OpenSSL.
TEST(Win32Build, OpenSslFoldersAndCurlProtocols) {
  const std::string pf = sizeof(void*) == 8 ? "C:/Program Files" : "C:/Program Files (x86)";
  const struct {
    int what;
    std::string text;
  } cases[] = {
      {OPENSSL_DIR, "OPENSSLDIR: \"" + pf + "/Common Files/SSL\""},
      {OPENSSL_ENGINES_DIR, "ENGINESDIR: \"" + pf + "/OpenSSL/lib/engines-3\""},
      {OPENSSL_MODULES_DIR, "MODULESDIR: \"" + pf + "/OpenSSL/lib/ossl-modules\""},
  };
  for (const auto& c : cases) EXPECT_EQ(OpenSSL_version(c.what), c.text) << "OpenSSL_version(" << c.what << ")";
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  EXPECT_EQ(std::string(info->ssl_version).rfind("OpenSSL/", 0), 0u) << info->ssl_version;
  std::set<std::string> protocols;
  for (const char* const* p = info->protocols; *p; ++p) protocols.insert(*p);
  EXPECT_EQ(protocols, (std::set<std::string>{"http", "https"}));
  EXPECT_EQ(info->features & CURL_VERSION_LIBZ, 0);
}

TEST(Win32Files, AtomicReplacementKeepsBytesAndCleansUp) {
  WorkDir dir;
  const std::string path = dir.file("config.ini");
  std::string got;
  ASSERT_EQ(platform::write_file_atomic(path, "one", 3), 0);
  ASSERT_EQ(platform::write_file_atomic(path, "second\n", 7), 0);
  ASSERT_EQ(platform::read_file(path, &got), 0);
  EXPECT_EQ(got, "second\n");

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
  // config.ini alone: no temporary is left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST(Win32Files, StaleTemporariesAreRemovedOthersStay) {
  WorkDir dir;
  const struct {
    const char* name;
    bool removed;
  } cases[] = {
      {"config.ini.tmpAb12Cd", true}, {"config.ini", false},
      {"config.ini.tmpAb1", false},   {".tmpAb12Cd", false},       {"config.ini.tmpAb12Cde", false},
  };
  for (const auto& c : cases) write_file(dir.file(c.name), "x");
  std::filesystem::create_directory(dir.file("folder.tmpAb12Cd"));
  platform::remove_stale_temporaries(dir.path());
  for (const auto& c : cases) EXPECT_EQ(platform::file_exists(dir.file(c.name)), !c.removed) << c.name;
  EXPECT_TRUE(platform::file_exists(dir.file("folder.tmpAb12Cd")));
}

// Folders with "/" and folders that exist already: the keystore's and the
// Management tests'. Here the Windows separator, and no name at all.
TEST(Win32Files, FoldersSizesAndReadability) {
  WorkDir dir;
  EXPECT_EQ(platform::make_dirs(dir.path() + "\\a\\b\\c"), 0);
  EXPECT_TRUE(platform::file_exists(dir.path() + "\\a\\b\\c"));
  EXPECT_EQ(platform::make_dirs(""), -1);
  write_file(dir.file("plain"), "x");
  EXPECT_EQ(platform::make_dirs(dir.file("plain")), -1);

  // The access time to the second: KeystoreTest.GeneratedKeyAndCertificateReadBack.
  EXPECT_EQ(platform::file_modify_time_ns(dir.file("missing")), -1);
  EXPECT_EQ(platform::file_size(dir.file("missing")), -1);
  EXPECT_TRUE(platform::file_readable(dir.file("plain")));
  EXPECT_TRUE(platform::file_readable(dir.path()));
  EXPECT_FALSE(platform::file_readable(dir.file("missing")));
}

TEST(Win32Environment, AppData) {
  const char* saved = std::getenv("APPDATA");
  const std::string had = saved != nullptr ? saved : "";
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
    testsys::set_env("APPDATA", c.value);
    EXPECT_EQ(platform::appdata_dir(), c.expected);
  }
  testsys::set_env("APPDATA", saved != nullptr ? had.c_str() : nullptr);
}

// sleep_ms: the pauses that ListenerTest and PostAuthTest time.
TEST(Win32Clock, BeepWaitsItsTime) {
  for (unsigned ms : {60u, 0u}) {
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t start_ms = platform::monotonic_ms();
    platform::beep(2000, ms);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(ms)) << ms;
    EXPECT_GE(platform::monotonic_ms() - start_ms, ms);
  }
}

TEST(Win32Pages, ZeroedAndWritableToTheLastByte) {
  const std::size_t sizes[] = {1, 4096, 10000};
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
  // own_module_path: KeystoreTest.GeneratedKeyAndCertificateReadBack opens the
  // key with the digest of the program it names.
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
}

// ---------------------------------------------------------------- sockets

// The exchange, the hang-up and the ports of a listener: listener_test.
// Here: the connection of a non-blocking listener still blocks, a receive
// with nothing to read yet waits for the byte sent after it started instead
// of failing with WSAEWOULDBLOCK; and which socket of several is readable.
TEST(Win32Socket, NonBlockingListenerGivesBlockingConnections) {
  platform::socket_t server = platform::tcp_socket();
  ASSERT_NE(server, platform::kInvalidSocket) << platform::last_error();
  ASSERT_EQ(platform::bind_loopback(server, 0), 0);
  ASSERT_EQ(platform::listen_socket(server, 5), 0);
  ASSERT_EQ(platform::set_nonblocking(server, true), 0);
  EXPECT_EQ(platform::wait_readable(server, 0), 0);
  const SOCKET client = static_cast<SOCKET>(testsys::connect_loopback(testsys::local_port(server)));
  ASSERT_NE(client, INVALID_SOCKET);
  ASSERT_EQ(platform::wait_readable(server, 10000), 1);
  const platform::socket_t conn = platform::accept_socket(server);
  ASSERT_NE(conn, platform::kInvalidSocket);
  std::atomic<bool> receiving{false};
  char buf[16] = {};
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

  ASSERT_EQ(::send(client, "hello", 5, 0), 5);
  const platform::socket_t watched[] = {platform::kInvalidSocket, server, conn};
  EXPECT_EQ(platform::wait_readable_any(watched, 3, 10000), 2);
  EXPECT_EQ(platform::recv_socket(conn, buf, sizeof buf), 5);
  EXPECT_EQ(platform::wait_readable_any(watched, 3, 0), -1);
  ::closesocket(client);
  platform::close_socket(conn);
  platform::close_socket(server);
  const platform::socket_t none[] = {platform::kInvalidSocket};
  EXPECT_EQ(platform::wait_readable_any(none, 1, 0), -2);
  EXPECT_EQ(platform::wait_readable(platform::kInvalidSocket, 0), -1);
}

// ---------------------------------------------------------------- status pipe

// Messages through a real named pipe: every test that reads the status pipe;
// a write once the reader is gone: LogTest.WriteFailsOnceTheReaderIsGone.
// Here: what is not a pipe server.
TEST(Win32Pipe, OnlyAPipeServerOpens) {
  WorkDir dir;
  write_file(dir.file("plain"), "x");
  for (const std::string& path : {std::string("\\\\.\\pipe\\vexo-test-never-made"), dir.file("plain")}) {
    int err = 0;
    EXPECT_EQ(platform::pipe_open(path, &err), -1) << path;
    EXPECT_EQ(err, ERROR_FILE_NOT_FOUND) << path;
  }
  EXPECT_EQ(platform::status_pipe_path(), "\\\\.\\pipe\\qdx.win.002");
}

// ---------------------------------------------------------------- locks

// The events that the lock holder below and its test share.
std::string holder_event(const char* what) {
  return std::string("vexo-test-") + what + "-" + std::getenv("VEXO_HOLDER_TAG");
}

// Run as a child process by the next test: takes the lock in the test's lock
// folder, signals "acquired", waits for "release", releases and ends with 0.
TEST(DISABLED_Win32LockHelper, HoldLock) {
  test_seams::update([&](test_seams::Seams& s) { s.lock_dir = std::getenv("VEXO_HOLDER_DIR"); });
  HANDLE acquired = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, holder_event("acquired").c_str());
  HANDLE release = ::OpenEventA(SYNCHRONIZE, FALSE, holder_event("release").c_str());
  platform::NamedLock* lock = platform::named_lock_open("Global\\QDX_WIN_010");
  if (!acquired || !release || !lock || platform::named_lock_acquire(lock, 20000) != 0) testsys::end_helper(2);
  ::SetEvent(acquired);
  if (::WaitForSingleObject(release, 60000) != WAIT_OBJECT_0) testsys::end_helper(3);
  testsys::end_helper(platform::named_lock_release(lock) != 0 ? 4 : 0);
}

TEST(Win32Lock, NamedLockAcrossThreadsAndProcesses) {
  WorkDir dir;
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
  testsys::set_env("VEXO_HOLDER_TAG", std::to_string(testsys::process_id()).c_str());
  testsys::set_env("VEXO_HOLDER_DIR", dir.path().c_str());
  HANDLE acquired = ::CreateEventA(nullptr, TRUE, FALSE, holder_event("acquired").c_str());
  HANDLE release = ::CreateEventA(nullptr, TRUE, FALSE, holder_event("release").c_str());
  testsys::Process child(testsys::helper_case("DISABLED_Win32LockHelper.HoldLock"));
  ASSERT_TRUE(child.started());
  ASSERT_EQ(::WaitForSingleObject(acquired, 60000), WAIT_OBJECT_0) << "the holder did not take the lock";
  EXPECT_EQ(platform::named_lock_acquire(a, 100), 1);
  EXPECT_EQ(platform::named_lock_release(a), -1);
  EXPECT_EQ(platform::named_lock_acquire(b, 100), 1);
  ::SetEvent(release);
  EXPECT_EQ(platform::named_lock_acquire(a, 20000), 0);
  EXPECT_EQ(platform::named_lock_release(a), 0);
  EXPECT_EQ(child.wait(), 0);
  ::CloseHandle(acquired);
  ::CloseHandle(release);
  platform::named_lock_close(a);
  platform::named_lock_close(b);
  EXPECT_EQ(platform::named_lock_open(""), nullptr);
  test_seams::set({});
}

}  // namespace
