#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "utils/mpeg4util.h"

using mediautil::FfPtr;

namespace {

using Messages = std::vector<std::string>;

FfPtr<AVFrame> Mask(const std::string& regions, int width, int height) {
  AVFrame* mask = nullptr;
  EXPECT_EQ(GetPrivacyRegionFrame(&mask, regions, width, height), 0);
  return FfPtr<AVFrame>(mask);
}

std::uint32_t WordAt(const AVFrame* frame, int x, int y) {
  std::uint32_t word = 0;
  std::memcpy(&word, frame->data[0] + static_cast<std::ptrdiff_t>(y) * frame->linesize[0] + x * 4, sizeof(word));
  return word;
}

// The mask as text, '#' for a covered pixel; every pixel is one of the two allowed words.
std::string Draw(const AVFrame* mask) {
  std::string text;
  for (int y = 0; y < mask->height; ++y) {
    for (int x = 0; x < mask->width; ++x) {
      const std::uint32_t word = WordAt(mask, x, y);
      EXPECT_TRUE(word == 0 || word == 0xFF000000U);
      text += word == 0 ? '.' : '#';
    }
    text += '\n';
  }
  return text;
}

FfPtr<AVFrame> Rgba(int width, int height, std::uint32_t word) {
  FfPtr<AVFrame> frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_RGBA;
  frame->width = width;
  frame->height = height;
  EXPECT_GE(av_frame_get_buffer(frame.get(), 0), 0);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::memcpy(frame->data[0] + static_cast<std::ptrdiff_t>(y) * frame->linesize[0] + x * 4, &word, sizeof(word));
    }
  }
  return frame;
}

}  // namespace

TEST(Mask, SquareCoversColumns0To50OfRows0To49) {
  const FfPtr<AVFrame> mask = Mask("00000000500000005000500000005000", 100, 100);
  ASSERT_EQ(mask->width, 100);
  ASSERT_EQ(mask->height, 100);
  ASSERT_EQ(mask->format, AV_PIX_FMT_RGBA);
  std::string expected;
  for (int y = 0; y < 100; ++y) {
    expected += (y < 50 ? std::string(51, '#') + std::string(49, '.') : std::string(100, '.')) + "\n";
  }
  EXPECT_EQ(Draw(mask.get()), expected);
}

