#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "tests/support/format.h"
#include "tests/support/log_capture.h"
#include "tests/support/tempdir.h"
#include "utils/ffmpegadapter.h"
#include "utils/ffmpegdemuxer.h"
#include "utils/mpeg4util.h"

using mediautil::FfPtr;

namespace {

// Behind the data are the zeros that FFmpeg wants.
void ExpectPadded(const std::uint8_t* data, const Bytes& expected) {
  const Bytes padded = Joined({expected, Bytes(AV_INPUT_BUFFER_PADDING_SIZE)});
  EXPECT_EQ(Bytes(data, data + padded.size()), padded);
}

}  // namespace

TEST(Adapter, VideoParameters) {
  LogCapture log;
  Format fmt(ES_VIDEO, AV_CODEC_ID_H264, EsFourCC("h264"));
  fmt.video.i_width = 1280;
  fmt.video.i_height = 720;
  fmt.video.i_sar_num = 4;
  fmt.video.i_sar_den = 3;
  fmt.i_bitrate = -1;
  fmt.SetExtra({9, 8, 7});
  const FfPtr<AVCodecParameters> par(FFmpegAdapter::AllocCodecParameters(fmt, false));
  ASSERT_NE(par, nullptr);
  EXPECT_EQ(std::tuple(par->codec_type, par->codec_id, par->width, par->height),
            std::tuple(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_H264, 1280, 720));
  EXPECT_EQ(std::pair(par->sample_aspect_ratio.num, par->sample_aspect_ratio.den), std::pair(4, 3));
  EXPECT_EQ(par->bit_rate, 4294967295LL);  // widened without its sign
  EXPECT_EQ(par->extradata_size, 3);
  ExpectPadded(par->extradata, {9, 8, 7});
  EXPECT_EQ(log.Messages(), Messages{"3|UnSupport EsFmt.i_codec [1748121140]\n"});

  log.Clear();
  fmt.i_cat = ES_UNKNOWN;
  fmt.i_codec = 0;
  EXPECT_EQ(FFmpegAdapter::AllocCodecParameters(fmt, false), nullptr);
  EXPECT_EQ(log.Messages(), Messages{"1|Unknown codec type 0\n\n"});
  EXPECT_EQ(log.Lines()[0].path, "utils/ffmpegadapter");
}

TEST(Adapter, AudioParameters) {
  const std::tuple<std::uint32_t, int, int> cases[] = {
      {EsFourCC("g726"), 24000, 3}, {EsFourCC("g726"), 0, 8}, {EsFourCC("s16b"), 0, 16}, {EsFourCC("mp4a"), 64000, 0}};
  for (const auto& [code, bitRate, bits] : cases) {
    Format fmt(ES_AUDIO, -1, code);
    fmt.audio.i_rate = 8000;
    fmt.audio.i_channels = 2;
    fmt.i_bitrate = bitRate;
    fmt.p_extra = static_cast<unsigned char*>(std::malloc(4));  // with a length of 0: not used
    const FfPtr<AVCodecParameters> par(FFmpegAdapter::AllocCodecParameters(fmt, true));
    ASSERT_NE(par, nullptr);
    EXPECT_EQ(std::tuple(par->codec_type, par->codec_id, par->sample_rate, par->bit_rate),
              std::tuple(AVMEDIA_TYPE_AUDIO, fmt.i_codec_id, 8000, bitRate));
    EXPECT_EQ(par->bits_per_coded_sample, bits) << code << ' ' << bitRate;
    EXPECT_EQ(par->ch_layout.u.mask, static_cast<std::uint64_t>(AV_CH_LAYOUT_STEREO));
    EXPECT_TRUE(par->extradata == nullptr && par->extradata_size == 0);
  }
  const FfPtr<AVCodecParameters> out(FFmpegAdapter::AudioOutCodecParameters());
  EXPECT_EQ(std::tuple(out->codec_type, out->codec_id, out->format, out->sample_rate, out->ch_layout.nb_channels),
            std::tuple(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_PCM_MULAW, AV_SAMPLE_FMT_S16, 8000, 2));
  EXPECT_EQ(out->bits_per_coded_sample, 8);
}

