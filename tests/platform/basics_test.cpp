// Text, time and video types.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <ctime>

#include "platform/camera.h"
#include "platform/text.h"
#include "platform/time.h"

namespace {

TEST(TextTest, Split) {
  const std::tuple<const char*, const char*, std::vector<std::string>> cases[] = {
      {"", ";", {}},    {"abc", ";", {"abc"}}, {"a;;b", ";", {"a", "", "b"}}, {"a;b;", ";", {"a", "b"}},
      {";", ";", {""}}, {";;", ";", {"", ""}}, {"a---b", "--", {"a", "-b"}},  {"a;b", "", {"a;b"}}};
  for (const auto& [text, separator, pieces] : cases) EXPECT_EQ(String2StrVector(text, separator), pieces) << text;
}

TEST(TextTest, PrintfOfAnyLengthKeepsErrno) {
  errno = ERANGE;
  EXPECT_EQ(StringPrintf("task%d.db %s %%", -7, "x"), "task-7.db x %");
  EXPECT_EQ(StringPrintf("%*s", 300000, "x"), std::string(299999, ' ') + "x");
  EXPECT_EQ(StringPrintf("%lc", static_cast<wint_t>(0x110000)), "") << "no such character";
  EXPECT_EQ(errno, ERANGE);
}

TEST(TextTest, Replace) {
  EXPECT_EQ(StringReplaceSymbol("/s/a/s/b", "/s", "r/", false), "r//a/s/b");
  EXPECT_EQ(StringReplaceSymbol("aaaab", "aa", "aaa", true), "aaaaaab");
  EXPECT_EQ(StringReplaceSymbol("a.a", "a", "", true) + StringReplaceSymbol("abc", "d", "x", true), ".abc");
  EXPECT_EQ(StringReplaceSymbol("abc", "", "x", true) + StringReplaceSymbol("", "a", "x", true), "abc");
}

TEST(TimeTest, USecToSecTruncates) {
  EXPECT_EQ(USecToSec(1999999), 1);
  EXPECT_EQ(USecToSec(-1999999), -1);
}

TEST(TimeTest, DifferenceNeverOverflows) {
  const long cases[][3] = {
      {-3, 5, 8}, {7, 7, 0}, {LONG_MIN, -1, LONG_MAX}, {LONG_MIN, 0, LONG_MAX}, {LONG_MIN, LONG_MAX, LONG_MAX}};
  for (const auto& [a, b, difference] : cases) {
    EXPECT_EQ(GetAbsTimeDiffBySec(a, b), difference) << a << " " << b;
    EXPECT_EQ(GetAbsTimeDiffBySec(b, a), difference) << a << " " << b;
  }
}

TEST(TimeTest, MonotonicTimestampIsTheSystemsClock) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto microseconds = now.tv_sec * 1000000LL + now.tv_nsec / 1000;
  EXPECT_NEAR(static_cast<double>(GetMonotonicTimestamp() - microseconds), 10e6, 10e6);
}

TEST(CameraTest, VideoTypesThatNeedADecoder) {
  std::string types;
  for (int type = -1; type < 10; ++type) types += IsSupportedMp4VdoType(type) ? std::to_string(type) : "";
  EXPECT_EQ(types, "235678");
}

}  // namespace
