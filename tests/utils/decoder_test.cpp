#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/readback.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace {

// A session that ends with the test.
struct Session {
  FFmpegAttr attr = {};
  unsigned char* buffer = nullptr;
  int bufferSize = 0;

  Session() = default;
  // Opened, and given a frame when there is one.
  explicit Session(int vdoType, const Clip& clip = {}) {
    EXPECT_EQ(Init(vdoType, clip.extradata), 0);
    EXPECT_TRUE(clip.frames.empty() || Decode(clip.frames[0].data) == 0);
  }
  ~Session() { DoFFMpegFree(attr, buffer); }
  int Init(int vdoType, const Bytes& extradata = {}) {
    return DoFFMpegInitVideo(attr, vdoType, extradata.data(), static_cast<int>(extradata.size()));
  }
  int Decode(const Bytes& data) { return DoFFMpegDecode(attr, data.data(), static_cast<int>(data.size())); }
  // The size that came out.
  std::pair<int, int> Scale(int width, int height, AVPixelFormat format = AV_PIX_FMT_RGB24) {
    EXPECT_EQ(DoFFMpegScale(attr, buffer, bufferSize, width, height, format), 0);
    return {width, height};
  }
  void UseBuffer(int size, int slack, int value) {
    av_free(buffer);
    buffer = static_cast<unsigned char*>(av_malloc(static_cast<std::size_t>(size + slack)));
    std::memset(buffer, value, static_cast<std::size_t>(size + slack));
    bufferSize = size;
  }
};

int ScaledFrame(int vdoType, const Clip& clip, const Bytes& data, AVFrame** frame, int maxSide) {
  return DoFFMpegGetScaledFrame(vdoType, clip.extradata.data(), static_cast<int>(clip.extradata.size()), data.data(),
                                static_cast<int>(data.size()), frame, maxSide);
}

}  // namespace

TEST(DecoderInit, TypesAndConfigurationData) {
  const Clip clip = EncodeClip({"libx264", 64, 48, 1, 0, true});
  Session session(3, clip);
  const AVCodecContext& ctx = *session.attr.pCodecCtx;
  EXPECT_EQ(ctx.thread_count, 1);
  EXPECT_NE(ctx.extradata, clip.extradata.data());
  EXPECT_EQ(Bytes(ctx.extradata, ctx.extradata + ctx.extradata_size), clip.extradata);
  const unsigned char byte = 0;
  const std::pair<const unsigned char*, int> none[] = {{&byte, 0}, {&byte, INT_MIN}, {nullptr, 10}};
  for (const auto& [data, size] : none) {
    ASSERT_EQ(DoFFMpegInitVideo(session.attr, 3, data, size), 0);  // replaces the one before
    EXPECT_TRUE(session.attr.pCodecCtx->extradata == nullptr && session.attr.pCodecCtx->extradata_size == 0);
  }
  LogCapture log;
  for (const int vdoType : {INT_MIN, 0, 4, 9}) {
    EXPECT_EQ(session.Init(vdoType), -1);
    EXPECT_EQ(log.Messages().back(), "1|Wrong video type. [" + std::to_string(vdoType) + "]\n");
  }
  Bytes hvcc(27, 1);
  hvcc[22] = 1;                   // one array,
  hvcc.insert(hvcc.end(), 1, 1);  // of one parameter set of 257 bytes that are not there
  EXPECT_EQ(session.Init(6, hvcc), -1);
  EXPECT_EQ(log.Messages().back(), "1|Failed to open codec[173], VdoType[6], Ret[-1094995529].\n");
}

