// Pid block assembly and JPEG 2000 compression: the XML form parsed back with
// libxml2, the protobuf form unpacked with protobuf-c, and the compressed image
// decoded with openjpeg.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "auth.pb-c.h"
#include "jp2_test_util.h"
#include "common/Base64.h"
#include "rd_core/opj_compress.h"
#include "rd_core/pid_input.h"
#include "rd_core/protobuf_rd.h"
#include "common/xml_ptr.h"

namespace {

// A ridge-like grey image: oriented sinusoid inside an ellipse on a light ground.
std::vector<std::uint8_t> ridge_image(int w, int h) {
  std::vector<std::uint8_t> img(static_cast<std::size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      double dx = (x - w / 2.0) / (w * 0.4), dy = (y - h / 2.0) / (h * 0.45);
      double v = 236;
      if (dx * dx + dy * dy < 1.0) {
        double r = std::sqrt((x - w / 2.0) * (x - w / 2.0) + (y - h / 3.0) * (y - h / 3.0));
        v = 122 + 80 * std::sin(r * 2 * M_PI / 9.0);
      }
      img[static_cast<std::size_t>(y) * w + x] = static_cast<std::uint8_t>(v);
    }
  }
  return img;
}

double mean_abs_error(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += std::abs(int(a[i]) - int(b[i]));
  return sum / static_cast<double>(a.size());
}

TEST(Jpeg2000Test, CompressedImagesDecodeToTheOriginal) {
  struct Case {
    int w, h;
    float ratio;
    double max_mae;       // 0: must decode exactly
    double max_fraction;  // compressed size / raw size at most
  } cases[] = {
      {256, 360, 15.0f, 8.0, 1.0 / 12},                             // the scanner's image at the capture's ratio
      {300, 400, 15.0f, 8.0, 1.0 / 12}, {17, 9, 15.0f, 40.0, 2.0},  // fewer resolution levels than the default
      {1, 1, 15.0f, 255.0, 400.0},      {64, 48, 1.0f, 0.0, 1.5},   // ratio 1: lossless
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " ratio " << c.ratio);
    std::vector<std::uint8_t> raw = ridge_image(c.w, c.h);
    std::vector<std::uint8_t> jp2{1, 2, 3};
    ASSERT_EQ(ConvertToJPEG2000(raw.data(), &jp2, c.w, c.h, c.ratio), 0);
    // A JP2 file: the signature box first.
    const std::uint8_t kSignature[] = {0, 0, 0, 12, 'j', 'P', ' ', ' ', 0x0d, 0x0a, 0x87, 0x0a};
    ASSERT_GE(jp2.size(), sizeof kSignature);
    EXPECT_TRUE(std::equal(std::begin(kSignature), std::end(kSignature), jp2.begin()));
    EXPECT_LE(static_cast<double>(jp2.size()), c.max_fraction * raw.size() + 400);

    jp2test::DecodedImage img;
    ASSERT_TRUE(jp2test::decode_jp2(jp2, &img));
    EXPECT_EQ(img.width, c.w);
    EXPECT_EQ(img.height, c.h);
    EXPECT_EQ(img.components, 1);
    EXPECT_EQ(img.precision, 8);
    ASSERT_EQ(img.pixels.size(), raw.size());
    if (c.max_mae == 0) {
      EXPECT_EQ(img.pixels, raw);
    } else {
      EXPECT_LE(mean_abs_error(img.pixels, raw), c.max_mae);
    }
  }
  // The lossy image at ratio 15 is about 15 times smaller than the raw one.
  std::vector<std::uint8_t> raw = ridge_image(256, 360), jp2;
  ASSERT_EQ(ConvertToJPEG2000(raw.data(), &jp2, 256, 360, 15.0f), 0);
  EXPECT_GT(jp2.size(), raw.size() / 25);
  EXPECT_LT(jp2.size(), raw.size() / 12);
}

