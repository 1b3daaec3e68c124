// The transport to the Management server, against the reference server run
// as a child process (HTTPS and plain HTTP) and against a canned HTTP server
// of the test that answers exactly the bytes a case needs.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "common/rd_config.h"
#include "common/rd_log.h"
#include "mgmt_server_util.h"
#include "platform/platform.h"
#include "rds_hash.h"
#include "test_sys.h"
#include "test_util.h"
#include "web_service/auth_format.h"
#include "web_service/curl_api.h"
#include "web_service/json/json_frame_parse.h"

namespace {

using mgmttest::kMgmtData;
using mgmttest::Server;

const MgmtIdentity kDevice = {"1.0.2", "KORV.LIN.001", "CL01",    "2.1",  "LINUX",
                              "0a1b2c3d4e5f", "SN1001", "Korvane", "A600", "KORV"};

std::string http_response(const std::string& status, const std::string& body, const std::string* drt) {
  std::string r("HTTP/1.1 ");
  r += status;
  r += "\r\nContent-Type: application/json\r\nContent-Length: ";
  r += std::to_string(body.size());
  r += "\r\n";
  if (drt != nullptr) {
    r += "RD_DRT: ";
    r += *drt;
    r += "\r\n";
  }
  r += "Connection: close\r\n\r\n";
  r += body;
  return r;
}

// An HTTP server on a free port of 127.0.0.1 that answers each request with
// what the handler makes of the request's RD_DRT header and body. Without a
// handler it reads and never answers (a stalled server).
class CannedServer {
 public:
  using Handler = std::function<std::string(const std::string& drt, const std::string& body)>;
  explicit CannedServer(Handler handler) : handler_(std::move(handler)) {
    fd_ = platform::tcp_socket();
    if (fd_ == platform::kInvalidSocket || platform::bind_loopback(fd_, 0) != 0 ||
        platform::listen_socket(fd_, 8) != 0 || (port_ = testsys::local_port(fd_)) == 0) {
      throw std::runtime_error("canned server not started");
    }
    thread_ = std::thread([this] { serve(); });
  }
  ~CannedServer() {
    stop_ = true;
    thread_.join();
    platform::close_socket(fd_);
  }
  std::string url(const char* path = "/Zelm/rest/register/") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  // The RD_DRT and body of the last request that arrived.
  std::pair<std::string, std::string> last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return {last_drt_, last_body_};
  }
  int requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  // Waits until fd is readable; false once the server is to stop.
  bool wait(int fd) {
    while (!stop_) {
      const int r = platform::wait_readable(fd, 50);
      if (r != 0) return r > 0;
    }
    return false;
  }
  void serve() {
    while (wait(fd_)) {
      int c = platform::accept_socket(fd_);
      if (c < 0) continue;
      std::string in;
      char buf[8192];
      std::size_t need = std::string::npos;
      bool continued = false;
      while (wait(c)) {
        long n = platform::recv_socket(c, buf, sizeof buf);
        if (n <= 0) break;
        in.append(buf, static_cast<std::size_t>(n));
        const std::size_t end = in.find("\r\n\r\n");
        if (end == std::string::npos) continue;
        if (need == std::string::npos) {
          const std::size_t cl = in.find("Content-Length: ");
          need = end + 4 + (cl < end ? std::stoul(in.substr(cl + 16)) : 0);
        }
        if (!continued && in.find("Expect: 100-continue") < end) {
          continued = true;
          (void)platform::send_socket(c, "HTTP/1.1 100 Continue\r\n\r\n", 25);
        }
        if (in.size() < need || !handler_) continue;
        std::string drt;
        const std::size_t at = in.find("\r\nRD_DRT: ");
        if (at < end) drt = in.substr(at + 10, in.find("\r\n", at + 10) - at - 10);
        const std::string body = in.substr(end + 4);
        {
          std::lock_guard<std::mutex> lock(mutex_);
          last_drt_ = drt;
          last_body_ = body;
          ++requests_;
        }
        const std::string out = handler_(drt, body);
        for (std::size_t sent = 0; sent < out.size();) {
          long n2 = platform::send_socket(c, out.data() + sent, out.size() - sent);
          if (n2 <= 0) break;
          sent += static_cast<std::size_t>(n2);
        }
        break;
      }
      platform::close_socket(c);
    }
  }

  Handler handler_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::string last_drt_, last_body_;
  int requests_ = 0;
};

// A free port with nothing listening on it.
int closed_port() {
  const int fd = platform::tcp_socket();
  platform::bind_loopback(fd, 0);
  const int port = testsys::local_port(fd);
  platform::close_socket(fd);
  return port;
}

class MgmtTransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(zlog_init("rd.log"), 0);
    rd_log_reset_for_test();
    ASSERT_EQ(create_Pipe(), 0);
    set_register_url("http://127.0.0.1:1/Zelm/rest/register/");
  }
  void TearDown() override {
    set_zelm_timeout_for_test(0);
    zlog_fini();
  }
  static void set_register_url(const std::string& url) {
    rd_config_update([&url](RdConfig& c) {
      c.mgmt_url_register = url;
      c.proxy_url.clear();
      c.proxy_username.clear();
      c.proxy_password.clear();
    });
  }
  static void install_ca() {
    std::filesystem::create_directories("cert");
    testutil::write_file("cert/server.crt", testutil::read_file(kMgmtData + "/ca.crt"));
  }
  static std::string request() {
    std::string out;
    EXPECT_EQ(json_frame_with(kDevice, mgmt_timestamp(), nullptr, &out), 0);
    return out;
  }

  testutil::WorkDir dir_;
  testutil::PipeReader pipe_{dir_.path()};
};

// The response's RD_DRT as the server makes it, over body and the request's RD_DRT.
std::string signed_for(const std::string& body, const std::string& request_drt) {
  std::string drt;
  EXPECT_EQ(rds_hmac_sign_response(body.data(), body.size(), request_drt, &drt), 0);
  return drt;
}

std::string json_body_of_size(std::size_t size) {
  std::string body("{\"respStatus\":\"y\",\"pad\":\"");
  body.append(size - body.size() - 2, 'x');
  body += "\"}";
  return body;
}

