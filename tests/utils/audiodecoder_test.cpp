#include <gtest/gtest.h>

#include <climits>

#include "tests/support/format.h"
#include "tests/support/log_capture.h"
#include "tests/support/sound.h"
#include "utils/internal/aacconfig.h"
#include "utils/mpeg4util.h"

namespace {

struct SoundFormat : Format {
  SoundFormat(std::uint32_t code, AVCodecID id, unsigned int rate, int channels, int bitRate = 0)
      : Format(ES_AUDIO, id, code) {
    audio.i_rate = rate;
    audio.i_channels = static_cast<std::uint8_t>(channels);
    i_bitrate = bitRate;
  }
};

SoundFormat FormatOf(const SoundClip& clip) {
  return SoundFormat(EsFourCC("none"), clip.codecId, static_cast<unsigned int>(clip.rate), clip.channels);
}

struct Session {
  FFmpegAttr attr = {};

  ~Session() {
    unsigned char* noBuffer = nullptr;
    DoFFMpegFree(attr, noBuffer);
  }
  int Init(const ESFormat& fmt) { return DoFFMpegInitAudio(attr, fmt); }
  int Decode(const Bytes& data) {
    return DoFFMpegDecodeAudio(attr, const_cast<unsigned char*>(data.data()), static_cast<int>(data.size()));
  }
  Samples Sound(const Bytes& data) {
    Samples sound;
    if (Decode(data) == 0) AppendSamples(attr.pRawFrame, sound);
    return sound;
  }
};

}  // namespace

// --- opening ---------------------------------------------------------------------------------------------------------

TEST(AudioDecoder, Openings) {
  const struct {
    const char (&code)[5];
    AVCodecID id;
    int channels;
    int bitRate;
    int bits;  // -1: refused
  } cases[] = {{"g726", AV_CODEC_ID_ADPCM_G726, 1, 16000, 2},  {"g726", AV_CODEC_ID_ADPCM_G726LE, 1, 24000, 3},
               {"g726", AV_CODEC_ID_ADPCM_G726, 1, 32000, 4},  {"g726", AV_CODEC_ID_ADPCM_G726, 1, 40000, 5},
               {"g726", AV_CODEC_ID_ADPCM_G726, 1, 48000, -1}, {"alaw", AV_CODEC_ID_PCM_ALAW, 1, 64000, 8},
               {"ulaw", AV_CODEC_ID_PCM_MULAW, 2, 0, 8},       {"ulaw", AV_CODEC_ID_PCM_MULAW, 0, 0, -1},
               {"s16b", AV_CODEC_ID_PCM_S16BE, 1, 0, 16},      {"twos", AV_CODEC_ID_PCM_S16BE, 1, 0, 0},
               {"mp4a", AV_CODEC_ID_AAC, 1, 64000, 0},         {"samr", AV_CODEC_ID_AMR_NB, 1, 0, 0},
               {"sawb", AV_CODEC_ID_AMR_WB, 1, 0, 0}};
  for (const auto& c : cases) {
    LogCapture log;
    const SoundFormat fmt(EsFourCC(c.code), c.id, 8000, c.channels, c.bitRate);
    Session session;
    EXPECT_EQ(session.Init(fmt), c.bits < 0 ? -1 : 0) << c.code << c.bitRate;
    const std::string refusal =
        "1|Failed to open codec [" + std::string(c.code) + "] with Ret [-22] and err [Invalid argument].\n";
    EXPECT_EQ(log.Text(), c.bits < 0 ? refusal : "");
    if (c.bits < 0) continue;
    EXPECT_EQ(session.attr.pCodecCtx->bits_per_coded_sample, c.bits) << c.code << c.bitRate;
    EXPECT_TRUE(c.bitRate == 0 || session.attr.pCodecCtx->bit_rate == c.bitRate);
    EXPECT_TRUE(session.attr.pOutFrame == nullptr && session.attr.pRawFrame != nullptr);
  }
}

