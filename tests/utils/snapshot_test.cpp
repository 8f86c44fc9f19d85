#include <gtest/gtest.h>

#include <random>

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

using Messages = std::vector<std::string>;

constexpr const char* kQuarter = "00000000500000005000500000005000";  // the picture's top left quarter

// A JPEG made by the library, as RGB rows.
struct Picture {
  int ret = -1;
  int jpegSize = 0;
  int width = 0;
  int height = 0;
  Bytes rgb;

  unsigned int At(int x, int y) const { return PixelAt(rgb.data(), width * 3, x, y); }
};

Picture Decode(unsigned char* jpeg, int size, int ret) {
  Picture picture;
  picture.ret = ret;
  picture.jpegSize = size;
  const mediautil::MallocPtr<unsigned char> owned(jpeg);
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
  EXPECT_EQ(ret == 0, jpeg != nullptr);
  return Decode(jpeg, size, ret);
}

Picture Snapshot(int vdoType, const Bytes& data, int maxSide) {
  unsigned char* jpeg = nullptr;
  int size = 0;
  const int ret =
      DoFFMpegGetJpeg(vdoType, nullptr, 0, data.data(), static_cast<int>(data.size()), &jpeg, &size, maxSide);
  return Decode(jpeg, size, ret);
}

bool IsBlack(unsigned int pixel) {
  return ((pixel & 0xF0F0F0U) | 0U) == 0;
}

}  // namespace

// --- conversion ------------------------------------------------------------------------------------------------------

