// Management request frames and the time-stamp rule.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "test_util.h"
#include "platform/test_seams.h"
#include "web_service/json/json_frame_parse.h"

namespace {

// The library fixture: its seams, last-status line and pipe are reset after each test.
using MgmtJson = testutil::LibraryTest;

MgmtIdentity ident() {
  return {"1.0.2", "KORV.LIN.001", "CL01", "2.1", "LINUX", "0a1b2c3d4e5f", "QDX1234567", "Korvane", "A600", "KORV"};
}

// The whole frame, members in order, as the server reads it; the values and
// the hmac over serial and ts as the server checks them:
// MgmtServerTest.AlteredRequestsAreRefused. The sealed sKey and hmac are
// Base64, which json-c writes with "\/".
TEST_F(MgmtJson, FrameMembersInOrder) {
  const std::string pkey = "MIIBIjANBgkq";
  const std::string head =
      R"({ "device": { "rdVer": "1.0.2", "rdId": "KORV.LIN.001", "clId": "CL01", "clVer": "2.1", "hostType": "LINUX", )"
      R"("hostId": "0a1b2c3d4e5f", "slNo": "QDX1234567", "make": "Korvane", "model": "A600", "dpId": "KORV" }, )"
      R"("ts": "2024-05-01T13:45:09", )";
  const std::string sealed = R"("sKey": "B64", "hmac": "B64" })";
  struct Case {
    const std::string* pkey;
    std::string expected;
  } cases[] = {
      {nullptr, head + sealed},
      {&pkey, head + R"("pKey": "MIIBIjANBgkq", )" + sealed},
  };
  for (const auto& c : cases) {
    std::string out;
    ASSERT_EQ(json_frame_with(ident(), "2024-05-01T13:45:09", c.pkey, &out), 0);
    EXPECT_EQ(std::regex_replace(out, std::regex(R"re("(sKey|hmac)": "([A-Za-z0-9+=]|\\/)+")re"), "\"$1\": \"B64\""),
              c.expected);
  }
}

TEST_F(MgmtJson, TimeDiffTable) {
  struct Case {
    const char *server, *client;
    int rc, diff;
  } cases[] = {
      {"2024-04-01T10:00:00", "2024-05-01T10:05:01", 0, 301},  // day of month only
      {"2024-05-14T23:59:00", "2024-05-15T00:02:00", 0, 180},
      {"2024-05-15T00:02:00", "2024-05-14T23:59:00", 0, 180},
      {"2024-05-31T23:59:00", "2024-06-01T00:00:00", -1, 0},
      {"2024-05-01T99:00:00", "2024-05-02T00:00:00", -1, 0},  // no time of day
      {"2024-05-01T23:59:60", "2024-05-02T00:00:00", 0, 0},   // leap second
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.server) + " " + c.client);
    int diff = 0;
    EXPECT_EQ(Time_Diff_in_Sec(c.server, c.client, &diff), c.rc);
    if (c.rc == 0) {
      EXPECT_EQ(diff, c.diff);
    }
  }
}

// A response around the given members; "device" echoes ident() unless given.
std::string resp(
    const std::string& status, const std::string& extra,
    const std::string& device = R"("device":{"hostId":"0a1b2c3d4e5f","slNo":"QDX1234567","model":"A600","dc":"DC9"})",
    const std::string& ts = "2024-05-01T10:00:00") {
  return "{\"respStatus\":" + status + ",\"respCode\":\"ZELM-000\",\"respDesc\":\"ok\"," + device +
         ",\"nextAction\":[\"KEY_ROTATION\",\"SOFTWARE_UPDATE\"],\"ts\":\"" + ts + "\"" + extra + "}";
}

TEST_F(MgmtJson, InitStatusCodesAndTimeRule) {
  struct Case {
    std::string body;
    int rc;
    std::string action;
  } cases[] = {
      {resp("\"Y\"", ""), 0, "SOFTWARE_UPDATE"},  // 300 s
      {resp("\"yes\"", ""), -1, "preset"},
      {R"({"respStatus":"n","respCode":"ZELM-040","device":{},"nextAction":["X"],"ts":"2024-05-01T10:04:00"})", 0, "X"},
      {R"({"respStatus":"y","respCode":"0","device":{},"nextAction":[],"ts":"2024-05-01T10:04:00"})", 0, "preset"},
      {resp("\"y\"", "", R"("device":{"slNo":"OTHER","hostId":7})"), 0, "SOFTWARE_UPDATE"},  // mismatch not fatal
      {resp("\"y\"", "", R"("device":{})", "2024-05-01T09:59:59"), 0, "TIME_STAMP_SYNC"},    // 301 s
      {resp("\"y\"", "", R"("device":{})", "bad"), 0, "TIME_STAMP_SYNC"},  // no time: Time_Diff_in_Sec refuses
  };
  seams([](test_seams::Seams& s) { s.now = 1714538100; });  // 2024-05-01T10:05:00 IST
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    std::string action = "preset";
    EXPECT_EQ(json_parse_init(c.body, ident(), &action), c.rc);
    EXPECT_EQ(action, c.action);
  }
}