TEST(AudioDecoder, FailuresAreReported) {
  LogCapture log;
  Session session;
  for (const int id : {-1, 0, static_cast<int>(AV_CODEC_ID_SPEEX) + 5000}) {
    log.Clear();
    EXPECT_EQ(session.Init(SoundFormat(0, static_cast<AVCodecID>(id), 8000, 1)), -1);
    EXPECT_EQ(log.Messages(), Messages{"1|Failed to find decoder. CodecId: [" + std::to_string(id) + "]\n"});
  }
  log.Clear();
  Bytes data(160, 0xFF);
  EXPECT_EQ(session.Decode(data), -1);  // nothing opened
  ASSERT_EQ(session.Init(SoundFormat(EsFourCC("ulaw"), AV_CODEC_ID_PCM_MULAW, 8000, 1)), 0);
  EXPECT_EQ(DoFFMpegDecodeAudio(session.attr, nullptr, 10), -1);
  EXPECT_EQ(log.Messages(), Messages(2, "3|Error params.\n"));
  EXPECT_EQ(DoFFMpegDecodeAudio(session.attr, data.data(), 0), -1);
  EXPECT_EQ(DoFFMpegDecodeAudio(session.attr, data.data(), INT_MIN), -1);
  EXPECT_EQ(log.Lines().size(), 2U);
  EXPECT_EQ(session.Decode(data), 0);
  EXPECT_EQ(session.attr.pRawFrame->nb_samples, 160);

  // A codec whose text is no error of FFmpeg's, and no configuration data at all: text.
  SoundFormat aac(EsFourCC("mp4a"), AV_CODEC_ID_AAC, 16000, 1);
  aac.SetExtra({'1', '4', '0', '8'});
  EXPECT_EQ(session.Init(aac), -1);
  EXPECT_NE(log.Messages().back().find("1|Failed to open codec [mp4a] with Ret [-"), std::string::npos);
}

TEST(AudioDecoder, ConfigurationDataIsCopiedWithItsExactSize) {
  SoundFormat fmt(EsFourCC("mp4a"), AV_CODEC_ID_AAC, 16000, 1);
  fmt.SetExtra({0x14, 0x08});
  Session session;
  ASSERT_EQ(session.Init(fmt), 0);
  const AVCodecContext& ctx = *session.attr.pCodecCtx;
  EXPECT_NE(ctx.extradata, fmt.p_extra);
  EXPECT_EQ(Bytes(ctx.extradata, ctx.extradata + ctx.extradata_size), (Bytes{0x14, 0x08}));
  std::free(std::exchange(fmt.p_extra, nullptr));  // 2 bytes of nothing
  ASSERT_EQ(session.Init(fmt), 0);
  EXPECT_TRUE(session.attr.pCodecCtx->extradata_size == 0 && session.attr.pCodecCtx->extradata == nullptr);
}

// --- decoding --------------------------------------------------------------------------------------------------------

// Of each buffer the first frame comes out, the same as without the others; nothing of an earlier buffer follows later.
TEST(AudioDecoder, BuffersOfSeveralFrames) {
  for (const char* encoder : {"aac", "libmp3lame"}) {
    const SoundClip clip = EncodeTone({encoder, 32000, 1, 1.5, 730, 64000});
    const bool isAac = clip.codecId == AV_CODEC_ID_AAC;
    std::vector<Bytes> packets;
    for (const Bytes& packet : clip.packets) {
      packets.push_back(isAac ? WithAdts(packet, clip.rate, 1) : packet);
    }
    Samples sound;
    Session single;
    ASSERT_EQ(single.Init(FormatOf(clip)), 0);
    std::vector<Samples> expected;
    for (const Bytes& packet : packets) {
      expected.push_back(single.Sound(packet));
      sound.insert(sound.end(), expected.back().begin(), expected.back().end());
    }
    EXPECT_NEAR(LevelAt(sound, 32000, 730), isAac ? 0.5 : 0.475, 0.01);
    EXPECT_NEAR(static_cast<double>(sound.size()) / 32000, 1.5, 0.1);
    for (std::size_t count = 2; count <= 3; ++count) {
      Session session;
      ASSERT_EQ(session.Init(FormatOf(clip)), 0);
      for (std::size_t i = 0; i + count <= packets.size(); i += count) {
        const auto first = packets.begin() + static_cast<std::ptrdiff_t>(i);
        const Bytes buffer = Joined({first, first + static_cast<std::ptrdiff_t>(count)});
        // A leading packet without sound of its own makes way for the next one.
        EXPECT_EQ(session.Sound(buffer), i == 0 && expected[0].empty() ? expected[1] : expected[i]) << encoder << i;
      }
    }
  }
}

