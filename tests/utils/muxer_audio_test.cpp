#include <gtest/gtest.h>

#include <climits>

#include "tests/support/log_capture.h"
#include "tests/support/muxing.h"
#include "utils/esformat.h"
#include "utils/internal/audioinfo.h"
#include "utils/internal/ffcompat.h"
#include "utils/internal/streampriv.h"

using mediautil::FfPtr;

namespace {

using Messages = std::vector<std::string>;

constexpr FFMPEG_MUXER_FORMAT kMp4 = FFMPEG_MUXER_FORMAT_MP4;
constexpr FFMPEG_MUXER_FORMAT kFlv = FFMPEG_MUXER_FORMAT_FLV;
constexpr double kMp3Level = 0.475;  // the encoder plays 0.5 at 0.95 of it

struct Format : ESFormat {
  ~Format() { Reset(ES_UNKNOWN); }
  void SetExtra(const std::string& text) {
    p_extra = static_cast<unsigned char*>(std::malloc(text.size() + 1));
    std::copy(text.begin(), text.end(), p_extra);
    i_extra = static_cast<std::int32_t>(text.size());
  }
};

const SoundClip& Aac() {
  static const SoundClip clip = EncodeTone({"aac", 16000, 1, 1.2, 1000, 48000});
  return clip;
}

const SoundClip& Pcmu() {
  static const SoundClip clip = EncodeTone({"pcm_mulaw"});
  return clip;
}

// The only track of the output.
Track OneTrack(Muxing& out) {
  std::vector<Track> tracks = out.End();
  EXPECT_EQ(tracks.size(), 1U);
  return tracks.empty() ? Track() : std::move(tracks[0]);
}

void ExpectSteadyTimes(const Track& track, double step) {
  EXPECT_GT(track.times.size(), 10U);
  for (std::size_t i = 0; i < track.times.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(track.times[i]), static_cast<double>(i) * step, 1000);
  }
}

}  // namespace

// --- names -----------------------------------------------------------------------------------------------------------

TEST(AudioNames, Table) {
  const struct {
    const char* name;
    const char (&code)[5];
    int id;  // of the little-endian variant
    unsigned int rate = 16000;
    int channels = 2;
  } cases[] = {{"MPA", "mpga", -1, 0},
               {"MPA-ROBUST", "mpga", -1, 0},
               {"X-MP3-DRAFT-00", "mpga", -1, 0},
               {"AC3", "a52 ", -1, 0},
               {"L16", "twos", AV_CODEC_ID_PCM_S16BE},
               {"L8", "araw", -1},
               {"PCM", "s16b", AV_CODEC_ID_PCM_S16BE},
               {"PCMU", "ulaw", AV_CODEC_ID_PCM_MULAW},
               {"PCMA", "alaw", AV_CODEC_ID_PCM_ALAW},
               {"G726", "g726", AV_CODEC_ID_ADPCM_G726LE, 8000, 1},
               {"G726-24", "g726", AV_CODEC_ID_ADPCM_G726LE, 8000, 1},
               {"AMR", "samr", AV_CODEC_ID_AMR_NB},
               {"AMR-WB", "sawb", AV_CODEC_ID_AMR_WB},
               {"MP4A-LATM", "mp4a", AV_CODEC_ID_AAC},
               {"MPEG4-GENERIC", "mp4a", AV_CODEC_ID_AAC},
               {"SPEEX", "spxr", -1}};
  for (const auto& c : cases) {
    for (const bool isUpper : {true, false}) {
      std::string name = c.name;
      for (char& letter : name) {
        letter = static_cast<char>(isUpper ? std::toupper(letter) : std::tolower(letter));
      }
      Format fmt;
      fmt.audio.i_rate = 16000;
      fmt.audio.i_channels = 2;
      mediautil::FillAudioCodec(fmt, name);
      FillAdoFmtIDByCodec(fmt, true);
      EXPECT_EQ(fmt.i_codec, EsFourCC(c.code)) << name;
      EXPECT_EQ(fmt.i_codec_id, c.id) << name;
      EXPECT_EQ(fmt.audio.i_rate, c.rate) << name;
      EXPECT_EQ(fmt.audio.i_channels, c.channels) << name;
    }
  }
  for (const char* name : {"", "MP3", "G72", "PCMX", "AMR-", "L160"}) {
    Format fmt;
    mediautil::FillAudioCodec(fmt, name);
    EXPECT_EQ(fmt.i_codec, 0U) << name;
  }
}