TEST(Mask, Shapes) {
  struct {
    const char* regions;
    const char* drawing;
  } const cases[] = {
      {"", "..........\n..........\n..........\n..........\n"},
      {";;", "..........\n..........\n..........\n..........\n"},
      {"0000000", "..........\n..........\n..........\n..........\n"},           // no whole point
      {"00000000", "..........\n..........\n..........\n..........\n"},          // a point has no edge to cross
      {"0000000099990000", "..........\n..........\n..........\n..........\n"},  // nor has a level line
      // The far corner lies at row 3: an edge counts down to the row above it.
      {"00000000999900009999999900009999", "##########\n##########\n##########\n..........\n"},
      {"0000000050000000500050000000500", "######....\n...###....\n..........\n..........\n"},  // odd tail ignored
      {"0000000030000000300050000000500099", "####......\n####......\n..........\n..........\n"},
      // Two regions; the second leaves the first as it is where they meet.
      {"00000000300000003000500000005000;70000000800000008000500070005000",
       "####...##.\n####...##.\n..........\n..........\n"},
      // A bow: the crossing halves are both filled, the space between is not.
      {"00000000900000000000750090007500", "##########\n...####...\n...####...\n..........\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Draw(Mask(c.regions, 10, 4).get()), c.drawing) << c.regions;
  }
}

// Points outside the picture are clipped, not rejected; coordinates are truncated toward zero.
TEST(Mask, PointsOutside) {
  const std::string inside = Draw(Mask("00000000500000005000500000005000", 100, 100).get());
  EXPECT_EQ(Draw(Mask("-999-9995000-99950005000-9995000", 100, 100).get()), inside);
  EXPECT_EQ(Draw(Mask("-001-0015000-00150005000-0015000", 100, 100).get()), inside);
}

// One region that overlaps itself: even-odd leaves the doubly enclosed part free.
TEST(Mask, EvenOddWithinOneRegion) {
  const FfPtr<AVFrame> ring =
      Mask("00000000900000009000900000009000000000003000300030006000600060006000300030003000", 10, 10);
  EXPECT_EQ(WordAt(ring.get(), 1, 1), 0xFF000000U);
  EXPECT_EQ(WordAt(ring.get(), 4, 5), 0U);
  EXPECT_EQ(WordAt(ring.get(), 8, 5), 0xFF000000U);
}

TEST(Mask, LargePictures) {
  const FfPtr<AVFrame> mask = Mask("00000000999900009999999900009999", 8000, 5000);
  EXPECT_EQ(WordAt(mask.get(), 7998, 4998), 0xFF000000U);
  EXPECT_EQ(WordAt(mask.get(), 10, 4999), 0U);
}

TEST(Mask, Failures) {
  LogCapture log;
  AVFrame* mask = nullptr;
  EXPECT_EQ(GetPrivacyRegionFrame(nullptr, "", 10, 10), -1);
  EXPECT_EQ(GetPrivacyRegionFrame(&mask, "", 0, 10), -1);
  EXPECT_EQ(GetPrivacyRegionFrame(&mask, "", 10, -1), -1);
  EXPECT_EQ(GetPrivacyRegionFrame(&mask, "", 1 << 20, 1 << 20), -1);
  const std::string buffer = "1|GetPrivacyRegionFrame, failed to allocate buffer for AVFrame.\n";
  EXPECT_EQ(log.Messages(), (Messages{"1|GetPrivacyRegionFrame, ppOutputFrame is nullptr.\n", buffer, buffer, buffer}));
  mask = reinterpret_cast<AVFrame*>(1);
  EXPECT_THROW(GetPrivacyRegionFrame(&mask, "0000zzzz", 10, 10), std::invalid_argument);
  EXPECT_EQ(mask, nullptr);
}

TEST(Overlay, BlendsByTheTopsAlpha) {
  for (const int width : {16, 99}) {
    const FfPtr<AVFrame> base = Rgba(width, 21, 0xFF204060U);
    const FfPtr<AVFrame> top = Mask("00000000500000005000500000005000", width, 21);
    AVFrame* result = nullptr;
    ASSERT_EQ(DoFFMpegOverlayTwoImage(base.get(), top.get(), &result, AV_PIX_FMT_RGB24), 0);
    ASSERT_EQ(result->format, AV_PIX_FMT_RGB24);
    EXPECT_EQ(result->linesize[0], width * 3);
    for (int y = 0; y < 21; ++y) {
      for (int x = 0; x < width; ++x) {
        const unsigned int expected = WordAt(top.get(), x, y) == 0 ? 0x604020U : 0U;
        ASSERT_EQ(PixelAt(result->data[0], result->linesize[0], x, y), expected) << x << "," << y;
      }
    }
    av_frame_free(&result);
  }
  // Half transparent white over black.
  const FfPtr<AVFrame> black = Rgba(32, 32, 0xFF000000U);
  const FfPtr<AVFrame> veil = Rgba(32, 32, 0x80FFFFFFU);
  AVFrame* result = nullptr;
  ASSERT_EQ(DoFFMpegOverlayTwoImage(black.get(), veil.get(), &result, AV_PIX_FMT_RGB24), 0);
  EXPECT_NEAR(result->data[0][0], 128, 2);
  EXPECT_EQ(WordAt(black.get(), 0, 0), 0xFF000000U);
  av_frame_free(&result);
}

TEST(Overlay, Refusals) {
  const FfPtr<AVFrame> small = Rgba(16, 16, 0);
  const FfPtr<AVFrame> large = Rgba(16, 18, 0);
  const FfPtr<AVFrame> rgb = SolidRgb(16, 16, 0, 0, 0);
  const FfPtr<AVFrame> hollow(av_frame_alloc());
  hollow->width = hollow->height = 16;
  hollow->format = AV_PIX_FMT_RGBA;
  struct {
    AVFrame* base;
    AVFrame* top;
    AVPixelFormat format;
    Messages messages;
  } const cases[] = {
      {nullptr, small.get(), AV_PIX_FMT_RGB24, {"1|DoFFMpegOverlayTwoImage, nullptr params.\n"}},
      {small.get(), nullptr, AV_PIX_FMT_RGB24, {"1|DoFFMpegOverlayTwoImage, nullptr params.\n"}},
      {small.get(),
       large.get(),
       AV_PIX_FMT_RGB24,
       {"1|DoFFMpegOverlayTwoImage, frame1 and frame2 width or height is not same.\n"}},
      {small.get(),
       rgb.get(),
       AV_PIX_FMT_RGB24,
       {"1|DoFFMpegOverlayTwoImage, frame1 or frame2 format is not AV_PIX_FMT_RGBA, (26, 2).\n"}},
      {small.get(),
       small.get(),
       AV_PIX_FMT_RGBA,
       {"1|DoFFmpegConvertFrameFormat, TargetFormat 26 is same as pInputFrame->format\n",
        "1|DoFFMpegOverlayTwoImage, DoFFmpegConvertFrameFormat failed\n"}},
      {hollow.get(),
       small.get(),
       AV_PIX_FMT_RGB24,
       {"1|DoFFMpegOverlayTwoImage, av_buffersrc_add_frame_flags pBufferSrcCtx1 failed\n"}},
      {small.get(),
       hollow.get(),
       AV_PIX_FMT_RGB24,
       {"1|DoFFMpegOverlayTwoImage, av_buffersrc_add_frame_flags pBufferSrcCtx2 failed\n"}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    AVFrame* result = nullptr;
    EXPECT_EQ(DoFFMpegOverlayTwoImage(c.base, c.top, &result, c.format), -1);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(log.Messages(), c.messages);
  }
  LogCapture log;
  EXPECT_EQ(DoFFMpegOverlayTwoImage(small.get(), small.get(), nullptr, AV_PIX_FMT_RGB24), -1);
}
