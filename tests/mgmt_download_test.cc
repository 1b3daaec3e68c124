// The resumable software download against the reference Management server
// run as a child process over HTTPS, and against a hostile canned HTTP server
// of the test that answers exactly the bytes a case needs.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "common/hash.h"
#include "common/rd_config.h"
#include "mgmt_core/download.h"
#include "mgmt_server_util.h"
#include "test_util.h"

namespace {

using mgmttest::CannedRequest;
using mgmttest::CannedServer;
using mgmttest::http_reply;
using mgmttest::kMgmtData;
using mgmttest::Reply;
using mgmttest::Server;
using testutil::log_has;
using testutil::Seams;
using Strings = std::vector<std::string>;

std::string package_bytes(std::size_t size, unsigned seed) {
  std::mt19937 gen(seed);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(gen() & 0xFF);
  return data;
}

std::string md5_of(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest, &size, EVP_md5(), nullptr), 1);
  return hex_lower({digest, size});
}

// The ranges of a 250000-byte package (or one whose last range is last) from chunk first on.
Strings ranges_from(std::size_t first, const char* last = "204802-250000") {
  const Strings all = {"0-102400", "102401-204801", last};
  return Strings(all.begin() + static_cast<long>(first), all.end());
}

class DownloadTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    // A plain-HTTP Management URL lets the hostile servers of the test use HTTP.
    rd_config_update([](RdConfig& c) { c.mgmt_url_register = "http://127.0.0.1:1/Zelm/rest/register/"; });
    std::filesystem::create_directories("cert");
    std::filesystem::create_directories("data/packages");
    testutil::write_file("cert/server.crt", testutil::read_file(kMgmtData + "/ca.crt"));
  }
  void TearDown() override {
    EXPECT_TRUE(testutil::wait_until([] { return !download_running(); }, 30000));
    LibraryTest::TearDown();
  }

  // Serves a package of size bytes as data/packages/NAME and returns it.
  static std::string publish(const std::string& name, std::size_t size, unsigned seed = 7) {
    std::string data = package_bytes(size, seed);
    testutil::write_file("data/packages/" + name, data);
    return data;
  }
  // Ranges the server answered since its log had `since` bytes, once they are
  // the expected ones: the server logs a download after it sent the bytes.
  static Strings server_ranges(const Server& server, std::size_t since, const Strings& expected) {
    const std::regex re("GET \\S+ - 20[06] bytes=([0-9]+-[0-9]+)\n");
    Strings got;
    testutil::wait_until([&] {
      const std::string text = server.log().substr(since);
      got.clear();
      for (auto it = std::sregex_iterator(text.begin(), text.end(), re); it != std::sregex_iterator(); ++it) {
        got.push_back((*it)[1]);
      }
      return got == expected;
    });
    return got;
  }
  // The run log's new part since it had `since` bytes.
  static std::string log_since(std::size_t since) { return testutil::log_text().substr(since); }
  static std::size_t log_size() { return testutil::log_text().size(); }
};

