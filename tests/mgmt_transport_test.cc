// The transport to the Management server, against the reference server run
// as a child process (HTTPS and plain HTTP, with its own or a case's
// certificate) and against a canned HTTP(S) server of the test that answers
// exactly the bytes a case needs.
#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "common/hash.h"
#include "common/rd_config.h"
#include "common/rd_log.h"
#include "mgmt_core/download.h"
#include "mgmt_server_util.h"
#include "rds_hash.h"
#include "test_crypto.h"
#include "test_util.h"
#include "web_service/auth_format.h"
#include "web_service/curl_api.h"
#include "web_service/transfer.h"

namespace {

using mgmttest::CannedRequest;
using mgmttest::CannedServer;
using mgmttest::closed_port;
using mgmttest::http_reply;
using mgmttest::kMgmtData;
using mgmttest::Reply;
using mgmttest::Server;
using testutil::Seams;

// What the client posts: the transport does not look into it, the server
// refuses it (ZELM-001) with a verified answer.
const std::string kRequest = "{}";

// The response's RD_DRT as the server makes it, over body and the request's RD_DRT.
std::string signed_for(const std::string& body, const std::string& request_drt) {
  std::string drt;
  EXPECT_EQ(rds_hmac_sign_response(body.data(), body.size(), request_drt, &drt), 0);
  return drt;
}

class MgmtTransportTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    set_register_url("http://127.0.0.1:1/Zelm/rest/register/");
  }
  static void set_register_url(const std::string& url) {
    rd_config_update([&url](RdConfig& c) { c.mgmt_url_register = url; });
  }
  static void install_ca() {
    std::filesystem::create_directories("cert");
    testutil::write_file("cert/server.crt", testutil::read_file(kMgmtData + "/ca.crt"));
  }
  // Resets the last-status line and the pipe; what the pipe held before.
  std::string fresh_reports() {
    rd_log_reset_for_test();
    EXPECT_EQ(create_Pipe(), 0);
    return pipe_->received();
  }
};

// Each answer is bounded and verified before it reaches the caller, over
// plain HTTP (where no CA file is needed: the refused answers arrive) and over
// TLS, where the client speaks HTTP/1.1 even to a server that would take
// HTTP/2 (the canned one).
TEST_F(MgmtTransportTest, ResponseChecksSizeLimitsAndTimeout) {
  std::string other_request;
  ASSERT_EQ(rds_hmac_sign("[]", 2, 1, &other_request), 0);
  struct Case {
    const char* name;
    bool tls;
    std::size_t body_size;  // 0: no answer at all
    bool of_other_request;  // signed over another request's RD_DRT
    int expected;
    const char* status;  // expected last-status text after " | sendData2Zelm | "
    const char* pipe;
  } cases[] = {
      {"29999 bytes over TLS", true, 29999, false, 0, nullptr, nullptr},
      {"30000 bytes", false, 30000, false, -20, "Internet connectivity issue - ",
       "10000|Internet connectivity issue,|not able to connect to MS\n"},
      {"RD_DRT of another request", false, 40, true, -23, "Data from server is poisoned ",
       "10000|Data from server is poisoned\n"},
      {"no answer within the limit", false, 0, false, -17, "Server Connection Timeout (1 sec) ",
       "5000|Server Connection Timeout|(1 sec)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    // {"respStatus":"y","pad":"xx...x"} of body_size bytes.
    const std::string pad(c.body_size > 27 ? c.body_size - 27 : 0, 'x');
    const std::string body = c.body_size > 0 ? R"({"respStatus":"y","pad":")" + pad + "\"}" : "";
    CannedServer server(
        [&](const CannedRequest& r) {
          const std::string drt = signed_for(body, c.of_other_request ? other_request : r.header("RD_DRT"));
          return Reply(body.empty() ? "" : http_reply("200 OK", "RD_DRT: " + drt + "\r\n", body));
        },
        c.tls ? kMgmtData + "/server.crt" : "", c.tls ? kMgmtData + "/server.key" : "");
    if (c.tls) install_ca();
    std::optional<long> limit;
    if (body.empty()) limit = 1;
    seams([&](Seams& s) { s.mgmt_timeout_s = limit; });
    const std::string url = server.url("/Zelm/rest/register/");
    set_register_url(url);
    const std::string before = fresh_reports();
    std::string response = "stale";
    EXPECT_EQ(sendData2Zelm(url, kRequest, &response), c.expected);

    // A CA file exists only for TLS.
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(std::filesystem::remove("cert/server.crt"), c.tls);

    if (c.expected == 0) {
      EXPECT_EQ(response, body);
      EXPECT_EQ(testutil::last_status(), "");
    } else {
      EXPECT_EQ(response, "");  // nothing unverified reaches the caller
      EXPECT_TRUE(testutil::has(testutil::last_status(), std::string(" | curl_api | sendData2Zelm | ") + c.status));
      ASSERT_TRUE(pipe_->wait_for(before + c.pipe)) << pipe_->received();
    }
  }
  // The seam shortened the limit, whose real value is 90 s.
  seams([](Seams& s) { s.mgmt_timeout_s = std::nullopt; });
  EXPECT_EQ(zelm_timeout_seconds(), 90);
}