TEST(Convert, RowsArePackedAndBytesAreThoseOfLibswscale) {
  const AVPixelFormat targets[] = {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_GRAY8, AV_PIX_FMT_NV12};
  for (const int width : {99, 1088}) {
    const FfPtr<AVFrame> input = TestPicture(AV_PIX_FMT_RGB24, width, 53);
    for (const AVPixelFormat target : targets) {
      AVFrame* output = nullptr;
      ASSERT_EQ(DoFFmpegConvertFrameFormat(input.get(), target, &output), 0);
      EXPECT_EQ(output->width, width);
      EXPECT_EQ(output->height, 53);
      EXPECT_EQ(output->format, target);
      int packed[4] = {};
      av_image_fill_linesizes(packed, target, width);
      EXPECT_EQ(output->linesize[0], packed[0]);
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
  struct {
    const AVFrame* input;
    AVPixelFormat target;
    const char* message;
  } const cases[] = {
      {rgb.get(), AV_PIX_FMT_RGB24, "1|DoFFmpegConvertFrameFormat, TargetFormat 2 is same as pInputFrame->format\n"},
      {rgb.get(), AV_PIX_FMT_NONE, "1|DoFFmpegConvertFrameFormat, sws_getContext failed\n"},
      {empty.get(), AV_PIX_FMT_RGBA, "1|DoFFmpegConvertFrameFormat, sws_getContext failed\n"},
      {sized.get(), AV_PIX_FMT_RGBA, "1|DoFFmpegConvertFrameFormat, sws_scale failed\n"},
  };
  for (const auto& c : cases) {
    LogCapture log;
    AVFrame* output = nullptr;
    EXPECT_EQ(DoFFmpegConvertFrameFormat(c.input, c.target, &output), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(log.Messages(), Messages{c.message});
  }
  LogCapture log;
  EXPECT_EQ(DoFFmpegConvertFrameFormat(nullptr, AV_PIX_FMT_RGBA, nullptr), -1);
  EXPECT_EQ(log.Messages(),
            Messages{"1|DoFFmpegConvertFrameFormat, pInputFrame (nil) or ppOutputFrame (nil) is nullptr\n"});
}

// --- one coded frame -------------------------------------------------------------------------------------------------

TEST(ScaledFrame, LongestSideRule) {
  const Clip landscape = EncodeClip({"libx264", 1920, 1080, 1});
  const Clip portrait = EncodeClip({"libx264", 1080, 1920, 1});
  struct {
    const Clip& clip;
    int maxSide, width, height;
  } const cases[] = {{landscape, 320, 320, 180},  {landscape, 1920, 1920, 1080}, {landscape, 0, 1920, 1080},
                     {landscape, -1, 1920, 1080}, {landscape, 1000, 999, 562},   {landscape, 4000, 1920, 1080},
                     {portrait, 480, 270, 480}};
  for (const auto& c : cases) {
    const Bytes& data = c.clip.frames[0].data;
    AVFrame* frame = nullptr;
    ASSERT_EQ(DoFFMpegGetScaledFrame(3, nullptr, 0, data.data(), static_cast<int>(data.size()), &frame, c.maxSide), 0);
    EXPECT_EQ(frame->width, c.width);
    EXPECT_EQ(frame->height, c.height);
    EXPECT_EQ(frame->format, AV_PIX_FMT_RGB24);
    EXPECT_EQ(frame->linesize[0], c.width * 3);
    DoFFmpegFrameFree(&frame);
  }
}

TEST(ScaledFrame, Messages) {
  const Clip clip = EncodeClip({"libx264", 320, 240, 1});
  const Bytes& key = clip.frames[0].data;
  const Bytes garbage(500, 0x11);
  struct {
    int vdoType;
    const Bytes& data;
    int maxSide;
    int ret;
    Messages messages;
  } const cases[] = {
      {4, key, 0, -1, {"1|Wrong video type. [4]\n", "4|FFmpeg init failed.\n"}},
      {3, garbage, 0, -1, {"4|FFmpeg decode failed.\n"}},
      {3, key, 160, 0, {"4|Scale from [320x240] to [160x120]\n"}},
      {3, key, 1, -1, {"4|FFmpeg convert failed.\n"}},  // the other side truncates to no pixel at all
  };
  for (const auto& c : cases) {
    LogCapture log;
    AVFrame* frame = nullptr;
    EXPECT_EQ(DoFFMpegGetScaledFrame(c.vdoType, nullptr, 0, c.data.data(), static_cast<int>(c.data.size()), &frame,
                                     c.maxSide),
              c.ret);
    EXPECT_EQ(log.Messages(), c.messages);
    DoFFmpegFrameFree(&frame);
  }
  AVFrame* frame = nullptr;
  EXPECT_EQ(DoFFMpegGetScaledFrame(3, nullptr, 0, nullptr, 5, &frame, 0), -1);
  EXPECT_EQ(DoFFMpegGetScaledFrame(3, nullptr, 0, key.data(), -5, &frame, 0), -1);
  EXPECT_EQ(DoFFMpegGetScaledFrame(3, nullptr, 0, key.data(), 5, nullptr, 0), -1);
}

// A stream entered between key frames gives a damaged picture rather than none.
TEST(ScaledFrame, WithoutReferences) {
  const Clip clip = EncodeClip({"libx264", 320, 240, 2, 0, true});
  AVFrame* frame = nullptr;
  EXPECT_EQ(DoFFMpegGetScaledFrame(3, clip.extradata.data(), static_cast<int>(clip.extradata.size()),
                                   clip.frames[1].data.data(), static_cast<int>(clip.frames[1].data.size()), &frame, 0),
            0);
  DoFFmpegFrameFree(&frame);
}

// --- JPEG ------------------------------------------------------------------------------------------------------------

TEST(Jpeg, OfOneCodedFrame) {
  const Clip clip = EncodeClip({"libx264", 640, 360, 1});
  const Picture picture = Snapshot(3, clip.frames[0].data, 320);
  ASSERT_EQ(picture.ret, 0);
  ASSERT_EQ(picture.width, 320);
  ASSERT_EQ(picture.height, 180);
  const FfPtr<AVFrame> expected = TestPicture(AV_PIX_FMT_RGB24, 320, 180);
  for (const int x : {30, 160, 300}) {
    const unsigned int want = PixelAt(expected->data[0], expected->linesize[0], x, 20);
    for (const int shift : {0, 8, 16}) {
      EXPECT_NEAR(static_cast<int>(picture.At(x, 20) >> shift & 255U), static_cast<int>(want >> shift & 255U), 12);
    }
  }
  LogCapture log;
  EXPECT_EQ(Snapshot(3, Bytes(10, 1), 320).ret, -1);
  EXPECT_EQ(log.Messages(), (Messages{"4|FFmpeg decode failed.\n", "1|Fail to get scaled rgb frame\n"}));
}

TEST(Jpeg, CapacityIsAFifthOfThePictureWithinBounds) {
  std::mt19937 random(3);
  const auto noise = [&random](int width, int height) {
    FfPtr<AVFrame> frame = SolidRgb(width, height, 0, 0, 0);
    for (int i = 0; i < width * height * 3; ++i) {
      frame->data[0][i] = static_cast<std::uint8_t>(random());
    }
    return frame;
  };
  EXPECT_EQ(Snapshot(noise(16, 16).get(), "", 100).ret, 0);  // far more than a fifth, but room for 24576 bytes
  EXPECT_EQ(Snapshot(noise(96, 96).get(), "", 100).ret, 0);
  LogCapture log;
  EXPECT_EQ(Snapshot(noise(320, 240).get(), "", 100).ret, -1);
  EXPECT_EQ(log.Messages(), Messages{"1|Compress to jpeg failed.\n"});
}

TEST(Jpeg, QualityAndItsDefault) {
  const FfPtr<AVFrame> frame = TestPicture(AV_PIX_FMT_RGB24, 640, 480);
  const int low = Snapshot(frame.get(), "", 20).jpegSize;
  const int standard = Snapshot(frame.get(), "", 85).jpegSize;
  EXPECT_LT(low, standard);
  EXPECT_EQ(Snapshot(frame.get(), "", -1).jpegSize, standard);
  EXPECT_EQ(Snapshot(frame.get(), "", 0).ret, -1);
  EXPECT_EQ(Snapshot(frame.get(), "", 101).ret, -1);
}

TEST(Jpeg, RowsWithPaddingAreRead) {
  const FfPtr<AVFrame> padded = SolidRgb(99, 40, 200, 10, 10, 64);
  ASSERT_NE(padded->linesize[0], 99 * 3);
  const Picture picture = Snapshot(padded.get());
  for (const int y : {0, 20, 39}) {
    EXPECT_NEAR(static_cast<int>(picture.At(98, y) >> 16), 200, 4);
  }
}

TEST(Jpeg, OtherInputFails) {
  unsigned char* jpeg = nullptr;
  int size = 0;
  const FfPtr<AVFrame> yuv = TestPicture(AV_PIX_FMT_YUV420P, 64, 48);
  const FfPtr<AVFrame> empty(av_frame_alloc());
  EXPECT_EQ(Snapshot(yuv.get()).ret, -1);
  EXPECT_EQ(Snapshot(empty.get()).ret, -1);
  EXPECT_EQ(Snapshot(empty.get(), kQuarter).ret, -1);
  EXPECT_EQ(DoFFMpegGetJpeg(nullptr, &jpeg, &size, -1, ""), -1);
  EXPECT_EQ(DoFFMpegGetJpeg(yuv.get(), nullptr, &size, -1, ""), -1);
  EXPECT_EQ(DoFFMpegGetJpeg(yuv.get(), &jpeg, nullptr, -1, ""), -1);
}

// --- privacy regions -------------------------------------------------------------------------------------------------

TEST(JpegPrivacy, RegionsAreBlackAndTheRestIsNot) {
  for (const int width : {320, 322}) {
    const FfPtr<AVFrame> frame = SolidRgb(width, 240, 200, 200, 200);
    const Picture picture = Snapshot(frame.get(), kQuarter);
    ASSERT_EQ(picture.ret, 0);
    EXPECT_TRUE(IsBlack(picture.At(0, 0)));
    EXPECT_TRUE(IsBlack(picture.At(150, 110)));
    EXPECT_NEAR(static_cast<int>(picture.At(180, 60) & 255U), 200, 6);
    EXPECT_NEAR(static_cast<int>(picture.At(60, 140) & 255U), 200, 6);
    EXPECT_EQ(PixelAt(frame->data[0], frame->linesize[0], 0, 0), 0xC8C8C8U);  // the caller's picture stays
  }
}

// Painting the picture gives the bytes of laying the mask over it.
TEST(JpegPrivacy, SameBytesAsMaskAndOverlay) {
  const std::string regions = std::string(kQuarter) + ";60006000990070007000990055009000";
  for (const int width : {97, 128}) {
    const FfPtr<AVFrame> frame = TestPicture(AV_PIX_FMT_RGB24, width, 75);
    AVFrame* rgba = nullptr;
    AVFrame* mask = nullptr;
    AVFrame* result = nullptr;
    ASSERT_EQ(DoFFmpegConvertFrameFormat(frame.get(), AV_PIX_FMT_RGBA, &rgba), 0);
    ASSERT_EQ(GetPrivacyRegionFrame(&mask, regions, width, 75), 0);
    ASSERT_EQ(DoFFMpegOverlayTwoImage(rgba, mask, &result, AV_PIX_FMT_RGB24), 0);
    unsigned char* masked = nullptr;
    unsigned char* overlaid = nullptr;
    int maskedSize = 0;
    int overlaidSize = 0;
    ASSERT_EQ(DoFFMpegGetJpeg(frame.get(), &masked, &maskedSize, 90, regions), 0);
    ASSERT_EQ(DoFFMpegGetJpeg(result, &overlaid, &overlaidSize, 90, ""), 0);
    EXPECT_EQ(Bytes(masked, masked + maskedSize), Bytes(overlaid, overlaid + overlaidSize));
    std::free(masked);
    std::free(overlaid);
    DoFFmpegFrameFree(&rgba);
    DoFFmpegFrameFree(&mask);
    av_frame_free(&result);
  }
}

TEST(JpegPrivacy, OtherFormatsAreMaskedToo) {
  const FfPtr<AVFrame> yuv = TestPicture(AV_PIX_FMT_YUV420P, 128, 96);
  const Picture picture = Snapshot(yuv.get(), kQuarter);
  ASSERT_EQ(picture.ret, 0);
  EXPECT_TRUE(IsBlack(picture.At(20, 20)));
  EXPECT_FALSE(IsBlack(picture.At(100, 20)));
}

TEST(JpegPrivacy, NoPictureLeavesUnmasked) {
  const FfPtr<AVFrame> rgb = SolidRgb(64, 64, 255, 255, 255);
  const FfPtr<AVFrame> rgba(av_frame_alloc());
  rgba->format = AV_PIX_FMT_RGBA;
  rgba->width = rgba->height = 64;
  ASSERT_GE(av_frame_get_buffer(rgba.get(), 1), 0);
  for (const char* text : {"abcd0000", "00000000x00000005000", ";;0000    "}) {
    LogCapture log;
    EXPECT_EQ(Snapshot(rgb.get(), text).ret, -1) << text;
    EXPECT_EQ(log.Messages(), Messages{"1|DoFFMpegGetJpeg, fail to get privacy region frame.\n"});
  }
  LogCapture log;
  EXPECT_EQ(Snapshot(rgba.get(), kQuarter).ret, -1);
  EXPECT_EQ(log.Messages(), (Messages{"1|DoFFmpegConvertFrameFormat, TargetFormat 26 is same as pInputFrame->format\n",
                                      "1|DoFFMpegGetJpeg, fail to convert frame format.\n"}));
}

// --- duration --------------------------------------------------------------------------------------------------------

TEST(Duration, WholeSecondsOrNothing) {
  const TempDir dir;
  const Clip clip = EncodeClip({"libx264", 64, 48, 60, 0, true});
  WriteFile(clip, dir.Path("clip.mp4"));
  EXPECT_EQ(DoFFMpegGetDuration(dir.Path("clip.mp4")), 2U);  // 2.4 s

  SaveBytes(dir.Path("live.h264"), EncodeClip({"libx264", 64, 48, 3}).frames[0].data.data(), 600);
  EXPECT_EQ(DoFFMpegGetDuration(dir.Path("live.h264")), 0U);

  LogCapture log;
  SaveBytes(dir.Path("empty"), "", 0);
  EXPECT_EQ(DoFFMpegGetDuration(dir.Path("empty")), 0U);
  EXPECT_EQ(DoFFMpegGetDuration(dir.Path("absent")), 0U);
  EXPECT_EQ(DoFFMpegGetDuration(dir.Path()), 0U);
  EXPECT_EQ(DoFFMpegGetDuration("/dev/zero"), 0U);
  const std::string prefix = "1|Failed to open input file[";
  EXPECT_EQ(log.Messages(), (Messages{prefix + dir.Path("empty") + "].\n", prefix + dir.Path("absent") + "].\n",
                                      prefix + dir.Path() + "].\n", prefix + "/dev/zero].\n"}));
}
