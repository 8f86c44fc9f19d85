#include "utils/internal/samplemerger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>

#include "tests/support/media.h"

extern "C" {
#include <libavutil/samplefmt.h>
}

TEST(SampleMerger, WholeFramesInOrder) {
  std::mt19937 random(9);
  for (const AVSampleFormat format : {AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_U8}) {
    for (const int channels : {1, 2, 8}) {
      mediautil::SampleMerger merger;
      ASSERT_TRUE(merger.SetUp(format, channels, 100));
      const int sampleBytes = av_get_bytes_per_sample(format) * channels;
      EXPECT_EQ(merger.FrameBytes(), 100 * sampleBytes);
      const std::size_t planes = av_sample_fmt_is_planar(format) != 0 ? static_cast<std::size_t>(channels) : 1;
      const std::size_t stride = static_cast<std::size_t>(sampleBytes) / planes;
      std::vector<Bytes> sent(planes);
      std::vector<Bytes> received(planes);
      const mediautil::FfPtr<AVFrame> frame(av_frame_alloc());
      int total = 0;
      for (int round = 0; round < 60; ++round) {
        const int count = static_cast<int>(random() % (round % 10 == 9 ? 3000 : 90));
        std::vector<Bytes> piece(planes, Bytes(static_cast<std::size_t>(count) * stride));
        const unsigned char* data[8] = {};
        for (std::size_t i = 0; i < planes; ++i) {
          std::generate(piece[i].begin(), piece[i].end(), [&random] { return static_cast<std::uint8_t>(random()); });
          sent[i].insert(sent[i].end(), piece[i].begin(), piece[i].end());
          data[i] = piece[i].data();
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
      for (std::size_t i = 0; i < planes; ++i) {
        sent[i].resize(received[i].size());
      }
      EXPECT_EQ(received, sent);
    }
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
  EXPECT_FALSE(merger.Append(&nothing, INT_MAX));
  EXPECT_FALSE(merger.Append(&nothing, -1));
  EXPECT_TRUE(merger.Append(&nothing, 0));
  EXPECT_EQ(merger.WaitingBytes(), 0);
  merger.Free();
  merger.Free();
}
