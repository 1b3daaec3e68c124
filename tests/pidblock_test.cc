// Pid block assembly and JPEG 2000 compression: both forms of the block
// compared byte for byte with files under tests/data, the protobuf form also
// unpacked with protobuf-c, and the compressed image decoded with openjpeg.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "common/Base64.h"
#include "jp2_test_util.h"
#include "rd_core/opj_compress.h"
#include "rd_core/pid_input.h"
#include "rd_core/protobuf_rd.h"
#include "test_util.h"

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
    double max_mae;                     // 0: must decode exactly
    double min_fraction, max_fraction;  // compressed size / raw size
  } cases[] = {
      {256, 360, 15.0f, 8.0, 1.0 / 25, 1.0 / 12},  // the scanner's image at the capture's ratio
      {1, 1, 15.0f, 255.0, 0, 400.0},              // fewer resolution levels than the default: one
      {64, 48, 1.0f, 0.0, 0, 1.5},  // ratio 1: lossless
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
    EXPECT_GT(static_cast<double>(jp2.size()), c.min_fraction * raw.size());

    jp2test::DecodedImage img;
    ASSERT_TRUE(jp2test::decode_jp2(jp2.data(), jp2.size(), &img));
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
}

TEST(Jpeg2000Test, BadImagesAreRefused) {
  std::vector<std::uint8_t> raw(16, 100);
  struct Case {
    const std::uint8_t* raw;
    int w, h;
  } cases[] = {
      {nullptr, 4, 4}, {raw.data(), 0, 4}, {raw.data(), 4, -1}, {raw.data(), 65536, 1}, {raw.data(), 1, 70000},
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

// Both forms of the block: optional parts follow the input, and empty values
// are left out. In the protobuf form each letter of the one-letter sets maps
// to its value (a letter outside a set, as the full input's Pa ms P, is left
// unset), and numbers, a date and a language that do not read are left unset;
// in a bare input empty required texts go out as "", with no Demo and no Pv,
// and a position outside the vocabulary as UNKNOWN.
TEST(PidBlockTest, EveryFormIsByteExact) {
  const std::vector<CapturedFinger> fingers = two_fingers();
  static std::vector<CapturedFinger> odd = two_fingers();
  odd[1].position = "LEFT_PINKY";
  struct Case {
    const char* xml;  // the files of the two forms, or null
    const char* pb;
    void (*edit)(PidInput*);
  } cases[] = {
      {"pid_full.xml", "pid_full.pb", [](PidInput*) {}},
      {"pid_no_otp.xml", nullptr, [](PidInput* in) { in->otp_given = 0; }},
      {"pid_no_demo.xml", nullptr, [](PidInput* in) { in->demo_given = 0; }},
      {"pid_only_pa.xml", nullptr, [](PidInput* in) { in->pi.given = in->pfa.given = 0; }},
      {"pid_bare.xml", nullptr, [](PidInput* in) { *in = PidInput{}; }},
      {nullptr, "pid_demo_values.pb",
       [](PidInput* in) {
         in->pi.ms.assign(1, 'P');
         in->pa.ms.assign(1, 'E');
         in->pi.gender.assign(1, 'M');
         in->pi.dobt.assign(1, 'D');
         in->pi.dob = "abc-de";
         in->pi.age = "3x";
         in->pi.lmv = "75";
         in->lang = "03";
       }},
      {nullptr, "pid_demo_third.pb",
       [](PidInput* in) {
         in->pi.gender.assign(1, 'T');
         in->pi.dobt.assign(1, 'A');
       }},
      {nullptr, "pid_bare.pb",
       [](PidInput* in) {
         *in = PidInput{};
         in->fingers = odd;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.xml ? c.xml : c.pb);
    PidInput in = full_input(fingers);
    c.edit(&in);
    std::string xml;
    std::vector<std::uint8_t> packed;
    if (c.xml) {
      ASSERT_EQ(FramePidInnerXML(in, &xml), 0);
      EXPECT_EQ(xml, testutil::data_file(c.xml));
    }
    if (c.pb) {
      ASSERT_EQ(FramePidOutputProtobuf(in, &packed), 0);
      EXPECT_EQ(std::string(packed.begin(), packed.end()), testutil::data_file(c.pb));
    }
  }
}

}  // namespace
