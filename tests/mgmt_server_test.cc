// The reference Management server as a real child process on a free port:
// requests built by hand with json-c and the shared protection code, sent
// with libcurl over HTTP and over TLS checked against the demonstration CA.
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "mgmt_server_util.h"
#include "rds_hash.h"
#include "test_util.h"
#include "web_service/transfer.h"
#include "web_service/json/json_ptr.h"
#include "common/openssl_ptr.h"

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
    std::regex re("(^|\n)" + name + ": ([^\r\n]*)", std::regex::icase);
    return std::regex_search(headers, m, re) ? std::string(m[2]) : std::string();
  }
};

size_t collect(char* data, size_t size, size_t n, void* out) {
  static_cast<std::string*>(out)->append(data, size * n);
  return size * n;
}

// One request with libcurl: a POST when body is given, else a GET (or HEAD).
Reply fetch(const std::string& url, const std::string* body, const std::vector<std::string>& headers,
            const char* range = nullptr, bool head = false) {
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
  if (head) curl_easy_setopt(c.get(), CURLOPT_NOBODY, 1L);
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

// The Base64 RD_DRT of a request body, from the shared protection code.
std::string request_drt(const std::string& body) {
  std::string drt;
  EXPECT_EQ(rds_hmac_sign(body.data(), body.size(), 1, &drt), 0);
  return drt;
}

// 1 when the response RD_DRT binds body to the request's RD_DRT, 0 when not.
int response_verifies(const Reply& r, const std::string& req_drt) {
  int ok = -1;
  if (rds_hmac_check(r.header("RD_DRT"), req_drt, 1, r.body.data(), r.body.size(), &ok) != 0) return -1;
  return ok;
}

struct Frame {
  std::string serial = "SN1001";
  std::string ts = ist_now();
  std::string pkey;  // key rotation only
  // Alterations of the protected values, each a position to flip (-1: none).
  int flip_hmac = -1, flip_skey = -1;
};

// A request as the device frames it: device, ts, [pKey], sKey, hmac.
std::string frame(const Frame& f) {
  const std::string input = f.serial + "@" + f.ts;
  std::string h, s;
  EXPECT_EQ(rds_hmac_protect(input.data(), input.size(), 1, &h, &s), 0);
  if (f.flip_hmac >= 0) h[f.flip_hmac] = h[f.flip_hmac] == 'A' ? 'B' : 'A';
  if (f.flip_skey >= 0) s[f.flip_skey] = s[f.flip_skey] == 'A' ? 'B' : 'A';

  JsonPtr root(json_object_new_object());
  json_object* device = json_object_new_object();
  const std::pair<const char*, std::string> members[] = {
      {"rdVer", "1.0.0"},  {"rdId", "QDX.ARA.A600.W"}, {"clId", "QDX.MC"},  {"clVer", "1.0.0"}, {"hostType", "Linux"},
      {"hostId", kHostId}, {"slNo", f.serial},         {"make", "Korvane"}, {"model", kModel},  {"dpId", "QDX.ARA"}};
  for (const auto& [k, v] : members) json_object_object_add(device, k, json_object_new_string(v.c_str()));
  json_object_object_add(root.get(), "device", device);
  json_object_object_add(root.get(), "ts", json_object_new_string(f.ts.c_str()));
  if (!f.pkey.empty()) json_object_object_add(root.get(), "pKey", json_object_new_string(f.pkey.c_str()));
  json_object_object_add(root.get(), "sKey", json_object_new_string(s.c_str()));
  json_object_object_add(root.get(), "hmac", json_object_new_string(h.c_str()));
  return json_object_to_json_string(root.get());
}

struct Answer {
  Reply reply;
  JsonPtr json;
  int drt_ok = -1;
  std::string str(const char* key) const {
    json_object* v = nullptr;
    return json_object_object_get_ex(json.get(), key, &v) ? json_object_get_string(v) : "";
  }
  std::string device(const char* key) const {
    json_object* d = nullptr;
    json_object* v = nullptr;
    return json_object_object_get_ex(json.get(), "device", &d) && json_object_object_get_ex(d, key, &v)
               ? json_object_get_string(v)
               : "";
  }
  std::string actions() const {
    json_object* a = nullptr;
    std::string all;
    if (!json_object_object_get_ex(json.get(), "nextAction", &a)) return "(none)";
    for (size_t i = 0; i < json_object_array_length(a); ++i) {
      if (i > 0) all += ',';
      all += json_object_get_string(json_object_array_get_idx(a, i));
    }
    return all;
  }
};

// Posts body to the endpoint with the given RD_DRT header (none when empty).
Answer post(const Server& s, const std::string& endpoint, const std::string& body, const std::string& drt) {
  Answer a;
  std::vector<std::string> headers = {"Content-Type: application/json; charset=utf-8"};
  if (!drt.empty()) headers.push_back("RD_DRT: " + drt);
  a.reply = fetch(s.base() + endpoint, &body, headers);
  a.json.reset(json_tokener_parse(a.reply.body.c_str()));
  a.drt_ok = response_verifies(a.reply, request_drt(body));
  return a;
}

Answer call(const Server& s, const std::string& endpoint, const Frame& f = Frame()) {
  std::string body = frame(f);
  return post(s, endpoint, body, request_drt(body));
}

// A fresh RSA key and a self-signed certificate for it, as a device makes them.
std::string self_signed_pem(EVP_PKEY* key, const std::string& cn) {
  X509Ptr cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 7);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  X509_sign(cert.get(), key, EVP_sha256());
  BioPtr bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), cert.get());
  char* data = nullptr;
  long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(len));
}