// Each download starts where the record of an earlier attempt lets it (from
// the start without one), asks for the exact ranges, with package sizes that
// hit each corner of the range arithmetic, and ends with the exact package
// and a "Completed" record.
TEST_F(DownloadTest, DownloadFetchesExactRangesFromTheResumePoint) {
  Server tls(true);
  ASSERT_GT(tls.port(), 0) << tls.log();
  const std::string data = publish("p250000.zip", 250000);
  const std::string url = tls.base() + "/files/packages/p250000.zip";
  const std::string md5 = md5_of(data);
  std::string upper_md5 = md5;
  for (char& ch : upper_md5) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  auto rec = [&](const std::string& sum, const std::string& rest) { return url + "|" + sum + "|" + rest; };
  const std::string junk(7000, 'J');
  const std::string chunk0 = data.substr(0, 102401);
  const char* kChanged = "Download exe has been changed. starting fresh download...";
  const char* kUnusable = "Previous download record unusable. starting fresh download...";
  const char* kResuming = "Resuming previous download";
  struct Case {
    const char* name;
    std::size_t size;     // of the package on the server
    std::string record;   // empty: no dm.conf
    std::string package;  // held before; "-": no DownloadSW folder, which is made
    Strings ranges;
    std::string log_line;
    std::string done = "|250000|2:2|Completed|";
  } cases[] = {
      // The last index is 1 but chunk 0 already holds every byte.
      {"one chunk", 102400, "", "-", {"0-102400"}, "", "|102400|1:1|Completed|"},
      {"a 2-byte last chunk", 204803, "", junk, ranges_from(0, "204802-204803"), "", "|204803|2:2|Completed|"},
      {"empty", 0, "", junk, {}, "", "|0|0:0|Completed|"},
      {"no record", 250000, "", junk, ranges_from(0), ""},
      {"changed checksum", 250000, rec(md5_of("another package"), "250000|0:2|In progress|"), chunk0, ranges_from(0),
       kChanged},
      {"checksum in capitals", 250000, rec(upper_md5, "250000|0:2|In progress|"), chunk0, ranges_from(1), kResuming},
      {"completed", 250000, rec(md5, "250000|2:2|Completed|"), data, ranges_from(0),
       "Previous download was successful. again fresh  download"},
      {"chunk 1 appended, record not written", 250000, rec(md5, "250000|0:2|In progress|"), data.substr(0, 204802),
       ranges_from(1), "Package cut back from 204802 to 102401 bytes"},
      {"package shorter than the record", 250000, rec(md5, "250000|1:2|In progress|"), data.substr(0, 1000),
       ranges_from(0), "Package holds 1000 bytes, fewer than the 204802 of the record. starting fresh download..."},
      {"garbage", 250000, "garbage", junk, ranges_from(0), kUnusable},
      {"current past last", 250000, rec(md5, "250000|5:2|In progress|"), data, ranges_from(0), kUnusable},
      {"wrong last index", 250000, rec(md5, "250000|0:3|In progress|"), data, ranges_from(0), kUnusable},
      {"negative index", 250000, rec(md5, "250000|-1:2|In progress|"), data, ranges_from(0), kUnusable},
      {"huge size", 250000, rec(md5, "99999999999999999999999|0:2|In progress|"), data, ranges_from(0), kUnusable},
      {"status contradicts indices", 250000, rec(md5, "250000|0:2|Completed|"), data, ranges_from(0), kUnusable},
      {"oversized record", 250000, std::string(9000, 'A'), data, ranges_from(0), kUnusable},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(kDownloadRecord);
    std::filesystem::remove_all("DownloadSW");
    if (!c.record.empty()) testutil::write_file(kDownloadRecord, c.record);
    if (c.package != "-") {
      std::filesystem::create_directories("DownloadSW");
      testutil::write_file(kDownloadTarget, c.package);
    }
    const std::string size = std::to_string(c.size);
    const std::string package = publish("p" + size + ".zip", c.size);
    const std::string package_url = tls.base() + "/files/packages/p" + size + ".zip";
    const std::string sum = md5_of(package);
    const std::size_t server_before = tls.log().size();
    const std::size_t log_before = log_size();
    const std::size_t pipe_before = pipe_->received().size();

    ASSERT_EQ(download_manager(package_url, sum, kDownloadTarget), 0) << log_since(log_before);

    EXPECT_EQ(server_ranges(tls, server_before, c.ranges), c.ranges);
    EXPECT_TRUE(testutil::has(log_since(log_before), ") - " + c.log_line + (c.log_line.empty() ? "" : "\n")));
    EXPECT_TRUE(testutil::read_file(kDownloadTarget) == package);
    EXPECT_EQ(testutil::read_file(kDownloadRecord), package_url + "|" + sum + c.done);
    EXPECT_TRUE(testutil::has(testutil::last_status(),
                              " | download_manager | get_package_size | Software download "
                              "is in progress : Size of .exe file is " +
                                  size + " bytes "));
    EXPECT_TRUE(pipe_->wait_for("10000|Software download is in progress:|Size of .exe file is " + size + " byte\n",
                                5000, pipe_before))
        << pipe_->received();
  }
  // The record is replaced through a temporary file, which does not stay.
  for (const auto& entry : std::filesystem::directory_iterator(".")) {
    EXPECT_NE(entry.path().filename().string().rfind("dm.conf.tmp", 0), 0u) << "temporary record left behind";
  }

  // A package whose MD5 differs fails and stays "Completed", so the next
  // attempt starts afresh.
  const std::string wrong = md5_of("not the package");
  const std::size_t log_before = log_size();
  EXPECT_EQ(download_software_update(url, wrong, true), -1);
  EXPECT_TRUE(log_has("download_manager", "download_manager", "Downloaded file checksum is invalid. Download Failed.",
                      log_before));
  EXPECT_EQ(testutil::read_file(kDownloadRecord), url + "|" + wrong + "|250000|2:2|Completed|");
  EXPECT_TRUE(pipe_->wait_for("10000|Downloaded file checksum is invalid|Download Failed.\n"));
  EXPECT_EQ(download_software_update(url, md5, true), 0);
  EXPECT_TRUE(testutil::has(log_since(log_before), ") - " + std::string(kChanged) + "\n"));
  EXPECT_TRUE(testutil::read_file(kDownloadTarget) == data);
}

