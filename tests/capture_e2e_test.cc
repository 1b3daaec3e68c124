// Captures end to end: a request over a real socket to the running service,
// the simulated scanner, the real keystore, and a UIDAI key pair of the test.
// Every answer is opened here independently with OpenSSL and protobuf-c.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <future>
#include <map>
#include <regex>
#include <memory>

#include "auth.pb-c.h"
#include "common/rd_config.h"
#include "common/rd_status.h"
#include "common/work_area.h"
#include "init/init.h"
#include "mgmt_core/mgmt_api.h"
#include "mgmt_server_util.h"
#include "rds_hash.h"
#include "common/Base64.h"
#include "common/hash.h"
#include "mgmt_core/keystore.h"
#include "platform/platform.h"
#include "rd_core/pid_crypto.h"
#include "rd_core/uidai_certs.h"
#include "semaphore/semaphore_syc.h"
#include "sim_control.h"
#include "test_crypto.h"
#include "test_sys.h"
#include "test_util.h"
#include "vexo.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using testutil::has;
using PidMessage = In__Gov__Uidai__Authserver__Protobuf__Pid;
struct PidFree {
  void operator()(PidMessage* p) const { in__gov__uidai__authserver__protobuf__pid__free_unpacked(p, nullptr); }
};
const ProtobufCEnumDescriptor& kBioType = in__gov__uidai__authserver__protobuf__bio_type__descriptor;
const ProtobufCEnumDescriptor& kPosition = in__gov__uidai__authserver__protobuf__position__descriptor;

Bytes b64(const std::string& text) {
  Bytes out;
  EXPECT_EQ(Base64Decode(text, &out), 0) << text;
  return out;
}

std::string as_text(const Bytes& b) { return std::string(b.begin(), b.end()); }

// The text from the end of the first open in xml up to the next end ("" when
// open is missing): element contents and attribute values.
std::string between(const std::string& xml, const std::string& open, char end = '<') {
  const std::size_t at = xml.find(open);
  if (at == std::string::npos) return "";
  const std::size_t from = at + open.size();
  return xml.substr(from, xml.find(end, from) - from);
}

// The device certificate's public key verifies bs over SHA-256(record) + ts + dc.
bool verify_bs(EVP_PKEY* device_key, const Bytes& record, const std::string& ts, const std::string& dc,
               const std::string& bs) {
  Sha256Digest digest = sha256(record);
  std::string message(digest.begin(), digest.end());
  message += ts + dc;
  return testcrypto::rsa_sha256_verify(device_key, message, b64(bs));
}

// The library fixture in a working folder laid out by vexoctl, the service
// started on the simulated scanner A600-E2E-7, a device key of this program and
// a UIDAI key pair of the test, whose certificate is installed for every env.
class CaptureEndToEnd : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    if (HasFatalFailure()) return;
    init_reset_for_test();
    semaphore_reset_for_test();
    const testutil::Run init = testutil::init_workdir(dir_.path());
    ASSERT_EQ(init.rc, 0) << init.out;
    refdll_ = dir_.file("RefDll");
    script({});
    // The real lock waits: a capture refused while another runs must not get
    // its answer from a shortened wait.
    seams([](testutil::Seams& s) {
      s.beep_ms = 1u;
      s.recapture_pause_ms = 20u;
      s.scanner_lock_ms = s.handheld_lock_ms = std::nullopt;
    });
    uidai_ = testcrypto::make_self_signed("Test UIDAI", "20240101000000Z", "20310309120000Z");
    fs::create_directories("cert/uidai");
    for (UidaiCert which : {UidaiCert::kStage, UidaiCert::kPreProd, UidaiCert::kProd, UidaiCert::kProdOld}) {
      testcrypto::install_uidai_cert(which, uidai_.cert_pem);
    }
    ASSERT_EQ(Initialize_process("Aratek_A600"), 0) << testutil::last_status();
    // The keystore is bound to the program that reads it: make it for this one.
    std::string cert_pem;
    ASSERT_EQ(GenerateKeyPair(&cert_pem), 0);
    device_cert_ = testcrypto::cert_of_pem(cert_pem);
    ASSERT_TRUE(device_cert_);
    testutil::write_file("cert/public/signed_mc.cer", cert_pem);
    ASSERT_EQ(Start_RDservice(), 0) << testutil::last_status();
    port_ = service_port();
  }

  // Scripts the scanner A600-E2E-7: no wait per capture, plus the given keys.
  void script(sim::Keys keys) {
    keys.insert(keys.end(), {{"serial", "A600-E2E-7"}, {"capture_wait_ms", "0"}});
    sim::write_control(refdll_, keys);
  }

  // Sends a CAPTURE request; the answer's body. (The head, framed by the same
  // code for every capture answer: ApiTest.)
  std::string capture(const std::string& pid_options) {
    const std::string answer =
        testutil::http_exchange(port_, "CAPTURE /rd/capture HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: " +
                                           std::to_string(pid_options.size()) + "\r\n\r\n" + pid_options);
    const std::size_t split = answer.find("\r\n\r\n");
    EXPECT_NE(split, std::string::npos) << answer;
    return split == std::string::npos ? "" : answer.substr(split + 4);
  }

  // Opens Skey, Data and Hmac of a successful answer: the plain Pid, and its ts.
  Bytes open_pid(const std::string& body, std::string* ts, const std::string& type = "X") {
    std::optional<Bytes> plain =
        testcrypto::open_pid(uidai_.key.get(), between(body, "<Skey ci=\"20310309\">"),
                             between(body, "<Data type=\"" + type + "\">"), between(body, "<Hmac>"), ts);
    EXPECT_TRUE(plain.has_value()) << "Skey, Data and Hmac do not open: " << body;
    return plain.value_or(Bytes{});
  }

  // The device certificate as DeviceInfo carries it.
  static std::string mc() {
    const std::string der = testutil::read_file("cert/public/signed_mc.cer");
    std::string out;
    Base64Encode(std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(der.data()), der.size()), &out);
    return out;
  }

  std::string refdll_;
  testcrypto::KeyAndCert uidai_;
  X509Ptr device_cert_;
  int port_ = 0;
};

