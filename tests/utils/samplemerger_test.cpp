#include "utils/internal/samplemerger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "tests/support/media.h"

extern "C" {
#include <libavutil/samplefmt.h>
}

TEST(SampleMerger, WholeFramesInOrder) {
  for (const auto& [format, channels] : {std::pair(AV_SAMPLE_FMT_S16, 2), {AV_SAMPLE_FMT_FLTP, 8}}) {
    mediautil::SampleMerger merger;
    ASSERT_TRUE(merger.SetUp(format, channels, 100));
    const int sampleBytes = av_get_bytes_per_sample(format) * channels;
    const std::size_t planes = av_sample_fmt_is_planar(format) != 0 ? static_cast<std::size_t>(channels) : 1;
    const std::size_t stride = static_cast<std::size_t>(sampleBytes) / planes;
    std::vector<Bytes> sent(planes);
    std::generate(sent.begin(), sent.end(), [stride = stride] { return RandomBytes(20000 * stride); });
    std::vector<Bytes> received(planes);
    const mediautil::FfPtr<AVFrame> frame(av_frame_alloc());
    int total = 0;
    for (const int count : {0, 1, 98, 1, 100, 250, 7, 3000, 42, 15000, 3, 99}) {
      const unsigned char* data[8] = {};
      for (std::size_t i = 0; i < planes; ++i) {
        data[i] = &sent[i][static_cast<std::size_t>(total) * stride];
      }
      ASSERT_TRUE(merger.Append(data, count));
      total += count;
      while (merger.Next(*frame)) {
        EXPECT_EQ(frame->nb_samples, 100);
        for (std::size_t i = 0; i < planes; ++i) {
          received[i].insert(received[i].end(), frame->data[i], frame->data[i] + 100 * stride);
        }
      }
      EXPECT_EQ(merger.WaitingBytes(), total % 100 * sampleBytes);
    }
    for (std::size_t i = 0; i < planes; ++i) sent[i].resize(18600 * stride);
    EXPECT_EQ(received, sent);
  }
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