TEST(Adapter, PacketsOwnAPaddedCopy) {
  const Bytes data = {1, 2, 3, 4, 5};
  const FfPtr<AVPacket> packet(FFmpegAdapter::AllocPktCpBuf(data.data(), 5));
  ASSERT_NE(packet, nullptr);
  EXPECT_EQ(packet->size, 5);
  EXPECT_NE(packet->buf, nullptr);
  ExpectPadded(packet->data, data);
  const FfPtr<AVPacket> empty(FFmpegAdapter::AllocPktCpBuf(nullptr, 0));
  ASSERT_NE(empty, nullptr);
  LogCapture log;
  EXPECT_EQ(FFmpegAdapter::AllocPktCpBuf(nullptr, 5), nullptr);
  EXPECT_EQ(FFmpegAdapter::AllocPktCpBuf(data.data(), UINT_MAX), nullptr);
  EXPECT_EQ(log.Messages(), (Messages(2, "1|Failed to alloc pkt & buffer\n\n")));
}

// --- demuxer ---------------------------------------------------------------------------------------------------------

namespace {

struct Seen {
  int video = 0;
  int audio = 0;
  int stopAfter = INT_MAX;
  std::int64_t firstVideoPts = -1;
};

FETCH_CONN Count(void* opaque, ESFormat& fmt, AVPacket& pkt, AVStream* st) {
  auto& seen = *static_cast<Seen*>(opaque);
  EXPECT_EQ(pkt.stream_index, st->index);
  if (fmt.i_cat == ES_VIDEO && seen.video++ == 0) {
    seen.firstVideoPts = AvPacketPtsToRealPts(pkt.pts, st->time_base);
  } else if (fmt.i_cat == ES_AUDIO) {
    ++seen.audio;
  }
  return seen.video + seen.audio >= seen.stopAfter ? FETCH_CONN_STOP : FETCH_CONN_NEXT;
}

class DemuxTest : public ::testing::Test {
 protected:
  int Run(Seen& seen) { return demux.Demux(video, audio, &seen, Count); }

  TempDir dir;
  FFmpegDemux demux;
  Format video;
  Format audio;
};

}  // namespace

TEST_F(DemuxTest, DescribesBothStreams) {
  WriteFile(EncodeClip({"libx264", 320, 240, 50, 0, true, 25}), dir.Path("clip.mov"), 8000);
  ASSERT_EQ(demux.Open(dir.Path("clip.mov"), video, audio), 0);
  EXPECT_EQ(std::tuple(video.i_cat, video.i_codec, video.i_codec_id, video.str_codec),
            std::tuple(ES_VIDEO, EsFourCC("h264"), AV_CODEC_ID_H264, "H264"));
  EXPECT_EQ(std::pair(video.video.i_width, video.video.i_height), std::pair(320U, 240U));
  EXPECT_GT(video.i_bitrate, 0);
  ASSERT_GT(video.i_extra, 8);
  EXPECT_EQ(video.p_extra[0], 1);  // avcC
  EXPECT_EQ(std::tuple(audio.i_cat, audio.i_codec, audio.i_codec_id, audio.i_bitrate, audio.i_extra),
            std::tuple(ES_AUDIO, 0U, AV_CODEC_ID_PCM_MULAW, 64000, 0));
  EXPECT_EQ(std::pair(audio.audio.i_rate, +audio.audio.i_channels), std::pair(8000U, 1));
  Seen all;
  EXPECT_EQ(Run(all), 0);
  EXPECT_EQ(all.video, 50);
  EXPECT_GT(all.audio, 0);
}

TEST_F(DemuxTest, SeeksToTheKeyFrameAtOrBefore) {
  WriteFile(EncodeClip({"libx264", 64, 48, 100, 0, true, 40}), dir.Path("clip.mp4"));
  ASSERT_EQ(demux.Open(dir.Path("clip.mp4"), video, audio), 0);
  EXPECT_EQ(audio.i_cat, ES_UNKNOWN);
  Seen one;
  one.stopAfter = 1;
  EXPECT_EQ(Run(one), 1);
  EXPECT_EQ(one.video, 1);
  demux.Seek(2, AVSEEK_FLAG_BACKWARD);
  Seen rest;
  EXPECT_EQ(Run(rest), 0);
  EXPECT_EQ(rest.firstVideoPts, 1600000);
  EXPECT_EQ(rest.video, 60);
  demux.Seek(LLONG_MAX, 0);
  demux.Seek(0, AVSEEK_FLAG_BACKWARD);
  Seen again;
  Run(again);
  EXPECT_EQ(again.video, 100);
}

