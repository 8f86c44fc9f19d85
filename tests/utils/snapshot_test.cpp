#include <gtest/gtest.h>

#include "platform/jpeg.h"
#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/tempdir.h"
#include "utils/internal/scaler.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavutil/imgutils.h>
}

using mediautil::FfPtr;

namespace {

constexpr const char* kQuarter = "00000000500000005000500000005000";  // the picture's top left quarter

// A JPEG made by the library, as RGB rows.
struct Picture {
  int ret = -1;
  Bytes jpeg;
  int width = 0;
  int height = 0;
  Bytes rgb;

  unsigned int At(int x, int y) const { return PixelAt(rgb.data(), width * 3, x, y); }
  bool IsBlackAt(int x, int y) const { return (At(x, y) & 0xF0F0F0U) == 0; }
};

Picture Decode(unsigned char* jpeg, int size, int ret) {
  const mediautil::MallocPtr<unsigned char> owned(jpeg);
  Picture picture;
  picture.ret = ret;
  EXPECT_EQ(ret == 0, jpeg != nullptr);
  picture.jpeg.assign(jpeg, jpeg + (ret == 0 ? size : 0));
  unsigned char* rgb = nullptr;
  int length = 0;
  if (ret == 0 && DecodeJpeg(jpeg, size, &rgb, length, JCS_RGB, 1, picture.width, picture.height) == 0) {
    picture.rgb.assign(rgb, rgb + length);
    std::free(rgb);
  }
  return picture;
}

Picture Snapshot(AVFrame* frame, const std::string& regions = "", int quality = 95) {
  auto* jpeg = reinterpret_cast<unsigned char*>(1);
  int size = -7;
  const int ret = DoFFMpegGetJpeg(frame, &jpeg, &size, quality, regions);
  return Decode(jpeg, size, ret);
}

Picture Snapshot(const Bytes& data, int maxSide) {
  auto* jpeg = reinterpret_cast<unsigned char*>(1);  // nothing of before may be left on failure
  int size = -7;
  const int ret = DoFFMpegGetJpeg(3, nullptr, 0, data.data(), static_cast<int>(data.size()), &jpeg, &size, maxSide);
  return Decode(jpeg, size, ret);
}

int ScaledFrame(int vdoType, const Bytes& data, AVFrame** frame, int maxSide, const Bytes& extra = {}) {
  return DoFFMpegGetScaledFrame(vdoType, extra.data(), static_cast<int>(extra.size()), data.data(),
                                static_cast<int>(data.size()), frame, maxSide);
}

}  // namespace

// --- conversion ------------------------------------------------------------------------------------------------------

TEST(Convert, RowsArePackedAndPixelsStay) {
  for (const int width : {99, 1088}) {
    const FfPtr<AVFrame> input = TestPicture(AV_PIX_FMT_RGB24, width, 53);
    for (const AVPixelFormat target : {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_GRAY8, AV_PIX_FMT_NV12}) {
      AVFrame* output = nullptr;
      ASSERT_EQ(DoFFmpegConvertFrameFormat(input.get(), target, &output), 0);
      EXPECT_EQ(output->format, target);
      EXPECT_EQ(output->linesize[0], av_image_get_linesize(target, width, 0));
      EXPECT_LT(MeanDifference(output, input.get()), target == AV_PIX_FMT_GRAY8 ? 60 : 4);
      DoFFmpegFrameFree(&output);
      EXPECT_EQ(output, nullptr);
    }
  }
}