TEST(Jpeg2000Test, BadImagesAreRefused) {
  std::vector<std::uint8_t> raw(16, 100);
  struct Case {
    const std::uint8_t* raw;
    int w, h;
  } cases[] = {
      {nullptr, 4, 4},     {raw.data(), 0, 4},     {raw.data(), 4, 0},     {raw.data(), -4, 4},
      {raw.data(), 4, -1}, {raw.data(), 65536, 1}, {raw.data(), 1, 70000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << (c.raw ? "" : " null"));
    std::vector<std::uint8_t> out{9, 9};
    EXPECT_EQ(ConvertToJPEG2000(c.raw, &out, c.w, c.h, 15.0f), -1);
    EXPECT_TRUE(out.empty());
  }
}

// ------------------------------------------------------------------ assembly

std::vector<CapturedFinger> two_fingers() {
  std::vector<CapturedFinger> fingers(2);
  const char* positions[] = {"LEFT_INDEX", "RIGHT_THUMB"};
  for (int f = 0; f < 2; ++f) {
    fingers[f].position = positions[f];
    for (int kind = 0; kind < 2; ++kind) {
      BioRecord r;
      r.image = (kind == 1);
      // Zero bytes inside, so a text copy would cut them.
      r.bytes = {static_cast<std::uint8_t>(kind ? 'F' : 'M'), 0, static_cast<std::uint8_t>(f), 0xff, 0};
      EXPECT_EQ(Base64Encode(r.bytes, &r.base64), 0);
      r.bs = "bs-" + std::to_string(f) + "-" + (kind ? "FIR" : "FMR");
      fingers[f].records.push_back(r);
    }
  }
  return fingers;
}

PidInput full_input(const std::vector<CapturedFinger>& fingers) {
  PidInput in;
  in.ts = "2016-01-21T12:34:56";
  in.ver = "2.0";
  in.wadh = "wadh+value=";
  in.otp_given = 1;
  in.otp = "123456";
  in.demo_given = 1;
  in.lang = "06";
  in.pi = {1, "E", "90", "Asha Rao", "", "", "F", "1990-07-15", "V", "34", "9999999999", "a@b.in"};
  in.pa = {1, "P", "C/O X", "12", "Main St", "", "Loc", "Vtc", "Sub", "Dist", "State", "India", "560001", "PO"};
  in.pfa = {1, "P", "80", "12 Main St Loc", "", ""};
  in.dih = "dih-value";
  in.fingers = fingers;
  return in;
}

std::optional<std::string> attr(xmlNode* n, const char* name) {
  if (!xmlHasProp(n, BAD_CAST name)) return std::nullopt;
  xmlChar* v = xmlGetProp(n, BAD_CAST name);
  std::string s(reinterpret_cast<const char*>(v));
  xmlFree(v);
  return s;
}

std::vector<xmlNode*> elements(xmlNode* parent) {
  std::vector<xmlNode*> out;
  for (xmlNode* c = parent->children; c != nullptr; c = c->next) {
    if (c->type == XML_ELEMENT_NODE) out.push_back(c);
  }
  return out;
}

std::string name_of(xmlNode* n) { return reinterpret_cast<const char*>(n->name); }

std::map<std::string, std::string> attrs(xmlNode* n) {
  std::map<std::string, std::string> m;
  for (xmlAttr* a = n->properties; a != nullptr; a = a->next)
    m[reinterpret_cast<const char*>(a->name)] = *attr(n, reinterpret_cast<const char*>(a->name));
  return m;
}

