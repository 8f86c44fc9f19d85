#include <gtest/gtest.h>

#include <climits>

#include "tests/support/format.h"
#include "tests/support/log_capture.h"
#include "tests/support/muxing.h"
#include "utils/internal/audioinfo.h"

namespace {

const SoundClip& Pcmu() {
  static const SoundClip clip = EncodeTone({"pcm_mulaw"});
  return clip;
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
  } cases[] = {{"mpa", "mpga", -1, 0},
               {"MPA-ROBUST", "mpga", -1, 0},
               {"x-MP3-draft-00", "mpga", -1, 0},
               {"Ac3", "a52 ", -1, 0},
               {"l16", "twos", AV_CODEC_ID_PCM_S16BE},
               {"L8", "araw", -1},
               {"PCM", "s16b", AV_CODEC_ID_PCM_S16BE},
               {"PCMU", "ulaw", AV_CODEC_ID_PCM_MULAW},
               {"pcma", "alaw", AV_CODEC_ID_PCM_ALAW},
               {"G726", "g726", AV_CODEC_ID_ADPCM_G726LE, 8000, 1},
               {"g726-24", "g726", AV_CODEC_ID_ADPCM_G726LE, 8000, 1},
               {"AMR", "samr", AV_CODEC_ID_AMR_NB},
               {"amr-Wb", "sawb", AV_CODEC_ID_AMR_WB},
               {"mp4a-latm", "mp4a", AV_CODEC_ID_AAC},
               {"MPEG4-GENERIC", "mp4a", AV_CODEC_ID_AAC},
               {"speex", "spxr", -1}};
  for (const auto& c : cases) {
    Format fmt;
    fmt.audio.i_rate = 16000;
    fmt.audio.i_channels = 2;
    mediautil::FillAudioCodec(fmt, c.name);
    FillAdoFmtIDByCodec(fmt, true);
    EXPECT_EQ(std::tuple(fmt.i_codec, fmt.i_codec_id, fmt.audio.i_rate, +fmt.audio.i_channels),
              std::tuple(EsFourCC(c.code), c.id, c.rate, c.channels))
        << c.name;
  }
  for (const char* name : {"", "MP3", "G72", "PCMX", "AMR-", "L160"}) {
    Format fmt;
    mediautil::FillAudioCodec(fmt, name);
    EXPECT_EQ(fmt.i_codec, 0U) << name;
  }
  const std::pair<std::string, int> rates[] = {{"40", 40000}, {"32", 32000}, {"24", 24000}, {"16", 16000},
                                               {"", 40000},   {"4", 40000},  {"3", 32000},  {"1", 16000},
                                               {"320", 0},    {"48", 0},     {"x", 0},      {"32 kbit", 0}};
  for (const auto& [extra, bitRate] : rates) {
    Format fmt;
    fmt.SetExtra(Bytes(extra.begin(), extra.end()));
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
    EXPECT_TRUE(FFmpegMuxer::IsValidCodec(kMp4, codec) && FFmpegMuxer::IsValidCodec(kMp3, codec));
  }
  for (const char* codec : {"MPEG4-GENERIC", "mpeg4-generic", "Mp4a-Latm"}) {
    EXPECT_TRUE(FFmpegMuxer::IsValidCodec(kMp4, codec) && FFmpegMuxer::IsValidCodec(kFlv, codec));
    EXPECT_FALSE(FFmpegMuxer::IsValidCodec(kMp3, codec));
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
    std::string messages;  // among the others
  } cases[] = {
      {"", "PCMU", -1, "1|Error params, strInfo[], strCodec[PCMU], Format[0].\n"},
      {"1|8000", "", -1, "1|Error params, strInfo[1|8000], strCodec[], Format[0].\n"},
      {"|8000", "PCMU", -1, "1|Failed to get audio channels from info[|8000].\n"},
      {"1", "PCMU", -1, "6|Get audio channels[1].\n1|Failed to get audio rate from info[1].\n"},
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
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.info) + " " + c.codec);
    for (const bool afterVideo : {false, true}) {
      Muxing out;
      out.policy.soundCodec = c.policy;
      ASSERT_EQ(out.Init() + (afterVideo ? out.AddVideo() : 0), 0);
      LogCapture log;
      EXPECT_EQ(out.muxer.AddAdoStream(c.info, c.codec, true), -1);
      EXPECT_NE(log.Text().find(c.messages), std::string::npos) << log.Text();
      EXPECT_EQ(out.muxer.GetAudioFmt(), "");
      if (!afterVideo) {
        out.policy.soundCodec = -1;
        EXPECT_EQ(out.AddSound("1|8000", "PCMU"), 0);
        EXPECT_EQ(out.AddSound("1|8000", "PCMU"), -1);
        EXPECT_EQ(log.Messages().back(), "1|Already init audio.\n");
      }
      ASSERT_EQ(out.muxer.WriteHeader(), 0);
      EXPECT_EQ(afterVideo ? out.Video() : 30 + out.Audio(Bytes(8000, 0xFF)), 30);
      EXPECT_EQ(out.EndOne().pictures.size(), afterVideo ? 30U : 0U);
    }
  }
}

