// The three PidOptions gates: schema, hand check of every attribute, and the
// authentication kinds, run on real documents with the real schema file.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "rd_core/xml_parse.h"
#include "test_util.h"

namespace {

constexpr int kSkip = 12345;  // Allowed_methods is not asked when the walk fails

std::string doc(const std::string& opts_attrs, const std::string& rest = "") {
  return "<PidOptions ver=\"1.0\"><Opts " + opts_attrs + "/>" + rest + "</PidOptions>";
}

std::string repeat(char c, std::size_t n) { return std::string(n, c); }

bool no_scratch_left(const std::string& dir) {
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    if (e.path().filename().string().rfind("Final.xml", 0) == 0) return false;
  }
  return true;
}

class PidOptionsTest : public testutil::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    std::filesystem::copy_file(VEXO_SOURCE_DIR "/data/Final.xsd", dir_.file("Final.xsd"));
  }
};

struct GateCase {
  const char* name;
  std::string body;
  int schema;       // 0 valid, 1 any positive result
  int parse;        // Parse_XML_Request's code
  int allowed;      // Allowed_methods, or kSkip
  std::string log;  // text that must appear in the run log ("" for none)
  std::function<void(const PidOptionsRequest&)> check;
};

TEST_F(PidOptionsTest, EveryGateAndAttributeRule) {
  using R = const PidOptionsRequest&;
  const std::string base = "fCount=\"1\" fType=\"0\" format=\"0\" pidVer=\"2.0\" timeout=\"10000\" posh=\"UNKNOWN\"";
  const std::vector<GateCase> cases = {
      {"reference request", doc(base), 0, 0, 0, "Final.xml validates",
       [](R r) { EXPECT_EQ(r.positions, std::vector<std::string>{"UNKNOWN"}); }},
      // fCount
      {"fCount 11", doc("fCount=\"11\""), 0, 120, kSkip, "Invalid fingerprint count : 11", nullptr},
      {"fCount -1", doc("fCount=\"-1\""), 0, 120, kSkip, "Invalid fingerprint count : -1", nullptr},
      {"fCount 2^32 + 1", doc("fCount=\"4294967297\""), 0, 120, kSkip, "", nullptr},
      {"fCount 10", doc("fCount=\"10\" posh=\"" + std::string("UNKNOWN,") + "UNKNOWN,UNKNOWN,UNKNOWN,UNKNOWN,"
                        "UNKNOWN,UNKNOWN,UNKNOWN,UNKNOWN,UNKNOWN\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.positions.size(), 10u); }},
      // fType: only the count read before it is checked against it
      {"fType 1 before fCount 3", doc("fType=\"1\" fCount=\"3\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.fType, 1); EXPECT_EQ(r.fCount, 3); EXPECT_TRUE(r.positions.empty()); }},
      {"fType 3", doc("fType=\"3\""), 0, 110, kSkip, "Invalid finger print type : 3", nullptr},
      {"fType -1", doc("fType=\"-1\""), 0, 110, kSkip, "Invalid finger print type : -1", nullptr},
      // posh
      {"posh inner blank removed", doc("fCount=\"1\" posh=\"LEFT_IN DEX\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.positions, std::vector<std::string>{"LEFT_INDEX"}); }},
      {"posh empty pieces", doc("fCount=\"1\" posh=\",,RIGHT_RING,,\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.positions, std::vector<std::string>{"RIGHT_RING"}); }},
      {"posh too few", doc("fCount=\"2\" posh=\"LEFT_INDEX\""), 0, 220, kSkip,
       "Number of posh positions are not equal to number of finger count", nullptr},
      {"posh eleven entries", doc("fCount=\"10\" posh=\"" + std::string("LEFT_RING,") + "LEFT_RING,LEFT_RING,"
                                  "LEFT_RING,LEFT_RING,LEFT_RING,LEFT_RING,LEFT_RING,LEFT_RING,LEFT_RING,LEFT_RING\""),
       0, 220, kSkip, "Invalid position", nullptr},
      {"posh lower case", doc("fCount=\"1\" posh=\"left_index\""), 0, 220, kSkip, "Invalid position", nullptr},
      {"both kinds without posh", doc("fCount=\"2\" fType=\"2\""), 0, 220, kSkip, "Invalid position", nullptr},
      {"both kinds UNKNOWN", doc("fCount=\"2\" fType=\"2\" posh=\"UNKNOWN,UNKNOWN\""), 0, 220, kSkip, "", nullptr},
      {"both kinds one finger UNKNOWN", doc("fCount=\"1\" fType=\"2\" posh=\"UNKNOWN\""), 0, 0, 0, "", nullptr},
      {"posh piece of 23", doc("fCount=\"1\" posh=\" LEFT_INDEX" + repeat(' ', 12) + "\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.positions, std::vector<std::string>{"LEFT_INDEX"}); }},
      {"posh piece of 24", doc("fCount=\"1\" posh=\" LEFT_INDEX" + repeat(' ', 13) + "\""), 0, 220, kSkip, "",
       nullptr},
      {"posh 1024 bytes", doc("fCount=\"1\" posh=\"" + repeat(',', 1014) + "LEFT_INDEX\""), 0, 220, kSkip, "",
       nullptr},
      {"posh 1023 bytes", doc("fCount=\"1\" posh=\"" + repeat(',', 1013) + "LEFT_INDEX\""), 0, 0, 0, "", nullptr},
      // timeout
      {"timeout 60000", doc("fCount=\"1\" timeout=\"60000\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.timeout, 60000); }},
      {"timeout 60001", doc("fCount=\"1\" timeout=\"60001\""), 0, 160, kSkip, "", nullptr},
      {"timeout -5", doc("fCount=\"1\" timeout=\"-5\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.timeout_given, 1); EXPECT_EQ(r.timeout, -5); }},
      // exact version texts
      {"pidVer 2.00", doc("pidVer=\"2.00\""), 0, 150, kSkip, "Invalid PID version", nullptr},
      {"ver 2", "<PidOptions ver=\"2\"><Opts fCount=\"1\"/></PidOptions>", 0, 100, kSkip,
       "Invalid pid option version : 2", nullptr},
      {"ver missing", "<PidOptions><Opts fCount=\"1\"/></PidOptions>", 0, 100, kSkip,
       "Invalid pidoption input :Ver atttribute is missing", nullptr},
      // iris, face and format
      {"iCount 0 pCount 0", doc("fCount=\"1\" iCount=\"0\" pCount=\"0\" iType=\"x\" pType=\"y\""), 0, 0, 0, "",
       nullptr},
      {"iCount 1", doc("fCount=\"1\" iCount=\"1\""), 0, 760, kSkip, "Rd service does not support iris", nullptr},
      {"pCount 2", doc("pCount=\"2\""), 0, 180, kSkip, "Invalid face count value(It should be 0", nullptr},
      {"format 2", doc("format=\"2\""), 0, 190, kSkip, "Invalid format value : 2", nullptr},
      {"format -1", doc("format=\"-1\""), 0, 190, kSkip, "Invalid format value : -1", nullptr},
      // no child, otp only
      {"no child", "<PidOptions ver=\"1.0\"/>", 0, 0, -1, "", nullptr},
      {"otp only", doc("fCount=\"0\" otp=\"123456\""), 0, 0, -1, "Only otp Authentication is not allowed",
       [](R r) { EXPECT_EQ(r.otp_given, 1); EXPECT_EQ(r.otp, "123456"); }},
      // env
      {"root env", "<PidOptions ver=\"1.0\" env=\"PP\"><Opts fCount=\"1\"/></PidOptions>", 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.env, "PP"); }},
      {"root env empty", "<PidOptions ver=\"1.0\" env=\"\"><Opts fCount=\"1\"/></PidOptions>", 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.env, "P"); }},
      {"Opts env wins", "<PidOptions ver=\"1.0\" env=\"PP\"><Opts fCount=\"1\" env=\"S\"/></PidOptions>", 0, 0, 0,
       "", [](R r) { EXPECT_EQ(r.env, "S"); }},
      // bounded copies: capacity minus one fits, capacity is refused
      {"wadh 59", doc("fCount=\"1\" wadh=\"" + repeat('w', 59) + "\""), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.wadh, repeat('w', 59)); }},
      {"wadh 60", doc("fCount=\"1\" wadh=\"" + repeat('w', 60) + "\""), 0, 100, kSkip, "", nullptr},
      {"otp 111", doc("fCount=\"1\" otp=\"" + repeat('1', 111) + "\""), 0, 0, 0, "", nullptr},
      {"otp 112", doc("fCount=\"1\" otp=\"" + repeat('1', 112) + "\""), 0, 100, kSkip, "", nullptr},
      {"env 39", doc("fCount=\"1\" env=\"" + repeat('e', 39) + "\""), 0, 0, 0, "", nullptr},
      {"Opts env 40", doc("fCount=\"1\" env=\"" + repeat('e', 40) + "\""), 0, 100, kSkip, "", nullptr},
      {"root env 40", "<PidOptions ver=\"1.0\" env=\"" + repeat('e', 40) + "\"/>", 0, 100, kSkip, "", nullptr},
      // Demo
      {"Demo empty", doc("fCount=\"1\"", "<Demo></Demo>"), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.demo_given, 0); EXPECT_EQ(r.pi.given, 0); }},
      {"Demo value 255", doc("fCount=\"1\"", "<Demo><Pa street=\"" + repeat('s', 255) + "\"/></Demo>"), 0, 0, 0, "",
       [](R r) { EXPECT_EQ(r.pa.street.size(), 255u); }},
      {"Demo value 256", doc("fCount=\"1\"", "<Demo><Pi email=\"" + repeat('m', 256) + "\"/></Demo>"), 0, 100,
       kSkip, "", nullptr},
      {"Demo lang 256", doc("fCount=\"1\"", "<Demo lang=\"" + repeat('l', 256) + "\"><Pi/></Demo>"), 0, 100, kSkip,
       "", nullptr},
      // One-letter values keep one byte in the Pid: a UTF-8 letter would be cut in half.
      {"Pi gender non-ASCII", doc("fCount=\"1\"", "<Demo><Pi gender=\"\xC3\x89\"/></Demo>"), 0, 100, kSkip, "",
       nullptr},
      {"Pi dobt non-ASCII", doc("fCount=\"1\"", "<Demo><Pi dobt=\"\xE0\xA4\x85\"/></Demo>"), 0, 100, kSkip, "",
       nullptr},
      {"Pa ms non-ASCII", doc("fCount=\"1\"", "<Demo><Pa ms=\"\xC3\x89\"/></Demo>"), 0, 100, kSkip, "", nullptr},
      {"Pi name non-ASCII", doc("fCount=\"1\"", "<Demo><Pi name=\"\xC3\x89lan\" gender=\"F\"/></Demo>"), 0, 0, 0,
       "", [](R r) { EXPECT_EQ(r.pi.name, "\xC3\x89lan"); EXPECT_EQ(r.pi.gender, "F"); }},
      {"CustOpts ignored", doc("fCount=\"1\"", "<CustOpts><Param name=\"a\" value=\"b\"/></CustOpts>"), 0, 0, 0, "",
       nullptr},
      // schema gate
      {"not well-formed", "<PidOptions ver=\"1.0\"><Opts fCount=\"1\"></PidOptions>", 1, 100, kSkip,
       "Could not parse Final.xml", nullptr},
      {"empty body", "", 1, 100, kSkip, "Failed at xmlParseMemory", nullptr},
      {"text in root", "<PidOptions ver=\"1.0\">text<Opts fCount=\"1\"/></PidOptions>", 1, 0, 0,
       "Final.xml fails to validate", nullptr},
      {"unknown child", doc("fCount=\"1\"", "<Bios/>"), 1, 0, 0, "", nullptr},
      {"unknown Demo child", doc("fCount=\"1\"", "<Demo><Zz a=\"b\"/><Pi name=\"x\"/></Demo>"), 1, 0, 0, "",
       [](R r) { EXPECT_EQ(r.pi.name, "x"); }},
      {"external entity", "<!DOCTYPE PidOptions [<!ENTITY x SYSTEM \"file:///etc/hostname\">]>"
                          "<PidOptions ver=\"1.0\"><Opts fCount=\"1\" wadh=\"&x;\"/></PidOptions>",
       1, 100, kSkip, "", nullptr},
  };

  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t log_before = testutil::read_file("rd.log").size();
    int schema = Pidinput_validate(c.body.c_str());
    EXPECT_EQ(schema > 0 ? 1 : schema, c.schema);
    EXPECT_TRUE(no_scratch_left(dir_.path()));
    PidOptionsRequest request;
    request.fCount = 77;  // must be cleared by the walk
    EXPECT_EQ(Parse_XML_Request(c.body.c_str(), &request), c.parse);
    if (c.allowed != kSkip) {
      EXPECT_EQ(Allowed_methods(request), c.allowed);
    }
    if (c.check) c.check(request);
    if (!c.log.empty()) {
      EXPECT_NE(testutil::read_file("rd.log").substr(log_before).find(c.log), std::string::npos) << c.log;
    }
  }
}

TEST_F(PidOptionsTest, ValidationWithoutSchemaIsInternalError) {
  std::filesystem::remove(dir_.file("Final.xsd"));
  EXPECT_LT(Pidinput_validate(doc("fCount=\"1\"").c_str()), 0);
  EXPECT_TRUE(no_scratch_left(dir_.path()));
  // A schema that is not one is an internal error too.
  testutil::write_file(dir_.file("Final.xsd"), "<notaschema/>");
  EXPECT_LT(Pidinput_validate(doc("fCount=\"1\"").c_str()), 0);
  EXPECT_TRUE(no_scratch_left(dir_.path()));
}

TEST_F(PidOptionsTest, ConcurrentValidationsKeepTheirOwnAnswers) {
  const std::string good = doc("fCount=\"1\" posh=\"LEFT_INDEX\"");
  const std::string bad = "<Other ver=\"1.0\"/>";
  std::atomic<int> wrong{0};
  auto worker = [&](const std::string& body, bool expect_valid) {
    for (int i = 0; i < 25; ++i) {
      int rc = Pidinput_validate(body.c_str());
      if ((rc == 0) != expect_valid || rc < 0) ++wrong;
    }
  };
  std::thread a(worker, good, true);
  std::thread b(worker, bad, false);
  a.join();
  b.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_TRUE(no_scratch_left(dir_.path()));
}

}  // namespace
