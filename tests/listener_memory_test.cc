// Resident memory of the process hosting the listener while many connections
// wait for their requests. A program of its own, so that the allocator
// settings below apply to it alone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "front_test_util.h"

#if defined(__SANITIZE_ADDRESS__)
#define VEXO_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VEXO_TEST_ASAN 1
#endif
#endif

namespace {

// Resident memory of this process in bytes, 0 when unreadable.
std::size_t resident_bytes() {
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (f == nullptr) return 0;
  unsigned long size = 0, resident = 0;
  int n = std::fscanf(f, "%lu %lu", &size, &resident);
  std::fclose(f);
  return n == 2 ? resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

}  // namespace

#ifdef VEXO_TEST_ASAN
// AddressSanitizer keeps freed blocks resident in its quarantine (256 MB by
// default), which would count against the bound below; memory errors are
// still found, only freed blocks are reused sooner.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
}
#endif

using namespace fronttest;

namespace {

using ListenerMemoryTest = FrontTest;

// A waiting connection costs only the memory it writes, not its 3 MB work
// area. Two waves of 200 (the second reusing what the first gave back, after a
// request has been served and freed its area) each grow the process by far
// less than the 600 MB their areas span.
TEST_F(ListenerMemoryTest, WaitingConnectionsCostLittleMemory) {
  constexpr int kConnections = 200;
  constexpr std::size_t kBound = 60u << 20;
  set_accept_pause_ms_for_test(0);
  int port = start_server();
  ASSERT_NE(port, 0);
  ASSERT_EQ(round_trip(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port));
  // Waits until the log holds count lines with text after offset.
  auto wait_count = [](const std::string& text, int count, std::size_t offset) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (testutil::count_of(log_text().substr(offset), text) < count) {
      if (std::chrono::steady_clock::now() >= end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  };
  const std::size_t before = resident_bytes();
  ASSERT_GT(before, 0u);
  for (int wave = 0; wave < 2; ++wave) {
    SCOPED_TRACE(wave);
    std::size_t offset = log_text().size();
    std::vector<int> clients;
    for (int i = 0; i < kConnections; ++i) {
      int s = connect_to(port);
      ASSERT_GE(s, 0);
      clients.push_back(s);
      // Half stay silent, half send the start of a request line.
      if (i % 2 == 1) (void)platform::send_socket(s, "RDS", 3);
      // One at a time: a full backlog of 5 would drop the next connection
      // attempt and cost a second's retransmission.
      ASSERT_TRUE(wait_count("Entered inside process_incoming_message", i + 1, offset));
    }
    // Each thread takes its work area right after that line.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::size_t during = resident_bytes();
    EXPECT_LT(during, before + kBound) << "grew by " << (during - before) / 1024 << " KiB";
    std::printf("wave %d: resident %zu KiB before, %zu KiB with %d connections waiting\n", wave, before / 1024,
                during / 1024, kConnections);
    for (int s : clients) platform::close_socket(s);
    ASSERT_TRUE(wait_count("Returning from process_incoming_message", kConnections, offset));
  }
}

}  // namespace