// Which streams give a picture in the call that feeds their first key frame; the others hold it back for reordering.
TEST(Decoder, FirstPictureOfAFreshSession) {
  const struct {
    int vdoType;
    ClipWish wish;
    bool atOnce;  // the first call gives the picture
  } cases[] = {
      {3, {"libx264", 320, 240, 1}, true},    {7, {"libx264", 320, 240, 1, 0, true}, true},
      {3, {"libx264", 320, 240, 8, 1}, true}, {3, {"libx264", 320, 240, 8, 3, false, 250, "b-pyramid=normal"}, false},
      {6, {"libx265", 320, 240, 8, 3}, true}, {8, {"libx265", 320, 240, 8, 3, true}, false},
      {2, {"mpeg4", 320, 240, 8, 2}, true},   {2, {"mpeg4", 320, 240, 1, 0, true}, true},
      {5, {"mjpeg", 320, 240, 1}, true},      {3, {"libx264", 16, 16, 1}, true},
      {6, {"libx265", 322, 182, 1}, true},    {1, {"mjpeg", 99, 53, 1}, true},
      {3, {"libx264", 3840, 2160, 1}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.wish.encoder) + " " + std::to_string(&c - cases));
    const Clip clip = EncodeClip(c.wish);
    const Bytes& data = clip.frames[0].data;
    Session session;
    ASSERT_EQ(session.Init(c.vdoType, clip.extradata), 0);
    EXPECT_EQ(session.Decode(data) == 0, c.atOnce);
    AVFrame* frame = nullptr;
    ASSERT_EQ(ScaledFrame(c.vdoType, clip, data, &frame, 0), 0);
    EXPECT_LT(MeanDifference(frame, DecodeFrames(clip)[0].get()), 0.01);
    DoFFmpegFrameFree(&frame);
  }
}

// In band, and length-prefixed as in an MP4.
TEST(Decoder, SuccessiveFramesGiveSuccessivePictures) {
  const Clip hevc = AsInMp4(EncodeClip({"libx265", 320, 240, 3, 0, true}));
  const Clip avc = AsInMp4(EncodeClip({"libx264", 320, 240, 3, 0, true}));
  for (const Clip& clip : {EncodeClip({"libx264", 320, 240, 5}), avc, hevc}) {
    Session session;
    ASSERT_EQ(session.Init(clip.codecId == AV_CODEC_ID_H264 ? 3 : 6, clip.extradata), 0);
    for (std::size_t n = 0; n < clip.frames.size(); ++n) {
      ASSERT_EQ(session.Decode(clip.frames[n].data), 0);
      const auto expected = TestPicture(AV_PIX_FMT_RGB24, 320, 240, static_cast<int>(n));
      EXPECT_LT(MeanDifference(session.attr.pRawFrame, expected.get()), 6) << n;
    }
  }
}

TEST(Decoder, BadInputLeavesTheSessionUsable) {
  const Clip clip = EncodeClip({"libx264", 320, 240, 1});
  const Bytes& key = clip.frames[0].data;
  Session session;
  EXPECT_EQ(session.Decode(key), -1);  // nothing opened yet
  ASSERT_EQ(session.Init(3), 0);
  EXPECT_EQ(DoFFMpegDecode(session.attr, nullptr, 10), -1);
  for (const int size : {0, -1}) EXPECT_EQ(DoFFMpegDecode(session.attr, key.data(), size), -1);
  EXPECT_EQ(session.Decode(Bytes(1000, 0xA5)), -1);
  EXPECT_EQ(session.Decode(Bytes(key.begin(), key.begin() + 40)), -1);  // parameter sets at most
  ASSERT_EQ(session.Decode(key), 0);
  EXPECT_LT(MeanDifference(session.attr.pRawFrame, DecodeFrames(clip)[0].get()), 0.01);
}

// Any bytes in place of a frame end in a result, not in a crash; damaged frames may still give a picture.
TEST(Decoder, DamagedFrames) {
  std::mt19937 random(7);
  for (const auto& [vdoType, encoder] : {std::pair(1, "mjpeg"), {2, "mpeg4"}, {3, "libx264"}, {6, "libx265"}}) {
    Clip clip = EncodeClip({encoder, 64, 48, 1});
    for (int round = 0; round < 60; ++round) {
      Bytes data = clip.frames[0].data;
      for (int flips = 0; flips < 1 + round / 10; ++flips) {
        data[random() % data.size()] ^= static_cast<std::uint8_t>(1U << random() % 8);
      }
      if (round % 3 == 0) data.resize(random() % data.size());
      clip.extradata.assign(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(data.size() / 2));
      AVFrame* frame = nullptr;
      const int ret = ScaledFrame(round % 2 == 0 ? vdoType : 5, clip, data, &frame, 40);
      EXPECT_EQ(ret == 0, frame != nullptr);
      DoFFmpegFrameFree(&frame);
    }
  }
}