TEST(AudioNames, BitRateOfG726) {
  const std::pair<const char*, int> cases[] = {{"40", 40000}, {"32", 32000}, {"24", 24000}, {"16", 16000},
                                               {"", 40000},   {"4", 40000},  {"3", 32000},  {"1", 16000},
                                               {"320", 0},    {"48", 0},     {"x", 0},      {"32 kbit", 0}};
  for (const auto& [extra, bitRate] : cases) {
    Format fmt;
    fmt.SetExtra(extra);
    mediautil::FillAudioCodec(fmt, "G726-32");
    EXPECT_EQ(fmt.i_bitrate, bitRate) << extra;
  }
}

TEST(AudioNames, InfoText) {
  const std::pair<const char*, const char*> cases[] = {{"1|8000", "1 8000"},
                                                       {"2|44100|1408", "2 44100 (1408)"},
                                                       {"1|8000|32|more", "1 8000 (32)"},
                                                       {"1|8000|", "1 8000"},
                                                       {"1|8000||x", "1 8000 ()"},
                                                       {"257|8000", "1 8000"},
                                                       {"x|-5", "0 0"},
                                                       {"1", "1"},
                                                       {"1|", "1"},
                                                       {"1||32", "1"},
                                                       {"|8000", ""},
                                                       {"", ""},
                                                       {"1|9999999999", "1 2147483647"}};
  for (const auto& [info, expected] : cases) {
    const mediautil::AudioInfo parsed = mediautil::ParseAudioInfo(info);
    const std::string text = (parsed.hasChannels ? std::to_string(parsed.channels) : "") +
                             (parsed.hasRate ? " " + std::to_string(parsed.rate) : "") +
                             (parsed.hasExtra ? " (" + parsed.extra + ")" : "");
    EXPECT_EQ(text, expected) << info;
  }
}

TEST(AudioNames, WhatContainersTake) {
  for (const char* codec : {"PCMU", "H264", "h264", "AVC1", "H265", "MP4V-ES", "JPEG", "nonsense"}) {
    EXPECT_TRUE(FFmpegMuxer::IsValidCodec(kMp4, codec) && FFmpegMuxer::IsValidCodec(FFMPEG_MUXER_FORMAT_MP3, codec));
  }
  for (const char* codec : {"MPEG4-GENERIC", "mpeg4-generic", "Mp4a-Latm"}) {
    EXPECT_TRUE(FFmpegMuxer::IsValidCodec(kMp4, codec) && FFmpegMuxer::IsValidCodec(kFlv, codec));
    EXPECT_FALSE(FFmpegMuxer::IsValidCodec(FFMPEG_MUXER_FORMAT_MP3, codec));
  }
  EXPECT_FALSE(FFmpegMuxer::IsValidCodec(kMp4, ""));
}

// --- adding a stream -------------------------------------------------------------------------------------------------

