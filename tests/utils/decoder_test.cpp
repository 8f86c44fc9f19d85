#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/tempdir.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace {

using Messages = std::vector<std::string>;

// A session that ends with the test.
struct Session {
  FFmpegAttr attr = {};
  unsigned char* buffer = nullptr;
  int bufferSize = 0;

  ~Session() { DoFFMpegFree(attr, buffer); }
  int Init(int vdoType, const Bytes& extradata = {}) {
    return DoFFMpegInitVideo(attr, vdoType, extradata.empty() ? nullptr : extradata.data(),
                             static_cast<int>(extradata.size()));
  }
  int Decode(const Bytes& data) { return DoFFMpegDecode(attr, data.data(), static_cast<int>(data.size())); }
  int Scale(int& width, int& height, AVPixelFormat format = AV_PIX_FMT_RGB24) {
    return DoFFMpegScale(attr, buffer, bufferSize, width, height, format);
  }
};

struct TypeCase {
  int vdoType;
  AVCodecID codecId;  // NONE: refused
};

}  // namespace

TEST(DecoderInit, VideoTypes) {
  const TypeCase cases[] = {{1, AV_CODEC_ID_MJPEG}, {2, AV_CODEC_ID_MPEG4},      {3, AV_CODEC_ID_H264},
                            {4, AV_CODEC_ID_NONE},  {5, AV_CODEC_ID_MXPEG},      {6, AV_CODEC_ID_HEVC},
                            {7, AV_CODEC_ID_H264},  {8, AV_CODEC_ID_HEVC},       {0, AV_CODEC_ID_NONE},
                            {9, AV_CODEC_ID_NONE},  {INT_MIN, AV_CODEC_ID_NONE}, {INT_MAX, AV_CODEC_ID_NONE}};
  for (const TypeCase& c : cases) {
    LogCapture log;
    Session session;
    if (c.codecId == AV_CODEC_ID_NONE) {
      EXPECT_EQ(session.Init(c.vdoType), -1);
      EXPECT_EQ(log.Messages(), Messages{"1|Wrong video type. [" + std::to_string(c.vdoType) + "]\n"});
      EXPECT_EQ(session.attr.pCodec, nullptr);
    } else {
      ASSERT_EQ(session.Init(c.vdoType), 0) << c.vdoType;
      EXPECT_EQ(session.attr.pCodec->id, c.codecId);
      EXPECT_EQ(session.attr.pCodecCtx->thread_count, 1);
    }
  }
}

TEST(DecoderInit, ConfigurationDataIsCopiedWithItsExactSize) {
  const Clip clip = EncodeClip({"libx264", 64, 48, 1, 0, true});
  Session session;
  ASSERT_EQ(session.Init(3, clip.extradata), 0);
  ASSERT_EQ(session.attr.pCodecCtx->extradata_size, static_cast<int>(clip.extradata.size()));
  EXPECT_NE(session.attr.pCodecCtx->extradata, clip.extradata.data());
  EXPECT_EQ(Bytes(session.attr.pCodecCtx->extradata, session.attr.pCodecCtx->extradata + clip.extradata.size()),
            clip.extradata);

  const unsigned char byte = 0;
  for (const int size : {0, -1, INT_MIN}) {
    Session empty;
    ASSERT_EQ(DoFFMpegInitVideo(empty.attr, 3, &byte, size), 0);
    EXPECT_EQ(empty.attr.pCodecCtx->extradata, nullptr);
    EXPECT_EQ(empty.attr.pCodecCtx->extradata_size, 0);
  }
  Session null;
  ASSERT_EQ(DoFFMpegInitVideo(null.attr, 3, nullptr, 10), 0);
  EXPECT_EQ(null.attr.pCodecCtx->extradata_size, 0);
}

TEST(DecoderInit, RefusedConfigurationDataIsReported) {
  LogCapture log;
  Session session;
  Bytes hvcc(27, 1);
  hvcc[22] = 1;                   // one array,
  hvcc.insert(hvcc.end(), 1, 1);  // of one parameter set of 257 bytes that are not there
  EXPECT_EQ(session.Init(6, hvcc), -1);
  EXPECT_EQ(log.Messages(), Messages{"1|Failed to open codec[173], VdoType[6], Ret[-1094995529].\n"});
}

TEST(DecoderInit, SecondInitReplacesTheSession) {
  Session session;
  ASSERT_EQ(session.Init(3), 0);
  ASSERT_EQ(session.Init(1), 0);
  EXPECT_EQ(session.attr.pCodecCtx->codec_id, AV_CODEC_ID_MJPEG);
}

