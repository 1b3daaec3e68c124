// The reference Management server as a real child process on a free port:
// requests framed and protected by the library's own code, sent with libcurl
// over HTTP and over TLS checked against the demonstration CA.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <json-c/json_pointer.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <ctime>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "common/Base64.h"
#include "mgmt_server_util.h"
#include "rds_hash.h"
#include "test_util.h"
#include "web_service/json/json_frame_parse.h"
#include "web_service/json/json_ptr.h"
#include "web_service/transfer.h"

namespace {

using mgmttest::kMgmtData;
using mgmttest::run_command;
using mgmttest::Server;
const std::string kHostId = "0a1b2c3d4e5f";
const std::string kModel = "A600";

struct Reply {
  long status = 0;
  std::string headers;
  std::string body;
  std::string header(const std::string& name) const {
    std::smatch m;
    return std::regex_search(headers, m, std::regex("(^|\n)" + name + ": ([^\r\n]*)", std::regex::icase)) ? m.str(2)
                                                                                                          : "";
  }
};

size_t collect(char* data, size_t size, size_t n, void* out) {
  static_cast<std::string*>(out)->append(data, size * n);
  return size * n;
}

// One request with libcurl: a POST when body is given, else a GET.
Reply fetch(const std::string& url, const std::string* body, const std::vector<std::string>& headers = {},
            const char* range = nullptr) {
  Reply r;
  transfer::Easy c = transfer::new_easy();
  transfer::Slist list;
  for (const auto& h : headers) list.reset(curl_slist_append(list.release(), h.c_str()));
  curl_easy_setopt(c.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(c.get(), CURLOPT_CAINFO, (kMgmtData + "/ca.crt").c_str());
  curl_easy_setopt(c.get(), CURLOPT_TIMEOUT, 10L);
  curl_easy_setopt(c.get(), CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(c.get(), CURLOPT_WRITEDATA, &r.body);
  curl_easy_setopt(c.get(), CURLOPT_HEADERFUNCTION, collect);
  curl_easy_setopt(c.get(), CURLOPT_HEADERDATA, &r.headers);
  if (list) curl_easy_setopt(c.get(), CURLOPT_HTTPHEADER, list.get());
  if (body != nullptr) {
    curl_easy_setopt(c.get(), CURLOPT_POSTFIELDS, body->data());
    curl_easy_setopt(c.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
  }
  if (range != nullptr) curl_easy_setopt(c.get(), CURLOPT_RANGE, range);
  if (curl_easy_perform(c.get()) == CURLE_OK) curl_easy_getinfo(c.get(), CURLINFO_RESPONSE_CODE, &r.status);
  return r;
}

std::string ist_now(long offset = 0) {
  std::time_t t = std::time(nullptr) + 19800 + offset;
  struct tm tm = {};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
  return text;
}

// The Base64 RD_DRT of a request body.
std::string request_drt(const std::string& body) {
  std::string drt;
  EXPECT_EQ(rds_hmac_sign(body.data(), body.size(), 1, &drt), 0);
  return drt;
}

std::string b64(const std::string& bytes) {
  std::string out;
  EXPECT_EQ(Base64Encode({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, &out), 0);
  return out;
}

// A request as the device frames it: device, ts, [pKey], sKey, hmac.
std::string frame(const std::string& serial = "SN1001", const std::string& ts = ist_now(),
                  const std::string* pkey = nullptr) {
  const MgmtIdentity id = {"1.0.0", "QDX.ARA.A600.W", "QDX.MC",  "1.0.0", "Linux",
                           kHostId, serial,           "Korvane", kModel,  "QDX.ARA"};
  std::string out;
  EXPECT_EQ(json_frame_with(id, ts, pkey, &out), 0);
  return out;
}

// text with its first letter or digit from position at on changed (never an
// escape of the JSON text or a line break of a PEM one).
std::string flipped(std::string text, std::size_t at) {
  while (!std::isalnum(static_cast<unsigned char>(text.at(at)))) ++at;
  text[at] = text[at] == 'A' ? 'B' : 'A';
  return text;
}

// Where the string value of member key starts in a JSON text.
std::size_t value_of(const std::string& text, const std::string& key) {
  return text.find('"', text.find("\"" + key + "\"") + key.size() + 2) + 1;
}

struct Answer {
  Reply reply;
  JsonPtr json;
  int drt_ok = -1;  // 1 when the answer's RD_DRT binds its body to the request
  // The value at a JSON pointer: a string as it is, anything else as plain JSON.
  std::string at(const char* pointer) const {
    json_object* v = nullptr;
    if (json_pointer_get(json.get(), pointer, &v) != 0) return "(none)";
    return json_object_is_type(v, json_type_string) ? json_object_get_string(v)
                                                    : json_object_to_json_string_ext(v, JSON_C_TO_STRING_PLAIN);
  }
};

// Posts body to the endpoint with the given RD_DRT header (none when empty).
Answer post(const Server& s, const std::string& endpoint, const std::string& body, const std::string& drt) {
  Answer a;
  std::vector<std::string> headers = {"Content-Type: application/json; charset=utf-8"};
  if (!drt.empty()) headers.push_back("RD_DRT: " + drt);
  a.reply = fetch(s.base() + endpoint, &body, headers);
  a.json.reset(json_tokener_parse(a.reply.body.c_str()));
  EXPECT_EQ(rds_hmac_check(a.reply.header("RD_DRT"), request_drt(body), 1, a.reply.body.data(), a.reply.body.size(),
                           &a.drt_ok),
            0);
  return a;
}

Answer call(const Server& s, const std::string& endpoint, const std::string& body = frame()) {
  return post(s, endpoint, body, request_drt(body));
}

class MgmtServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories("data/uidai");
    std::filesystem::create_directories("data/packages");
    for (const char* pem : {"prod.pem", "preprod.pem"})
      testutil::write_file("data/uidai/" + std::string(pem), testutil::read_file(kMgmtData + "/uidai/" + pem));
    // 250000 bytes: three download chunks of the device's range size.
    package_.resize(250000);
    for (std::size_t i = 0; i < package_.size(); ++i) package_[i] = static_cast<char>((i * 7919 + i / 251) & 0xff);
    testutil::write_file("data/packages/vexo-1.0.2.zip", package_);
  }

  // Adds the device and gives it a fresh key, so its answers come from its queue.
  static void register_and_rotate(const Server& s) {
    ASSERT_EQ(0, run_command({"add-device", "SN1001", "--model", kModel, "--registry", "registry.db"}));
    const std::string pkey = b64(mgmttest::issue_cert("SN1001", {}, nullptr).cert_pem);
    ASSERT_EQ("y", call(s, "/rest/keyRotation/", frame("SN1001", ist_now(), &pkey)).at("/respStatus"));
  }

  testutil::WorkDir dir_;
  std::string package_;
};

TEST_F(MgmtServerTest, RangedDownloadsAndRefusedPaths) {
  Server s(true);
  ASSERT_GT(s.port(), 0) << s.log();
  // The certificate fetches: ManagementEndToEnd.UidaiCertificatesComeFromTheServer;
  // the device's ranges: DownloadTest.FreshDownloadFetchesExactRanges. A last
  // range past the end is answered up to the size.
  struct Range {
    const char* range;
    long status;
    std::size_t from, length;
    const char* content_range;
  } ranges[] = {
      {"204802-250000", 206, 204802, 45198, "bytes 204802-249999/250000"},
      {nullptr, 200, 0, 250000, ""},
      {"250000-260000", 416, 0, 0, "bytes */250000"},
  };
  const std::string url = s.base() + "/files/packages/vexo-1.0.2.zip";
  for (const auto& r : ranges) {
    SCOPED_TRACE(r.range ? r.range : "whole");
    Reply got = fetch(url, nullptr, {}, r.range);
    EXPECT_EQ(r.status, got.status);
    EXPECT_EQ(r.content_range, got.header("Content-Range"));
    if (r.status == 416) continue;
    EXPECT_EQ(std::to_string(r.length), got.header("Content-Length"));
    EXPECT_TRUE(got.body == package_.substr(r.from, r.length));
  }
  // HEAD, which the download's size request uses: DownloadTest.FreshDownloadFetchesExactRanges.
  EXPECT_EQ(404, fetch(s.base() + "/files/packages/..%2Fregistry.db", nullptr).status);
  EXPECT_EQ(404, fetch(s.base() + "/files/other/x", nullptr).status);
}

TEST_F(MgmtServerTest, RegistryCommandsCheckTheirArguments) {
  EXPECT_EQ(0, run_command({"add-device", "SN1001", "--registry", "registry.db"}));
  EXPECT_EQ(1, run_command({"queue", "SN9999", "KEY_ROTATION", "--registry", "registry.db"}));
  EXPECT_EQ(2, run_command({"queue", "SN1001", "REBOOT", "--registry", "registry.db"}));
  EXPECT_EQ(0, run_command({"queue", "SN1001", "SOFTWARE_UPDATE", "--registry", "registry.db"}));
  EXPECT_EQ(0, run_command({"queue", "SN1001", "UIDAI_CERT_UPDATE", "--registry", "registry.db"}));
  std::string listing;
  ASSERT_EQ(0, run_command({"list", "--registry", "registry.db"}, &listing));
  EXPECT_EQ("SN1001 model=- hostId=- dc=- rotated=never cert=0 bytes queue=SOFTWARE_UPDATE,UIDAI_CERT_UPDATE\n",
            listing);
  EXPECT_EQ(2, run_command({"serve", "--port", "70000"}));
}

// The answers for an unknown and a new device, as the client takes them:
// ManagementEndToEnd.InitFollowsTheRegistry.
TEST_F(MgmtServerTest, RegisterLearnsTheIdentityAndEchoesTheRegisteredOne) {
  Server s(false);
  ASSERT_GT(s.port(), 0) << s.log();
  call(s, "/rest/register/");
  EXPECT_NE(std::string::npos, s.log().find("POST /Zelm/rest/register/ SN1001 n ZELM-015\n")) << s.log();

  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--registry", "registry.db"}));
  Answer known = call(s, "/rest/register/");
  // Host id and model were left out by add-device: learnt from the request.
  EXPECT_EQ(kHostId, known.at("/device/hostId"));
  EXPECT_EQ("SN1001", known.at("/device/slNo"));
  EXPECT_EQ(kModel, known.at("/device/model"));

  // A registered identity is echoed as registered, not as sent.
  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--host-id", "ffeeddccbbaa", "--registry", "registry.db"}));
  EXPECT_EQ("ffeeddccbbaa", call(s, "/rest/register/").at("/device/hostId"));
}

TEST_F(MgmtServerTest, KeyRotationIssuesCertificateUnderTheCa) {
  Server s(true);
  ASSERT_GT(s.port(), 0) << s.log();
  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--model", kModel, "--registry", "registry.db"}));

  // The device asks for a subject that would make its certificate pass for
  // the server's; the server names the serial number instead.
  const mgmttest::Issued own = mgmttest::issue_cert("127.0.0.1", {}, nullptr);
  const std::string pkey = b64(own.cert_pem);
  const std::string rotation = frame("SN1001", ist_now(), &pkey);
  Answer a = call(s, "/rest/keyRotation/", rotation);
  ASSERT_EQ("y", a.at("/respStatus")) << a.reply.body;
  const std::string dc = a.at("/device/dc");

  // sPKey: Base64 DER of a client certificate (the chain and the key:
  // ManagementEndToEnd.KeyRotationSignsCapturesWithTheIssuedCertificate).
  std::vector<std::uint8_t> der;
  ASSERT_EQ(Base64Decode(a.at("/sPKey"), &der), 0);
  const unsigned char* p = der.data();
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  ASSERT_NE(nullptr, cert);
  char subject[256];
  EXPECT_STREQ("/CN=SN1001", X509_NAME_oneline(X509_get_subject_name(cert.get()), subject, sizeof subject));
  EXPECT_EQ(X509_get_extension_flags(cert.get()) & EXFLAG_XKUSAGE, static_cast<uint32_t>(EXFLAG_XKUSAGE));
  EXPECT_EQ(X509_get_extended_key_usage(cert.get()), static_cast<uint32_t>(XKU_SSL_CLIENT));

  // With a fresh key the device is left alone; a second rotation gives a new dc.
  EXPECT_EQ("[\"NO_ACTION_NECESSARY\"]", call(s, "/rest/register/").at("/nextAction"));
  EXPECT_NE(dc, call(s, "/rest/keyRotation/", rotation).at("/device/dc"));

  // A pKey that is no certificate, or whose self-signature fails, is refused.
  const std::string broken = b64(flipped(own.cert_pem, own.cert_pem.size() / 2));
  for (const std::string& bad : {b64("not a key"), std::string("@@@@"), broken, std::string()}) {
    EXPECT_EQ("ZELM-004", call(s, "/rest/keyRotation/", frame("SN1001", ist_now(), &bad)).at("/respCode")) << bad;
  }
}

// Queued actions come one per answer, in order, then none; a key older than
// the maximum age brings KEY_ROTATION back.
TEST_F(MgmtServerTest, QueuedActionsInOrderThenKeyAge) {
  {
    Server s(false);
    register_and_rotate(s);
    for (const char* action : {"SOFTWARE_UPDATE", "UIDAI_CERT_UPDATE", "SOFTWARE_UPDATE"})
      ASSERT_EQ(0, run_command({"queue", "SN1001", action, "--registry", "registry.db"}));
    for (const char* want :
         {"SOFTWARE_UPDATE", "UIDAI_CERT_UPDATE", "SOFTWARE_UPDATE", "NO_ACTION_NECESSARY", "NO_ACTION_NECESSARY"}) {
      EXPECT_EQ("[\"" + std::string(want) + "\"]", call(s, "/rest/register/").at("/nextAction"));
    }
  }
  // The same registry a day and a bit later (the clock offset moves the
  // server's clock): the default maximum age of 86400 s has passed.
  Server later(false, {"--clock-offset", "86460"});
  const std::string body = frame("SN1001", ist_now(86460));
  EXPECT_EQ("[\"KEY_ROTATION\"]", call(later, "/rest/register/", body).at("/nextAction"));
  Server strict(false, {"--clock-offset", "86460", "--key-max-age", "100000"});
  EXPECT_EQ("[\"NO_ACTION_NECESSARY\"]", call(strict, "/rest/register/", body).at("/nextAction"));
}

TEST_F(MgmtServerTest, AlteredRequestsAreRefused) {
  Server s(false);
  register_and_rotate(s);
  const std::string good = frame();
  struct Case {
    const char* what;
    std::string body;
    std::string drt;  // "": the body's own; "-": none
    const char* code;
  } cases[] = {
      {"correct", good, "", "ZELM-000"},
      {"hmac altered", flipped(good, value_of(good, "hmac") + 10), "", "ZELM-003"},
      {"sKey altered", flipped(good, value_of(good, "sKey") + 3), "", "ZELM-003"},
      {"ts altered after protecting", std::string(good).replace(value_of(good, "ts"), 4, "1999"), "", "ZELM-003"},
      {"RD_DRT missing", good, "-", "ZELM-002"},
      {"RD_DRT of another body", good, request_drt(frame()), "ZELM-002"},
      {"not JSON", "{\"device\": ", "", "ZELM-001"},
      {"no device", "{\"ts\": \"x\", \"sKey\": \"x\", \"hmac\": \"x\"}", "", "ZELM-001"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.drt.empty()) c.drt = request_drt(c.body);
    Answer a = post(s, "/rest/register/", c.body, c.drt == "-" ? "" : c.drt);
    EXPECT_EQ(c.code, a.at("/respCode")) << a.reply.body;
    EXPECT_EQ(std::string(c.code) == "ZELM-000" ? "y" : "n", a.at("/respStatus"));
    // Refusals are protected too, bound to the body that was received.
    EXPECT_EQ(1, a.drt_ok);
  }
  // An over-long body is cut off before it is read.
  std::string huge(100000, ' ');
  EXPECT_EQ(413, fetch(s.base() + "/rest/register/", &huge).status);
  // The server is still there.
  EXPECT_EQ("y", call(s, "/rest/register/").at("/respStatus"));
}

}  // namespace