TEST(PidXmlTest, FullInputParsesBackWithEveryValue) {
  std::vector<CapturedFinger> fingers = two_fingers();
  PidInput in = full_input(fingers);
  std::string xml;
  ASSERT_EQ(FramePidInnerXML(in, &xml), 0);
  EXPECT_EQ(xml.rfind("<?xml version=\"1.0\"", 0), 0u) << xml;
  EXPECT_EQ(xml.find("\n "), std::string::npos) << "indented: " << xml;

  std::unique_ptr<xmlDoc, DocFree> doc(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, 0));
  ASSERT_TRUE(doc);
  xmlNode* root = xmlDocGetRootElement(doc.get());
  EXPECT_EQ(name_of(root), "Pid");
  EXPECT_EQ(attrs(root), (std::map<std::string, std::string>{
                             {"ts", "2016-01-21T12:34:56"}, {"ver", "2.0"}, {"wadh", "wadh+value="}}));
  std::vector<xmlNode*> top = elements(root);
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(name_of(top[0]), "Demo");
  EXPECT_EQ(name_of(top[1]), "Bios");
  EXPECT_EQ(name_of(top[2]), "Pv");

  EXPECT_EQ(attrs(top[0]), (std::map<std::string, std::string>{{"lang", "06"}}));
  std::vector<xmlNode*> demo = elements(top[0]);
  ASSERT_EQ(demo.size(), 3u);
  EXPECT_EQ(name_of(demo[0]), "Pi");
  // Empty values (lname, lmv) are left out.
  EXPECT_EQ(attrs(demo[0]), (std::map<std::string, std::string>{{"ms", "E"},
                                                                {"mv", "90"},
                                                                {"name", "Asha Rao"},
                                                                {"gender", "F"},
                                                                {"dob", "1990-07-15"},
                                                                {"dobt", "V"},
                                                                {"age", "34"},
                                                                {"phone", "9999999999"},
                                                                {"email", "a@b.in"}}));
  EXPECT_EQ(name_of(demo[1]), "Pa");
  EXPECT_EQ(attrs(demo[1]), (std::map<std::string, std::string>{{"ms", "P"},
                                                                {"co", "C/O X"},
                                                                {"house", "12"},
                                                                {"street", "Main St"},
                                                                {"loc", "Loc"},
                                                                {"vtc", "Vtc"},
                                                                {"subdist", "Sub"},
                                                                {"dist", "Dist"},
                                                                {"state", "State"},
                                                                {"country", "India"},
                                                                {"pc", "560001"},
                                                                {"po", "PO"}}));
  EXPECT_EQ(name_of(demo[2]), "Pfa");
  EXPECT_EQ(attrs(demo[2]), (std::map<std::string, std::string>{{"ms", "P"}, {"mv", "80"}, {"av", "12 Main St Loc"}}));

  EXPECT_EQ(attrs(top[1]), (std::map<std::string, std::string>{{"dih", "dih-value"}}));
  std::vector<xmlNode*> bios = elements(top[1]);
  ASSERT_EQ(bios.size(), 4u);
  const char* expect[4][3] = {{"FMR", "LEFT_INDEX", "bs-0-FMR"},
                              {"FIR", "LEFT_INDEX", "bs-0-FIR"},
                              {"FMR", "RIGHT_THUMB", "bs-1-FMR"},
                              {"FIR", "RIGHT_THUMB", "bs-1-FIR"}};
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(name_of(bios[i]), "Bio");
    EXPECT_EQ(attrs(bios[i]), (std::map<std::string, std::string>{
                                  {"type", expect[i][0]}, {"posh", expect[i][1]}, {"bs", expect[i][2]}}));
    xmlChar* content = xmlNodeGetContent(bios[i]);
    std::vector<std::uint8_t> decoded;
    EXPECT_EQ(Base64Decode(reinterpret_cast<const char*>(content), &decoded), 0);
    xmlFree(content);
    EXPECT_EQ(decoded, fingers[i / 2].records[i % 2].bytes);
  }
  EXPECT_EQ(attrs(top[2]), (std::map<std::string, std::string>{{"otp", "123456"}}));
}