// The thread variant returns at once, holds the single download slot while
// it runs (every other request gets -1), and verifies the package. The server
// holds its first range answer until the other requests were refused.
TEST_F(DownloadTest, ThreadVariantHoldsTheOnlyDownloadSlot) {
  const std::string data = package_bytes(250000, 5);
  const std::string md5 = md5_of(data);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  CannedServer server([&](const CannedRequest& r) {
    if (r.method == "HEAD") return Reply("HTTP/1.1 200 OK\r\nContent-Length: 250000\r\nConnection: close\r\n\r\n");
    released.wait();
    std::smatch m;
    std::regex_search(r.head, m, std::regex("Range: bytes=([0-9]+)-([0-9]+)"));
    const std::size_t from = std::stoul(m[1]), to = std::min<std::size_t>(std::stoul(m[2]), data.size() - 1);
    return Reply(http_reply("206 Partial Content", "", data.substr(from, to - from + 1)));
  });
  const std::string url = server.url("/files/packages/t.zip");
  const std::size_t log_before = log_size();
  {
    // The caller's strings die at once: the thread works on its own copies.
    std::string url_copy = url;
    std::string md5_copy = md5;
    ASSERT_EQ(download_software_update(url_copy, md5_copy, false), 0);
    url_copy.assign(url.size(), 'x');
    md5_copy.assign(32, '0');
  }
  EXPECT_EQ(download_software_update(url, md5, false), -1);
  EXPECT_EQ(download_software_update(url, md5, true), -1);
  EXPECT_EQ(download_manager(url, md5, kDownloadTarget), -1);
  release.set_value();
  ASSERT_TRUE(testutil::wait_until([] { return !download_running(); }, 30000));
  const std::string log = log_since(log_before);
  EXPECT_EQ(testutil::count_of(log, ") - Software download already in progress\n"), 3) << log;
  EXPECT_TRUE(log_has("download", "thread_download_software", "file downloaded and check sum verified successfully",
                      log_before));
  EXPECT_TRUE(testutil::read_file(kDownloadTarget) == data);
  EXPECT_EQ(download_manager(url, md5, kDownloadTarget), 0);  // the slot is free again
}

