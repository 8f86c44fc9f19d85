// Text and time.
#include <gtest/gtest.h>

#include "platform/text.h"
#include "platform/time.h"

namespace {

TEST(TextTest, Split) {
  const std::tuple<const char*, const char*, std::vector<std::string>> cases[] = {
      {"", ";", {}},    {"abc", ";", {"abc"}}, {"a;;b", ";", {"a", "", "b"}}, {"a;b;", ";", {"a", "b"}},
      {";", ";", {""}}, {";;", ";", {"", ""}}, {"a---b", "--", {"a", "-b"}},  {"a;b", "", {"a;b"}}};
  for (const auto& [text, separator, pieces] : cases) EXPECT_EQ(String2StrVector(text, separator), pieces) << text;
}

TEST(TimeTest, USecToSecTruncates) {
  EXPECT_EQ(USecToSec(1999999), 1);
  EXPECT_EQ(USecToSec(-1999999), -1);
}

}  // namespace