TEST(AudioStream, RefusalsLeaveTheOtherStreamAlone) {
  const std::string noDecoder =
      "1|Failed to find decoder. CodecId: [-1]\n1|Failed to init FFmpeg audio dec, codec[-1].\n";
  const std::string notOpened = "] with Ret [-22] and err [Invalid argument].\n1|Failed to init FFmpeg audio dec, ";
  const auto number = [](int id) { return "codec[" + std::to_string(id) + "].\n"; };
  const struct {
    const char* info;
    const char* codec;
    int policy;
    std::string messages;  // without the closing one
    bool isClosed = true;
  } cases[] = {
      {"", "PCMU", -1, "1|Error params, strInfo[], strCodec[PCMU], Format[0].\n", false},
      {"1|8000", "", -1, "1|Error params, strInfo[1|8000], strCodec[], Format[0].\n", false},
      {"|8000", "PCMU", -1, "1|Failed to get audio channels from info[|8000].\n", false},
      {"1", "PCMU", -1, "6|Get audio channels[1].\n1|Failed to get audio rate from info[1].\n", false},
      {"1|8000", "PCMU", AV_CODEC_ID_AMR_NB, "1|Failed to found " + number(AV_CODEC_ID_AMR_NB)},
      {"1|8000", "PCMU", AV_CODEC_ID_H264, "1|Failed to found codec[27].\n"},
      {"1|8000", "PCMU", AV_CODEC_ID_OPUS, "1|Could not open " + number(AV_CODEC_ID_OPUS)},  // has no 32000 Hz
      {"1|8000", "MPA", -1, "3|UnSupport EsFmt.i_codec [1836083041]\n" + noDecoder},
      {"1|8000", "what", -1, noDecoder},
      {"0|8000", "PCMU", -1, "1|Failed to open codec [ulaw" + notOpened + number(AV_CODEC_ID_PCM_MULAW)},
      {"1|0", "PCMU", -1, "1|Failed to init SwrContext[(nil)].\n"},
      {"1|8000|x9", "G726", -1,
       "6|Get audio extra[x9].\n1|Failed to open codec [g726" + notOpened + number(AV_CODEC_ID_ADPCM_G726LE)},
      {"1|44000", "MPEG4-GENERIC", -1,
       "1|Unsupported sample rate 44000\n1|Failed to fill remux info, " + number(AV_CODEC_ID_AAC)},
  };
  const Clip video = EncodeClip({"libx264", 64, 48, 2, 0, true});
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.info) + " " + c.codec);
    std::string expected = c.messages;
    if (c.isClosed) {
      const mediautil::AudioInfo info = mediautil::ParseAudioInfo(c.info);
      expected = "6|Get audio channels[" + std::to_string(info.channels) + "].\n6|Get audio rate[" +
                 std::to_string(info.rate) + "].\n" + c.messages + "1|Failed to add audio stream, info[" + c.info +
                 "], codec[" + c.codec + "], G726LE[1], extra[" + std::to_string(info.extra.size()) + "].\n";
    }
    for (const bool afterVideo : {false, true}) {
      Muxing out;
      out.policy.soundCodec = c.policy;
      ASSERT_EQ(out.Init(), 0);
      ASSERT_EQ(afterVideo ? out.AddVideo(video) : 0, 0);
      LogCapture log;
      EXPECT_EQ(out.muxer.AddAdoStream(c.info, c.codec, true), -1);
      EXPECT_EQ(log.Text(), expected);
      EXPECT_EQ(out.muxer.GetAudioFmt(), "");
      if (!afterVideo) {
        out.policy.soundCodec = -1;
        EXPECT_EQ(out.AddSound("1|8000", "PCMU"), 0);
        EXPECT_EQ(out.muxer.GetAudioFmt(), "MP3");
        EXPECT_EQ(out.AddSound("1|8000", "PCMU"), -1);
        EXPECT_EQ(log.Messages().back(), "1|Already init audio.\n");
      }
      ASSERT_EQ(out.muxer.WriteHeader(), 0);
      EXPECT_EQ(afterVideo ? out.Video(video) : 2 + out.Audio(Bytes(8000, 0xFF)), 2);
      EXPECT_EQ(OneTrack(out).pictures.size(), afterVideo ? 2U : 0U);
    }
  }
}

TEST(AudioStream, OpensOfWhatTheTestsCannotMake) {
  for (const char* codec : {"AMR", "AMR-WB"}) {
    Muxing out;
    ASSERT_EQ(out.Start(codec[3] == 0 ? "1|8000" : "1|16000", codec), 0);
    EXPECT_EQ(out.Audio({0x3C, 0x55}), -1);  // less than a frame
  }
  LogCapture log;
  Muxing out;
  ASSERT_EQ(out.Start("2|16000", "G726"), 0);
  EXPECT_EQ(log.Messages(),
            (Messages{"6|Get audio channels[2].\n", "6|Get audio rate[16000].\n", "1|Size of p_extra is 0\n"}));
}

// --- copied sound ----------------------------------------------------------------------------------------------------

TEST(CopiedSound, KeepsPacketsAndTimes) {
  for (const bool hasAdts : {true, false}) {
    for (const FFMPEG_MUXER_FORMAT format : {kMp4, kFlv}) {
      for (const bool hasTimes : {true, false}) {
        Muxing out;
        ASSERT_EQ(out.Start("1|16000|1408", "mpeg4-generic", format), 0);
        EXPECT_EQ(out.muxer.GetAudioFmt(), "MPEG4-GENERIC");
        long long time = 70000000;
        for (const Bytes& packet : Aac().packets) {
          EXPECT_EQ(out.Audio(hasAdts ? WithAdts(packet, 16000, 1) : packet, hasTimes ? time : 70000000 - time), 0);
          time += 64000;
          EXPECT_EQ(out.policy.packets.back().pts == AV_NOPTS_VALUE, !hasTimes);
          EXPECT_EQ(out.policy.packets.back().dts, out.policy.packets.back().pts);
          EXPECT_TRUE(out.policy.packets.back().key);
        }
        const Track track = OneTrack(out);
        EXPECT_EQ(track.codecId, AV_CODEC_ID_AAC);
        EXPECT_EQ(track.rate, 16000);
        EXPECT_EQ(track.channels, 1);
        EXPECT_EQ(track.packets, Aac().packets);
        EXPECT_EQ(track.errors, 0);
        EXPECT_NEAR(LevelAt(track.sound, 16000, 1000), 0.5, 0.02);
        ExpectSteadyTimes(track, 64000);
      }
    }
  }
}