// Both forms of the Pid block: the answer byte for byte around its Skey, Hmac
// and Data, which open with the UIDAI key; every record in capture order,
// signed by the device key over its own bytes, the ts and the dc; the Demo
// data in the Pid. The run log says what was asked, never what was sent: no
// otp, no name, date of birth or address.
TEST_F(CaptureEndToEnd, CapturesOpenWithTheUidaiKey) {
  struct Row {
    const char* name;
    const char* quality;
    std::string options;
    std::map<std::string, std::string> resp;  // the answer's values that differ per row
    const char* records;                      // protobuf: "type posh" of each record in order
  } rows[] = {
      {"one finger, minutiae, XML",
       "quality",
       "<PidOptions ver=\"1.0\"><Opts fCount=\"1\" fType=\"0\" format=\"0\" pidVer=\"2.0\" timeout=\"10000\" "
       "posh=\"LEFT_INDEX\" env=\"P\" otp=\"654321\" wadh=\"wadh-text\"/><Demo lang=\"06\"><Pi ms=\"E\" "
       "name=\"Savitri &amp; Devi\" gender=\"F\" dob=\"1961-04-17\"/><Pa co=\"S/O X\" street=\"Lal Bagh Road\" "
       "pc=\"560001\"/><Pfa av=\"addr\" lmv=\"90\"/></Demo></PidOptions>",
       {{"fCount", "1"}, {"fType", "0"}, {"nmPoints", "033"}, {"qScore", "077"}, {"type", "X"}},
       nullptr},
      {"two fingers, minutiae and image, protobuf",
       "quality_values",
       "<PidOptions ver=\"2.0\"><Opts fCount=\"2\" fType=\"2\" format=\"1\" pidVer=\"2.0\" otp=\"654321\" "
       "wadh=\"wadh-text\" posh=\"LEFT_INDEX,RIGHT_THUMB\"/></PidOptions>",
       {{"fCount", "2"}, {"fType", "2"}, {"nmPoints", "033,033"}, {"qScore", "070,055"}, {"type", "P"}},
       "FMR LEFT_INDEX,FIR LEFT_INDEX,FMR RIGHT_THUMB,FIR RIGHT_THUMB,"},
  };
  const PkeyPtr device_key(X509_get_pubkey(device_cert_.get()));
  const std::string dc = rd_config_copy().dc;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    script({{"minutiae_count", "33"}, {r.quality, r.records ? "70,55" : "77"}});
    const std::size_t piped = pipe_->received().size();
    const std::string body = capture(r.options);
    std::map<std::string, std::string> values = r.resp;
    values.insert({{"dpId", rd_identity_copy().dpId},
                   {"mc", mc()},
                   {"skey", between(body, "<Skey ci=\"20310309\">")},
                   {"hmac", between(body, "<Hmac>")},
                   {"data", between(body, "<Data type=\"" + values["type"] + "\">")}});
    EXPECT_EQ(body, testutil::fill(testutil::data_file("capture_pid_data.xml"), values));
    EXPECT_TRUE(pipe_->wait_for("5000|Capture Success\n", 5000, piped));

    std::string ts;
    const Bytes plain = open_pid(body, &ts, values["type"]);
    if (r.records == nullptr) {
      // The record arrives whole: its signature is over its own bytes.
      const std::string bs = between(as_text(plain), " bs=\"", '"'), record = between(as_text(plain), bs + "\">");
      EXPECT_TRUE(verify_bs(device_key.get(), b64(record), ts, dc, bs));
      std::string dih;
      ASSERT_EQ(Generate_dih(&dih), 0);
      EXPECT_EQ(as_text(plain), testutil::fill(testutil::data_file("capture_pid_plain.xml"),
                                     {{"ts", ts}, {"dih", dih}, {"bs", bs}, {"record", record}}));
      continue;
    }
    std::unique_ptr<PidMessage, PidFree> pid(
        in__gov__uidai__authserver__protobuf__pid__unpack(nullptr, plain.size(), plain.data()));
    ASSERT_TRUE(pid && pid->bios && pid->ts);
    EXPECT_EQ(pid->ts, ts);
    std::string records;
    for (std::size_t i = 0; i < pid->bios->n_bio; ++i) {
      const auto* bio = pid->bios->bio[i];
      const Bytes record(bio->content.data, bio->content.data + bio->content.len);
      EXPECT_TRUE(verify_bs(device_key.get(), record, ts, dc, bio->bs ? bio->bs : "")) << i;
      // The type as the Pid names it, and as the record's own magic says.
      const std::string type = protobuf_c_enum_descriptor_get_value(&kBioType, bio->type)->name;
      EXPECT_EQ(as_text(record).substr(0, 4), type + '\0');
      records += type + " " + protobuf_c_enum_descriptor_get_value(&kPosition, bio->posh)->name + ",";
    }
    EXPECT_EQ(records, r.records);
  }
  const std::string log = testutil::read_file("rd.log");
  for (const char* secret : {"654321", "Savitri", "1961-04-17", "Lal Bagh", "<PidOptions"}) {
    EXPECT_EQ(log.find(secret), std::string::npos) << secret;
  }
  EXPECT_TRUE(has(log, ") - Request is: CAPTURE /rd/capture, body of " + std::to_string(rows[0].options.size()) +
                           " bytes, origin: none\n"));
}

