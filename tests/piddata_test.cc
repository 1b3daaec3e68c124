// PidData framing and the RD error-code table: every produced document is
// parsed back with libxml2 and checked element by element.
#include <gtest/gtest.h>

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rd_core/pid_data.h"
#include "common/xml_ptr.h"

namespace {

using Attrs = std::vector<std::pair<std::string, std::string>>;

DocPtr parse(const std::string& text) {
  return DocPtr(xmlReadMemory(text.data(), static_cast<int>(text.size()), "t.xml", nullptr, XML_PARSE_NONET));
}

std::string name_of(const xmlNode* n) { return reinterpret_cast<const char*>(n->name); }

// Attribute names and values in document order.
Attrs attrs_of(const xmlNode* n) {
  Attrs out;
  for (const xmlAttr* a = n->properties; a; a = a->next) {
    xmlChar* v = xmlNodeListGetString(n->doc, a->children, 1);
    out.emplace_back(reinterpret_cast<const char*>(a->name), v ? reinterpret_cast<const char*>(v) : "");
    xmlFree(v);
  }
  return out;
}

std::string content_of(const xmlNode* n) {
  xmlChar* v = xmlNodeGetContent(n);
  std::string s = v ? reinterpret_cast<const char*>(v) : "";
  xmlFree(v);
  return s;
}

std::vector<xmlNode*> children_of(xmlNode* n) {
  std::vector<xmlNode*> out;
  for (xmlNode* c = xmlFirstElementChild(n); c; c = xmlNextElementSibling(c)) out.push_back(c);
  return out;
}

PidDataResponse device_response() {
  PidDataResponse r;
  r.dpId = "KORVANE.AR";
  r.rdsId = "QDX.WIN.002";
  r.rdsVer = "1.0.2";
  r.dc = "1d2c-dc";
  r.mi = "A600";
  r.mc = "TUlJQ2VqQ0NB";
  r.srno = "SN<&\"1>";
  return r;
}

// Checks the DeviceInfo element and its additional_info against r.
void expect_device_info(xmlNode* info, const PidDataResponse& r) {
  ASSERT_EQ(name_of(info), "DeviceInfo");
  EXPECT_EQ(
      attrs_of(info),
      (Attrs{{"dpId", r.dpId}, {"rdsId", r.rdsId}, {"rdsVer", r.rdsVer}, {"dc", r.dc}, {"mi", r.mi}, {"mc", r.mc}}));
  auto extra = children_of(info);
  ASSERT_EQ(extra.size(), 1u);
  EXPECT_EQ(name_of(extra[0]), "additional_info");
  auto params = children_of(extra[0]);
  ASSERT_EQ(params.size(), 1u);
  EXPECT_EQ(name_of(params[0]), "Param");
  EXPECT_EQ(attrs_of(params[0]), (Attrs{{"name", "srno"}, {"value", r.srno}}));
}

TEST(PidData, SuccessDocumentLayout) {
  PidDataResponse r = device_response();
  r.errCode = 0;
  r.errInfo = "SUCCESS";
  r.fCount = 2;
  r.fType = 2;
  r.pCount = 0;
  r.nmPoints[0] = 45;
  r.nmPoints[1] = 38;
  r.nmPoints[2] = 99;  // beyond fCount: not written
  r.qScore[0] = 1234;
  r.qScore[1] = 7;
  r.ci = "20251231";
  r.skey = "c2tleQ==";
  r.hmac = "aG1hYw==";
  r.type = "P";
  r.data = "ZGF0YQ+/";

  std::string text;
  ASSERT_EQ(FramePidOutputOuterXML(r, &text), 0);
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\"?>\n<PidData><Resp ", 0), 0u) << text;
  EXPECT_EQ(text.find("\n "), std::string::npos) << "indented: " << text;

  DocPtr doc = parse(text);
  ASSERT_TRUE(doc);
  xmlNode* root = xmlDocGetRootElement(doc.get());
  ASSERT_EQ(name_of(root), "PidData");
  EXPECT_TRUE(attrs_of(root).empty());
  auto kids = children_of(root);
  ASSERT_EQ(kids.size(), 5u);
  EXPECT_EQ(name_of(kids[0]), "Resp");
  EXPECT_EQ(attrs_of(kids[0]), (Attrs{{"errCode", "0"},
                                      {"errInfo", "SUCCESS"},
                                      {"fCount", "2"},
                                      {"fType", "2"},
                                      {"iCount", "0"},
                                      {"iType", "0"},
                                      {"pCount", "0"},
                                      {"pType", "0"},
                                      {"nmPoints", "045,038"},
                                      {"qScore", "1234,007"}}));
  expect_device_info(kids[1], r);
  EXPECT_EQ(name_of(kids[2]), "Skey");
  EXPECT_EQ(attrs_of(kids[2]), (Attrs{{"ci", "20251231"}}));
  EXPECT_EQ(content_of(kids[2]), "c2tleQ==");
  EXPECT_EQ(name_of(kids[3]), "Hmac");
  EXPECT_TRUE(attrs_of(kids[3]).empty());
  EXPECT_EQ(content_of(kids[3]), "aG1hYw==");
  EXPECT_EQ(name_of(kids[4]), "Data");
  EXPECT_EQ(attrs_of(kids[4]), (Attrs{{"type", "P"}}));
  EXPECT_EQ(content_of(kids[4]), "ZGF0YQ+/");
}