TEST(CopiedSound, BadFramesAreReportedAndSkipped) {
  const Bytes good = WithAdts(Aac().packets[3], 16000, 1);
  LogCapture log;
  Muxing out;
  ASSERT_EQ(out.Start("1|16000", "MPEG4-GENERIC"), 0);
  log.Clear();
  unsigned char byte = 0;
  EXPECT_EQ(out.muxer.WriteAdoFrame(nullptr, 10, 1), -1);
  EXPECT_EQ(out.muxer.WriteAdoFrame(&byte, 0, 1), -1);
  EXPECT_EQ(out.muxer.WriteAdoFrame(&byte, INT_MIN, 1), -1);
  EXPECT_EQ(out.Audio(Bytes(200, 0xFF), 1), -1);
  EXPECT_EQ(out.Audio(Bytes(good.begin(), good.begin() + 7), 1), -1);
  EXPECT_EQ(log.Messages(), Messages(5, "1|Failed to filter bitstream_filter.\n"));
  EXPECT_EQ(out.Audio(good, 1000000), 0);
  out.policy.answer = [] { return -1; };
  EXPECT_EQ(out.Audio(good, 2000000), -1);
  EXPECT_EQ(log.Messages().back(), "1|Error while writing audio frame.\n");
  out.policy.answer = nullptr;
  EXPECT_EQ(out.Audio(good, 3000000), 0);
  EXPECT_EQ(out.policy.afterAdoCalls, 2);
  EXPECT_EQ(OneTrack(out).packets.size(), 2U);
}

// --- encoded sound ---------------------------------------------------------------------------------------------------

namespace {

struct SoundCase {
  const char* name;
  const char* info;
  const char* codec;
  const char* encoder;
  int rate;
  int channels = 1;
  int bitRate = 0;
};

void PrintTo(const SoundCase& param, std::ostream* os) {
  *os << param.name;
}

class EncodedSound : public ::testing::TestWithParam<SoundCase> {};

}  // namespace

TEST_P(EncodedSound, KeepsToneLevelAndLength) {
  const SoundCase& param = GetParam();
  for (const double frequency : {730.0, 1000.0}) {
    const SoundClip clip = EncodeTone({param.encoder, param.rate, param.channels, 2, frequency, param.bitRate});
    LogCapture log;
    Muxing out;
    ASSERT_EQ(out.Start(param.info, param.codec, kMp4, param.encoder == std::string("g726le")), 0);
    EXPECT_EQ(out.muxer.GetAudioFmt(), "MP3");
    log.Clear();
    for (const Bytes& packet : clip.packets) {
      ASSERT_EQ(out.Audio(packet, 1), 0);
    }
    EXPECT_TRUE(log.Lines().empty());
    for (const SeenPacket& packet : out.policy.packets) {
      EXPECT_EQ(packet.pts, AV_NOPTS_VALUE);
    }
    const Track track = OneTrack(out);
    EXPECT_EQ(track.codecId, AV_CODEC_ID_MP3);
    EXPECT_EQ(track.rate, 32000);
    EXPECT_EQ(track.channels, 1);
    EXPECT_EQ(track.errors, 0);
    EXPECT_EQ(out.policy.afterAdoCalls, static_cast<int>(track.packets.size()));
    ExpectSteadyTimes(track, 36000);
    EXPECT_NEAR(LevelAt(track.sound, 32000, frequency), kMp3Level, 0.02);
    EXPECT_NEAR(static_cast<double>(track.sound.size()) / 32000, 2, 0.3);  // some frames stay in the encoder
  }
}

