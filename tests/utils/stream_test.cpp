#include <gtest/gtest.h>

#include <climits>

#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/tempdir.h"
#include "utils/ffmpegadapter.h"
#include "utils/ffmpegdemuxer.h"
#include "utils/mpeg4util.h"

using mediautil::FfPtr;

namespace {

using Messages = std::vector<std::string>;

// A record that gives its data up at the end.
struct Format : ESFormat {
  explicit Format(std::int32_t cat = ES_UNKNOWN) { i_cat = cat; }
  ~Format() { Reset(ES_UNKNOWN); }
  void SetExtra(const Bytes& bytes) {
    p_extra = static_cast<unsigned char*>(std::malloc(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), p_extra);
    i_extra = static_cast<std::int32_t>(bytes.size());
  }
};

}  // namespace

TEST(EsFormat, ResetEmptiesEverything) {
  Format fmt;
  fmt.SetExtra({1, 2, 3});
  fmt.i_codec = EsFourCC("h264");
  fmt.audio.i_caller[3] = fmt.video.i_caller[0] = 9;
  fmt.str_codec = "H264";
  fmt.Reset(ES_AUDIO);
  EXPECT_EQ(fmt.i_cat, 2);
  EXPECT_EQ(fmt.i_codec, 0U);
  EXPECT_EQ(fmt.i_codec_id, -1);
  EXPECT_EQ(fmt.audio.i_caller[3] + fmt.video.i_caller[0], 0U);
  EXPECT_EQ(fmt.p_extra, nullptr);
  EXPECT_EQ(fmt.i_extra, 0);
  EXPECT_TRUE(fmt.str_codec.empty());
  EXPECT_EQ(EsFourCC("h264"), 0x68323634U);
}

TEST(AudioCodecId, Table) {
  const struct {
    const char (&code)[5];
    bool littleEndian;
    int id;
  } cases[] = {{"mp4a", false, AV_CODEC_ID_AAC},        {"alaw", false, AV_CODEC_ID_PCM_ALAW},
               {"ulaw", false, AV_CODEC_ID_PCM_MULAW},  {"g726", true, AV_CODEC_ID_ADPCM_G726LE},
               {"g726", false, AV_CODEC_ID_ADPCM_G726}, {"s16b", false, AV_CODEC_ID_PCM_S16BE},
               {"twos", true, AV_CODEC_ID_PCM_S16BE},   {"samr", false, AV_CODEC_ID_AMR_NB},
               {"sawb", false, AV_CODEC_ID_AMR_WB}};
  LogCapture log;
  for (const auto& c : cases) {
    Format fmt;
    fmt.i_codec = EsFourCC(c.code);
    FillAdoFmtIDByCodec(fmt, c.littleEndian);
    EXPECT_EQ(fmt.i_codec_id, c.id) << c.code;
  }
  Format none;
  FillAdoFmtIDByCodec(none, false);
  EXPECT_EQ(none.i_codec_id, -1);
  EXPECT_TRUE(log.Lines().empty());
  Format unknown;
  unknown.i_codec = 0xFFFFFFFE;
  unknown.i_codec_id = 5;
  FillAdoFmtIDByCodec(unknown, false);
  EXPECT_EQ(unknown.i_codec_id, 5);
  EXPECT_EQ(log.Messages(), Messages{"3|UnSupport EsFmt.i_codec [-2]\n"});
  EXPECT_EQ(log.Lines()[0].path, "utils/mpeg4util");
}

TEST(Adapter, VideoParameters) {
  LogCapture log;
  Format fmt(ES_VIDEO);
  fmt.i_codec = EsFourCC("h264");
  fmt.i_codec_id = AV_CODEC_ID_H264;
  fmt.video.i_width = 1280;
  fmt.video.i_height = 720;
  fmt.video.i_sar_num = 4;
  fmt.video.i_sar_den = 3;
  fmt.i_bitrate = -1;
  fmt.SetExtra({9, 8, 7});
  const FfPtr<AVCodecParameters> par(FFmpegAdapter::AllocCodecParameters(fmt, false));
  ASSERT_NE(par, nullptr);
  EXPECT_EQ(par->codec_type, AVMEDIA_TYPE_VIDEO);
  EXPECT_EQ(par->codec_id, AV_CODEC_ID_H264);
  EXPECT_EQ(par->width, 1280);
  EXPECT_EQ(par->height, 720);
  EXPECT_EQ(par->sample_aspect_ratio.num * 10 + par->sample_aspect_ratio.den, 43);
  EXPECT_EQ(par->bit_rate, 4294967295LL);  // widened without its sign
  ASSERT_EQ(par->extradata_size, 3);
  EXPECT_EQ(Bytes(par->extradata, par->extradata + 3), (Bytes{9, 8, 7}));
  EXPECT_EQ(Bytes(par->extradata + 3, par->extradata + 3 + AV_INPUT_BUFFER_PADDING_SIZE),
            Bytes(AV_INPUT_BUFFER_PADDING_SIZE, 0));
  EXPECT_EQ(log.Messages(), Messages{"3|UnSupport EsFmt.i_codec [1748121140]\n"});
}