TEST(AudioStream, OpensOfWhatTheTestsCannotMake) {
  for (const auto& [info, codec] : {std::pair("1|8000", "AMR"), {"1|16000", "AMR-WB"}}) {
    Muxing out;
    ASSERT_EQ(out.Start(info, codec), 0);
    EXPECT_EQ(out.Audio({0x3C, 0x55}), -1);  // less than a frame
  }
  LogCapture log;
  Muxing out;
  ASSERT_EQ(out.Start("2|16000", "G726"), 0);
  EXPECT_EQ(log.Text(), "6|Get audio channels[2].\n6|Get audio rate[16000].\n1|Size of p_extra is 0\n");
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
        const Track track = out.EndOne();
        EXPECT_EQ(std::tuple(track.codecId, track.rate, track.channels, track.errors),
                  std::tuple(AV_CODEC_ID_AAC, 16000, 1, 0));
        EXPECT_EQ(track.packets, Aac().packets);
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
  EXPECT_EQ(out.EndOne().packets.size(), 2U);
}

// --- encoded sound ---------------------------------------------------------------------------------------------------

TEST(EncodedSound, KeepsToneLevelAndLength) {
  const struct {
    const char* info;
    const char* codec;
    const char* encoder;
    int rate = 8000;
    int channels = 1;
    int bitRate = 0;
  } cases[] = {{"1|8000", "PCMU", "pcm_mulaw"},
               {"2|16000", "pcmu", "pcm_mulaw", 16000, 2},
               {"1|8000", "PCMA", "pcm_alaw"},
               {"2|44100", "L16", "pcm_s16be", 44100, 2},
               {"1|48000", "PCM", "pcm_s16be", 48000},
               {"1|8000|16", "G726-16", "g726", 8000, 1, 16000},
               {"1|8000|24", "G726-24", "g726", 8000, 1, 24000},
               {"1|8000", "g726", "g726", 8000, 1, 40000},
               {"1|8000|24", "G726", "g726le", 8000, 1, 24000},
               {"1|8000|40", "G726", "g726le", 8000, 1, 40000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.info) + " " + c.encoder);
    const SoundClip clip = EncodeTone({c.encoder, c.rate, c.channels, 2, 730, c.bitRate});
    LogCapture log;
    Muxing out;
    ASSERT_EQ(out.Start(c.info, c.codec, kMp4, c.encoder == std::string("g726le")), 0);
    EXPECT_EQ(out.muxer.GetAudioFmt(), "MP3");
    log.Clear();
    for (const Bytes& packet : c.channels == 1 ? clip.packets : std::vector<Bytes>{Joined(clip.packets)}) {
      ASSERT_EQ(out.Audio(packet, 1), 0);
    }
    EXPECT_EQ(log.Text(), "");
    for (const SeenPacket& packet : out.policy.packets) EXPECT_EQ(packet.pts, AV_NOPTS_VALUE);
    const Track track = out.EndOne();
    EXPECT_EQ(std::tuple(track.codecId, track.rate, track.channels, track.errors),
              std::tuple(AV_CODEC_ID_MP3, 32000, 1, 0));
    EXPECT_EQ(out.policy.afterAdoCalls, static_cast<int>(track.packets.size()));
    ExpectSteadyTimes(track, 36000);
    EXPECT_NEAR(LevelAt(track.sound, 32000, 730), kMp3Level, 0.02);
    EXPECT_NEAR(static_cast<double>(track.sound.size()) / 32000, 2, 0.3);  // some frames stay in the encoder
  }
}