TEST(Decoder, MissingReferenceFlagIsExact) {
  const mediautil::FfPtr<AVFrame> frame(av_frame_alloc());
  for (const int flag : {0, 1, 2, 3, 6}) {
    frame->decode_error_flags = flag;
    EXPECT_EQ(IsDecodeFrameMissRef(frame.get()), flag == 2) << flag;
  }
  EXPECT_FALSE(IsDecodeFrameMissRef(nullptr));
}

TEST(Scale, OutputSizes) {
  Session session(3, EncodeClip({"libx264", 1280, 720, 1}));
  const std::pair<std::pair<int, int>, std::pair<int, int>> cases[] = {
      {{0, 0}, {1280, 720}},  {{-1, -5}, {1280, 720}},  {{0, 240}, {426, 240}},   {{-3, 240}, {426, 240}},
      {{320, 0}, {320, 180}}, {{100, 100}, {100, 100}}, {{2000, 0}, {2000, 1125}}};
  for (const auto& [wanted, out] : cases) {
    EXPECT_EQ(session.Scale(wanted.first, wanted.second), out);
    const AVFrame& frame = *session.attr.pOutFrame;
    EXPECT_EQ(std::tuple(frame.width, frame.height, frame.format), std::tuple(out.first, out.second, AV_PIX_FMT_RGB24));
  }
}

// Packed rows of every width hold the pixels that libswscale gives where it has room, and nothing behind them is
// touched.
TEST(Scale, SamePixelsAsLibswscaleWithRoom) {
  for (const auto& [vdoType, wish] : {std::pair(3, ClipWish{"libx264", 322, 182, 1}),
                                      {1, ClipWish{"mjpeg", 99, 54, 1}},
                                      {2, ClipWish{"mpeg4", 640, 360, 1}}}) {
    Session session(vdoType, EncodeClip(wish));
    const AVFrame* raw = session.attr.pRawFrame;
    for (const int width : {wish.width, 120, 67, 16}) {
      for (const AVPixelFormat format : {AV_PIX_FMT_RGB24, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV444P}) {
        const int height = width == wish.width ? wish.height : 41;
        const int needed = av_image_get_buffer_size(format, width, height, 1);
        session.UseBuffer(needed, 64, 0x5A);
        session.Scale(width, height, format);

        const mediautil::FfPtr<AVFrame> roomy = TestPicture(format, width, height);
        const mediautil::FfPtr<SwsContext> sws(sws_getContext(raw->width, raw->height,
                                                              static_cast<AVPixelFormat>(raw->format), width, height,
                                                              format, SWS_BICUBIC, nullptr, nullptr, nullptr));
        sws_scale(sws.get(), raw->data, raw->linesize, 0, raw->height, roomy->data, roomy->linesize);
        Bytes expected(static_cast<std::size_t>(needed) + 64, 0x5A);
        av_image_copy_to_buffer(expected.data(), needed, roomy->data, roomy->linesize, format, width, height, 1);
        EXPECT_EQ(Bytes(session.buffer, session.buffer + needed + 64), expected) << width << " " << format;
      }
    }
  }
}