TEST(PidXmlTest, OptionalPartsFollowTheInput) {
  std::vector<CapturedFinger> fingers = two_fingers();
  struct Case {
    const char* name;
    void (*edit)(PidInput*);
    std::vector<std::string> top;  // element names under Pid
    std::vector<std::string> demo;
  } cases[] = {
      {"full", [](PidInput*) {}, {"Demo", "Bios", "Pv"}, {"Pi", "Pa", "Pfa"}},
      {"no otp", [](PidInput* in) { in->otp_given = 0; }, {"Demo", "Bios"}, {"Pi", "Pa", "Pfa"}},
      {"no demo", [](PidInput* in) { in->demo_given = 0; }, {"Bios", "Pv"}, {}},
      {"only Pa",
       [](PidInput* in) {
         in->pi.given = 0;
         in->pfa.given = 0;
       },
       {"Demo", "Bios", "Pv"},
       {"Pa"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PidInput in = full_input(fingers);
    c.edit(&in);
    std::string xml;
    ASSERT_EQ(FramePidInnerXML(in, &xml), 0);
    std::unique_ptr<xmlDoc, DocFree> doc(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, 0));
    ASSERT_TRUE(doc);
    std::vector<std::string> top, demo;
    for (xmlNode* n : elements(xmlDocGetRootElement(doc.get()))) {
      top.push_back(name_of(n));
      if (name_of(n) == "Demo") {
        for (xmlNode* d : elements(n)) demo.push_back(name_of(d));
      }
    }
    EXPECT_EQ(top, c.top);
    EXPECT_EQ(demo, c.demo);
  }
  // Empty ts, ver and wadh are not written at all.
  PidInput bare;
  std::string xml;
  ASSERT_EQ(FramePidInnerXML(bare, &xml), 0);
  EXPECT_NE(xml.find("<Pid><Bios/></Pid>"), std::string::npos) << xml;
}

// ------------------------------------------------------------------ protobuf

struct PidFree {
  void operator()(In__Gov__Uidai__Authserver__Protobuf__Pid* p) const {
    in__gov__uidai__authserver__protobuf__pid__free_unpacked(p, nullptr);
  }
};
using PidPtr = std::unique_ptr<In__Gov__Uidai__Authserver__Protobuf__Pid, PidFree>;

PidPtr unpack(const std::vector<std::uint8_t>& bytes) {
  return PidPtr(in__gov__uidai__authserver__protobuf__pid__unpack(nullptr, bytes.size(), bytes.data()));
}

std::string str(const char* s) { return s ? s : "<null>"; }

TEST(PidProtobufTest, FullInputUnpacksWithEveryValue) {
  std::vector<CapturedFinger> fingers = two_fingers();
  PidInput in = full_input(fingers);
  std::vector<std::uint8_t> packed;
  ASSERT_EQ(FramePidOutputProtobuf(in, &packed), 0);
  PidPtr pid = unpack(packed);
  ASSERT_TRUE(pid);
  EXPECT_EQ(str(pid->ver), "2.0");
  EXPECT_EQ(str(pid->ts), "2016-01-21T12:34:56");
  EXPECT_EQ(str(pid->wadh), "wadh+value=");

  ASSERT_NE(pid->demo, nullptr);
  EXPECT_TRUE(pid->demo->has_lang);
  EXPECT_EQ(pid->demo->lang, IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__LANG_CODE__Hindi);
  const auto* pi = pid->demo->pi;
  ASSERT_NE(pi, nullptr);
  EXPECT_TRUE(pi->has_ms);
  EXPECT_EQ(pi->ms, IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__MS__E);
  EXPECT_EQ(str(pi->name), "Asha Rao");
  EXPECT_TRUE(pi->has_mv);
  EXPECT_EQ(pi->mv, 90);
  EXPECT_EQ(pi->lname, nullptr);
  EXPECT_FALSE(pi->has_lmv);
  EXPECT_TRUE(pi->has_gender);
  EXPECT_EQ(pi->gender, IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__PI__GENDER__F);
  ASSERT_NE(pi->dob, nullptr);
  EXPECT_EQ(pi->dob->year, 1990);
  EXPECT_TRUE(pi->dob->has_month);
  EXPECT_EQ(pi->dob->month, 7);
  EXPECT_TRUE(pi->dob->has_day);
  EXPECT_EQ(pi->dob->day, 15);
  EXPECT_TRUE(pi->has_dobt);
  EXPECT_EQ(pi->dobt, IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__PI__DOBT__V);
  EXPECT_TRUE(pi->has_age);
  EXPECT_EQ(pi->age, 34);
  EXPECT_EQ(str(pi->email), "a@b.in");
  EXPECT_EQ(str(pi->phone), "9999999999");

  const auto* pa = pid->demo->pa;
  ASSERT_NE(pa, nullptr);
  EXPECT_FALSE(pa->has_ms);  // "P" is not sent for the address
  EXPECT_EQ(str(pa->co), "C/O X");
  EXPECT_EQ(str(pa->house), "12");
  EXPECT_EQ(str(pa->street), "Main St");
  EXPECT_EQ(pa->lm, nullptr);
  EXPECT_EQ(str(pa->loc), "Loc");
  EXPECT_EQ(str(pa->vtc), "Vtc");
  EXPECT_EQ(str(pa->subdist), "Sub");
  EXPECT_EQ(str(pa->dist), "Dist");
  EXPECT_EQ(str(pa->state), "State");
  EXPECT_EQ(str(pa->country), "India");
  EXPECT_EQ(str(pa->pc), "560001");
  EXPECT_EQ(str(pa->po), "PO");

  const auto* pfa = pid->demo->pfa;
  ASSERT_NE(pfa, nullptr);
  EXPECT_TRUE(pfa->has_ms);
  EXPECT_EQ(pfa->ms, IN__GOV__UIDAI__AUTHSERVER__PROTOBUF__MS__P);
  EXPECT_EQ(str(pfa->av), "12 Main St Loc");
  EXPECT_TRUE(pfa->has_mv);
  EXPECT_EQ(pfa->mv, 80);
  EXPECT_EQ(pfa->lav, nullptr);
  EXPECT_FALSE(pfa->has_lmv);

  ASSERT_NE(pid->bios, nullptr);
  EXPECT_EQ(str(pid->bios->dih), "dih-value");
  ASSERT_EQ(pid->bios->n_bio, 4u);
  const int kTypes[4] = {0, 1, 0, 1};
  const int kPosh[4] = {3, 3, 12, 12};  // LEFT_INDEX, RIGHT_THUMB
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    const auto* bio = pid->bios->bio[i];
    EXPECT_EQ(static_cast<int>(bio->type), kTypes[i]);
    EXPECT_EQ(static_cast<int>(bio->posh), kPosh[i]);
    const auto& want = fingers[i / 2].records[i % 2];
    EXPECT_EQ(std::vector<std::uint8_t>(bio->content.data, bio->content.data + bio->content.len), want.bytes);
    EXPECT_EQ(str(bio->bs), want.bs);
  }
  ASSERT_NE(pid->pv, nullptr);
  EXPECT_EQ(str(pid->pv->otp), "123456");
  EXPECT_EQ(pid->pv->pin, nullptr);
}