INSTANTIATE_TEST_SUITE_P(All, EncodedSound,
                         ::testing::Values(SoundCase{"Pcmu", "1|8000", "PCMU", "pcm_mulaw", 8000},
                                           SoundCase{"PcmuStereo", "2|16000", "pcmu", "pcm_mulaw", 16000, 2},
                                           SoundCase{"Pcma", "1|8000", "PCMA", "pcm_alaw", 8000},
                                           SoundCase{"L16", "2|44100", "L16", "pcm_s16be", 44100, 2},
                                           SoundCase{"Pcm", "1|48000", "PCM", "pcm_s16be", 48000},
                                           SoundCase{"G726At16", "1|8000|16", "G726-16", "g726", 8000, 1, 16000},
                                           SoundCase{"G726At24", "1|8000|24", "G726-24", "g726", 8000, 1, 24000},
                                           SoundCase{"G726At32", "1|8000|32", "G726-32", "g726", 8000, 1, 32000},
                                           SoundCase{"G726At40", "1|8000", "g726", "g726", 8000, 1, 40000},
                                           SoundCase{"G726At16Little", "1|8000|16", "G726", "g726le", 8000, 1, 16000},
                                           SoundCase{"G726At24Little", "1|8000|24", "G726", "g726le", 8000, 1, 24000},
                                           SoundCase{"G726At32Little", "1|8000|32", "G726", "g726le", 8000, 1, 32000},
                                           SoundCase{"G726At40Little", "1|8000|40", "G726", "g726le", 8000, 1, 40000}),
                         [](const auto& tested) { return std::string(tested.param.name); });

// The sound is the same in whatever pieces it comes.
TEST(EncodedSound, InPiecesOfAnySize) {
  const Bytes coded = Joined(Pcmu().packets);
  std::vector<Bytes> packets;
  for (const std::size_t size : {coded.size(), std::size_t{1}, std::size_t{160}, std::size_t{320}, std::size_t{999}}) {
    Muxing out;
    ASSERT_EQ(out.Start("1|8000", "PCMU"), 0);
    for (auto at = coded.begin(); at != coded.end();) {
      const auto end = at + std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(size), coded.end() - at);
      ASSERT_EQ(out.Audio(Bytes(at, end)), 0);
      at = end;
      // Less than an encoder frame waits.
      EXPECT_TRUE(at - coded.begin() > 280 || out.policy.packets.empty());
    }
    const Track track = OneTrack(out);
    EXPECT_NEAR(LevelAt(track.sound, 32000, 1000), kMp3Level, 0.01);
    packets = packets.empty() ? track.packets : packets;
    EXPECT_EQ(track.packets, packets) << size;
  }
  Muxing out;  // fifty seconds at once
  ASSERT_EQ(out.Start("1|8000", "PCMU"), 0);
  const Bytes large = Joined(EncodeTone({"pcm_mulaw", 8000, 1, 50}).packets);
  ASSERT_EQ(large.size(), 400000U);
  EXPECT_EQ(out.Audio(large), 0);
  EXPECT_NEAR(static_cast<double>(OneTrack(out).sound.size()) / 32000, 50, 0.3);
}

TEST(EncodedSound, FailuresAreReportedAndDoNotLast) {
  LogCapture log;
  Muxing out;
  ASSERT_EQ(out.Start("1|8000", "PCMU"), 0);
  log.Clear();
  EXPECT_EQ(out.muxer.WriteAdoFrame(nullptr, 10, 1), -1);
  EXPECT_EQ(log.Messages(), (Messages{"3|Error params.\n", "1|Failed to decode audio, pBuf[(nil)], Size[10].\n"}));
  unsigned char byte = 0;
  EXPECT_EQ(out.muxer.WriteAdoFrame(&byte, 0, 1), -1);
  EXPECT_EQ(out.muxer.WriteAdoFrame(&byte, INT_MIN, 1), -1);
  // A write that fails ends the call; what waits is written later, but does not pile up without bound.
  log.Clear();
  out.policy.answer = [] { return -1; };
  EXPECT_EQ(out.Audio(Bytes(80000, 0xFF)), -1);
  EXPECT_EQ(out.Audio(Bytes(80000, 0xFF)), -1);
  EXPECT_EQ(log.Messages(), Messages(2, "1|Error while writing audio frame.\n"));
  EXPECT_EQ(out.policy.packets.size(), 2U);
  EXPECT_EQ(out.policy.afterAdoCalls, 0);
  out.policy.answer = nullptr;
  for (const Bytes& packet : Pcmu().packets) {
    EXPECT_EQ(out.Audio(packet), 0);
  }
  const auto sound = OneTrack(out).sound;
  EXPECT_NEAR(static_cast<double>(sound.size()) / 32000, 18.4 + 2, 0.5);  // two merge buffers of the 20 s, and the tone
  EXPECT_NEAR(LevelAt({sound.end() - 32000, sound.end()}, 32000, 1000), kMp3Level, 0.02);
}