// The refusal reaches the last-status line and the pipe under the parser's
// name; the server's line breaks and '|' (the front end's) become blanks.
TEST_F(MgmtJson, ServerErrorReachesLastStatusAndPipe) {
  std::string action, path, sum;
  EXPECT_EQ(json_parse_update(R"({"respStatus":"n","respCode":"ZELM-040|x","respDesc":"bad\r\ndev|5000|forged"})",
                              ident(), &action, &path, &sum),
            -1);  // ZELM-040 passes only for init
  const std::string line = testutil::last_status();
  EXPECT_EQ(line.substr(line.find(" | ")),
            " | json_frame_parse | json_parse_update | Error from MS: ZELM-040 x bad  dev 5000 forged ");
  ASSERT_TRUE(pipe_->wait_for("\n"));
  EXPECT_EQ(pipe_->received(), "10000|Error from MS: ZELM-040 x|bad  dev 5000 forged\n");
}

TEST_F(MgmtJson, OperationFieldsRequiredAndTyped) {
  const std::string ok =
      resp("\"y\"", R"(,"path":"https://x/p.zip","checksum":"abc","sPKey":"S","chkSum":"c","ci":"20250101")");
  // Each operation's fields with their values: the end-to-end Management exchanges.
  std::string a, p, s, dc, sp;
  // A whole answer with the given members after respStatus, respCode and device.
  auto bare = [](const std::string& rest) { return R"({"respStatus":"y","respCode":"0","device":{},)" + rest; };
  struct Case {
    const char* what;
    std::string body;
  } bad[] = {
      {"no path", resp("\"y\"", R"(,"checksum":"abc","sPKey":"S")")},
      {"path number", resp("\"y\"", R"(,"path":5,"checksum":"abc","sPKey":"S")")},
      {"no device", resp("\"y\"", R"(,"path":"p","checksum":"c","sPKey":"S")", R"("x":1)")},
      {"nextAction string", bare(R"("nextAction":"A","ts":"t","path":"p","checksum":"c"})")},
      {"nextAction element number", bare(R"("nextAction":["A",1],"ts":"t","path":"p","checksum":"c"})")},
      {"ts object", bare(R"("nextAction":[],"ts":{},"path":"p","checksum":"c"})")},
      {"no respCode", R"({"respStatus":"y","device":{},"nextAction":[],"ts":"t","path":"p","checksum":"c"})"},
      {"respStatus true",
       R"({"respStatus":true,"respCode":"0","device":{},"nextAction":[],"ts":"t","path":"p","checksum":"c"})"},
      {"top level array", "[1,2]"},
      {"deep nesting", std::string(5000, '[') + std::string(5000, ']')},
      {"junk after a NUL", ok + '\0' + "xx"},
      {"over 29999 bytes", resp("\"y\"", ",\"path\":\"" + std::string(30000, 'p') + "\",\"checksum\":\"c\"")},
      {"empty", ""},
  };
  for (const auto& c : bad) EXPECT_EQ(json_parse_update(c.body, ident(), &a, &p, &s), -1) << c.what;
  // Key rotation: sPKey and a plain dc inside device are required.
  EXPECT_EQ(json_parse_key_rotation(resp("\"y\"", ""), ident(), &a, nullptr, &dc, &sp), -1);
  const struct {
    std::string dc;
    int rc;
  } dcs[] = {{std::string(51, 'd') + "0f5c-11aa.b_C", 0},
             {std::string(65, 'd'), -1},
             {"", -1},
             {"12\\u000034", -1}};  // line breaks: ManagementEndToEnd.FailedRotationKeepsTheRegisteredIdentity
  for (const auto& c : dcs) {
    const std::string body = resp("\"y\"", R"(,"sPKey":"S")", R"("device":{"dc":")" + c.dc + "\"}");
    EXPECT_EQ(json_parse_key_rotation(body, ident(), &a, nullptr, &dc, &sp), c.rc) << c.dc;
  }
  // A value longer than the bound is refused whole, wherever it stands.
  const std::string at_bound(kMgmtMaxField, 'p'), over(kMgmtMaxField + 1, 'p');
  ASSERT_EQ(json_parse_update(resp("\"y\"", ",\"path\":\"" + at_bound + "\",\"checksum\":\"c\""), ident(), &a, &p, &s),
            0);
  EXPECT_EQ(p, at_bound);
  for (const std::string& body : {resp("\"y\"", ",\"path\":\"" + over + "\",\"checksum\":\"c\""),
                                  resp("\"y\"", ",\"path\":\"p\",\"checksum\":\"c\",\"note\":[\"" + over + "\"]"),
                                  resp("\"y\"", ",\"path\":\"p\",\"checksum\":\"c\",\"" + over + "\":1")}) {
    EXPECT_EQ(json_parse_update(body, ident(), &a, &p, &s), -1);
  }
}

}  // namespace