TEST(Scale, BufferIsReusedGrownAndNeverOverrun) {
  Session session(3, EncodeClip({"libx264", 320, 240, 1}));
  session.Scale(160, 120);
  const unsigned char* first = session.buffer;
  // A smaller picture keeps the layout of the larger one, a longer row or another format gets its own.
  session.Scale(80, 60);
  EXPECT_EQ(session.buffer, first);
  EXPECT_EQ(session.attr.pOutFrame->linesize[0], 480);
  EXPECT_EQ(session.bufferSize, 160 * 120 * 3);
  session.Scale(1000, 16);
  EXPECT_EQ(session.attr.pOutFrame->linesize[0], 3000);
  session.Scale(160, 120, AV_PIX_FMT_YUV420P);
  EXPECT_EQ(session.attr.pOutFrame->data[2] - session.buffer, 160 * 120 * 5 / 4);
  session.Scale(320, 240);
  EXPECT_EQ(session.bufferSize, 320 * 240 * 3);
}

TEST(Scale, WithoutPictureOrPossibleFormatTheBufferStays) {
  Session session;
  session.UseBuffer(300, 0, 0x7E);
  session.Scale(10, 10);  // nothing opened
  ASSERT_EQ(session.Init(3), 0);
  session.Scale(10, 10);  // nothing decoded
  ASSERT_EQ(session.Decode(EncodeClip({"libx264", 64, 48, 1}).frames[0].data), 0);
  for (const auto format : {AV_PIX_FMT_NONE, AV_PIX_FMT_VAAPI, AV_PIX_FMT_PAL8}) session.Scale(10, 10, format);
  session.Scale(INT_MAX, INT_MAX);
  EXPECT_EQ(session.attr.pOutFrame->width, 0);
  EXPECT_GE(session.bufferSize, 300);
  EXPECT_EQ(Bytes(session.buffer, session.buffer + 300), Bytes(300, session.bufferSize == 300 ? 0x7E : 0));
}

// The size of a stream may change; with reordering the decoder then already speaks of pictures that are yet to come.
TEST(Scale, FollowsThePictureThroughSizeChanges) {
  const Clip large = EncodeClip({"libx264", 640, 480, 6, 2});
  const Clip small = EncodeClip({"libx264", 160, 120, 6, 2});
  Session session(3);
  int pictures = 0;
  for (const Clip* clip : {&small, &large, &small}) {
    for (const CodedFrame& frame : clip->frames) {
      if (session.Decode(frame.data) != 0) continue;
      ++pictures;
      const auto size = session.Scale(0, 0);
      EXPECT_EQ(size, std::pair(session.attr.pRawFrame->width, session.attr.pRawFrame->height));
      EXPECT_TRUE(size.first == 640 || size.first == 160);
    }
  }
  EXPECT_GT(pictures, 10);
}

TEST(Reset, ForgetsTheStreamAndKeepsTheConfigurationData) {
  const Clip inBand = EncodeClip({"libx264", 320, 240, 3});
  const Clip apart = EncodeClip({"libx264", 320, 240, 3, 0, true});
  Session empty;
  EXPECT_EQ(DoFFMpegResetContext(empty.attr), 0);  // nothing to reset
  Session session(3, inBand);
  ASSERT_EQ(DoFFMpegResetContext(session.attr), 0);
  EXPECT_EQ(session.Decode(apart.frames[0].data), -1);  // its parameter sets came in band and are gone
  EXPECT_EQ(session.Decode(inBand.frames[0].data), 0);

  Session configured(3, apart);
  ASSERT_EQ(DoFFMpegResetContext(configured.attr), 0);
  EXPECT_EQ(configured.Decode(apart.frames[1].data), -1);  // no key frame yet
  ASSERT_EQ(configured.Decode(apart.frames[0].data), 0);
  EXPECT_LT(MeanDifference(configured.attr.pRawFrame, DecodeFrames(apart)[0].get()), 0.01);
}

TEST(Free, EmptyAndTwice) {
  Session session(3);
  session.UseBuffer(10, 0, 0);
  for (int round = 0; round < 2; ++round) {
    DoFFMpegFree(session.attr, session.buffer);
    EXPECT_TRUE(session.attr.pCodecCtx == nullptr && session.attr.pCodec == nullptr && session.buffer == nullptr);
    EXPECT_TRUE(session.attr.pRawFrame == nullptr && session.attr.pOutFrame == nullptr);
  }
  DoFFmpegFrameFree(nullptr);
}