namespace {

struct StreamCase {
  const char* name;
  int vdoType;
  ClipWish wish;
  bool atOnce;  // the first call gives the picture
};

class FirstPicture : public ::testing::TestWithParam<StreamCase> {};

}  // namespace

// Which streams give a picture in the call that feeds their first key frame; the others hold it back for reordering.
TEST_P(FirstPicture, OfAFreshSession) {
  const Clip clip = EncodeClip(GetParam().wish);
  Session session;
  ASSERT_EQ(session.Init(GetParam().vdoType, clip.extradata), 0);
  EXPECT_EQ(session.Decode(clip.frames[0].data) == 0, GetParam().atOnce);
  AVFrame* frame = nullptr;
  const Bytes& data = clip.frames[0].data;
  ASSERT_EQ(DoFFMpegGetScaledFrame(GetParam().vdoType, clip.extradata.data(), static_cast<int>(clip.extradata.size()),
                                   data.data(), static_cast<int>(data.size()), &frame, 0),
            0);
  EXPECT_LT(MeanDifference(frame, ReferencePicture(clip).get()), 0.01);
  DoFFmpegFrameFree(&frame);
}

INSTANTIATE_TEST_SUITE_P(
    All, FirstPicture,
    ::testing::Values(StreamCase{"H264", 3, {"libx264", 320, 240, 1}, true},
                      StreamCase{"H264Type7", 7, {"libx264", 320, 240, 1}, true},
                      StreamCase{"H264SetsApart", 3, {"libx264", 320, 240, 1, 0, true}, true},
                      StreamCase{"H264OneReordered", 3, {"libx264", 320, 240, 8, 1}, true},
                      StreamCase{"H264Pyramid", 3, {"libx264", 320, 240, 8, 3, false, 250, "b-pyramid=normal"}, false},
                      StreamCase{"Hevc", 6, {"libx265", 320, 240, 1}, true},
                      StreamCase{"HevcReordered", 6, {"libx265", 320, 240, 8, 3}, true},
                      StreamCase{"HevcReorderedSetsApart", 8, {"libx265", 320, 240, 8, 3, true}, false},
                      StreamCase{"Mpeg4", 2, {"mpeg4", 320, 240, 1}, true},
                      StreamCase{"Mpeg4Reordered", 2, {"mpeg4", 320, 240, 8, 2}, true},
                      StreamCase{"Mpeg4SetsApart", 2, {"mpeg4", 320, 240, 1, 0, true}, true},
                      StreamCase{"Mjpeg", 1, {"mjpeg", 320, 240, 1}, true},
                      StreamCase{"MjpegAsMxpeg", 5, {"mjpeg", 320, 240, 1}, true},
                      StreamCase{"H264Smallest", 3, {"libx264", 16, 16, 1}, true},
                      StreamCase{"H264Portrait", 3, {"libx264", 270, 480, 1}, true},
                      StreamCase{"HevcOddSize", 6, {"libx265", 322, 182, 1}, true},
                      StreamCase{"MjpegOddSize", 1, {"mjpeg", 99, 53, 1}, true},
                      StreamCase{"H264UltraHd", 3, {"libx264", 3840, 2160, 1}, true}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(Decoder, MxpegKeyFrame) {
  const Bytes frame = MxpegKeyFrame(320, 240);
  Session session;
  ASSERT_EQ(session.Init(5), 0);
  ASSERT_EQ(session.Decode(frame), 0);
  EXPECT_LT(MeanDifference(session.attr.pRawFrame, TestPicture(AV_PIX_FMT_RGB24, 320, 240).get()), 4);
}

TEST(Decoder, LengthPrefixedFramesOfAnMp4) {
  const TempDir dir;
  for (const ClipWish& wish : {ClipWish{"libx264", 320, 240, 2, 0, true}, ClipWish{"libx265", 320, 240, 2, 0, true}}) {
    const Clip clip = AsInMp4(EncodeClip(wish), dir.Path("clip.mp4"));
    Session session;
    ASSERT_EQ(session.Init(clip.codecId == AV_CODEC_ID_H264 ? 3 : 6, clip.extradata), 0);
    EXPECT_EQ(session.Decode(clip.frames[0].data), 0);
    EXPECT_EQ(session.Decode(clip.frames[1].data), 0);
    EXPECT_LT(MeanDifference(session.attr.pRawFrame, TestPicture(AV_PIX_FMT_RGB24, 320, 240, 1).get()), 6);
  }
}

TEST(Decoder, SuccessiveFramesGiveSuccessivePictures) {
  const Clip clip = EncodeClip({"libx264", 320, 240, 5});
  Session session;
  ASSERT_EQ(session.Init(3), 0);
  for (int n = 0; n < 5; ++n) {
    ASSERT_EQ(session.Decode(clip.frames[static_cast<std::size_t>(n)].data), 0);
    EXPECT_LT(MeanDifference(session.attr.pRawFrame, TestPicture(AV_PIX_FMT_RGB24, 320, 240, n).get()), 6) << n;
  }
}

TEST(Decoder, BadInputLeavesTheSessionUsable) {
  const Clip clip = EncodeClip({"libx264", 320, 240, 1});
  const Bytes& key = clip.frames[0].data;
  Session session;
  EXPECT_EQ(session.Decode(key), -1);  // nothing opened yet
  ASSERT_EQ(session.Init(3), 0);
  EXPECT_EQ(DoFFMpegDecode(session.attr, nullptr, 10), -1);
  EXPECT_EQ(DoFFMpegDecode(session.attr, key.data(), 0), -1);
  EXPECT_EQ(DoFFMpegDecode(session.attr, key.data(), -1), -1);
  EXPECT_EQ(session.Decode({0x55}), -1);
  EXPECT_EQ(session.Decode(Bytes(1000, 0xA5)), -1);
  EXPECT_EQ(session.Decode(Bytes(key.begin(), key.begin() + 40)), -1);  // parameter sets at most
  ASSERT_EQ(session.Decode(key), 0);
  EXPECT_LT(MeanDifference(session.attr.pRawFrame, ReferencePicture(clip).get()), 0.01);
}

// Any bytes in place of a frame end in a result, not in a crash; damaged frames may still give a picture.
TEST(Decoder, DamagedFrames) {
  const ClipWish wishes[] = {
      {"mjpeg", 64, 48, 1}, {"mpeg4", 64, 48, 1}, {"libx264", 64, 48, 1}, {"libx265", 64, 48, 1}};
  const int types[] = {1, 2, 3, 6};
  std::mt19937 random(7);
  for (std::size_t i = 0; i < 4; ++i) {
    const Clip clip = EncodeClip(wishes[i]);
    for (int round = 0; round < 60; ++round) {
      Bytes data = clip.frames[0].data;
      for (int flips = 0; flips < 1 + round / 10; ++flips) {
        data[random() % data.size()] ^= static_cast<std::uint8_t>(1U << random() % 8);
      }
      if (round % 3 == 0) {
        data.resize(random() % data.size());
      }
      AVFrame* frame = nullptr;
      const int ret =
          DoFFMpegGetScaledFrame(round % 2 == 0 ? types[i] : 5, data.data(), static_cast<int>(data.size()) / 2,
                                 data.data(), static_cast<int>(data.size()), &frame, 40);
      EXPECT_EQ(ret == 0, frame != nullptr);
      DoFFmpegFrameFree(&frame);
    }
  }
}

TEST(Decoder, MissingReferenceFlagIsExact) {
  const mediautil::FfPtr<AVFrame> frame(av_frame_alloc());
  const int flags[] = {0, 1, 2, 3, 4, 6};
  for (const int flag : flags) {
    frame->decode_error_flags = flag;
    EXPECT_EQ(IsDecodeFrameMissRef(frame.get()), flag == 2) << flag;
  }
  EXPECT_FALSE(IsDecodeFrameMissRef(nullptr));
}

namespace {

struct SizeCase {
  int width, height, outWidth, outHeight;
};

}  // namespace

TEST(Scale, OutputSizes) {
  const Clip clip = EncodeClip({"libx264", 1280, 720, 1});
  Session session;
  ASSERT_EQ(session.Init(3), 0);
  ASSERT_EQ(session.Decode(clip.frames[0].data), 0);
  const SizeCase cases[] = {{0, 0, 1280, 720},  {-1, -5, 1280, 720},  {0, 240, 426, 240},   {-3, 240, 426, 240},
                            {320, 0, 320, 180}, {100, 100, 100, 100}, {2000, 0, 2000, 1125}};
  for (const SizeCase& c : cases) {
    int width = c.width;
    int height = c.height;
    EXPECT_EQ(session.Scale(width, height), 0);
    EXPECT_EQ(width, c.outWidth);
    EXPECT_EQ(height, c.outHeight);
    EXPECT_EQ(session.attr.pOutFrame->width, c.outWidth);
    EXPECT_EQ(session.attr.pOutFrame->height, c.outHeight);
    EXPECT_EQ(session.attr.pOutFrame->format, AV_PIX_FMT_RGB24);
    EXPECT_GE(session.bufferSize, c.outWidth * c.outHeight * 3);
    EXPECT_EQ(session.attr.pSwsCtx, nullptr);
  }
}

// Packed rows of every width hold the pixels that libswscale gives where it has room, and nothing behind them is
// touched.
TEST(Scale, SamePixelsAsLibswscaleWithRoom) {
  for (const ClipWish& wish : {ClipWish{"libx264", 322, 182, 1}, ClipWish{"mjpeg", 99, 54, 1},
                               ClipWish{"libx264", 854, 480, 1}, ClipWish{"mpeg4", 640, 360, 1}}) {
    const Clip clip = EncodeClip(wish);
    Session session;
    ASSERT_EQ(session.Init(wish.encoder[0] == 'l' ? 3 : wish.encoder[1] == 'j' ? 1 : 2), 0);
    ASSERT_EQ(session.Decode(clip.frames[0].data), 0);
    const AVFrame* raw = session.attr.pRawFrame;
    for (const int wanted : {wish.width, 120, 67, 16}) {
      for (const AVPixelFormat format : {AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV444P}) {
        int width = wanted;
        int height = wanted == wish.width ? wish.height : 41;
        const auto needed = static_cast<std::size_t>(av_image_get_buffer_size(format, width, height, 1));
        session.buffer = static_cast<unsigned char*>(av_malloc(needed + 64));
        std::memset(session.buffer, 0x5A, needed + 64);
        session.bufferSize = static_cast<int>(needed);
        session.Scale(width, height, format);

        const mediautil::FfPtr<AVFrame> roomy = TestPicture(format, width, height);
        const mediautil::FfPtr<SwsContext> sws(sws_getContext(raw->width, raw->height,
                                                              static_cast<AVPixelFormat>(raw->format), width, height,
                                                              format, SWS_BICUBIC, nullptr, nullptr, nullptr));
        sws_scale(sws.get(), raw->data, raw->linesize, 0, raw->height, roomy->data, roomy->linesize);
        Bytes expected(needed);
        av_image_copy_to_buffer(expected.data(), static_cast<int>(needed), roomy->data, roomy->linesize, format, width,
                                height, 1);
        EXPECT_EQ(Bytes(session.buffer, session.buffer + needed), expected)
            << wish.width << " " << width << " " << format;
        EXPECT_EQ(Bytes(session.buffer + needed, session.buffer + needed + 64), Bytes(64, 0x5A));
        av_freep(&session.buffer);
        session.bufferSize = 0;
      }
    }
  }
}

TEST(Scale, BufferIsReusedGrownAndNeverOverrun) {
  const Clip clip = EncodeClip({"libx264", 320, 240, 1});
  Session session;
  ASSERT_EQ(session.Init(3), 0);
  ASSERT_EQ(session.Decode(clip.frames[0].data), 0);
  int width = 160;
  int height = 120;
  session.Scale(width, height);
  const unsigned char* first = session.buffer;
  EXPECT_EQ(session.bufferSize, 160 * 120 * 3);
  session.Scale(width, height);
  EXPECT_EQ(session.buffer, first);

  // A smaller picture keeps the layout of the larger one, a longer row or another format gets its own.
  width = 80;
  height = 60;
  session.Scale(width, height);
  EXPECT_EQ(session.buffer, first);
  EXPECT_EQ(session.attr.pOutFrame->linesize[0], 480);
  EXPECT_EQ(session.bufferSize, 160 * 120 * 3);
  width = 1000;
  height = 16;
  session.Scale(width, height);
  EXPECT_EQ(session.attr.pOutFrame->linesize[0], 3000);
  width = 160;
  height = 120;
  session.Scale(width, height, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(session.attr.pOutFrame->data[2] - session.buffer, 160 * 120 * 5 / 4);

  width = 320;
  height = 240;
  session.Scale(width, height);
  EXPECT_EQ(session.bufferSize, 320 * 240 * 3);

  // A caller's own buffer of the right size is written to.
  auto* own = static_cast<unsigned char*>(av_mallocz(32 * 24 * 3));
  av_free(session.buffer);
  session.buffer = own;
  session.bufferSize = 32 * 24 * 3;
  width = 32;
  height = 24;
  session.Scale(width, height);
  EXPECT_EQ(session.buffer, own);
  EXPECT_NE(PixelAt(own, 96, 16, 12), 0U);
}

TEST(Scale, WithoutPictureOrPossibleFormatTheBufferStays) {
  Session session;
  int width = 10;
  int height = 10;
  Bytes before(300, 0x7E);
  session.buffer = static_cast<unsigned char*>(av_malloc(300));
  session.bufferSize = 300;
  std::copy(before.begin(), before.end(), session.buffer);
  EXPECT_EQ(session.Scale(width, height), 0);  // nothing opened
  ASSERT_EQ(session.Init(3), 0);
  EXPECT_EQ(session.Scale(width, height), 0);  // nothing decoded
  const Clip clip = EncodeClip({"libx264", 64, 48, 1});
  ASSERT_EQ(session.Decode(clip.frames[0].data), 0);
  EXPECT_EQ(session.Scale(width, height, AV_PIX_FMT_NONE), 0);
  EXPECT_EQ(session.Scale(width, height, AV_PIX_FMT_VAAPI), 0);
  EXPECT_EQ(session.Scale(width, height, AV_PIX_FMT_PAL8), 0);
  for (const int side : {40000, INT_MAX}) {
    int tall = side;
    int wide = side;
    EXPECT_EQ(session.Scale(wide, tall), 0);
  }
  EXPECT_EQ(session.attr.pOutFrame->width, 0);
  EXPECT_GE(session.bufferSize, 300);
  if (session.bufferSize == 300) {
    EXPECT_EQ(Bytes(session.buffer, session.buffer + 300), before);
  }
}

// The size of a stream may change; with reordering the decoder then already speaks of pictures that are yet to come.
TEST(Scale, FollowsThePictureThroughSizeChanges) {
  const Clip large = EncodeClip({"libx264", 640, 480, 6, 2});
  const Clip small = EncodeClip({"libx264", 160, 120, 6, 2});
  Session session;
  ASSERT_EQ(session.Init(3), 0);
  int pictures = 0;
  for (const Clip* clip : {&small, &large, &small}) {
    for (const CodedFrame& frame : clip->frames) {
      if (session.Decode(frame.data) != 0) {
        continue;
      }
      ++pictures;
      int width = 0;
      int height = 0;
      session.Scale(width, height);
      EXPECT_EQ(width, session.attr.pRawFrame->width);
      EXPECT_EQ(height, session.attr.pRawFrame->height);
      EXPECT_TRUE(width == 640 || width == 160);
    }
  }
  EXPECT_GT(pictures, 10);
}

TEST(Reset, ForgetsTheStreamAndKeepsTheConfigurationData) {
  const Clip inBand = EncodeClip({"libx264", 320, 240, 3});
  const Clip apart = EncodeClip({"libx264", 320, 240, 3, 0, true});
  Session session;
  EXPECT_EQ(DoFFMpegResetContext(session.attr), 0);  // nothing to reset
  ASSERT_EQ(session.Init(3), 0);
  ASSERT_EQ(session.Decode(inBand.frames[0].data), 0);
  ASSERT_EQ(DoFFMpegResetContext(session.attr), 0);
  EXPECT_EQ(session.Decode(apart.frames[0].data), -1);  // its parameter sets came in band and are gone
  EXPECT_EQ(session.Decode(inBand.frames[0].data), 0);

  Session configured;
  ASSERT_EQ(configured.Init(3, apart.extradata), 0);
  ASSERT_EQ(configured.Decode(apart.frames[0].data), 0);
  ASSERT_EQ(DoFFMpegResetContext(configured.attr), 0);
  EXPECT_EQ(configured.Decode(apart.frames[1].data), -1);  // no key frame yet
  ASSERT_EQ(configured.Decode(apart.frames[0].data), 0);
  EXPECT_LT(MeanDifference(configured.attr.pRawFrame, ReferencePicture(apart).get()), 0.01);
}

TEST(Free, EmptyAndTwice) {
  FFmpegAttr attr = {};
  unsigned char* buffer = nullptr;
  DoFFMpegFree(attr, buffer);
  ASSERT_EQ(DoFFMpegInitVideo(attr, 3, nullptr, 0), 0);
  buffer = static_cast<unsigned char*>(av_malloc(10));
  DoFFMpegFree(attr, buffer);
  DoFFMpegFree(attr, buffer);
  EXPECT_EQ(attr.pCodecCtx, nullptr);
  EXPECT_EQ(attr.pRawFrame, nullptr);
  EXPECT_EQ(attr.pOutFrame, nullptr);
  EXPECT_EQ(buffer, nullptr);
  DoFFmpegFrameFree(nullptr);
  AVFrame* frame = nullptr;
  DoFFmpegFrameFree(&frame);
}