TEST_F(MgmtTransportTest, ResponseChecksAndSizeLimitsOverPlainHttp) {
  enum class Drt { kValid, kNone, kOtherRequest, kShort };
  struct Case {
    const char* name;
    std::size_t body_size;
    Drt drt;
    int expected;
    const char* status;  // expected last-status text after " | sendData2Zelm | "
    const char* pipe;
  } cases[] = {
      {"29999 bytes", 29999, Drt::kValid, 0, nullptr, nullptr},
      {"small", 40, Drt::kValid, 0, nullptr, nullptr},
      {"30000 bytes", 30000, Drt::kValid, -20, "Internet connectivity issue - ",
       "10000|Internet connectivity issue,|not able to connect to MS\n"},
      {"no RD_DRT", 40, Drt::kNone, -22, "Data from server is poisoned ", "10000|Data from server is poisoned\n"},
      {"RD_DRT of another request", 40, Drt::kOtherRequest, -23, "Data from server is poisoned ",
       "10000|Data from server is poisoned\n"},
      {"RD_DRT of 44 characters", 40, Drt::kShort, -23, "Data from server is poisoned ",
       "10000|Data from server is poisoned\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string body = json_body_of_size(c.body_size);
    CannedServer server([&](const std::string& drt, const std::string&) {
      std::string answer;
      switch (c.drt) {
        case Drt::kValid: answer = signed_for(body, drt); break;
        case Drt::kNone: return http_response("200 OK", body, nullptr);
        case Drt::kOtherRequest: {
          std::string other;
          EXPECT_EQ(rds_hmac_sign("{}", 2, 1, &other), 0);
          answer = signed_for(body, other);
          break;
        }
        case Drt::kShort: answer = signed_for(body, drt).substr(0, 44); break;
      }
      return http_response("200 OK", body, &answer);
    });
    set_register_url(server.url());
    rd_log_reset_for_test();
    ASSERT_EQ(create_Pipe(), 0);
    const std::string before = pipe_.received();
    const std::string req = request();
    std::string response = "stale";
    EXPECT_EQ(sendData2Zelm(server.url(), req, &response), c.expected);

    // The request carried its own RD_DRT over exactly its bytes, though no
    // CA file exists on this plain-HTTP path.
    const auto [drt, sent] = server.last();
    EXPECT_EQ(sent, req);
    int ok = -1;
    EXPECT_EQ(rds_hmac_verify_sign(sent.data(), sent.size(), drt, &ok), 0);
    EXPECT_EQ(ok, 1);
    EXPECT_FALSE(std::filesystem::exists("cert/server.crt"));

    if (c.expected == 0) {
      EXPECT_EQ(response, body);
      EXPECT_EQ(testutil::last_status(), "");
    } else {
      EXPECT_EQ(response, "");  // nothing unverified reaches the caller
      const std::string status = testutil::last_status();
      EXPECT_NE(status.find(std::string(" | curl_api | sendData2Zelm | ") + c.status), std::string::npos)
          << status;
      ASSERT_TRUE(pipe_.wait_for(before + c.pipe)) << pipe_.received();
    }
  }
  const std::string log = testutil::read_file("rd.log");
  EXPECT_NE(log.find("Communication is Happening through HTTP\n"), std::string::npos);
  EXPECT_NE(log.find("RD_DRT_hash_verification Success"), std::string::npos);
  EXPECT_NE(log.find("RD_DRT is not present"), std::string::npos);
}

TEST_F(MgmtTransportTest, PinnedCaFileGuardsEveryHttpsRequest) {
  std::filesystem::create_directories("data/uidai");
  Server tls(true);
  ASSERT_GT(tls.port(), 0) << tls.log();
  const std::string url = tls.base() + "/rest/register/";
  set_register_url(url);
  EXPECT_EQ(std::string(kZelmCaSha256).size(), 64u);

  struct Case {
    const char* name;
    std::function<void()> prepare;
    int expected;
    const char* status;
    const char* pipe;
  } cases[] = {
      {"demonstration CA", [] { install_ca(); }, 0, nullptr, nullptr},
      {"no CA file", [] { std::filesystem::remove("cert/server.crt"); }, -15,
       "File Not found: cert/server.crt ", "10000|File Not found: cert/server.crt\n"},
      {"one changed byte",
       [] {
         install_ca();
         std::string pem = testutil::read_file("cert/server.crt");
         pem[100] = static_cast<char>(pem[100] ^ 0x01);
         testutil::write_file("cert/server.crt", pem);
       },
       -16, "File Tampered: cert/server.crt ", "10000|File Tampered: cert/server.crt\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.prepare();
    rd_log_reset_for_test();
    ASSERT_EQ(create_Pipe(), 0);
    const std::string before = pipe_.received();
    const int requests_before = testutil::count_of(tls.log(), "/rest/register/");
    std::string response;
    EXPECT_EQ(sendData2Zelm(url, request(), &response), c.expected);
    if (c.expected == 0) {
      // An unknown serial is a well-formed, verified refusal of the server.
      EXPECT_NE(response.find("ZELM-015"), std::string::npos) << response;
      EXPECT_EQ(testutil::count_of(tls.log(), "/rest/register/"), requests_before + 1);
    } else {
      EXPECT_NE(testutil::last_status().find(c.status), std::string::npos) << testutil::last_status();
      ASSERT_TRUE(pipe_.wait_for(before + c.pipe)) << pipe_.received();
      // Refused before any connection was made.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      EXPECT_EQ(testutil::count_of(tls.log(), "/rest/register/"), requests_before);
    }
  }
  const std::string log = testutil::read_file("rd.log");
  EXPECT_NE(log.find("Communication is Happening through HTTPs"), std::string::npos);
  EXPECT_NE(log.find("server.crt is a valid SSL certificate"), std::string::npos);
  EXPECT_NE(log.find("server.crt is not a valid SSL certificate, please put a valid SSL certificate"),
            std::string::npos);

  // The same server over plain HTTP: no CA file is needed.
  std::filesystem::remove("cert/server.crt");
  Server plain(false);
  ASSERT_GT(plain.port(), 0) << plain.log();
  set_register_url(plain.base() + "/rest/register/");
  std::string response;
  EXPECT_EQ(sendData2Zelm(plain.base() + "/rest/register/", request(), &response), 0);
  EXPECT_NE(response.find("ZELM-015"), std::string::npos) << response;
}

TEST_F(MgmtTransportTest, StalledAndUnreachableServers) {
  EXPECT_EQ(kZelmTimeoutSeconds, 90);
  EXPECT_EQ(zelm_timeout_seconds(), 90);
  EXPECT_EQ(kZelmConnectTimeoutSeconds, 60);

  {
    CannedServer stalled(nullptr);
    set_register_url(stalled.url());
    set_zelm_timeout_for_test(1);
    const auto start = std::chrono::steady_clock::now();
    std::string response;
    EXPECT_EQ(sendData2Zelm(stalled.url(), request(), &response), -17);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_NE(testutil::last_status().find("| sendData2Zelm | Server Connection Timeout (1 sec) "),
              std::string::npos)
        << testutil::last_status();
    EXPECT_TRUE(pipe_.wait_for("5000|Server Connection Timeout|(1 sec)\n")) << pipe_.received();
    set_zelm_timeout_for_test(0);
    EXPECT_EQ(zelm_timeout_seconds(), 90);
  }

  const std::string url = "http://127.0.0.1:" + std::to_string(closed_port()) + "/Zelm/rest/register/";
  set_register_url(url);
  std::string response;
  EXPECT_EQ(sendData2Zelm(url, request(), &response), -18);
  EXPECT_NE(testutil::last_status().find("Internet connectivity issue, not able to connect Url - " + url + ") "),
            std::string::npos)
      << testutil::last_status();
  EXPECT_TRUE(pipe_.wait_for("10000|Internet connectivity issue,|not able to connect to MS\n"));
  EXPECT_NE(testutil::read_file("rd.log").find("Response code from curl is 7"), std::string::npos);
}

TEST(MgmtTransportParse, ResponseRdtHeader) {
  testutil::WorkDir dir;
  std::string req_drt;
  ASSERT_EQ(rds_hmac_sign("{\"a\":1}", 7, 1, &req_drt), 0);
  const std::string body = "{\"respStatus\":\"y\"}";
  const std::string good = signed_for(body, req_drt);
  struct Case {
    std::string headers;
    int parse;
    std::string value;
    int check;
  } cases[] = {
      {"", -1, "", -22},
      {"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n", -1, "", -22},
      {"HTTP/1.1 200 OK\r\nRD_DRT: " + good + "\r\n\r\n", 0, good, 0},
      {"HTTP/1.1 200 OK\r\nRD_DRT: " + good + " trailing\r\n", 0, good, 0},
      {"HTTP/1.1 200 OK\r\nRD_DRT: " + good.substr(0, 44) + "\r\n", 0, good.substr(0, 44), -23},
      {"HTTP/1.1 200 OK\r\nRD_DRT: " + std::string(5000, 'A') + "\r\n", 0, std::string(256, 'A'), -23},
      {"HTTP/1.1 200 OK\r\nRD_DRT: ", 0, "", -23},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.headers.substr(0, 60));
    std::string value = "stale";
    EXPECT_EQ(ParseResponseRDT(c.headers, &value), c.parse);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(ResponseDRTCheck(body, c.headers, req_drt), c.check);
  }
  // A valid RD_DRT does not vouch for another body.
  EXPECT_EQ(ResponseDRTCheck(body + " ", "RD_DRT: " + good + "\r\n", req_drt), -23);
}

TEST_F(MgmtTransportTest, GetAndDownloadKeepTheirLimits) {
  // The GET takes at most 4095 bytes and sends no RD_DRT.
  for (std::size_t size : {std::size_t{4095}, std::size_t{4096}}) {
    SCOPED_TRACE(size);
    const std::string body(size, 'g');
    CannedServer server([&](const std::string&, const std::string&) { return http_response("200 OK", body, nullptr); });
    set_register_url(server.url());
    std::string response;
    const int rc = GetDataFromZelm(server.url("/Zelm/rest/getCert/P"), nullptr, &response);
    EXPECT_EQ(rc, size <= kZelmMaxGetBody ? 0 : -1);
    EXPECT_EQ(response, rc == 0 ? body : "");
    EXPECT_EQ(server.last().first, "");
  }
  EXPECT_NE(testutil::last_status().find("| GetDataFromZelm | Query Unsuccessful,Curl return code 23 "),
            std::string::npos)
      << testutil::last_status();

  // Downloads over TLS from the reference server, peer unchecked; a failed
  // one leaves the file that was there.
  std::filesystem::create_directories("data/packages");
  std::string package(250000, '\0');
  for (std::size_t i = 0; i < package.size(); ++i) package[i] = static_cast<char>((i * 31 + i / 7) & 0xff);
  testutil::write_file("data/packages/pkg.zip", package);
  Server tls(true);
  ASSERT_GT(tls.port(), 0) << tls.log();
  install_ca();
  const std::string base = tls.base();
  struct Case {
    std::string url;
    std::string path;
    int expected;
    std::string content;
  } cases[] = {
      {base + "/files/packages/pkg.zip", "pkg.zip", 0, package},
      {base + "/files/packages/missing.zip", "pkg.zip", 22, package},
      {base + "/files/packages/pkg.zip", "no/such/folder/pkg.zip", -1, ""},
      {"http://127.0.0.1:" + std::to_string(closed_port()) + "/x", "pkg.zip", 7, package},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    EXPECT_EQ(Curl_Download_File(c.url, 5, 10, c.path), c.expected);
    EXPECT_EQ(testutil::read_file(c.path), c.content);
  }
  const std::string log = testutil::read_file("rd.log");
  EXPECT_NE(log.find("chunk size is 250000"), std::string::npos);
  EXPECT_NE(log.find("Curl return code 22, HTTP Error Code  404"), std::string::npos);
  EXPECT_NE(log.find("CURLOPT_USERAGENT success"), std::string::npos);
  // Only the downloaded file and its siblings: no temporary file left behind.
  int files = 0;
  for (const auto& e : std::filesystem::directory_iterator(".")) files += e.path().filename().string().rfind("pkg.zip", 0) == 0;
  EXPECT_EQ(files, 1);
}

}  // namespace