TEST(AudioDecoder, BadBuffersLeaveTheSessionUsable) {
  const SoundClip clip = EncodeTone({"aac", 16000});
  const Bytes good = WithAdts(clip.packets[3], 16000, 1);
  Session session;
  ASSERT_EQ(session.Init(FormatOf(clip)), 0);
  const Bytes header(good.begin(), good.begin() + 7);
  const Bytes half(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(good.size() / 2));
  for (const Bytes& data : {Bytes(300, 0), Bytes(300, 0xFF), Bytes(1, 0xFF), header, half}) {
    EXPECT_EQ(session.Decode(data), -1) << data.size();
    EXPECT_EQ(session.Decode(good), 0) << data.size();
    EXPECT_EQ(session.attr.pRawFrame->nb_samples, 1024);
  }
  EXPECT_EQ(session.Decode(Joined({good, Bytes(50, 0xFF)})), 0);
}

// --- AAC for containers ----------------------------------------------------------------------------------------------

TEST(AacRemux, ConfigurationDataIsTheEncodersOwn) {
  for (const int rate : {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350}) {
    for (const int channels : {1, 2, 4, 5, 6, 8}) {
      const mediautil::InputPtr oc(avformat_alloc_context());
      AVStream* st = avformat_new_stream(oc.get(), nullptr);
      SoundFormat fmt(EsFourCC("mp4a"), AV_CODEC_ID_AAC, static_cast<unsigned int>(rate), channels, 48000);
      fmt.SetExtra({'1', '4', '0', '8'});  // session-description text, no configuration data
      LogCapture log;
      ASSERT_EQ(FillAACRemuxInfo(st, fmt), 0);
      EXPECT_TRUE(log.Lines().empty());
      const AVCodecParameters& par = *st->codecpar;
      EXPECT_EQ(std::tuple(par.codec_type, par.codec_id, par.sample_rate, par.ch_layout.nb_channels),
                std::tuple(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_AAC, rate, channels));
      EXPECT_EQ(std::pair(par.frame_size, par.bit_rate), std::pair(1024, std::int64_t{48000}));
      ASSERT_EQ(par.extradata_size, 2);
      const Bytes own = EncodeTone({"aac", rate, channels, 0}).extradata;
      EXPECT_EQ(Bytes(par.extradata, par.extradata + 2), Bytes(own.begin(), own.begin() + 2))
          << rate << " " << channels;
    }
  }
}

TEST(AacRemux, Refusals) {
  const mediautil::InputPtr oc(avformat_alloc_context());
  AVStream* st = avformat_new_stream(oc.get(), nullptr);
  const struct {
    AVStream* st;
    AVCodecID id;
    unsigned int rate;
    int channels;
    int result;
    const char* messages;
  } cases[] = {
      {nullptr, AV_CODEC_ID_AAC, 16000, 1, -1, "1|Invalid params, codec[86018].\n"},
      {st, AV_CODEC_ID_MP3, 16000, 1, -1, "1|Invalid params, codec[86017].\n"},
      {st, AV_CODEC_ID_AAC, 0, 1, -1, "1|Unsupported sample rate 0\n"},
      {st, AV_CODEC_ID_AAC, 44101, 9, -1, "1|Unsupported sample rate 44101\n"},
      {st, AV_CODEC_ID_AAC, 16000, 0, 0, "1|Unsupported channels 0.\n1|Unsupported aac channels, patch to 1.\n"},
      {st, AV_CODEC_ID_AAC, 16000, 7, 0, "1|Unsupported channels 7.\n1|Unsupported aac channels, patch to 1.\n"}};
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(FillAACRemuxInfo(c.st, SoundFormat(EsFourCC("mp4a"), c.id, c.rate, c.channels)), c.result);
    EXPECT_EQ(log.Text(), c.messages);
    if (c.result == 0) {
      EXPECT_EQ(st->codecpar->ch_layout.nb_channels, 1);
      EXPECT_EQ(Bytes(st->codecpar->extradata, st->codecpar->extradata + 2), (Bytes{0x14, 0x08}));
    }
  }
}