TEST(Adapter, AudioParameters) {
  const struct {
    const char (&code)[5];
    int bitRate;
    int bits;
  } cases[] = {{"g726", 16000, 2}, {"g726", 24000, 3}, {"g726", 32000, 4}, {"g726", 40000, 5}, {"g726", 0, 8},
               {"alaw", 64000, 8}, {"ulaw", 64000, 8}, {"s16b", 0, 16},    {"twos", 0, 0},     {"mp4a", 64000, 0}};
  for (const auto& c : cases) {
    Format fmt(ES_AUDIO);
    fmt.i_codec = EsFourCC(c.code);
    fmt.audio.i_rate = 8000;
    fmt.audio.i_channels = 2;
    fmt.i_bitrate = c.bitRate;
    fmt.p_extra = static_cast<unsigned char*>(std::malloc(4));  // with a length of 0: not used
    const FfPtr<AVCodecParameters> par(FFmpegAdapter::AllocCodecParameters(fmt, true));
    ASSERT_NE(par, nullptr);
    EXPECT_EQ(par->codec_type, AVMEDIA_TYPE_AUDIO);
    EXPECT_EQ(par->codec_id, fmt.i_codec_id);
    EXPECT_EQ(par->bits_per_coded_sample, c.bits) << c.code << c.bitRate;
    EXPECT_EQ(par->sample_rate, 8000);
    EXPECT_EQ(par->bit_rate, c.bitRate);
    EXPECT_EQ(par->ch_layout.nb_channels, 2);
    EXPECT_EQ(par->ch_layout.u.mask, static_cast<std::uint64_t>(AV_CH_LAYOUT_STEREO));
    EXPECT_EQ(par->extradata, nullptr);
    EXPECT_EQ(par->extradata_size, 0);
  }
}

TEST(Adapter, UnknownCategory) {
  LogCapture log;
  Format fmt;
  EXPECT_EQ(FFmpegAdapter::AllocCodecParameters(fmt, false), nullptr);
  EXPECT_EQ(log.Messages(), Messages{"1|Unknown codec type 0\n\n"});
  EXPECT_EQ(log.Lines()[0].path, "utils/ffmpegadapter");
}

TEST(Adapter, AudioOutParameters) {
  const FfPtr<AVCodecParameters> par(FFmpegAdapter::AudioOutCodecParameters());
  EXPECT_EQ(par->codec_type, AVMEDIA_TYPE_AUDIO);
  EXPECT_EQ(par->codec_id, AV_CODEC_ID_PCM_MULAW);
  EXPECT_EQ(par->format, AV_SAMPLE_FMT_S16);
  EXPECT_EQ(par->sample_rate, 8000);
  EXPECT_EQ(par->ch_layout.nb_channels, 2);
  EXPECT_EQ(par->bits_per_coded_sample, 8);
}