TEST(EncodedSound, FailuresAreReportedAndDoNotLast) {
  LogCapture log;
  Muxing out;
  ASSERT_EQ(out.Start("1|8000", "PCMU"), 0);
  log.Clear();
  EXPECT_EQ(out.muxer.WriteAdoFrame(nullptr, 10, 1), -1);
  EXPECT_EQ(log.Text(), "3|Error params.\n1|Failed to decode audio, pBuf[(nil)], Size[10].\n");
  // A write that fails ends the call; what waits is written later, but does not pile up without bound.
  log.Clear();
  out.policy.answer = [] { return -1; };
  EXPECT_EQ(out.Audio(Bytes(80000, 0xFF)), -1);
  EXPECT_EQ(out.Audio(Bytes(80000, 0xFF)), -1);
  EXPECT_EQ(log.Messages(), Messages(2, "1|Error while writing audio frame.\n"));
  EXPECT_EQ(out.policy.packets.size(), 2U);
  EXPECT_EQ(out.policy.afterAdoCalls, 0);
  out.policy.answer = nullptr;
  for (const Bytes& packet : Pcmu().packets) EXPECT_EQ(out.Audio(packet), 0);
  const auto sound = out.EndOne().sound;
  EXPECT_NEAR(static_cast<double>(sound.size()) / 32000, 18.4 + 2, 0.5);  // two merge buffers of the 20 s, and the tone
  EXPECT_NEAR(LevelAt({sound.end() - 32000, sound.end()}, 32000, 1000), kMp3Level, 0.02);
}

TEST(EncodedSound, InTheCodecOfThePolicy) {
  for (const FFMPEG_MUXER_FORMAT format : {kMp4, kFlv, kMp3}) {
    const bool isMp3 = format == kMp3;
    Muxing out;
    out.policy.soundCodec = isMp3 ? -1 : AV_CODEC_ID_AAC;
    ASSERT_EQ(out.Start("1|8000", "PCMU", format), 0);
    EXPECT_EQ(out.muxer.GetAudioFmt(), isMp3 ? "MP3" : "MPEG4-GENERIC");
    for (const Bytes& packet : Pcmu().packets) EXPECT_EQ(out.Audio(packet), 0);
    const Track track = out.EndOne();
    EXPECT_EQ(track.codecId, isMp3 ? AV_CODEC_ID_MP3 : AV_CODEC_ID_AAC);
    EXPECT_EQ(track.rate, 32000);
    EXPECT_NEAR(LevelAt(track.sound, 32000, 1000), kMp3Level, 0.03);
    ExpectSteadyTimes(track, isMp3 ? 36000 : 32000);
    EXPECT_EQ(out.policy.packets.back().duration, format == kFlv ? 32 : isMp3 ? 1152 : 1024);
    EXPECT_TRUE(!isMp3 || *std::max_element(out.sink.sizes.begin(), out.sink.sizes.end()) <= 1023);
  }
  // An encoder without frames of its own gets 1024 samples at a time.
  Muxing out;
  out.policy.soundCodec = AV_CODEC_ID_PCM_MULAW;
  out.policy.answer = [] { return 0; };
  ASSERT_EQ(out.Init() + out.AddSound("1|8000", "PCMU"), 0);
  EXPECT_EQ(out.muxer.GetAudioFmt(), "");
  EXPECT_EQ(out.Audio(Bytes(2560, 0xFF)), 0);
  ASSERT_EQ(out.policy.packets.size(), 9U);
  EXPECT_EQ(out.policy.packets[0].size, 1024);
}