TEST(Convert, Refusals) {
  const FfPtr<AVFrame> rgb = SolidRgb(32, 32, 1, 2, 3);
  const FfPtr<AVFrame> empty(av_frame_alloc());
  const FfPtr<AVFrame> sized(av_frame_alloc());
  sized->width = sized->height = 16;
  sized->format = AV_PIX_FMT_YUV420P;
  const std::tuple<const AVFrame*, AVPixelFormat, const char*> cases[] = {
      {rgb.get(), AV_PIX_FMT_RGB24, "TargetFormat 2 is same as pInputFrame->format\n"},
      {rgb.get(), AV_PIX_FMT_NONE, "sws_getContext failed\n"},
      {empty.get(), AV_PIX_FMT_RGBA, "sws_getContext failed\n"},
      {sized.get(), AV_PIX_FMT_RGBA, "sws_scale failed\n"},
      {nullptr, AV_PIX_FMT_RGBA, "pInputFrame (nil) or ppOutputFrame (nil) is nullptr\n"}};
  for (const auto& [input, target, message] : cases) {
    LogCapture log;
    AVFrame* output = nullptr;
    EXPECT_EQ(DoFFmpegConvertFrameFormat(input, target, input == nullptr ? nullptr : &output), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(log.Messages(), Messages{std::string("1|DoFFmpegConvertFrameFormat, ") + message});
  }
}

// --- one coded frame -------------------------------------------------------------------------------------------------

TEST(ScaledFrame, LongestSideRule) {
  const Bytes landscape = EncodeClip({"libx264", 1920, 1080, 1}).frames[0].data;
  const Bytes portrait = EncodeClip({"libx264", 1080, 1920, 1}).frames[0].data;
  const struct {
    const Bytes& data;
    int maxSide, width, height;
  } cases[] = {{landscape, 320, 320, 180},  {landscape, 1920, 1920, 1080}, {landscape, -1, 1920, 1080},
               {landscape, 1000, 999, 562}, {landscape, 4000, 1920, 1080}, {portrait, 480, 270, 480}};
  for (const auto& c : cases) {
    AVFrame* frame = nullptr;
    ASSERT_EQ(ScaledFrame(3, c.data, &frame, c.maxSide), 0);
    EXPECT_EQ(std::tuple(frame->width, frame->height, frame->format, frame->linesize[0]),
              std::tuple(c.width, c.height, AV_PIX_FMT_RGB24, c.width * 3));
    DoFFmpegFrameFree(&frame);
  }
}

TEST(ScaledFrame, Messages) {
  const Bytes key = EncodeClip({"libx264", 320, 240, 1}).frames[0].data;
  const Bytes both = EncodeClip({"libx264", 720, 480, 1}).frames[0].data;
  const Bytes garbage(500, 0x11);
  const struct {
    int vdoType;
    const Bytes& data;
    int maxSide, ret;
    Messages messages;
  } cases[] = {{4, key, 0, -1, {"1|Wrong video type. [4]\n", "4|FFmpeg init failed.\n"}},
               {3, garbage, 0, -1, {"4|FFmpeg decode failed.\n"}},
               {3, key, 160, 0, {"4|Scale from [320x240] to [160x120]\n"}},
               {3, key, 1, -1, {"4|FFmpeg convert failed.\n"}},  // the other side truncates to no pixel at all
               {3, both, 1, -1, {"4|FFmpeg convert failed.\n"}}};
  for (const auto& c : cases) {
    LogCapture log;
    AVFrame* frame = nullptr;
    EXPECT_EQ(ScaledFrame(c.vdoType, c.data, &frame, c.maxSide), c.ret);
    EXPECT_EQ(frame == nullptr, c.ret != 0);
    EXPECT_EQ(log.Messages(), c.messages);
    DoFFmpegFrameFree(&frame);
  }
  EXPECT_EQ(ScaledFrame(3, key, nullptr, 0), -1);

  // A stream entered between key frames gives a damaged picture rather than none.
  const Clip clip = EncodeClip({"libx264", 320, 240, 2, 0, true});
  AVFrame* frame = nullptr;
  EXPECT_EQ(ScaledFrame(3, clip.frames[1].data, &frame, 0, clip.extradata), 0);
  DoFFmpegFrameFree(&frame);
}

// --- JPEG ------------------------------------------------------------------------------------------------------------

TEST(Jpeg, OfOneCodedFrame) {
  const Clip clip = EncodeClip({"libx264", 640, 360, 1});
  const Picture picture = Snapshot(clip.frames[0].data, 320);
  ASSERT_EQ(picture.ret, 0);
  ASSERT_EQ(std::pair(picture.width, picture.height), std::pair(320, 180));
  const FfPtr<AVFrame> expected = TestPicture(AV_PIX_FMT_RGB24, 320, 180);
  const unsigned int want = PixelAt(expected->data[0], expected->linesize[0], 300, 20);
  for (const int shift : {0, 8, 16}) {
    EXPECT_NEAR(static_cast<int>(picture.At(300, 20) >> shift & 255U), static_cast<int>(want >> shift & 255U), 12);
  }
  LogCapture log;
  EXPECT_EQ(Snapshot(Bytes(10, 1), 320).ret, -1);
  EXPECT_EQ(log.Messages(), (Messages{"4|FFmpeg decode failed.\n", "1|Fail to get scaled rgb frame\n"}));
}

TEST(Jpeg, CapacityIsAFifthOfThePictureWithinBounds) {
  LogCapture log;
  // Noise: all of it at quality 100, where 24576 bytes are room enough; 0.19 of it at 70, 0.23 at 80.
  const int cases[][4] = {
      {16, 16, 100, 0}, {96, 96, 100, 0}, {320, 240, 70, 0}, {320, 240, 80, -1}, {4000, 2400, 70, -1}};
  for (const auto& [width, height, quality, ret] : cases) {
    const FfPtr<AVFrame> noise = SolidRgb(width, height, 0, 0, 0);
    const Bytes bytes = RandomBytes(static_cast<std::size_t>(width * height * 3));
    std::copy(bytes.begin(), bytes.end(), noise->data[0]);
    EXPECT_EQ(Snapshot(noise.get(), "", quality).ret, ret) << quality;
  }
  EXPECT_EQ(log.Messages(), Messages(2, "1|Compress to jpeg failed.\n"));
}

TEST(Jpeg, QualityRowsAndFormat) {
  const FfPtr<AVFrame> frame = TestPicture(AV_PIX_FMT_RGB24, 640, 480);
  const Bytes standard = Snapshot(frame.get(), "", 85).jpeg;
  EXPECT_LT(Snapshot(frame.get(), "", 20).jpeg.size(), standard.size());
  EXPECT_EQ(Snapshot(frame.get(), "", -1).jpeg, standard);
  EXPECT_EQ(Snapshot(frame.get(), "", 0).ret, -1);

  const FfPtr<AVFrame> padded = SolidRgb(99, 40, 200, 10, 10, 64);
  ASSERT_NE(padded->linesize[0], 99 * 3);
  const Picture picture = Snapshot(padded.get());
  for (const int y : {0, 20, 39}) EXPECT_NEAR(static_cast<int>(picture.At(98, y) >> 16), 200, 4);

  const FfPtr<AVFrame> empty(av_frame_alloc());
  EXPECT_EQ(Snapshot(TestPicture(AV_PIX_FMT_YUV420P, 64, 48).get()).ret, -1);
  for (const char* regions : {"", kQuarter}) EXPECT_EQ(Snapshot(empty.get(), regions).ret, -1);
  EXPECT_EQ(DoFFMpegGetJpeg(empty.get(), nullptr, nullptr, -1, ""), -1);
}

// --- privacy regions -------------------------------------------------------------------------------------------------

// Painting the picture gives the bytes of laying the mask over it.
TEST(JpegPrivacy, SameBytesAsMaskAndOverlay) {
  const std::string regions = std::string(kQuarter) + ";60006000990070007000990055009000";
  for (const auto& [width, format] :
       {std::pair(97, AV_PIX_FMT_RGB24), {128, AV_PIX_FMT_RGB24}, {128, AV_PIX_FMT_YUV420P}}) {
    const FfPtr<AVFrame> frame = TestPicture(format, width, 75);
    AVFrame* rgba = nullptr;
    AVFrame* mask = nullptr;
    AVFrame* result = nullptr;
    ASSERT_EQ(DoFFmpegConvertFrameFormat(frame.get(), AV_PIX_FMT_RGBA, &rgba), 0);
    ASSERT_EQ(GetPrivacyRegionFrame(&mask, regions, width, 75), 0);
    ASSERT_EQ(DoFFMpegOverlayTwoImage(rgba, mask, &result, AV_PIX_FMT_RGB24), 0);
    const Picture masked = Snapshot(frame.get(), regions, 90);
    EXPECT_EQ(masked.ret, 0);
    EXPECT_EQ(masked.jpeg, Snapshot(result, "", 90).jpeg);
    EXPECT_TRUE(masked.IsBlackAt(0, 0) && masked.IsBlackAt(40, 30) && !masked.IsBlackAt(70, 20));
    EXPECT_EQ(MeanDifference(frame.get(), TestPicture(format, width, 75).get()), 0) << "the caller's picture stays";
    DoFFmpegFrameFree(&rgba);
    DoFFmpegFrameFree(&mask);
    av_frame_free(&result);
  }
}

TEST(JpegPrivacy, NoPictureLeavesUnmasked) {
  const FfPtr<AVFrame> rgb = SolidRgb(64, 64, 255, 255, 255);
  for (const char* text : {"abcd0000", "00000000x00000005000", ";;0000    "}) {
    LogCapture log;
    EXPECT_EQ(Snapshot(rgb.get(), text).ret, -1) << text;
    EXPECT_EQ(log.Messages(), Messages{"1|DoFFMpegGetJpeg, fail to get privacy region frame.\n"});
  }
  LogCapture log;
  EXPECT_EQ(Snapshot(TestPicture(AV_PIX_FMT_RGBA, 64, 64).get(), kQuarter).ret, -1);
  EXPECT_EQ(log.Messages().back(), "1|DoFFMpegGetJpeg, fail to convert frame format.\n");
}

// --- duration --------------------------------------------------------------------------------------------------------

TEST(Duration, WholeSecondsOrNothing) {
  const TempDir dir;
  WriteFile(EncodeClip({"libx264", 64, 48, 60, 0, true}), dir.Path("clip.mp4"));
  EXPECT_EQ(DoFFMpegGetDuration(dir.Path("clip.mp4")), 2U);  // 2.4 s
  SaveBytes(dir.Path("live.h264"), EncodeClip({"libx264", 64, 48, 3}).frames[0].data.data(), 600);
  EXPECT_EQ(DoFFMpegGetDuration(dir.Path("live.h264")), 0U);
  SaveBytes(dir.Path("empty"), "", 0);
  for (const std::string& path : {dir.Path("empty"), dir.Path("absent"), dir.Path()}) {
    LogCapture log;
    EXPECT_EQ(DoFFMpegGetDuration(path), 0U);
    EXPECT_EQ(log.Messages(), Messages{"1|Failed to open input file[" + path + "].\n"});
  }
}