// The CA file is checked before any connection, by every kind of transfer,
// and the scheme is read by parsing the URL, so "HTTPS://" is checked too.
TEST_F(MgmtTransportTest, PinnedCaFileGuardsEveryHttpsTransfer) {
  std::filesystem::create_directories("data/uidai");
  testutil::write_file("data/uidai/prod.pem", testutil::read_file(kMgmtData + "/uidai/prod.pem"));
  Server tls(true);
  ASSERT_GT(tls.port(), 0) << tls.log();
  const std::string lower = tls.base();
  const std::string upper = "HTTPS" + lower.substr(5);
  auto tamper = [] {
    install_ca();
    std::string pem = testutil::read_file("cert/server.crt");
    pem[100] = static_cast<char>(pem[100] ^ 0x01);
    testutil::write_file("cert/server.crt", pem);
  };
  struct Case {
    const char* name;
    std::function<void()> prepare;
    std::string base;
    int expected;
    std::string report;  // on the last-status line with a blank after it, on the pipe as "10000|report\n"
  } cases[] = {
      {"demonstration CA", install_ca, lower, 0, ""},
      {"no CA file", [] { std::filesystem::remove("cert/server.crt"); }, lower, -15, "File Not found: cert/server.crt"},
      {"one changed byte", tamper, lower, -16, "File Tampered: cert/server.crt"},
      {"one changed byte, scheme in capitals", tamper, upper, -16, "File Tampered: cert/server.crt"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.prepare();
    set_register_url(c.base + "/rest/register/");
    const std::string before = fresh_reports();
    const int posts = testutil::count_of(tls.log(), "/rest/register/");
    const int gets = testutil::count_of(tls.log(), "/files/uidai/prod.pem");
    std::string response;
    EXPECT_EQ(sendData2Zelm(c.base + "/rest/register/", kRequest, &response), c.expected);
    const bool ok = c.expected == 0;
    EXPECT_EQ(Curl_Download_File(c.base + "/files/uidai/prod.pem", 5, 10, "prod.pem", 65536), ok ? 0 : -1);
    if (ok) {
      EXPECT_TRUE(testutil::has(response, "ZELM-001"));
    } else {
      EXPECT_TRUE(testutil::has(testutil::last_status(), c.report + " "));
      ASSERT_TRUE(pipe_->wait_for(before + "10000|" + c.report + "\n")) << pipe_->received();
    }
    // A refused CA file is refused before any connection: nothing can arrive
    // later. The server logs a download after it sent the bytes.
    if (ok) testutil::wait_until([&] { return testutil::count_of(tls.log(), "/files/uidai/prod.pem") > gets; });
    EXPECT_EQ(testutil::count_of(tls.log(), "/rest/register/"), posts + (ok ? 1 : 0));
    EXPECT_EQ(testutil::count_of(tls.log(), "/files/uidai/prod.pem"), gets + (ok ? 1 : 0));
  }
  EXPECT_TRUE(testutil::log_has("curl_api", "Curl_Download_File",
                                "server.crt is not a valid SSL certificate, please put a valid SSL certificate"));
}

// Runs fn in a child process whose system CA store holds only the CA of
// folder: libcurl's default CA folder and bundle are replaced by it in a
// private mount namespace where the system allows one, and SSL_CERT_DIR and
// SSL_CERT_FILE name it. fn's result (0..255), or -1.
int with_system_store(const std::string& folder, const std::function<int()>& fn) {
  const pid_t pid = fork();
  if (pid == 0) {
    transfer::Easy probe = transfer::new_easy();
    char* ca_path = nullptr;
    char* ca_file = nullptr;
    curl_easy_getinfo(probe.get(), CURLINFO_CAPATH, &ca_path);
    curl_easy_getinfo(probe.get(), CURLINFO_CAINFO, &ca_file);
    bool replaced = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (replaced && ca_path != nullptr) replaced = mount(folder.c_str(), ca_path, nullptr, MS_BIND, nullptr) == 0;
    if (replaced && ca_file != nullptr && std::filesystem::exists(ca_file)) {
      replaced = mount((folder + "/ca.pem").c_str(), ca_file, nullptr, MS_BIND, nullptr) == 0;
    }
    testutil::write_file("store.txt", replaced ? "replaced" : "environment only");
    setenv("SSL_CERT_DIR", folder.c_str(), 1);
    setenv("SSL_CERT_FILE", (folder + "/ca.pem").c_str(), 1);
    _exit(fn());
  }
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Only a server certificate that chains to the pinned CA and names
// serverAuth is accepted, whatever the system trusts.
TEST_F(MgmtTransportTest, ServerCertificateMustChainToThePinAndServeTheServer) {
  using mgmttest::issue_cert;
  install_ca();
  const mgmttest::Issued other_ca = issue_cert(
      "Other CA", {{NID_basic_constraints, "critical,CA:TRUE"}, {NID_key_usage, "critical,keyCertSign,cRLSign"}},
      nullptr);
  // The store as a CA folder: the certificate under its subject hash.
  X509Ptr other = testcrypto::cert_of_pem(other_ca.cert_pem);
  ASSERT_TRUE(other);
  char hashed[16];
  std::snprintf(hashed, sizeof hashed, "%08lx.0", X509_subject_name_hash(other.get()));
  std::filesystem::create_directories("store");
  testutil::write_file("store/ca.pem", other_ca.cert_pem);
  testutil::write_file(std::string("store/") + hashed, other_ca.cert_pem);

  auto server_cert = [](const mgmttest::Issued& issuer, const char* key_usage, const char* extended) {
    std::vector<std::pair<int, const char*>> ext = {{NID_subject_alt_name, "IP:127.0.0.1"},
                                                    {NID_basic_constraints, "critical,CA:FALSE"},
                                                    {NID_key_usage, key_usage}};
    if (extended != nullptr) ext.emplace_back(NID_ext_key_usage, extended);
    return issue_cert("127.0.0.1", ext, &issuer);
  };
  const mgmttest::Issued outside = server_cert(other_ca, "critical,digitalSignature", "serverAuth");
  const mgmttest::Issued pinned = {testcrypto::private_key_of_pem(testutil::read_file(kMgmtData + "/ca.key")),
                                   testutil::read_file(kMgmtData + "/ca.crt"), ""};
  const mgmttest::Issued device = server_cert(pinned, "critical,digitalSignature,nonRepudiation", nullptr);
  struct Case {
    const char* name;
    std::string cert;
    std::string key;
    int expected;
  } cases[] = {
      {"the server's own certificate", testutil::read_file(kMgmtData + "/server.crt"),
       testutil::read_file(kMgmtData + "/server.key"), 0},
      {"a server certificate of a CA in the system store", outside.cert_pem, outside.key_pem, -20},
      {"a device-profile certificate of the pinned CA", device.cert_pem, device.key_pem, -20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testutil::write_file("tls.crt", c.cert);
    testutil::write_file("tls.key", c.key);
    Server tls(true, {"--cert", "tls.crt", "--key", "tls.key"});
    ASSERT_GT(tls.port(), 0) << tls.log();
    const std::string url = tls.base() + "/rest/register/";
    set_register_url(url);
    const int rc = with_system_store(dir_.file("store"), [&] {
      std::string response;
      return -sendData2Zelm(url, kRequest, &response);
    });
    EXPECT_EQ(rc, -c.expected) << testutil::read_file("store.txt");
    EXPECT_EQ(testutil::count_of(tls.log(), "/rest/register/"), c.expected == 0 ? 1 : 0) << tls.log();
  }
  RecordProperty("system_store", testutil::read_file("store.txt"));
}

TEST_F(MgmtTransportTest, UnreachableServerIsReported) {
  const std::string url = "http://127.0.0.1:" + std::to_string(closed_port()) + "/Zelm/rest/register/";
  set_register_url(url);
  std::string response;
  EXPECT_EQ(sendData2Zelm(url, kRequest, &response), -18);
  EXPECT_TRUE(
      testutil::has(testutil::last_status(), "Internet connectivity issue, not able to connect Url - " + url + ") "));
  EXPECT_TRUE(pipe_->wait_for("10000|Internet connectivity issue,|not able to connect to MS\n"));
  EXPECT_TRUE(testutil::has(testutil::log_text(), "Query Unsuccessful,Curl return code 7\n"));
}

TEST_F(MgmtTransportTest, ResponseRdtHeaderParsedAndChecked) {
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
      {"HTTP/2 200\r\nrd_Drt:\t" + good + "\r\n\r\n", 0, good, 0},
      {"HTTP/1.1 200 OK\r\nX-Note: RD_DRT: AAAA\r\nRD_DRT: " + good + "\r\n", 0, good, 0},
      {"HTTP/1.1 200 OK\r\nX-RD_DRT: " + good + "\r\n", -1, "", -22},
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
    CannedServer server([&](const CannedRequest&) { return Reply(http_reply("200 OK", "", body)); });
    set_register_url(server.url("/Zelm/rest/register/"));
    std::string response;
    const int rc = GetDataFromZelm(server.url("/Zelm/rest/getCert/P"), nullptr, &response);
    EXPECT_EQ(rc, size <= kZelmMaxGetBody ? 0 : -1);
    EXPECT_EQ(response, rc == 0 ? body : "");
    EXPECT_EQ(server.requests().at(0).header("RD_DRT"), "");
  }
  EXPECT_TRUE(testutil::has(testutil::last_status(), "| GetDataFromZelm | Query Unsuccessful,Curl return code 23 "));

  // Downloads over TLS from the reference server, stopped at their limit as
  // the bytes arrive; a failed one leaves the file that was there.
  std::filesystem::create_directories("data/packages");
  const std::string package(65537, 'p');
  testutil::write_file("data/packages/pkg.zip", package);
  Server tls(true);
  ASSERT_GT(tls.port(), 0) << tls.log();
  install_ca();
  set_register_url(tls.base() + "/rest/register/");
  const std::string base = tls.base() + "/files/packages/";
  struct Case {
    std::string url;
    std::size_t limit;
    std::string path;
    int expected;
    std::string content;
  } cases[] = {
      {base + "pkg.zip", 65537, "pkg.zip", 0, package},
      {base + "pkg.zip", 65536, "pkg.zip", 23, package},
      {base + "missing.zip", 65536, "pkg.zip", 22, package},
      {base + "pkg.zip", 65536, "no/such/folder/pkg.zip", -1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    EXPECT_EQ(Curl_Download_File(c.url, 5, 10, c.path, c.limit), c.expected);
    EXPECT_EQ(testutil::read_file(c.path), c.content);
  }
  // An endless answer is cut at the limit, not read on to the end first.
  set_register_url("http://127.0.0.1:1/Zelm/rest/register/");
  CannedServer endless([](const CannedRequest&) {
    Reply r("HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n");
    r.filler = 1073741824;
    return r;
  });
  EXPECT_EQ(Curl_Download_File(endless.url("/uidai/prod.pem"), 5, 10, "pkg.zip", 65536), 23);
  EXPECT_LT(endless.sent(), 64u << 20);

  EXPECT_TRUE(testutil::has(testutil::log_text(), "Curl return code 22, HTTP Error Code  404"));
  // Only the downloaded file and its siblings: no temporary file left behind.
  int files = 0;
  for (const auto& e : std::filesystem::directory_iterator("."))
    files += e.path().filename().string().rfind("pkg.zip", 0) == 0;
  EXPECT_EQ(files, 1);
}

// URLs from the server's answers (download paths) reach HTTPS, and HTTP only
// while the register URL is an http:// one: never another protocol.
TEST_F(MgmtTransportTest, DownloadUrlsUseOnlyHttpAndHttps) {
  CannedServer listener([](const CannedRequest&) { return Reply(http_reply("200 OK", "", "from the listener")); });
  const std::string secret = "a local file nobody may read";
  testutil::write_file("secret.txt", secret);
  std::string md5;
  ASSERT_EQ(MD5_Generate("secret.txt", &md5), 0);
  const std::string at = listener.url("").substr(7);  // 127.0.0.1:PORT
  const std::string http_register = "http://" + at + "/Zelm/rest/register/";
  const std::string https_register = "https://" + at + "/Zelm/rest/register/";
  struct Case {
    std::string register_url;
    std::string url;
    bool reaches;
  } cases[] = {
      {http_register, "gopher://" + at + "/1secret", false},
      {http_register, "FILE://" + dir_.file("secret.txt"), false},
      {https_register, "http://" + at + "/files/packages/p.zip", false},
      {http_register, "http://" + at + "/files/packages/p.zip", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    set_register_url(c.register_url);
    const std::function<int()> fetches[] = {
        [&] { return Curl_Download_File(c.url, 5, 10, "fetched", 65536); },
        [&] { return download_manager(c.url, md5, "fetched"); },
    };
    for (const auto& fetch : fetches) {
      std::filesystem::remove("fetched");
      const int before = listener.connections();
      const int rc = fetch();
      EXPECT_EQ(listener.connections() > before, c.reaches);
      if (!c.reaches) {
        EXPECT_NE(rc, 0);
      }
      EXPECT_NE(std::filesystem::exists("fetched") ? testutil::read_file("fetched") : "", secret);
    }
  }
}

}  // namespace