TEST(Adapter, PacketsOwnAPaddedCopy) {
  const Bytes data = {1, 2, 3, 4, 5};
  const FfPtr<AVPacket> packet(FFmpegAdapter::AllocPktCpBuf(data.data(), 5));
  ASSERT_NE(packet, nullptr);
  EXPECT_EQ(packet->size, 5);
  EXPECT_NE(packet->buf, nullptr);
  EXPECT_EQ(Bytes(packet->data, packet->data + 5), data);
  EXPECT_EQ(Bytes(packet->data + 5, packet->data + 5 + AV_INPUT_BUFFER_PADDING_SIZE),
            Bytes(AV_INPUT_BUFFER_PADDING_SIZE, 0));
  const FfPtr<AVPacket> empty(FFmpegAdapter::AllocPktCpBuf(nullptr, 0));
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->size, 0);

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
  EXPECT_EQ(video.i_cat, ES_VIDEO);
  EXPECT_EQ(video.i_codec, EsFourCC("h264"));
  EXPECT_EQ(video.i_codec_id, AV_CODEC_ID_H264);
  EXPECT_EQ(video.str_codec, "H264");
  EXPECT_EQ(video.video.i_width, 320U);
  EXPECT_EQ(video.video.i_height, 240U);
  EXPECT_GT(video.i_bitrate, 0);
  ASSERT_GT(video.i_extra, 8);
  EXPECT_EQ(video.p_extra[0], 1);  // avcC
  EXPECT_EQ(audio.i_cat, ES_AUDIO);
  EXPECT_EQ(audio.i_codec, 0U);
  EXPECT_EQ(audio.i_codec_id, AV_CODEC_ID_PCM_MULAW);
  EXPECT_EQ(audio.audio.i_rate, 8000U);
  EXPECT_EQ(audio.audio.i_channels, 1);
  EXPECT_EQ(audio.i_bitrate, 64000);
  EXPECT_EQ(audio.i_extra, 0);
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
  WriteFile(EncodeClip({"libx265", 64, 48, 2, 0, true}), dir.Path("a.mp4"), 0);
  WriteFile(EncodeClip({"mjpeg", 32, 24, 3}), dir.Path("b.avi"), 16000);
  ASSERT_EQ(demux.Open(dir.Path("a.mp4"), video, audio), 0);
  EXPECT_EQ(video.i_codec_id, AV_CODEC_ID_HEVC);
  EXPECT_TRUE(video.str_codec.empty());
  EXPECT_EQ(video.i_codec, 0U);
  ASSERT_EQ(demux.Open(dir.Path("b.avi"), video, audio), 0);
  EXPECT_EQ(video.i_codec_id, AV_CODEC_ID_MJPEG);
  EXPECT_EQ(video.video.i_width, 32U);
  EXPECT_EQ(audio.audio.i_rate, 16000U);
  EXPECT_NE(demux.GetVdoStream(), nullptr);
}

TEST_F(DemuxTest, OpenFailures) {
  LogCapture log;
  SaveBytes(dir.Path("empty.mp4"), "", 0);
  EXPECT_EQ(demux.Open(dir.Path("absent.mp4"), video, audio), 2);
  EXPECT_EQ(demux.Open(dir.Path("empty.mp4"), video, audio), 2);
  EXPECT_EQ(log.Messages(),
            (Messages{"1|Could not open source file " + dir.Path("absent.mp4") + ". Ret:-2\n",
                      "1|Could not open source file " + dir.Path("empty.mp4") + ". Ret:-1094995529\n"}));
  EXPECT_EQ(log.Lines()[0].path, "utils/ffmpegdemuxer");

  // A stream whose decoder does not exist.
  Clip clip = EncodeClip({"mjpeg", 32, 24, 2});
  clip.codecId = AV_CODEC_ID_YUV4;
  WriteFile(clip, dir.Path("odd.mov"));
  log.Clear();
  const int ret = demux.Open(dir.Path("odd.mov"), video, audio);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(demux.InitVideoFormat(video), ret == 0);
  FFmpegDemux unopened;
  log.Clear();
  EXPECT_FALSE(unopened.InitVideoFormat(video));
  EXPECT_EQ(log.Messages(), Messages{"1|Failed to get codec.\n"});
}

TEST_F(DemuxTest, NothingOpened) {
  Seen seen;
  EXPECT_EQ(Run(seen), 0);
  EXPECT_EQ(demux.GetVdoStream(), nullptr);
  demux.Seek(1, 0);
  const FfPtr<AVPacket> packet(av_packet_alloc());
  AVStream* st = nullptr;
  EXPECT_LT(demux.ReadFrame(st, *packet), 0);
  EXPECT_EQ(demux.Demux(video, audio, nullptr, nullptr), 0);
}

TEST(PacketTime, Microseconds) {
  const struct {
    long long pts;
    AVRational timeBase;
    long long expected;
  } cases[] = {{90000, {1, 90000}, 1000000},
               {-90000, {1, 90000}, -1000000},
               {1, {1, 3}, 333333},
               {-1, {1, 3}, -333333},
               {30, {1001, 30000}, 1001000},
               {5, {1, 0}, 0},
               {0, {1, 1000}, 0}};
  for (const auto& c : cases) {
    AVRational timeBase = c.timeBase;
    EXPECT_EQ(AvPacketPtsToRealPts(c.pts, timeBase), c.expected);
  }
  AVRational timeBase = {1, 1000};
  EXPECT_NO_FATAL_FAILURE(AvPacketPtsToRealPts(AV_NOPTS_VALUE, timeBase));
}
