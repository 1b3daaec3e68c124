// PidData framing and the RD error-code table, compared byte for byte with the
// answers kept under tests/data.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "rd_core/pid_data.h"
#include "test_util.h"

namespace {

// The device information of the answers; srno needs escaping. The success
// answer byte for byte: CaptureEndToEnd.CapturesOpenWithTheUidaiKey; with
// fCount 0 (empty score lists): ApiTest.CaptureRefusalsBeforeTheScanner.
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

TEST(PidData, FingerLists) {
  struct Case {
    std::vector<int> values;
    int count;
    std::string expected;
  };
  const Case cases[] = {
      {{1234}, 1, "1234"},
      {{5}, -1, ""},
      {{-5}, 1, "-05"},
      {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 12, "001,002,003,004,005,006,007,008,009,010"},
  };
  for (const auto& c : cases) {
    int values[kMaxFingers] = {};
    for (std::size_t i = 0; i < c.values.size(); ++i) values[i] = c.values[i];
    EXPECT_EQ(format_finger_list(values, c.count), c.expected) << c.count;
  }
}

// pid_error_texts.txt: "code|text" per line, or the code alone for codes
// outside the table (no text, an empty errInfo). Each error answer keeps the
// counts and the device information and drops Skey, Hmac and Data.
TEST(PidData, EveryErrorCodeAndItsAnswer) {
  std::istringstream table(testutil::data_file("pid_error_texts.txt"));
  const std::string answer = testutil::data_file("pid_data_error.xml");
  int rows = 0;
  for (std::string line; std::getline(table, line); ++rows) {
    SCOPED_TRACE(line);
    const std::size_t bar = line.find('|');
    const int code = std::stoi(line.substr(0, bar));
    const std::string text = bar == std::string::npos ? "" : line.substr(bar + 1);
    const char* got = rd_error_text(code);
    EXPECT_EQ(got == nullptr, bar == std::string::npos);
    EXPECT_EQ(got ? got : "", text);

    PidDataResponse r = device_response();
    r.fCount = 1;
    r.skey = "stale";
    r.hmac = "stale";
    r.data = "stale";
    r.ci = "20300101";
    set_pid_error(&r, code);
    std::string out;
    ASSERT_EQ(FramePidOutputOuterXML(r, &out), 0);
    EXPECT_EQ(out, testutil::fill(answer, {{"code", std::to_string(code)}, {"text", text}}));
  }
  EXPECT_EQ(rows, 49);
}

}  // namespace