TEST_F(DemuxTest, OpensOneFileAfterAnother) {
  Seen seen;
  EXPECT_EQ(Run(seen), 0);  // nothing opened yet
  EXPECT_EQ(demux.GetVdoStream(), nullptr);
  demux.Seek(1, 0);
  WriteFile(EncodeClip({"libx265", 64, 48, 2, 0, true}), dir.Path("a.mp4"), 0);
  WriteFile(EncodeClip({"mjpeg", 32, 24, 3}), dir.Path("b.avi"), 16000);
  ASSERT_EQ(demux.Open(dir.Path("a.mp4"), video, audio), 0);
  EXPECT_EQ(video.i_codec_id, AV_CODEC_ID_HEVC);
  EXPECT_TRUE(video.str_codec.empty() && video.i_codec == 0);
  ASSERT_EQ(demux.Open(dir.Path("b.avi"), video, audio), 0);
  EXPECT_EQ(std::tuple(video.i_codec_id, video.video.i_width, audio.audio.i_rate),
            std::tuple(AV_CODEC_ID_MJPEG, 32U, 16000U));
  EXPECT_EQ(demux.Demux(video, audio, nullptr, nullptr), 0);
}

TEST_F(DemuxTest, OpenFailures) {
  LogCapture log;
  const std::string absent = dir.Path("absent.mp4");
  const std::string empty = dir.Path("empty.mp4");
  SaveBytes(empty, "", 0);
  EXPECT_EQ(demux.Open(absent, video, audio), 2);
  EXPECT_EQ(demux.Open(empty, video, audio), 2);
  EXPECT_FALSE(demux.InitVideoFormat(video));
  const std::string hollow = dir.Path("hollow.ts");  // packets of no stream
  Bytes data(188 * 200);
  for (std::size_t i = 0; i < data.size(); i += 188) std::memcpy(&data[i], "\x47\x1F\xFF\x10", 4);
  SaveBytes(hollow, data.data(), data.size());
  EXPECT_EQ(demux.Open(hollow, video, audio), 3);
  const std::string unknown = dir.Path("unknown.avi");  // a codec that nobody has
  WriteFile(EncodeClip({"mpeg4", 64, 48, 2}), unknown);
  data = ReadBytes(unknown);
  for (std::size_t i = 0; i + 4 <= data.size(); ++i) {
    if (std::memcmp(&data[i], "FMP4", 4) == 0) std::memcpy(&data[i], "ZZZZ", 4);
  }
  SaveBytes(unknown, data.data(), data.size());
  EXPECT_EQ(demux.Open(unknown, video, audio), 3);
  EXPECT_EQ(log.Messages(),
            (Messages{"1|Could not open source file " + absent + ". Ret:-2\n",
                      "1|Could not open source file " + empty + ". Ret:-1094995529\n", "1|Failed to get codec.\n",
                      "1|Could not find stream information.\n", "1|Failed to find decoder with codec 0.\n",
                      "1|Could not init video stream in the file.\n"}));
  EXPECT_EQ(log.Lines()[0].path, "utils/ffmpegdemuxer");
}

TEST(PacketTime, Microseconds) {
  const std::tuple<long long, AVRational, long long> cases[] = {
      {90000, {1, 90000}, 1000000},  {-90000, {1, 90000}, -1000000}, {1, {1, 3}, 333333},
      {-1, {1, 3}, -333333},         {30, {1001, 30000}, 1001000},   {5, {1, 0}, 0},
      {AV_NOPTS_VALUE, {1, 1000}, 0}};
  for (auto [pts, timeBase, expected] : cases) EXPECT_EQ(AvPacketPtsToRealPts(pts, timeBase), expected);
}
