// Text, time and mutex.
#include <gtest/gtest.h>

#include <thread>

#include "platform/sync.h"
#include "platform/text.h"
#include "platform/time.h"

namespace {

TEST(TextTest, Split) {
  const struct {
    const char* text;
    const char* separator;
    std::vector<std::string> pieces;
  } cases[] = {
      {"", ";", {}},
      {"", "", {}},
      {"abc", ";", {"abc"}},
      {"a;;b", ";", {"a", "", "b"}},
      {"a;b;", ";", {"a", "b"}},
      {";a", ";", {"", "a"}},
      {";", ";", {""}},
      {";;", ";", {"", ""}},
      {"a--b-c", "--", {"a", "b-c"}},
      {"a---b", "--", {"a", "-b"}},
      {"a;b", "", {"a;b"}},
  };
  for (const auto& c : cases) EXPECT_EQ(String2StrVector(c.text, c.separator), c.pieces) << c.text;
}

TEST(TimeTest, USecToSecTruncates) {
  EXPECT_EQ(USecToSec(1999999), 1);
  EXPECT_EQ(USecToSec(-1999999), -1);
  EXPECT_EQ(USecToSec(9223372036854775807LL), 9223372036854LL);
}

TEST(SyncTest, GuardHoldsAndReleases) {
  VyMutex mutex;
  int count = 0;
  const auto add = [&] {
    for (int i = 0; i < 20000; ++i) {
      const VyMutexGuard guard(mutex);
      ++count;
    }
  };
  std::thread other(add);
  add();
  other.join();
  EXPECT_EQ(count, 40000);
}

}  // namespace
