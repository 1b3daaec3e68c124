// The reference Management server as a real child process on a free port:
// requests framed and protected by the library's own code, sent as raw HTTP
// (its TLS side serves the transport and download tests).
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <json-c/json_pointer.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <filesystem>
#include <string>

#include "common/Base64.h"
#include "mgmt_server_util.h"
#include "platform/platform.h"
#include "rds_hash.h"
#include "test_util.h"
#include "web_service/json/json_frame_parse.h"
#include "web_service/json/json_ptr.h"

namespace {

using mgmttest::run_command;
using mgmttest::Server;
const std::string kHostId = "0a1b2c3d4e5f";
const std::string kModel = "A600";

// One exchange with a plain-HTTP server: the status, the head and the body;
// for a POST the body as JSON. (Every answer's RD_DRT, refusals too, is
// verified by the client: MgmtTransportTest.PinnedCaFileGuardsEveryHttpsTransfer.)
struct Reply {
  int status = 0;
  std::string head;
  std::string body;
  JsonPtr json;
  std::string header(const std::string& name) const { return mgmttest::header_of(head, name); }
  // The value at a JSON pointer: a string as it is, anything else as plain JSON.
  std::string at(const char* pointer) const {
    json_object* v = nullptr;
    if (json_pointer_get(json.get(), pointer, &v) != 0) return "(none)";
    return json_object_is_type(v, json_type_string) ? json_object_get_string(v)
                                                    : json_object_to_json_string_ext(v, JSON_C_TO_STRING_PLAIN);
  }
};

Reply exchange(const Server& s, const std::string& request_line, const std::string& headers = "",
               const std::string& body = "") {
  // Not half-closed: the server takes the end of the stream for a client that left.
  const std::string request = request_line + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + headers +
                              "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  const int fd = testutil::connect_to(s.port());
  (void)platform::send_socket(fd, request.data(), request.size());
  const std::string raw = testutil::read_until_close(fd, 20000);
  platform::close_socket(fd);
  Reply r;
  const std::size_t end = raw.find("\r\n\r\n");
  if (raw.size() < 12 || end == std::string::npos) return r;
  r.status = std::stoi(raw.substr(9, 3));
  r.head = raw.substr(0, end + 2);
  r.body = raw.substr(end + 4);
  return r;
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
std::string frame(const std::string* pkey = nullptr) {
  const MgmtIdentity id = {"1.0.0", "QDX.ARA.A600.W", "QDX.MC",  "1.0.0", "Linux",
                           kHostId, "SN1001",         "Korvane", kModel,  "QDX.ARA"};
  std::string out;
  EXPECT_EQ(json_frame_with(id, mgmt_timestamp(), pkey, &out), 0);
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

// Posts body to the endpoint with its own RD_DRT, another one, or none ("-").
Reply call(const Server& s, const std::string& endpoint, const std::string& body = frame(), std::string drt = "") {
  if (drt.empty()) drt = request_drt(body);
  std::string headers = "Content-Type: application/json; charset=utf-8\r\n";
  if (drt != "-") headers += "RD_DRT: " + drt + "\r\n";
  Reply a = exchange(s, "POST /Zelm" + endpoint, headers, body);
  a.json.reset(json_tokener_parse(a.body.c_str()));
  return a;
}

class MgmtServerTest : public ::testing::Test {
 protected:
  // Adds the device and gives it a fresh key, so its answers come from its queue.
  static void register_and_rotate(const Server& s) {
    ASSERT_EQ(0, run_command({"add-device", "SN1001", "--model", kModel, "--registry", "registry.db"}));
    const std::string pkey = b64(mgmttest::issue_cert("SN1001", {}, nullptr).cert_pem);
    ASSERT_EQ("y", call(s, "/rest/keyRotation/", frame(&pkey)).at("/respStatus"));
  }

  testutil::WorkDir dir_;
};

// The bytes of each range: DownloadTest.DownloadFetchesExactRangesFromTheResumePoint. The
// Content-Range of a last range past the end, and of one that starts past it,
// name the file's real end; nothing outside the data folder is served.
TEST_F(MgmtServerTest, RangedDownloadsAndRefusedPaths) {
  std::filesystem::create_directories("data/packages");
  testutil::write_file("data/packages/p.zip", std::string(1000, 'p'));
  Server s(false);
  ASSERT_GT(s.port(), 0) << s.log();
  const Reply last = exchange(s, "GET /Zelm/files/packages/p.zip", "Range: bytes=900-2000\r\n");
  EXPECT_EQ(206, last.status);
  EXPECT_EQ("bytes 900-999/1000", last.header("Content-Range"));
  const Reply past = exchange(s, "GET /Zelm/files/packages/p.zip", "Range: bytes=1000-2000\r\n");
  EXPECT_EQ(416, past.status);
  EXPECT_EQ("bytes */1000", past.header("Content-Range"));
  EXPECT_EQ(404, exchange(s, "GET /Zelm/files/packages/..%2Fregistry.db").status);
  EXPECT_EQ(404, exchange(s, "GET /Zelm/files/other/x").status);
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
  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--registry", "registry.db"}));
  Reply known = call(s, "/rest/register/");
  // Host id and model were left out by add-device: learnt from the request.
  EXPECT_EQ(kHostId, known.at("/device/hostId"));
  EXPECT_EQ("SN1001", known.at("/device/slNo"));
  EXPECT_EQ(kModel, known.at("/device/model"));

  // A registered identity is echoed as registered, not as sent.
  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--host-id", "ffeeddccbbaa", "--registry", "registry.db"}));
  EXPECT_EQ("ffeeddccbbaa", call(s, "/rest/register/").at("/device/hostId"));
}

TEST_F(MgmtServerTest, KeyRotationIssuesCertificateUnderTheCa) {
  Server s(false);
  ASSERT_GT(s.port(), 0) << s.log();
  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--model", kModel, "--registry", "registry.db"}));

  // The device asks for a subject that would make its certificate pass for
  // the server's; the server names the serial number instead.
  const mgmttest::Issued own = mgmttest::issue_cert("127.0.0.1", {}, nullptr);
  const std::string pkey = b64(own.cert_pem);
  Reply a = call(s, "/rest/keyRotation/", frame(&pkey));
  ASSERT_EQ("y", a.at("/respStatus")) << a.body;

  // sPKey: Base64 DER of a client certificate (the chain and the key:
  // ManagementEndToEnd.TamperedKeystoreForcesAKeyRotation).
  std::vector<std::uint8_t> der;
  ASSERT_EQ(Base64Decode(a.at("/sPKey"), &der), 0);
  const unsigned char* p = der.data();
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  ASSERT_NE(nullptr, cert);
  char subject[256];
  EXPECT_STREQ("/CN=SN1001", X509_NAME_oneline(X509_get_subject_name(cert.get()), subject, sizeof subject));
  EXPECT_EQ(X509_get_extension_flags(cert.get()) & EXFLAG_XKUSAGE, static_cast<uint32_t>(EXFLAG_XKUSAGE));
  EXPECT_EQ(X509_get_extended_key_usage(cert.get()), static_cast<uint32_t>(XKU_SSL_CLIENT));

  // What a fresh key and a second rotation do to Init and dc:
  // ManagementEndToEnd.InitFollowsTheRegistry, TamperedKeystoreForcesAKeyRotation.

  // A pKey that is no certificate, or whose self-signature fails, is refused.
  const std::string broken = b64(flipped(own.cert_pem, own.cert_pem.size() / 2));
  for (const std::string& bad : {b64("not a key"), std::string("@@@@"), broken, std::string()}) {
    EXPECT_EQ("ZELM-004", call(s, "/rest/keyRotation/", frame(&bad)).at("/respCode")) << bad;
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
  // server's clock, the seam the device's): the default maximum age of 86400 s has passed.
  test_seams::update([](test_seams::Seams& t) { t.now = platform::now() + 86460; });
  const std::string body = frame();
  test_seams::update([](test_seams::Seams& t) { t.now = std::nullopt; });
  Server later(false, {"--clock-offset", "86460"});
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
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Reply a = call(s, "/rest/register/", c.body, c.drt);
    EXPECT_EQ(c.code, a.at("/respCode")) << a.body;
    EXPECT_EQ(std::string(c.code) == "ZELM-000" ? "y" : "n", a.at("/respStatus"));
  }
  // An over-long body is cut off before it is read.
  EXPECT_EQ(413, exchange(s, "POST /Zelm/rest/register/", "", std::string(100000, ' ')).status);
  // The server is still there.
  EXPECT_EQ("y", call(s, "/rest/register/").at("/respStatus"));
}

}  // namespace
