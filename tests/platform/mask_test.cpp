#include "platform/local/mask.h"

#include <gtest/gtest.h>

namespace {

// What stands between angle brackets must be masked; without them the text stays.
TEST(MaskTest, SecretsAreReplacedAndNothingElse) {
  const std::string cases[] = {
      // identifiers
      "api=x&_sid=<abc>&method=Do", "SID=<abc>; next", "sid[<abc>] port[5]", "m_strSid: <abc>, host: h",
      R"({"_sid" : "<a\"b>", "n":1})", R"({"sid":"<a\\>","n":1})", R"("{\"sid\":\"<abc>\",\"n\":1}")",
      R"({\"sid\":\"<a\\\"b>\",\"n\":1})", "{'token': '<abc>'}", "X-Auth-Token: <abc>", "_sid=<%22abc%22>&n=1",
      "failed [h][443][a=1&_sid=<abc>][timestamp=<5>]", R"(&recSerialNum="<SN1>"])",
      "api%3Dx%26_sid%3D<abc>%26passwd%3D<p>%26n%3D1", "otp_code=<123456>",
      // passwords
      R"(account=a&passwd=<p;,]"w>&n=1)", "Password = <secret> here", R"("password":"<a b>","n":1)",
      "passwd[<a]b>] n[1]", "passwd[<unclosed text>", "usr=admin&pwd=<1234>",
      "open rtsp://admin:<p@ss>@10.0.0.1:554/live failed",
      // headers and fragments of several parts
      "Cookie: <id=abc; smid=def>", "Cookie: <id=abc; smid=def>\r\nHost: h",
      R"(curl -H "Cookie: <id=abc; smid=def>" http://h/)", "Authorization: <Basic YTpi>",
      R"(a=1&cookie="<id=a]b; x=y>"][timestamp=<5>])", "cookie=<id=abc; smid=def>&n=1",
      R"(AuthContent[<&timestamp=5&cookie="a] b">] n)",
      R"(m_strHostAuthContent=[<&timestamp=5&cookie="a">], m_strHostCookie=[<timestamp=5>])",
      // no secrets
      "", "&time=1700000000", "inside[3] resid=5 aside: x", "cookies: 3, tokens=5", "sid", "wrong password",
      "sid=&passwd=&n=1", R"({"sid":"","cookie":""})", "rtsp://10.0.0.1/a@b", "rtsp://a:<p/#s>@h/live",
      "http://user@host/"};
  for (const std::string& text : cases) {
    std::string input;
    std::string expected;
    bool secret = false;
    for (const char c : text) {
      if (c == '<') expected += "***";
      const bool isMark = c == '<' || c == '>';
      if (isMark) secret = c == '<';
      if (!isMark) input += c;
      if (!isMark && !secret) expected += c;
    }
    EXPECT_EQ(local::MaskSecrets(input), expected);
  }
}

}  // namespace
