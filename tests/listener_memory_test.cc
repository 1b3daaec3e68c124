// Resident memory of the process hosting the listener while many connections
// wait for their requests. A program of its own, so that the allocator
// settings below apply to it alone.
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "common/rd_log.h"
#include "test_util.h"

// AddressSanitizer keeps freed blocks resident in its quarantine (256 MB by
// default), which would count against the bound below; memory errors are
// still found, only freed blocks are reused sooner. Other builds never call it.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
}

using namespace testutil;

namespace {

// Resident memory of this process in bytes, 0 when unreadable.
std::size_t resident_bytes() {
  std::size_t size = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

using ListenerMemoryTest = LibraryTest;

// A waiting connection costs only the memory it writes, not its 3 MB work
// area. Two waves of 200 (the second reusing what the first gave back, after a
// request has been served and freed its area) each grow the process by far
// less than the 600 MB their areas span.
TEST_F(ListenerMemoryTest, WaitingConnectionsCostLittleMemory) {
  constexpr int kConnections = 200;
  constexpr std::size_t kBound = 60u << 20;
  seams([](Seams& s) { s.accept_pause_ms = 0u; });
  rd_set_verbose(1);  // each connection thread logs once it holds its work area
  const int port = start_server();
  ASSERT_NE(port, 0);
  ASSERT_EQ(http_exchange(port, "RDSERVICE / HTTP/1.1\r\n\r\n"), discovery_answer(port));
  auto logged = [](const std::string& text, int count, std::size_t offset) {
    return wait_until([&] { return count_of(log_text().substr(offset), text) >= count; });
  };
  const std::size_t before = resident_bytes();
  ASSERT_GT(before, 0u);
  for (int wave = 0; wave < 2; ++wave) {
    SCOPED_TRACE(wave);
    const std::size_t offset = log_text().size();
    std::vector<int> clients;
    for (int i = 0; i < kConnections; ++i) {
      const int s = connect_to(port);
      ASSERT_GE(s, 0);
      clients.push_back(s);
      // Half stay silent, half send the start of a request line.
      if (i % 2 == 1) (void)platform::send_socket(s, "RDS", 3);
      // One at a time: a full backlog of 5 would drop the next connection
      // attempt and cost a second's retransmission.
      ASSERT_TRUE(logged("Going for recv_thru_tcp_socket", i + 1, offset));
    }
    const std::size_t during = resident_bytes();
    EXPECT_LT(during, before + kBound) << "grew by " << (during - before) / 1024 << " KiB";
    std::printf("wave %d: resident %zu KiB before, %zu KiB with %d connections waiting\n", wave, before / 1024,
                during / 1024, kConnections);
    for (int s : clients) platform::close_socket(s);
    ASSERT_TRUE(logged("Returning from process_incoming_message", kConnections, offset));
  }
}

}  // namespace