// A server that lies about sizes, answers short or whole ranges, floods
// headers, stalls or trickles gets a clean -1, no record and no torn package.
TEST_F(DownloadTest, HostileServerGetsCleanFailure) {
  const std::string data = package_bytes(250000, 3);
  const std::string md5 = md5_of(data);
  // A HEAD answer: the headers alone.
  auto head_ok = [](const std::string& headers) {
    return [=](const CannedRequest&) { return Reply("HTTP/1.1 200 OK\r\n" + headers + "Connection: close\r\n\r\n"); };
  };
  // HEAD answered with the size, every range with what ranges() makes.
  auto sized = [&](std::function<Reply()> ranges) {
    return [=](const CannedRequest& r) {
      return r.method == "HEAD" ? head_ok("Content-Length: 250000\r\n")(r) : ranges();
    };
  };
  Reply trickle("HTTP/1.1 206 Partial Content\r\nContent-Length: 102401\r\n\r\n");
  trickle.filler = 102401;
  trickle.trickle_ms = 50;
  const char* kPerform = "Error at curl_easy_perform download_part";
  struct Case {
    const char* name;
    CannedServer::Handler handler;
    const char* log_line;
    bool size_fails;  // the size request itself fails
  } cases[] = {
      {"header flood", head_ok("X-Pad: " + std::string(5000, 'p') + "\r\nContent-Length: 250000\r\n"),
       "Curl write_callback buffer insufficient", true},
      // A missing or malformed one: DownloadFormat.ContentLength.
      {"Content-Length past the limit", head_ok("Content-Length: 99999999999\r\n"),
       "No usable Content-Length in the package headers", true},
      {"not found", [](const CannedRequest&) { return Reply(http_reply("404 Not Found", "", "not found")); },
       "Package request answered with HTTP status 404", true},
      {"short ranges", sized([&] { return Reply(http_reply("206 Partial Content", "", data.substr(0, 1000))); }),
       "Range 0-102400 answered 1000 bytes instead of 102401", false},
      {"whole file for a range", sized([&] { return Reply(http_reply("200 OK", "", data)); }),
       "Range answer longer than 102401 bytes", false},
      {"stalled after the size", sized([] { return Reply(); }), kPerform, false},
      {"range trickling in", sized([&] { return trickle; }), "Curl return code 28, HTTP Error Code  206", false},
      {"stalled", nullptr, "Error at curl_easy_perform ", true},
  };
  seams([](Seams& s) { s.download_timeout_s = 1; });
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(kDownloadRecord);
    std::filesystem::remove_all("DownloadSW");
    CannedServer server(c.handler);
    const std::size_t log_before = log_size();
    const std::size_t pipe_before = pipe_->received().size();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(download_manager(server.url("/files/packages/p.zip"), md5, kDownloadTarget), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    const std::string log = log_since(log_before);
    EXPECT_TRUE(testutil::has(log, std::string(") - ") + c.log_line + "\n"));
    EXPECT_FALSE(std::filesystem::exists(kDownloadRecord));
    if (c.size_fails) {
      EXPECT_TRUE(testutil::has(log, ") - Error at get_package_size\n"));
      const std::string status = testutil::last_status();
      EXPECT_EQ(status.substr(status.find(" | ")),
                " | download_manager | get_package_size | Get download file size failed ");
      EXPECT_TRUE(pipe_->wait_for("10000|Get download file size failed\n", 5000, pipe_before)) << pipe_->received();
    } else {
      EXPECT_EQ(std::filesystem::file_size(kDownloadTarget), 0u);  // emptied, nothing appended
    }
  }
  // The seam shortened the limit of each range, whose real value is a minute.
  seams([](Seams& s) { s.download_timeout_s = std::nullopt; });
  EXPECT_EQ(download_range_seconds(), 60);
}

// The package size from the HEAD answer's headers.
TEST(DownloadFormat, ContentLength) {
  struct {
    const char* headers;
    long expected;
  } lengths[] = {
      {"HTTP/2 200\r\ncontent-length: 7\r\n\r\n", 7},
      {"HTTP/1.1 200 Connection established\r\nContent-Length: 0\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n",
       5},
      {"HTTP/1.1 200 OK\r\nContent-Length:\t2147483647 \r\n\r\n", 2147483647L},
      {"HTTP/1.1 200 OK\r\nContent-Length: 2147483648\r\n\r\n", -1},
      {"HTTP/1.1 200 OK\r\nContent-Length: 12abc\r\n\r\n", -1},
      {"HTTP/1.1 200 OK\r\nX-Content-Length: 5\r\n\r\n", -1},
  };
  for (const auto& c : lengths) {
    SCOPED_TRACE(c.headers);
    EXPECT_EQ(ParseFileLength(c.headers), c.expected);
  }
}

}  // namespace
