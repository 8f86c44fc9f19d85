#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "utils/mpeg4util.h"

using mediautil::FfPtr;

namespace {

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
  FfPtr<AVFrame> frame = TestPicture(AV_PIX_FMT_RGBA, width, height);
  const std::vector<std::uint32_t> row(static_cast<std::size_t>(width), word);
  for (int y = 0; y < height; ++y) {
    std::memcpy(frame->data[0] + static_cast<std::ptrdiff_t>(y) * frame->linesize[0], row.data(), row.size() * 4);
  }
  return frame;
}

}  // namespace

TEST(Mask, SquareCoversColumns0To50OfRows0To49) {
  const FfPtr<AVFrame> mask = Mask("00000000500000005000500000005000", 100, 100);
  ASSERT_EQ(std::tuple(mask->width, mask->height, mask->format), std::tuple(100, 100, AV_PIX_FMT_RGBA));
  std::string expected;
  for (int y = 0; y < 100; ++y) {
    expected += (y < 50 ? std::string(51, '#') + std::string(49, '.') : std::string(100, '.')) + "\n";
  }
  EXPECT_EQ(Draw(mask.get()), expected);
  // Points outside the picture are clipped, not rejected; coordinates are truncated toward zero.
  EXPECT_EQ(Draw(Mask("-999-9995000-99950005000-9995000", 100, 100).get()), expected);
  EXPECT_EQ(Draw(Mask("-001-0015000-00150005000-0015000", 100, 100).get()), expected);
}

TEST(Mask, Shapes) {
  const std::string blank = "..........";
  const std::string full = "##########";
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"", {blank, blank, blank, blank}},
      {";;0000000", {blank, blank, blank, blank}},         // no whole point
      {"0000000099990000", {blank, blank, blank, blank}},  // a level line has no edge to cross
      // The far corner lies at row 3: an edge counts down to the row above it.
      {"00000000999900009999999900009999", {full, full, full, blank}},
      {"0000000050000000500050000000500", {"######....", "...###....", blank, blank}},  // odd tail ignored
      // Two regions; the second leaves the first as it is where they meet.
      {"00000000300000003000500000005000;70000000800000008000500070005000", {"####...##.", "####...##.", blank, blank}},
      // A bow: the crossing halves are both filled, the space between is not.
      {"00000000900000000000750090007500", {full, "...####...", "...####...", blank}}};
  for (const auto& [regions, rows] : cases) {
    std::string drawing;
    for (const std::string& row : rows) drawing += row + "\n";
    EXPECT_EQ(Draw(Mask(regions, 10, 4).get()), drawing) << regions;
  }
  // One region that overlaps itself: even-odd leaves the doubly enclosed part free.
  const FfPtr<AVFrame> ring =
      Mask("00000000900000009000900000009000000000003000300030006000600060006000300030003000", 10, 10);
  EXPECT_EQ(Draw(ring.get()).substr(55, 10), "####..####");
  const FfPtr<AVFrame> large = Mask("00000000999900009999999900009999", 8000, 5000);
  EXPECT_EQ(WordAt(large.get(), 7998, 4998), 0xFF000000U);
  EXPECT_EQ(WordAt(large.get(), 10, 4999), 0U);
}

TEST(Mask, Failures) {
  LogCapture log;
  AVFrame* mask = nullptr;
  EXPECT_EQ(GetPrivacyRegionFrame(nullptr, "", 10, 10), -1);
  EXPECT_EQ(GetPrivacyRegionFrame(&mask, "", 0, 10), -1);
  EXPECT_EQ(GetPrivacyRegionFrame(&mask, "", 10, -1), -1);
  EXPECT_EQ(GetPrivacyRegionFrame(&mask, "", 1 << 20, 1 << 20), -1);
  const std::string buffer = "1|GetPrivacyRegionFrame, failed to allocate buffer for AVFrame.\n";
  EXPECT_EQ(log.Text(), "1|GetPrivacyRegionFrame, ppOutputFrame is nullptr.\n" + buffer + buffer + buffer);
  mask = reinterpret_cast<AVFrame*>(1);
  EXPECT_THROW(GetPrivacyRegionFrame(&mask, "0000zzzz", 10, 10), std::invalid_argument);
  EXPECT_EQ(mask, nullptr);
}

TEST(Overlay, BlendsByTheTopsAlpha) {
  for (const int width : {16, 99}) {
    const FfPtr<AVFrame> base = Rgba(width, 21, 0xFF204060U);
    const FfPtr<AVFrame> top = Mask("00000000500000005000500000005000", width, 21);
    top->pts = 100;  // times have no say
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
  const std::string prefix = "1|DoFFMpegOverlayTwoImage, ";
  const std::tuple<AVFrame*, AVFrame*, const char*> cases[] = {
      {nullptr, small.get(), "nullptr params.\n"},
      {small.get(), nullptr, "nullptr params.\n"},
      {small.get(), large.get(), "frame1 and frame2 width or height is not same.\n"},
      {small.get(), rgb.get(), "frame1 or frame2 format is not AV_PIX_FMT_RGBA, (26, 2).\n"},
      {hollow.get(), small.get(), "av_buffersrc_add_frame_flags pBufferSrcCtx1 failed\n"},
      {small.get(), hollow.get(), "av_buffersrc_add_frame_flags pBufferSrcCtx2 failed\n"}};
  AVFrame* result = nullptr;
  for (const auto& [base, top, message] : cases) {
    LogCapture log;
    EXPECT_EQ(DoFFMpegOverlayTwoImage(base, top, &result, AV_PIX_FMT_RGB24), -1);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(log.Messages(), Messages{prefix + message});
  }
  LogCapture log;
  EXPECT_EQ(DoFFMpegOverlayTwoImage(small.get(), small.get(), &result, AV_PIX_FMT_RGBA), -1);
  EXPECT_EQ(log.Messages().back(), prefix + "DoFFmpegConvertFrameFormat failed\n");
}