// A failed capture answers PidData with its code and text, the counts and the
// device information, and no Skey, Hmac or Data.
TEST_F(CaptureEndToEnd, FailuresAreAnsweredAsPidData) {
  struct Case {
    const char* name;
    sim::Keys control;
    std::string prod_checksum;  // "" for the built-in certificate
    const char* code;
    const char* info;
    const char* pipe;  // the message the user sees
  } cases[] = {
      {"time-out", {{"capture_results", "-113"}}, "", "700", "Capture timed out", "5000|Capture Timeout\n"},
      {"no scanner", {{"present", "0"}}, "", "999", "Internal error", "5000|Internal Error\n"},
      {"production checksum differs",
       {},
       std::string(64, '0'),
       "240",
       "UIDAI Certificate is INVALID",
       "10000|Error at Generate encrypted and|plain sessionKey\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    set_rd_status_ready();
    set_uidai_prod_checksum(c.prod_checksum);
    script(c.control);
    const std::size_t piped = pipe_->received().size();
    const std::string body = capture(
        "<PidOptions ver=\"1.0\"><Opts fCount=\"1\" fType=\"0\" pidVer=\"2.0\" posh=\"UNKNOWN\"/></PidOptions>");
    EXPECT_TRUE(pipe_->wait_for(c.pipe, 5000, piped)) << pipe_->received().substr(piped);
    EXPECT_EQ(body, testutil::fill(testutil::data_file("capture_pid_error.xml"),
                         {{"code", c.code}, {"info", c.info}, {"dpId", rd_identity_copy().dpId}, {"mc", mc()}}));
  }
  EXPECT_TRUE(
      has(testutil::last_status(), " | pidblock | GenerateEncPIDBlock | Error at GenerateEncandPlainSessionKey "));
  const std::string log = testutil::read_file("rd.log");
  EXPECT_TRUE(has(log, "Error at FP Capture\n"));
  EXPECT_TRUE(has(log, "Error at GenerateEncandPlainSessionKey \n"));
}

// While a capture runs the service is USED: discovery says so, and a second
// capture is refused with 710 at once instead of waiting for the scanner.
TEST_F(CaptureEndToEnd, ServiceIsUsedWhileACaptureRuns) {
  const std::string one_finger =
      "<PidOptions ver=\"1.0\"><Opts fCount=\"1\" fType=\"0\" pidVer=\"2.0\" posh=\"UNKNOWN\"/></PidOptions>";
  sim::write_control(refdll_, {{"serial", "A600-E2E-7"}, {"capture_wait_ms", "1500"}});
  auto discovery_status = [this](const char* status) {
    const std::string body = testutil::discovery_body(status, "QDX.ARA.A600.W");
    EXPECT_EQ(testutil::http_exchange(port_, "RDSERVICE / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"),
              testutil::ok_header(port_, "/", body.size()) + body);
  };
  discovery_status("READY");
  std::size_t piped = pipe_->received().size();
  auto first = std::async(std::launch::async, [&] { return capture(one_finger); });
  ASSERT_TRUE(pipe_->wait_for("10000|Put Finger\n", 5000, piped));
  discovery_status("USED");
  const std::uint64_t start = platform::monotonic_ms();
  const std::string body = capture(one_finger);
  EXPECT_LT(platform::monotonic_ms() - start, 1000u) << "the second capture waited for the first";
  EXPECT_TRUE(has(body, "<Resp errCode=\"710\" "));
  EXPECT_TRUE(has(first.get(), "<Resp errCode=\"0\" "));
  discovery_status("READY");

  // A detach during a capture is not undone when the capture ends.
  piped = pipe_->received().size();
  auto third = std::async(std::launch::async, [&] { return capture(one_finger); });
  ASSERT_TRUE(pipe_->wait_for("10000|Put Finger\n", 5000, piped));
  ASSERT_EQ(detach_device(), 0);
  third.get();
  discovery_status("NOTREADY");
}

// DeviceInfo byte for byte over the socket. Values that come from
// outside (the scanner's serial, the server's device code) are escaped.
TEST_F(CaptureEndToEnd, DeviceInfoAnswers) {
  struct {
    const char* serial;
    const char* dc;
    const char* serial_attr;
    const char* dc_attr;
  } cases[] = {
      {"A6\"00&<x>", "d\"c&1", "A6&quot;00&amp;&lt;x&gt;", "d&quot;c&amp;1"},
      // Control characters that XML cannot carry are dropped, bytes that are
      // not UTF-8 become '?', and white-space controls are kept as references.
      {"A6\x01\xff\t00", "d\tc\r\n1", "A6?&#9;00", "d&#9;c&#13;&#10;1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.serial);
    set_device_serial(c.serial);
    rd_config_update([&](RdConfig& r) { r.dc = c.dc; });
    std::string expected = testutil::fill(testutil::data_file("capture_device_info.txt"), {{"port", std::to_string(port_)},
                                                                                 {"dpId", rd_identity_copy().dpId},
                                                                                 {"dc", c.dc_attr},
                                                                                 {"mc", mc()},
                                                                                 {"srno", c.serial_attr}});
    expected = testutil::fill(expected, {{"length", std::to_string(expected.size() - expected.find("\r\n\r\n") - 4)}});
    EXPECT_EQ(testutil::http_exchange(port_, "DEVICEINFO /rd/info HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"), expected);
  }
}

}  // namespace

// The Management client against the reference server in a child process:
// registration, key rotation, certificate updates, each with the status and
// next action it leaves, and captures that use what the server gave.
class ManagementEndToEnd : public CaptureEndToEnd {
 public:
  static constexpr const char* kSerial = "A600-E2E-7";
  const std::string one_finger_ =
      "<PidOptions ver=\"1.0\"><Opts fCount=\"1\" fType=\"0\" format=\"0\" pidVer=\"2.0\" timeout=\"10000\" "
      "posh=\"LEFT_INDEX\" env=\"P\" wadh=\"\"/></PidOptions>";

  void SetUp() override {
    CaptureEndToEnd::SetUp();
    if (HasFatalFailure()) return;
    // The server hands out the test UIDAI certificate, whose key the test holds.
    fs::create_directories("data/uidai");
    fs::create_directories("data/packages");
    testutil::write_file("data/uidai/prod.pem", uidai_.cert_pem);
    testutil::write_file("data/uidai/preprod.pem", uidai_.cert_pem);
    testutil::write_file("cert/server.crt", testutil::read_file(mgmttest::kMgmtData + "/ca.crt"));
    server_ = std::make_unique<mgmttest::Server>(true);
    ASSERT_GT(server_->port(), 0) << server_->log();
    point_at(server_->base());
  }

  static void point_at(const std::string& base) {
    rd_config_update([&base](RdConfig& c) {
      c.mgmt_url_register = base + "/rest/register/";
      c.mgmt_url_keyrotation = base + "/rest/keyRotation/";
      c.mgmt_url_uidaiupdate = base + "/rest/uidaiUpdate";
      c.mgmt_url_updatestatus = base + "/rest/updateStatus";
      c.mgmt_url_softupdate = base + "/rest/softUpdate/";
      c.mgmt_url_getcert_pp = base + "/rest/getCert/PP";
      c.mgmt_url_getcert_p = base + "/rest/getCert/P";
      c.proxy_url.clear();
    });
  }

  struct Step {
    int rc;
    std::string action;
    std::string status;
    bool operator==(const Step&) const = default;
    friend std::ostream& operator<<(std::ostream& o, const Step& s) {
      return o << s.rc << " " << s.action << " " << s.status;
    }
  };
  template <typename F>
  Step run(F&& op) {
    char next_action[VEXO_NEXT_ACTION_LEN] = "untouched";
    Step s;
    s.rc = op(next_action);
    s.action = next_action;
    s.status = get_rd_status();
    return s;
  }
  Step init() {
    return run([](char* b) { return Init(b); });
  }
  Step rotate() {
    return run([](char* b) { return Key_Rotation(b, "KEY_ROTATION"); });
  }

  // Queues action for the device in the server's registry.
  static void queue(const char* action) {
    ASSERT_EQ(mgmttest::run_command({"queue", kSerial, action, "--registry", "registry.db"}), 0);
  }

  void register_device() {
    ASSERT_EQ(mgmttest::run_command({"add-device", kSerial, "--registry", "registry.db"}), 0);
    ASSERT_EQ(rotate().rc, 0) << testutil::last_status();
  }

  // The record of a successful answer verifies under cert's key, over dc.
  bool signed_under(const std::string& body, X509* cert, const std::string& dc) {
    std::string ts;
    const std::string plain = as_text(open_pid(body, &ts));
    const std::string bs = between(plain, " bs=\"", '"');
    PkeyPtr key(X509_get_pubkey(cert));
    return key && !bs.empty() && verify_bs(key.get(), b64(between(plain, bs + "\">")), ts, dc, bs);
  }

  static X509Ptr signed_mc() {
    const std::string der = testutil::read_file("cert/public/signed_mc.cer");
    const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
    return X509Ptr(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  }

  // The device code the server's registry holds for the device.
  std::string registry_dc() {
    std::string out;
    EXPECT_EQ(mgmttest::run_command({"list", "--registry", "registry.db"}, &out), 0);
    std::smatch m;
    return std::regex_search(out, m, std::regex("dc=([0-9a-f-]+)")) ? std::string(m[1]) : out;
  }

  std::unique_ptr<mgmttest::Server> server_;
};

TEST_F(ManagementEndToEnd, InitFollowsTheRegistry) {
  auto dc_missing = [] { rd_config_update([](RdConfig& c) { c.dc_missing = 1; }); };
  struct Row {
    const char* name;
    std::function<void()> before;
    int rc;
    const char* action;
    const char* status;
  } rows[] = {
      {"unknown serial", [] {}, -6, "DEVICE_NOT_REGISTERED", "\"NOTREADY\""},
      {"rotated", [this] { register_device(); }, 0, "NO_ACTION_NECESSARY", "\"READY\""},
      {"rotation pending, nothing queued", dc_missing, 0, "KEY_ROTATION", "\"READY\""},
      {"rotation pending, update queued", [&] { dc_missing(), queue("SOFTWARE_UPDATE"); }, 0, "SOFTWARE_UPDATE",
       "\"USED\""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    set_rd_status_ready();
    r.before();
    EXPECT_EQ(init(), (Step{r.rc, r.action, r.status})) << testutil::last_status();
  }
  EXPECT_EQ(rd_config_copy().dc_missing, 0);  // cleared by the queued update
  EXPECT_TRUE(pipe_->wait_for("10000|Device is not registered with|management server\n"));

  // A server whose clock is ten minutes ahead: the 300-second rule.
  mgmttest::Server ahead(true, {"--clock-offset", "600"});
  ASSERT_GT(ahead.port(), 0);
  point_at(ahead.base());
  EXPECT_EQ(init(), (Step{-5, "TIME_STAMP_SYNC", "\"NOTREADY\""}));
  EXPECT_TRUE(has(testutil::last_status(), " | mgmt_api | Init | Time stamp miss match "));
  EXPECT_TRUE(pipe_->wait_for("10000|System time not sync with server\n"));

  // The JSON test looks at the first byte only, with its case bit ignored.
  for (const auto& [text, rc] : std::vector<std::pair<std::string, int>>{
           {"{}", 0}, {"[1]", 0}, {" {}", -1}, {"", -1}, {"\n{}", -1}, {"y", -1}}) {
    EXPECT_EQ(json_format_check(text, "Init"), rc) << text;
  }
}

// A tampered keystore: the capture forces a rotation, still answers, and
// the next capture signs with the key of the rotation it caused.
TEST_F(ManagementEndToEnd, TamperedKeystoreForcesAKeyRotation) {
  register_device();
  const std::string dc = rd_config_copy().dc;
  testutil::write_file("last_acces_time_file", "\x01\x02\x03\x04");
  EXPECT_TRUE(has(capture(one_finger_), "<Resp errCode=\""));
  EXPECT_NE(rd_config_copy().dc, dc);
  EXPECT_EQ(rd_config_copy().dc, registry_dc());
  set_rd_status_ready();
  const std::string third = capture(one_finger_);
  EXPECT_TRUE(has(third, "<Resp errCode=\"0\" "));
  EXPECT_TRUE(has(third, " dc=\"" + rd_config_copy().dc + "\" "));
  EXPECT_TRUE(signed_under(third, signed_mc().get(), rd_config_copy().dc));
}

TEST_F(ManagementEndToEnd, UidaiCertificatesComeFromTheServer) {
  register_device();
  // Nothing installed: the built-in certificate is in force.
  fs::remove_all("cert/uidai");
  queue("UIDAI_CERT_UPDATE");
  ASSERT_EQ(init().action, "UIDAI_CERT_UPDATE");
  EXPECT_EQ(run(uidai_cert_update), (Step{0, "NO_ACTION_NECESSARY", "\"READY\""})) << testutil::last_status();
  EXPECT_EQ(testutil::read_file("cert/uidai/prod.pem"), uidai_.cert_pem);
  EXPECT_EQ(uidai_stored_checksum(UidaiCert::kProd), hex_lower(sha256(std::string_view(uidai_.cert_pem))));

  // Implausible certificates, each with its matching checksum, are refused:
  // neither the file nor its checksum changes.
  PkeyPtr small(EVP_RSA_gen(1024));
  PkeyPtr other(EVP_RSA_gen(2048));
  const struct {
    const char* name;
    std::string pem;
  } implausible[] = {
      {"1024-bit key", testcrypto::make_cert_pem(small.get(), "Test UIDAI", "20240101000000Z", "20310101000000Z")},
      {"expired", testcrypto::make_cert_pem(other.get(), "Test UIDAI", "20200101000000Z", "20210101000000Z")},
  };
  for (const auto& c : implausible) {
    SCOPED_TRACE(c.name);
    testutil::write_file("data/uidai/prod.pem", c.pem);
    queue("UIDAI_CERT_UPDATE");
    ASSERT_EQ(init().action, "UIDAI_CERT_UPDATE");
    const Step s = run(uidai_cert_update);
    EXPECT_EQ(s, (Step{-7, "UIDAI_CERT_UPDATE_RETRY", s.status}));
    EXPECT_EQ(testutil::read_file("cert/uidai/prod.pem"), uidai_.cert_pem);
    EXPECT_EQ(uidai_stored_checksum(UidaiCert::kProd), hex_lower(sha256(std::string_view(uidai_.cert_pem))));
  }
  testutil::write_file("data/uidai/prod.pem", uidai_.cert_pem);

  // The forced update, staging branch: the pre-production checksum is stored.
  EXPECT_EQ(run(uidai_cert_force_update), (Step{0, "NO_ACTION_NECESSARY", "\"READY\""}));
  EXPECT_EQ(uidai_stored_checksum(UidaiCert::kPreProd), hex_lower(sha256(std::string_view(uidai_.cert_pem))));

  // Production branch: a checksum matching neither built-in certificate
  // starts a software update and is stored as the production one.
  rd_config_update([](RdConfig& c) { c.prod_register_url = c.mgmt_url_register; });
  const Step s = run(uidai_cert_force_update);
  EXPECT_EQ(s, (Step{0, "NO_ACTION_NECESSARY", s.status}));
  EXPECT_EQ(uidai_stored_checksum(UidaiCert::kProd), hex_lower(sha256(std::string_view(uidai_.cert_pem))));
  EXPECT_TRUE(has(testutil::read_file("rd.log"), "Going To download New version of RD Service"));

  // A certificate whose checksum differs is not installed.
  fs::remove_all("cert/uidai");
  EXPECT_EQ(uidai_install_cert("./", UidaiCert::kProd, uidai_.cert_pem, std::string(64, '0')), -1);
  EXPECT_FALSE(fs::exists("cert/uidai/prod.pem"));
}

// A registration signs captures with the issued certificate and the
// registry's dc. Then Init asks for a new key; the rotation fails once the new
// key is made (the server answers 500, refuses, cuts the connection, or sends
// a dc that would rewrite config.ini). The registered key, dc and certificate
// stay in force byte for byte, and the service READY as before the round.
TEST_F(ManagementEndToEnd, FailedRotationKeepsTheRegisteredIdentity) {
  register_device();
  ASSERT_EQ(init().status, "\"READY\"");
  const std::string dc = rd_config_copy().dc;
  EXPECT_EQ(dc, registry_dc());
  X509Ptr registered = signed_mc();
  ASSERT_TRUE(registered);
  const char* const kIdentity[] = {
      "config.ini",        "bin_crc.txt", "cert/public/signed_mc.cer", "cert/public/DevPubKey",
      "keystore/key.hash", "App_Vexo"};
  std::vector<std::string> before;
  for (const char* f : kIdentity) before.push_back(testutil::read_file(f));

  // Canned servers speak TLS with the reference server's own certificate, so
  // that only what they answer differs from the real server's exchange.
  const std::string crt = mgmttest::kMgmtData + "/server.crt", key = mgmttest::kMgmtData + "/server.key";
  using mgmttest::CannedRequest;
  using mgmttest::Reply;
  mgmttest::CannedServer error(
      [](const CannedRequest&) { return Reply(mgmttest::http_reply("500 Internal Server Error", "", "{}")); }, crt,
      key);
  mgmttest::CannedServer cut(
      [](const CannedRequest&) {
        Reply r;
        r.hang_up = true;
        return r;
      },
      crt, key);
  // Signed like the server's own answers, with the device's own certificate
  // for sPKey, so only the dc check can refuse it.
  mgmttest::CannedServer injected(
      [](const CannedRequest& request) {
        std::smatch pkey;
        std::regex_search(request.body, pkey, std::regex(R"re("pKey": ?"([^"]+)")re"));
        X509Ptr own = testcrypto::cert_of_pem(as_text(b64(pkey[1])));
        unsigned char* der = nullptr;
        const int len = own ? i2d_X509(own.get(), &der) : 0;
        std::string spkey;
        Base64Encode(std::span<const std::uint8_t>(der, static_cast<std::size_t>(len > 0 ? len : 0)), &spkey);
        OPENSSL_free(der);
        const std::string body =
            R"({"respStatus":"y","respCode":"ZELM-000","respDesc":"ok","device":{"dc":"1234\ndomain_name = X\n[zzz]"},)"
            R"("nextAction":["NO_ACTION_NECESSARY"],"ts":"2026-01-01T00:00:00","sPKey":")" +
            spkey + "\"}";
        std::string answer;
        EXPECT_EQ(rds_hmac_sign_response(body.data(), body.size(), request.header("RD_DRT"), &answer), 0);
        return Reply(mgmttest::http_reply("200 OK", "RD_DRT: " + answer + "\r\n", body));
      },
      crt, key);
  mgmttest::Server refusing(true, {"--registry", "empty.db"});
  const struct {
    const char* name;
    std::string url;
  } rows[] = {
      {"answered 500", error.url("/Zelm/rest/keyRotation/")},
      {"refused", refusing.base() + "/rest/keyRotation/"},
      {"cut off", cut.url("/Zelm/rest/keyRotation/")},
      {"dc with line breaks", injected.url("/Zelm/rest/keyRotation/")},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    queue("KEY_ROTATION");
    ASSERT_EQ(init(), (Step{0, "KEY_ROTATION", "\"USED\""}));
    rd_config_update([&](RdConfig& c) { c.mgmt_url_keyrotation = r.url; });
    const Step s = rotate();
    EXPECT_NE(s.rc, 0);
    EXPECT_EQ(s, (Step{s.rc, "KEY_ROTATION_RETRY", "\"READY\""}));
    for (std::size_t i = 0; i < before.size(); ++i)
      EXPECT_EQ(testutil::read_file(kIdentity[i]), before[i]) << kIdentity[i];
    EXPECT_EQ(rd_config_copy().dc, dc);
    const std::string body = capture(one_finger_);
    ASSERT_TRUE(has(body, "<Resp errCode=\"0\" "));
    EXPECT_TRUE(has(body, " dc=\"" + dc + "\" "));
    EXPECT_TRUE(signed_under(body, registered.get(), dc));
    EXPECT_FALSE(signed_under(body, device_cert_.get(), dc));  // not the key made before registering
  }
  EXPECT_EQ(injected.requests().size(), 1u);
  for (const auto& e : fs::recursive_directory_iterator(".")) {
    EXPECT_FALSE(e.path().string().ends_with(".staged")) << e.path();
  }
}

// An unreachable server: a registered device whose last Init succeeded within
// the grace period (72 h unless config.ini says otherwise) stays READY; past
// it, or without a whole registration, Init leaves it USED as designed.
TEST_F(ManagementEndToEnd, UnreachableServerWithinTheGracePeriod) {
  register_device();
  ASSERT_EQ(init().rc, 0);
  struct stat st {};
  ASSERT_EQ(::stat("keystore/last_init", &st), 0);
  if (testsys::kPosixFileModes) {
    EXPECT_EQ(st.st_mode & 0777, 0600u);
  }
  const std::time_t now = platform::now();
  point_at("https://127.0.0.1:" + std::to_string(mgmttest::closed_port()) + "/Zelm");
  const struct {
    const char* name;
    long long hours_later;
    const char* status;
  } rows[] = {
      {"71 h later", 71, "\"READY\""}, {"73 h later", 73, "\"USED\""}, {"no signed certificate", 0, "\"USED\""}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    if (std::string(r.name) == "no signed certificate") fs::remove("cert/public/signed_mc.cer");
    set_rd_status_ready();
    test_seams::update([&](test_seams::Seams& s) { s.now = now + r.hours_later * 3600; });
    EXPECT_EQ(init(), (Step{-18, "INIT_RETRY", r.status}));
  }
}

// A capture that finds the UIDAI certificate out of date answers 240 at once
// and leaves the update to the host: the next Init asks for it until a
// Software_Update succeeds, and a package already downloaded and verified is
// not fetched again.
TEST_F(ManagementEndToEnd, CaptureLeavesTheSoftwareUpdateToTheHost) {
  register_device();
  EXPECT_EQ(init().action, "NO_ACTION_NECESSARY");
  testutil::write_file("data/packages/vexo-9.9.9.zip", std::string(5000, 'p'));
  set_uidai_prod_checksum(std::string(64, '0'));
  EXPECT_TRUE(has(capture(one_finger_), "<Resp errCode=\"240\" "));
  EXPECT_EQ(testutil::read_file("rd.log").find("Trying to send Software_Update"), std::string::npos);
  EXPECT_EQ(init().action, "SOFTWARE_UPDATE");
  EXPECT_EQ(init().action, "SOFTWARE_UPDATE");
  ASSERT_EQ(Software_Update(), 0) << testutil::last_status();
  EXPECT_EQ(testutil::read_file("DownloadSW/Installer.zip"), std::string(5000, 'p'));
  EXPECT_EQ(init().action, "NO_ACTION_NECESSARY");
  const int fetched = testutil::count_of(server_->log(), "/files/packages/vexo-9.9.9.zip");
  EXPECT_GT(fetched, 0);
  EXPECT_EQ(Software_Update(), 0);
  EXPECT_EQ(testutil::count_of(server_->log(), "/files/packages/vexo-9.9.9.zip"), fetched);
}