TEST(PidData, FingerLists) {
  struct Case {
    std::vector<int> values;
    int count;
    std::string expected;
  };
  const Case cases[] = {
      {{45, 38}, 2, "045,038"},
      {{1234}, 1, "1234"},
      {{0}, 0, ""},
      {{5}, -1, ""},
      {{-5}, 1, "-05"},
      {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 10, "001,002,003,004,005,006,007,008,009,010"},
      {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 12, "001,002,003,004,005,006,007,008,009,010"},
  };
  for (const auto& c : cases) {
    int values[kMaxFingers] = {};
    for (std::size_t i = 0; i < c.values.size(); ++i) values[i] = c.values[i];
    EXPECT_EQ(format_finger_list(values, c.count), c.expected) << c.count;
  }
  // With fCount 0 both lists are present and empty.
  PidDataResponse r = device_response();
  r.nmPoints[0] = 50;
  std::string text;
  ASSERT_EQ(FramePidOutputOuterXML(r, &text), 0);
  EXPECT_NE(text.find("nmPoints=\"\" qScore=\"\""), std::string::npos) << text;
}

TEST(PidData, EveryErrorCodeAndItsAnswer) {
  const std::vector<std::pair<int, const char*>> table = {
      {-60, "Getting ID's from Device is failed"},
      {-50, "Printing data is Failed"},
      {-40, "Invalid XML is Recieved from Clinet"},
      {-30, "Getting Firmware Version is Failed from the Device"},
      {-20, "Getting Battery Status is Failed from the Device "},
      {-10, "Opening COM Port is failed for device"},
      {-1, "Command Not Sent to Device"},
      {0, "SUCCESS"},
      {3, "Paper Roll is Finished or Not Present"},
      {5, "Sensor Temperature Exceeded the Range"},
      {7, "Sensor Temperature Exceeded the Range and Paper Roll is also Finished or Not Present"},
      {9, "Paper Roll Patch is left Opened"},
      {11, "Paper Roll Patch is Opened and Paper Roll is also Finished or Not Present"},
      {13, "Sensor Temperature Exceeded the Range and Paper Roll Patch is also left Opened"},
      {65, "Battery of Device is Low"},
      {67, "Battery of Device is Low and Paper Roll is also Finished or Not Present"},
      {69, "Sensor Temperature Exceeded the Range and Battery of Device is also Low"},
      {73, "Paper Roll Patch is left Opened and Battery of Device is also Low"},
      {100, "Invalid PidOptions input. XML should strictly adhere to spec."},
      {110, "Invalid value for fType"},
      {120, "Invalid value for fCount"},
      {130, "Invalid value for iType"},
      {140, "Invalid value for iCount"},
      {150, "Invalid value for pidVer"},
      {160, "Invalid value for timeout"},
      {170, "Number of posh positions are not equal to number of finger count"},
      {180, "Face matching is not supported"},
      {190, "Invalid value for format"},
      {200, "Invalid Demo structure"},
      {210, "Protobuf format not supported"},
      {220, "Invalid data in posh"},
      {240, "UIDAI Certificate is INVALID"},
      {505, "Invalid Http Version"},
      {700, "Capture timed out"},
      {710, "Being used by another application"},
      {720, "Device not ready"},
      {730, "Capture Failed"},
      {740, "Device needs to be re-initialized"},
      {750, "RD Service does not support fingerprints"},
      {760, "RD Service does not support Iris"},
      {770, "Invalid URL"},
      {790, "Invalid Command/Request"},
      {999, "Internal error"},
      // Codes outside the table have no text and give an empty errInfo.
      {-2, nullptr},
      {1, nullptr},
      {101, nullptr},
      {230, nullptr},
      {998, nullptr},
      {1000, nullptr},
  };
  for (const auto& [code, text] : table) {
    SCOPED_TRACE(code);
    const char* got = rd_error_text(code);
    if (text == nullptr) {
      EXPECT_EQ(got, nullptr);
    } else {
      ASSERT_NE(got, nullptr);
      EXPECT_STREQ(got, text);
    }

    // The error answer: the code, its text, the counts, the full device
    // information and empty Skey, Hmac and Data.
    PidDataResponse r = device_response();
    r.fCount = 1;
    r.skey = "stale";
    r.hmac = "stale";
    r.data = "stale";
    r.ci = "20300101";
    set_pid_error(&r, code);
    std::string out;
    ASSERT_EQ(FramePidOutputOuterXML(r, &out), 0);
    DocPtr doc = parse(out);
    ASSERT_TRUE(doc);
    auto kids = children_of(xmlDocGetRootElement(doc.get()));
    ASSERT_EQ(kids.size(), 5u);
    Attrs resp = attrs_of(kids[0]);
    ASSERT_EQ(resp.size(), 10u);
    EXPECT_EQ(resp[0].second, std::to_string(code));
    EXPECT_EQ(resp[1].second, text ? text : "");
    EXPECT_EQ(resp[2].second, "1");
    EXPECT_EQ(resp[8], (std::pair<std::string, std::string>{"nmPoints", "000"}));
    expect_device_info(kids[1], r);
    EXPECT_EQ(attrs_of(kids[2]), (Attrs{{"ci", ""}}));
    for (int i = 2; i < 5; ++i) EXPECT_EQ(content_of(kids[static_cast<std::size_t>(i)]), "");
    EXPECT_EQ(attrs_of(kids[4]), (Attrs{{"type", "X"}}));
  }
}

}  // namespace