TEST(PidProtobufTest, DemographicMappingTable) {
  std::vector<CapturedFinger> fingers = two_fingers();
  // Each case edits the full input and reads one value back: -1 means unset.
  struct Case {
    const char* name;
    void (*edit)(PidInput*);
    int (*read)(const In__Gov__Uidai__Authserver__Protobuf__Pid*);
    int expected;
  } cases[] = {
      {"Pi ms P", [](PidInput* in) { in->pi.ms.assign(1, 'P'); },
       [](auto* p) { return p->demo->pi->has_ms ? int(p->demo->pi->ms) : -1; }, 2},
      {"Pi ms F", [](PidInput* in) { in->pi.ms.assign(1, 'F'); },
       [](auto* p) { return p->demo->pi->has_ms ? int(p->demo->pi->ms) : -1; }, -1},
      {"Pa ms E", [](PidInput* in) { in->pa.ms.assign(1, 'E'); },
       [](auto* p) { return p->demo->pa->has_ms ? int(p->demo->pa->ms) : -1; }, 1},
      {"Pa ms P", [](PidInput* in) { in->pa.ms.assign(1, 'P'); },
       [](auto* p) { return p->demo->pa->has_ms ? int(p->demo->pa->ms) : -1; }, -1},
      {"Pfa ms E", [](PidInput* in) { in->pfa.ms.assign(1, 'E'); },
       [](auto* p) { return p->demo->pfa->has_ms ? int(p->demo->pfa->ms) : -1; }, 1},
      {"Pfa ms S", [](PidInput* in) { in->pfa.ms.assign(1, 'S'); },
       [](auto* p) { return p->demo->pfa->has_ms ? int(p->demo->pfa->ms) : -1; }, -1},
      {"gender M", [](PidInput* in) { in->pi.gender.assign(1, 'M'); },
       [](auto* p) { return p->demo->pi->has_gender ? int(p->demo->pi->gender) : -1; }, 2},
      {"gender T", [](PidInput* in) { in->pi.gender.assign(1, 'T'); },
       [](auto* p) { return p->demo->pi->has_gender ? int(p->demo->pi->gender) : -1; }, 3},
      {"gender X", [](PidInput* in) { in->pi.gender.assign(1, 'X'); },
       [](auto* p) { return p->demo->pi->has_gender ? int(p->demo->pi->gender) : -1; }, -1},
      {"dobt D", [](PidInput* in) { in->pi.dobt.assign(1, 'D'); },
       [](auto* p) { return p->demo->pi->has_dobt ? int(p->demo->pi->dobt) : -1; }, 2},
      {"dobt A", [](PidInput* in) { in->pi.dobt.assign(1, 'A'); },
       [](auto* p) { return p->demo->pi->has_dobt ? int(p->demo->pi->dobt) : -1; }, 3},
      {"dobt empty", [](PidInput* in) { in->pi.dobt.clear(); },
       [](auto* p) { return p->demo->pi->has_dobt ? int(p->demo->pi->dobt) : -1; }, -1},
      {"dob year", [](PidInput* in) { in->pi.dob = "2001-02-03"; },
       [](auto* p) { return p->demo->pi->dob ? p->demo->pi->dob->year : -1; }, 2001},
      {"dob month", [](PidInput* in) { in->pi.dob = "2001-02-03"; },
       [](auto* p) { return p->demo->pi->dob->has_month ? p->demo->pi->dob->month : -1; }, 2},
      {"dob day", [](PidInput* in) { in->pi.dob = "2001-02-03"; },
       [](auto* p) { return p->demo->pi->dob->has_day ? p->demo->pi->dob->day : -1; }, 3},
      {"dob empty", [](PidInput* in) { in->pi.dob.clear(); }, [](auto* p) { return p->demo->pi->dob ? 1 : -1; }, -1},
      {"dob garbage", [](PidInput* in) { in->pi.dob = "abc-de"; }, [](auto* p) { return p->demo->pi->dob ? 1 : -1; },
       -1},
      {"age garbage", [](PidInput* in) { in->pi.age = "3x"; }, [](auto* p) { return p->demo->pi->has_age ? 1 : -1; },
       -1},
      {"lmv", [](PidInput* in) { in->pi.lmv = "75"; },
       [](auto* p) { return p->demo->pi->has_lmv ? p->demo->pi->lmv : -1; }, 75},
      {"lang Tamil", [](PidInput* in) { in->lang = "20"; },
       [](auto* p) { return p->demo->has_lang ? int(p->demo->lang) : -1; }, 20},
      {"lang outside", [](PidInput* in) { in->lang = "03"; },
       [](auto* p) { return p->demo->has_lang ? int(p->demo->lang) : -1; }, -1},
      {"no demo", [](PidInput* in) { in->demo_given = 0; }, [](auto* p) { return p->demo ? 1 : -1; }, -1},
      {"no otp", [](PidInput* in) { in->otp_given = 0; }, [](auto* p) { return p->pv ? 1 : -1; }, -1},
      {"posh UNKNOWN", [](PidInput*) {}, [](auto* p) { return int(p->bios->bio[0]->posh); }, 13},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<CapturedFinger> local = fingers;
    if (std::string(c.name) == "posh UNKNOWN") local[0].position = "UNKNOWN";
    PidInput in = full_input(local);
    c.edit(&in);
    std::vector<std::uint8_t> packed;
    ASSERT_EQ(FramePidOutputProtobuf(in, &packed), 0);
    PidPtr pid = unpack(packed);
    ASSERT_TRUE(pid);
    EXPECT_EQ(c.read(pid.get()), c.expected);
  }
  // A name outside the vocabulary also goes out as UNKNOWN; empty required
  // texts go out as "".
  std::vector<CapturedFinger> odd = fingers;
  odd[1].position = "LEFT_PINKY";
  PidInput in;
  in.fingers = odd;
  std::vector<std::uint8_t> packed;
  ASSERT_EQ(FramePidOutputProtobuf(in, &packed), 0);
  PidPtr pid = unpack(packed);
  ASSERT_TRUE(pid);
  EXPECT_EQ(str(pid->ver), "");
  EXPECT_EQ(str(pid->wadh), "");
  EXPECT_EQ(str(pid->bios->dih), "");
  ASSERT_EQ(pid->bios->n_bio, 4u);
  EXPECT_EQ(int(pid->bios->bio[2]->posh), 13);
  EXPECT_EQ(pid->demo, nullptr);
  EXPECT_EQ(pid->pv, nullptr);
}

}  // namespace