TEST(EncodedSound, InTheCodecOfThePolicy) {
  for (const FFMPEG_MUXER_FORMAT format : {kMp4, kFlv, FFMPEG_MUXER_FORMAT_MP3}) {
    const bool isMp3 = format == FFMPEG_MUXER_FORMAT_MP3;
    Muxing out;
    out.policy.soundCodec = isMp3 ? -1 : AV_CODEC_ID_AAC;
    ASSERT_EQ(out.Start("1|8000", "PCMU", format), 0);
    EXPECT_EQ(out.muxer.GetAudioFmt(), isMp3 ? "MP3" : "MPEG4-GENERIC");
    for (const Bytes& packet : Pcmu().packets) {
      EXPECT_EQ(out.Audio(packet), 0);
    }
    const Track track = OneTrack(out);
    EXPECT_EQ(track.codecId, isMp3 ? AV_CODEC_ID_MP3 : AV_CODEC_ID_AAC);
    EXPECT_EQ(track.rate, 32000);
    EXPECT_NEAR(LevelAt(track.sound, 32000, 1000), kMp3Level, 0.03);
    ExpectSteadyTimes(track, isMp3 ? 36000 : 32000);
    EXPECT_EQ(out.policy.packets.back().duration, format == kFlv ? 32 : isMp3 ? 1152 : 1024);
    EXPECT_TRUE(!isMp3 || *std::max_element(out.sink.sizes.begin(), out.sink.sizes.end()) <= 1023);
  }
  // The fixed sample format where the encoder has it, else the encoder's own.
  EXPECT_EQ(mediautil::ChooseSampleFormat(avcodec_find_encoder(AV_CODEC_ID_MP3), AV_SAMPLE_FMT_S16P),
            AV_SAMPLE_FMT_S16P);
  EXPECT_EQ(mediautil::ChooseSampleFormat(avcodec_find_encoder(AV_CODEC_ID_AAC), AV_SAMPLE_FMT_S16P),
            AV_SAMPLE_FMT_FLTP);
  // An encoder without frames of its own gets 1024 samples at a time.
  Muxing out;
  out.policy.soundCodec = AV_CODEC_ID_PCM_MULAW;
  out.policy.answer = [] { return 0; };
  ASSERT_EQ(out.Init(), 0);
  ASSERT_EQ(out.AddSound("1|8000", "PCMU"), 0);
  EXPECT_EQ(out.muxer.GetAudioFmt(), "");
  EXPECT_EQ(out.Audio(Bytes(2560, 0xFF)), 0);
  ASSERT_EQ(out.policy.packets.size(), 9U);
  EXPECT_EQ(out.policy.packets[0].size, 1024);
}

// Frames that are not what the record says: mono and stereo, of two rates, in turn.
TEST(EncodedSound, FollowsWhatTheFramesReallyAre) {
  Policy policy;
  policy.answer = [] { return 0; };
  AVFormatContext* oc = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&oc, nullptr, "mp4", nullptr), 0);
  long long base = 0;
  auto writer = std::make_unique<AdoStreamPriv>(policy, base);
  Format fmt;
  fmt.i_codec_id = AV_CODEC_ID_MP3;
  fmt.audio.i_channels = 2;
  fmt.audio.i_rate = 8000;
  ASSERT_EQ(writer->AddStream(oc, fmt), 0);
  for (const SoundWish& wish :
       {SoundWish{"libmp3lame", 32000, 1}, SoundWish{"libmp3lame", 44100, 2}, SoundWish{"libmp3lame", 16000, 1}}) {
    for (const Bytes& packet : EncodeTone(wish).packets) {
      writer->Write(oc, const_cast<unsigned char*>(packet.data()), static_cast<int>(packet.size()), 1, false);
    }
  }
  writer.reset();
  LockAVFormatFreeContext(oc);
  EXPECT_NEAR(static_cast<double>(policy.packets.size()) * 1152 / 32000, 6, 0.3);  // seconds
}
