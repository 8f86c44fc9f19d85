#include "utils/internal/samplemerger.h"

#include <gtest/gtest.h>

#include <climits>

extern "C" {
#include <libavutil/samplefmt.h>
}

TEST(SampleMerger, Limits) {
  mediautil::SampleMerger merger;
  EXPECT_FALSE(merger.SetUp(AV_SAMPLE_FMT_FLTP, AV_NUM_DATA_POINTERS + 1, 1));
  EXPECT_FALSE(merger.SetUp(AV_SAMPLE_FMT_NONE, 1, 1));
  EXPECT_FALSE(merger.SetUp(AV_SAMPLE_FMT_S16, 0, 1));
  ASSERT_TRUE(merger.SetUp(AV_SAMPLE_FMT_S16, 1, 0));
  EXPECT_EQ(merger.FrameSize(), 1024);
  const unsigned char* nothing = nullptr;
  EXPECT_FALSE(merger.Append(&nothing, INT_MAX) || merger.Append(&nothing, -1));
  EXPECT_EQ(merger.WaitingBytes(), 0);
}