std::string b64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

std::string unb64(const std::string& text) {
  BioPtr bio(BIO_new(BIO_f_base64()));
  BIO_set_flags(bio.get(), BIO_FLAGS_BASE64_NO_NL);
  BIO_push(bio.get(), BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  std::string out(text.size(), '\0');
  int n = BIO_read(bio.get(), out.data(), static_cast<int>(out.size()));
  out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return out;
}

std::string digest_hex(const EVP_MD* md, const std::string& data) {
  unsigned char d[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  EVP_Digest(data.data(), data.size(), d, &n, md, nullptr);
  std::string hex;
  char two[3];
  for (unsigned int i = 0; i < n; ++i) {
    std::snprintf(two, sizeof two, "%02x", d[i]);
    hex += two;
  }
  return hex;
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
    testutil::write_file("data/packages/vexo-1.0.0.zip", "old");
    testutil::write_file("data/packages/vexo-1.0.2.zip", package_);
  }

  // Adds the device and gives it a fresh key, so its answers come from its queue.
  void register_and_rotate(const Server& s, const std::string& serial) {
    ASSERT_EQ(0, run_command({"add-device", serial, "--model", kModel, "--registry", "registry.db"}));
    PkeyPtr key(EVP_RSA_gen(2048));
    Frame f;
    f.serial = serial;
    f.pkey = b64(self_signed_pem(key.get(), serial));
    Answer a = call(s, "/rest/keyRotation/", f);
    ASSERT_EQ("y", a.str("respStatus")) << a.reply.body;
  }

  testutil::WorkDir dir_;
  std::string package_;
};

TEST_F(MgmtServerTest, CertificateFetchesAndRangedDownloads) {
  Server s(true);
  ASSERT_GT(s.port(), 0) << s.log();
  for (const auto& [suffix, file] : {std::pair<std::string, std::string>{"PP", "preprod.pem"}, {"P", "prod.pem"}}) {
    Reply r = fetch(s.base() + "/rest/getCert/" + suffix, nullptr, {});
    JsonPtr j(json_tokener_parse(r.body.c_str()));
    ASSERT_NE(nullptr, j) << r.body;
    json_object* v = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(j.get(), "chkSum", &v));
    EXPECT_EQ(digest_hex(EVP_sha256(), testutil::read_file("data/uidai/" + file)), json_object_get_string(v));
    ASSERT_TRUE(json_object_object_get_ex(j.get(), "ci", &v));
    EXPECT_TRUE(std::regex_match(std::string(json_object_get_string(v)), std::regex("20[0-9]{6}")));
    EXPECT_FALSE(json_object_object_get_ex(j.get(), "device", &v));
  }

  // The device's chunked ranges; the last one ends at the size itself.
  struct Range {
    const char* range;
    long status;
    std::size_t from, length;
    const char* content_range;
  } ranges[] = {
      {"0-102400", 206, 0, 102401, "bytes 0-102400/250000"},
      {"102401-204801", 206, 102401, 102401, "bytes 102401-204801/250000"},
      {"204802-250000", 206, 204802, 45198, "bytes 204802-249999/250000"},
      {nullptr, 200, 0, 250000, ""},
      {"250000-260000", 416, 0, 0, "bytes */250000"},
  };
  const std::string url = s.base() + "/files/packages/vexo-1.0.2.zip";
  for (const auto& r : ranges) {
    Reply got = fetch(url, nullptr, {}, r.range);
    const char* what = r.range ? r.range : "whole";
    EXPECT_EQ(r.status, got.status) << what;
    EXPECT_EQ(r.content_range, got.header("Content-Range")) << what;
    if (r.status == 416) continue;
    EXPECT_EQ(std::to_string(r.length), got.header("Content-Length")) << what;
    EXPECT_TRUE(got.body == package_.substr(r.from, r.length)) << what;
  }
  Reply head = fetch(url, nullptr, {}, nullptr, true);
  EXPECT_EQ(200, head.status);
  EXPECT_EQ("250000", head.header("Content-Length"));
  EXPECT_EQ(404, fetch(s.base() + "/files/packages/..%2Fregistry.db", nullptr, {}).status);
  EXPECT_EQ(404, fetch(s.base() + "/files/other/x", nullptr, {}).status);
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

TEST_F(MgmtServerTest, RegisterAnswersByRegistryState) {
  Server s(false);
  ASSERT_GT(s.port(), 0) << s.log();

  Answer unknown = call(s, "/rest/register/");
  EXPECT_EQ(200, unknown.reply.status);
  EXPECT_EQ("n", unknown.str("respStatus"));
  EXPECT_EQ("ZELM-015", unknown.str("respCode"));
  EXPECT_EQ(1, unknown.drt_ok);

  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--registry", "registry.db"}));
  Answer known = call(s, "/rest/register/");
  EXPECT_EQ("y", known.str("respStatus")) << known.reply.body;
  EXPECT_EQ("KEY_ROTATION", known.actions());
  EXPECT_EQ(1, known.drt_ok);
  // Host id and model were left out by add-device: learnt from the request.
  EXPECT_EQ(kHostId, known.device("hostId"));
  EXPECT_EQ("SN1001", known.device("slNo"));
  EXPECT_EQ(kModel, known.device("model"));
  // The server's clock in IST; a second or two may pass.
  std::string ts = known.str("ts");
  EXPECT_TRUE(ts == ist_now() || ts == ist_now(-1) || ts == ist_now(-2)) << ts;

  // A registered identity is echoed as registered, not as sent.
  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--host-id", "ffeeddccbbaa", "--registry", "registry.db"}));
  EXPECT_EQ("ffeeddccbbaa", call(s, "/rest/register/").device("hostId"));

  std::string log = s.log();
  EXPECT_NE(std::string::npos, log.find("POST /Zelm/rest/register/ SN1001 n ZELM-015\n")) << log;
  EXPECT_NE(std::string::npos, log.find("POST /Zelm/rest/register/ SN1001 y ZELM-000 KEY_ROTATION\n"));
}

TEST_F(MgmtServerTest, KeyRotationIssuesCertificateUnderTheCa) {
  Server s(true);
  ASSERT_GT(s.port(), 0) << s.log();
  ASSERT_EQ(0, run_command({"add-device", "SN1001", "--model", kModel, "--registry", "registry.db"}));

  // The device asks for a subject that would make its certificate pass for
  // the server's; the server names the serial number instead.
  PkeyPtr key(EVP_RSA_gen(2048));
  Frame f;
  f.pkey = b64(self_signed_pem(key.get(), "127.0.0.1"));
  Answer a = call(s, "/rest/keyRotation/", f);
  ASSERT_EQ("y", a.str("respStatus")) << a.reply.body;
  EXPECT_EQ(1, a.drt_ok);
  EXPECT_EQ("NO_ACTION_NECESSARY", a.actions());
  const std::string dc = a.device("dc");
  EXPECT_TRUE(std::regex_match(dc, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
      << dc;

  // sPKey: Base64 DER of a certificate for the device's key, issued by the CA.
  std::string der = unb64(a.str("sPKey"));
  const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  ASSERT_NE(nullptr, cert);
  PkeyPtr cert_key(X509_get_pubkey(cert.get()));
  EXPECT_EQ(1, EVP_PKEY_eq(cert_key.get(), key.get()));
  char subject[256];
  EXPECT_STREQ("/CN=SN1001", X509_NAME_oneline(X509_get_subject_name(cert.get()), subject, sizeof subject));
  EXPECT_EQ(X509_get_extension_flags(cert.get()) & EXFLAG_XKUSAGE, static_cast<uint32_t>(EXFLAG_XKUSAGE));
  EXPECT_EQ(X509_get_extended_key_usage(cert.get()), static_cast<uint32_t>(XKU_SSL_CLIENT));
  std::unique_ptr<X509_STORE, StoreFree> store(X509_STORE_new());
  ASSERT_EQ(1, X509_STORE_load_file(store.get(), (kMgmtData + "/ca.crt").c_str()));
  std::unique_ptr<X509_STORE_CTX, StoreCtxFree> ctx(X509_STORE_CTX_new());
  X509_STORE_CTX_init(ctx.get(), store.get(), cert.get(), nullptr);
  EXPECT_EQ(1, X509_verify_cert(ctx.get())) << X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get()));
  EXPECT_EQ(NID_sha256WithRSAEncryption, X509_get_signature_nid(cert.get()));

  // With a fresh key the device is left alone; a second rotation gives a new dc.
  EXPECT_EQ("NO_ACTION_NECESSARY", call(s, "/rest/register/").actions());
  Answer again = call(s, "/rest/keyRotation/", f);
  EXPECT_NE(dc, again.device("dc"));
  std::string listing;
  ASSERT_EQ(0, run_command({"list", "--registry", "registry.db"}, &listing));
  EXPECT_NE(std::string::npos, listing.find("dc=" + again.device("dc"))) << listing;

  // A pKey that is no certificate, or whose self-signature fails, is refused.
  std::string pem = self_signed_pem(key.get(), "SN1001");
  pem[pem.size() / 2] = pem[pem.size() / 2] == 'A' ? 'B' : 'A';
  for (const std::string& bad : {b64("not a key"), std::string("@@@@"), b64(pem), std::string()}) {
    Frame g;
    g.pkey = bad;
    Answer r = call(s, "/rest/keyRotation/", g);
    EXPECT_EQ("ZELM-004", r.str("respCode")) << bad;
  }
}

TEST_F(MgmtServerTest, KeyOlderThanMaxAgeIsRotatedAgain) {
  {
    Server s(false);
    register_and_rotate(s, "SN1001");
    EXPECT_EQ("NO_ACTION_NECESSARY", call(s, "/rest/register/").actions());
  }
  // The same registry a day and a bit later (the clock offset moves the
  // server's clock): the default maximum age of 86400 s has passed.
  Server later(false, {"--clock-offset", "86460"});
  Frame f;
  f.ts = ist_now(86460);
  Answer a = call(later, "/rest/register/", f);
  EXPECT_EQ("KEY_ROTATION", a.actions());
  std::string ts = a.str("ts");
  EXPECT_TRUE(ts == ist_now(86460) || ts == ist_now(86459) || ts == ist_now(86458)) << ts;
  Server strict(false, {"--clock-offset", "86460", "--key-max-age", "100000"});
  EXPECT_EQ("NO_ACTION_NECESSARY", call(strict, "/rest/register/", f).actions());
}

TEST_F(MgmtServerTest, QueuedActionsAreAnsweredInOrder) {
  Server s(false);
  register_and_rotate(s, "SN1001");
  for (const char* action : {"SOFTWARE_UPDATE", "UIDAI_CERT_UPDATE", "SOFTWARE_UPDATE"})
    ASSERT_EQ(0, run_command({"queue", "SN1001", action, "--registry", "registry.db"}));
  EXPECT_EQ(1, run_command({"queue", "SN9999", "KEY_ROTATION", "--registry", "registry.db"}));
  EXPECT_EQ(2, run_command({"queue", "SN1001", "REBOOT", "--registry", "registry.db"}));

  const std::string expected[] = {"SOFTWARE_UPDATE", "UIDAI_CERT_UPDATE", "SOFTWARE_UPDATE", "NO_ACTION_NECESSARY",
                                  "NO_ACTION_NECESSARY"};
  for (const auto& want : expected) EXPECT_EQ(want, call(s, "/rest/register/").actions());
}

TEST_F(MgmtServerTest, AlteredRequestsAreRefused) {
  Server s(false);
  register_and_rotate(s, "SN1001");

  const std::string good = frame(Frame());
  std::string other_ts = good;
  other_ts.replace(other_ts.find("\"ts\": \"") + 7, 4, "1999");
  Frame bad_hmac, bad_skey;
  bad_hmac.flip_hmac = 10;
  bad_skey.flip_skey = 3;
  std::string drt = request_drt(good);
  std::string bad_drt = drt;
  bad_drt[5] = bad_drt[5] == 'A' ? 'B' : 'A';
  const std::string not_json = "{\"device\": ";
  const std::string no_serial = "{\"ts\": \"x\", \"sKey\": \"x\", \"hmac\": \"x\"}";

  struct Case {
    const char* what;
    std::string body;
    std::string drt;
    const char* code;
  } cases[] = {
      {"correct", good, drt, "ZELM-000"},
      {"hmac altered", frame(bad_hmac), "", "ZELM-003"},
      {"sKey altered", frame(bad_skey), "", "ZELM-003"},
      {"ts altered after protecting", other_ts, "", "ZELM-003"},
      {"RD_DRT altered", good, bad_drt, "ZELM-002"},
      {"RD_DRT missing", good, "-", "ZELM-002"},
      {"RD_DRT of another body", good, request_drt(frame(Frame())), "ZELM-002"},
      {"not JSON", not_json, "", "ZELM-001"},
      {"no device", no_serial, "", "ZELM-001"},
  };
  for (auto& c : cases) {
    if (c.drt.empty()) c.drt = request_drt(c.body);
    Answer a = post(s, "/rest/register/", c.body, c.drt == "-" ? "" : c.drt);
    EXPECT_EQ(c.code, a.str("respCode")) << c.what << ": " << a.reply.body;
    EXPECT_EQ(std::string(c.code) == "ZELM-000" ? "y" : "n", a.str("respStatus")) << c.what;
    // Refusals are protected too, bound to the body that was received.
    EXPECT_EQ(1, a.drt_ok) << c.what;
  }
  // An over-long body is cut off before it is read.
  std::string huge(100000, ' ');
  EXPECT_EQ(413, fetch(s.base() + "/rest/register/", &huge, {}).status);
  // The server is still there.
  EXPECT_EQ("y", call(s, "/rest/register/").str("respStatus"));
}

TEST_F(MgmtServerTest, UpdatesPointAtDownloadableFiles) {
  Server s(true);
  register_and_rotate(s, "SN1001");

  Answer soft = call(s, "/rest/softUpdate/");
  ASSERT_EQ("y", soft.str("respStatus")) << soft.reply.body;
  EXPECT_EQ(s.base() + "/files/packages/vexo-1.0.2.zip", soft.str("path"));
  EXPECT_EQ(digest_hex(EVP_md5(), package_), soft.str("checksum"));

  const std::string prod = testutil::read_file("data/uidai/prod.pem");
  Answer uidai = call(s, "/rest/uidaiUpdate");
  EXPECT_EQ("UPDATE_STATUS", uidai.actions());
  EXPECT_EQ(digest_hex(EVP_sha256(), prod), uidai.str("checksum"));
  EXPECT_EQ(prod, fetch(uidai.str("path"), nullptr, {}).body);
  EXPECT_EQ("NO_ACTION_NECESSARY", call(s, "/rest/updateStatus").actions());
}

}  // namespace
