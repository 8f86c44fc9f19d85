#include "utils/ffmpegmuxer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/muxing.h"
#include "tests/support/tempdir.h"
#include "utils/esformat.h"
#include "utils/internal/callbackio.h"
#include "utils/internal/streampriv.h"

using mediautil::FfPtr;

namespace {

using Messages = std::vector<std::string>;

constexpr FFMPEG_MUXER_FORMAT kMp4 = FFMPEG_MUXER_FORMAT_MP4;
constexpr FFMPEG_MUXER_FORMAT kFlv = FFMPEG_MUXER_FORMAT_FLV;
constexpr FFMPEG_MUXER_FORMAT kMp3 = FFMPEG_MUXER_FORMAT_MP3;

// H.264 with its parameter sets apart, a key frame every ten.
const Clip& H264() {
  static const Clip clip = EncodeClip({"libx264", 160, 120, 30, 0, true, 10});
  return clip;
}

Bytes AdtsPacket(std::size_t n) {
  static const SoundClip clip = EncodeTone({"aac", 16000, 1, 1.2, 1000, 48000});
  return WithAdts(clip.packets.at(n), 16000, 1);
}

void ExpectSamePictures(const Track& track, const Clip& clip) {
  const std::vector<FfPtr<AVFrame>> expected = DecodeFrames(clip);
  ASSERT_EQ(track.pictures.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(MeanDifference(track.pictures[i].get(), expected[i].get()), 0) << i;
  }
}

}  // namespace

// --- containers ------------------------------------------------------------------------------------------------------

namespace {

struct VideoCase {
  const char* name;
  const char* codec;
  const char* encoder;
  int width = 160;
  FFMPEG_MUXER_FORMAT format = kMp4;
  bool setsApart = true;
  bool inMp4 = false;  // length prefixes and an avcC or hvcC box, instead of start codes
};

void PrintTo(const VideoCase& param, std::ostream* os) {
  *os << param.name;
}

class Video : public ::testing::TestWithParam<VideoCase> {};

const char* Tag(const VideoCase& param) {
  if (param.format == kFlv) {
    return "";
  }
  return param.encoder == std::string("libx264") ? "avc1" : param.encoder == std::string("libx265") ? "hvc1" : "mp4v";
}

}  // namespace

TEST_P(Video, ArrivesUnchanged) {
  const TempDir dir;
  const VideoCase& param = GetParam();
  Clip clip = EncodeClip({param.encoder, param.width, 120, 12, 0, param.setsApart, 5});
  if (param.inMp4) {
    clip = AsInMp4(clip, dir.Path("source.mp4"));
  }
  LogCapture log;
  Muxing out;
  ASSERT_EQ(out.Start(clip, param.codec, param.format), 0);
  EXPECT_EQ(out.Video(clip, 5000000), 12);
  const std::vector<Track> tracks = out.End();
  EXPECT_EQ(log.Messages(), clip.extradata.empty() ? Messages{"1|No extra, pExt[(nil)], Len[0].\n"} : Messages());
  ASSERT_EQ(tracks.size(), 1U);
  const Track& track = tracks[0];
  EXPECT_EQ(track.codecId, clip.codecId);
  EXPECT_STREQ(track.tag.c_str(), Tag(param));
  EXPECT_EQ(track.width, clip.width);
  EXPECT_EQ(track.height, clip.height);
  ASSERT_EQ(track.times.size(), 12U);
  for (std::size_t i = 0; i < 12; ++i) {
    EXPECT_EQ(track.times[i] - track.times[0], static_cast<std::int64_t>(i) * 40000);
    EXPECT_EQ(track.keys[i], clip.frames[i].key);
  }
  EXPECT_EQ(track.errors, 0);
  ExpectSamePictures(track, clip);
}

INSTANTIATE_TEST_SUITE_P(
    All, Video,
    ::testing::Values(
        VideoCase{"H264", "H264", "libx264"}, VideoCase{"H264Padded", "H264", "libx264", 322},
        VideoCase{"Avc1InMp4", "AVC1", "libx264", 160, kMp4, true, true}, VideoCase{"Hevc", "H265", "libx265"},
        VideoCase{"HevcInMp4", "H265", "libx265", 160, kMp4, true, true}, VideoCase{"Mpeg4", "MP4V-ES", "mpeg4"},
        VideoCase{"Mpeg4InBand", "MP4V-ES", "mpeg4", 160, kMp4, false}, VideoCase{"Mjpeg", "JPEG", "mjpeg"},
        VideoCase{"UnknownFormatIsMp4", "H264", "libx264", 160, static_cast<FFMPEG_MUXER_FORMAT>(7)},
        VideoCase{"Flv", "H264", "libx264", 160, kFlv}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(Muxer, HevcWithParameterSetsInBandKeepsTheOtherName) {
  Clip clip = EncodeClip({"libx265", 160, 120, 3, 0, true});
  clip.extradata.resize(20);  // the first parameter set alone
  Muxing out;
  ASSERT_EQ(out.Start(clip, "H265"), 0);
  const std::string header(out.sink.bytes.begin(), out.sink.bytes.end());
  EXPECT_NE(header.find("hev1"), std::string::npos);
  EXPECT_EQ(header.find("hvc1"), std::string::npos);
}

TEST(Muxer, PictureAndSoundStayTogether) {
  for (const FFMPEG_MUXER_FORMAT format : {kMp4, kFlv}) {
    Muxing out;
    ASSERT_EQ(out.Init(format), 0);
    ASSERT_EQ(out.AddVideo(H264()), 0);
    ASSERT_EQ(out.AddSound("1|16000", "MPEG4-GENERIC"), 0);
    ASSERT_EQ(out.muxer.WriteHeader(), 0);
    std::vector<Bytes> sound;
    for (std::size_t i = 0; i < 30; ++i) {
      const auto now = static_cast<long long>(i) * 40000;
      EXPECT_EQ(out.Video(H264().frames[i], 5000000 + now), 0);
      for (long long next = 0; next = 20000 + static_cast<long long>(sound.size()) * 64000, next <= now;) {
        EXPECT_EQ(out.Audio(AdtsPacket(sound.size()), 5000000 + next), 0);
        sound.push_back(AdtsPacket(sound.size()));
        sound.back().erase(sound.back().begin(), sound.back().begin() + 7);
      }
    }
    const std::vector<Track> tracks = out.End();
    ASSERT_EQ(tracks.size(), 2U);
    ExpectSamePictures(tracks[0], H264());
    EXPECT_EQ(tracks[1].packets, sound);
    EXPECT_NEAR(LevelAt(tracks[1].sound, 16000, 1000), 0.5, 0.02);
    for (std::size_t i = 0; i < tracks[1].times.size(); ++i) {
      // FFmpeg lets every track of a fragmented MP4 begin at 0: the first sound is drawn there.
      const double expected = i == 0 && format == kMp4 ? 0 : 20000 + static_cast<double>(i) * 64000;
      EXPECT_NEAR(static_cast<double>(tracks[1].times[i] - tracks[0].times[0]), expected, 1100);
    }
    EXPECT_EQ(out.policy.afterVdoCalls, 30);
    EXPECT_EQ(out.policy.afterAdoCalls, static_cast<int>(sound.size()));
  }
}

// --- time line -------------------------------------------------------------------------------------------------------

namespace {

class TimeLine : public StreamPriv {
 public:
  TimeLine(long long& base, AVRational timeBase) : StreamPriv(Controller(), base) { m_stream.time_base = timeBase; }
  int Write(AVFormatContext*, unsigned char*, int, long long, bool) override { return 0; }
  long long At(long long ptsUs) { return EstimatePts(&m_stream, ptsUs); }

 private:
  static const MuxCtrler& Controller() {
    static const MuxCtrler controller;
    return controller;
  }
  AVStream m_stream = {};
};

}  // namespace

TEST(TimeLine, AlwaysRises) {
  constexpr long long kFar = 4000000000000000000LL;
  const struct {
    int ticks;  // a second
    std::vector<long long> times;
    std::vector<long long> expected;
  } cases[] = {{90000, {1000000, 1000000, 900000, 1040000}, {0, 1, 2, 3600}},
               {90000, {1, 40001, 80001}, {0, 3600, 7200}},
               {90000, {0, 0, 500, 40500}, {0, 0, 0, 3600}},  // a first time of 0 is no zero yet
               {90000, {-5, 100, 40100}, {0, 0, 3600}},
               {1000000, {LLONG_MIN, 7, 8}, {0, 0, 1}},
               {1000000, {5, LLONG_MIN, -1, 6}, {0, 1, 2, 3}},
               {1000000, {5, kFar, 6, kFar}, {0, kFar - 5, kFar - 4, kFar - 3}},  // a jump stays
               {1000000, {LLONG_MAX, LLONG_MAX, 1}, {0, 1, 2}},
               {1000000, {1, LLONG_MAX, LLONG_MAX, 5}, {0, LLONG_MAX - 1, LLONG_MAX, LLONG_MAX}},
               {1000, {1000000, 1000400, 1000800, 1040000}, {0, 1, 2, 40}}};
  for (const auto& c : cases) {
    long long base = 0;
    TimeLine line(base, {1, c.ticks});
    std::vector<long long> given;
    for (const long long time : c.times) {
      given.push_back(line.At(time));
    }
    EXPECT_EQ(given, c.expected) << c.times[0];
  }
  // Both streams share the zero.
  long long base = 0;
  TimeLine video(base, {1, 90000});
  TimeLine audio(base, {1, 32000});
  TimeLine late(base, {1, 32000});
  EXPECT_EQ(video.At(5000000), 0);
  EXPECT_EQ(audio.At(5020000), 640);
  EXPECT_EQ(late.At(5000000), 1);  // 0 counts as given
}

// Whatever the first times are: the container's times rise from 0 on.
TEST(Muxer, TimesInTheContainer) {
  const std::vector<std::vector<long long>> cases = {{1, 40001, 80001, 120001},
                                                     {5000000, 5000000, 5000000, 5000000},
                                                     {5000000, 4000000, 3000000, 5040000},
                                                     {LLONG_MAX - 200000, LLONG_MAX - 160000, LLONG_MAX, LLONG_MAX},
                                                     {1767225600000000, 1767225600040000, 1767225600040000, 0},
                                                     {5000000, 5040000, 4000000000, 4000040000}};
  for (const std::vector<long long>& times : cases) {
    Muxing out;
    ASSERT_EQ(out.Start(H264()), 0);
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(out.Video(H264().frames[i], times[i]), 0);
    }
    const std::vector<Track> tracks = out.End();
    ASSERT_EQ(tracks.at(0).times.size(), 4U) << times[0];
    EXPECT_EQ(tracks[0].times[0], 0);
    EXPECT_TRUE(tracks[0].TimesRise()) << times[0];
  }
}

// --- order of calls --------------------------------------------------------------------------------------------------

TEST(Muxer, CallsOutOfOrder) {
  LogCapture log;
  Muxing out;
  const CodedFrame frame = {{1, 2, 3}, 0, true};
  EXPECT_EQ(out.Video(frame, 1), -1);
  EXPECT_EQ(out.Audio(frame.data), -1);
  EXPECT_EQ(out.muxer.WriteHeader(), -1);
  EXPECT_EQ(out.muxer.GetMovVdoTrackNextFragStart(), 0);
  EXPECT_EQ(out.muxer.GetAudioFmt(), "");
  out.muxer.Finalize();
  EXPECT_EQ(out.muxer.AddVdoStream("H264", 320, 240, frame.data.data(), 1), -1);
  EXPECT_EQ(out.AddSound("1|16000", "MPEG4-GENERIC"), -1);
  const Messages soundFailed = {
      "6|Get audio channels[1].\n", "6|Get audio rate[16000].\n", "1|Error param, oc[(nil)].\n",
      "1|Failed to add stream, codec[86018].\n",
      "1|Failed to add audio stream, info[1|16000], codec[MPEG4-GENERIC], G726LE[0], extra[0].\n"};
  Messages expected = {"1|Uninited video stream.\n",
                       "1|Uninited audio stream.\n",
                       "1|Error occurred when write header.\n",
                       "1|Error param, oc[(nil)].\n",
                       "1|Failed to add stream, codec[H264].\n",
                       "1|Failed to add video stream, codec[H264], extLen[1].\n"};
  expected.insert(expected.end(), soundFailed.begin(), soundFailed.end());
  EXPECT_EQ(log.Messages(), expected);
  EXPECT_EQ(log.Lines()[0].path, "utils/ffmpegmuxer");

  log.Clear();
  ASSERT_EQ(out.Init(), 0);
  EXPECT_EQ(out.Init(), -1);
  EXPECT_EQ(out.muxer.WriteHeader(), -1);  // no stream
  ASSERT_EQ(out.AddVideo(H264()), 0);
  EXPECT_EQ(out.AddVideo(H264()), -1);
  ASSERT_EQ(out.muxer.WriteHeader(), 0);
  const std::size_t header = out.sink.bytes.size();
  EXPECT_EQ(out.muxer.WriteHeader(), -1);
  EXPECT_EQ(out.sink.bytes.size(), header);
  EXPECT_EQ(out.AddSound("1|16000", "MPEG4-GENERIC"), -1);  // too late
  expected = {"1|Already inited.\n",
              "1|Error occurred when write header.\n",
              "1|Already init video.\n",
              "1|Already write header.\n",
              soundFailed[0],
              soundFailed[1],
              soundFailed[4]};
  EXPECT_EQ(log.Messages(), expected);
  EXPECT_EQ(out.Video(H264()), 30);
}

TEST(Muxer, VideoStreamsThatAreRefusedLeaveNothingBehind) {
  const struct {
    const char* codec;
    int width;
    int height;
    const char* message;
  } cases[] = {{"H264", 0, 240, "1|Error params, W[0], H[240].\n"},
               {"H264", 320, -1, "1|Error params, W[320], H[-1].\n"},
               {"h264", 320, 240, "1|Failed to found codec[h264].\n"},
               {"", 320, 240, "1|Failed to found codec[].\n"},
               {"H264", 100000, 50000, "1|Could not open codec[27].\n"},
               {"JPEG", INT_MAX, INT_MAX, "1|Could not open codec[7].\n"}};
  const unsigned char extra[2] = {};
  for (const auto& c : cases) {
    for (const bool afterSound : {false, true}) {
      Muxing out;
      ASSERT_EQ(out.Init(), 0);
      ASSERT_EQ(afterSound ? out.AddSound("1|16000", "MPEG4-GENERIC") : 0, 0);
      LogCapture log;
      EXPECT_EQ(out.muxer.AddVdoStream(c.codec, c.width, c.height, extra, 2), -1);
      EXPECT_EQ(log.Messages()[0], c.message);
      if (c.width > 0 && c.height > 0) {
        EXPECT_EQ(log.Messages().back(),
                  "1|Failed to add video stream, codec[" + std::string(c.codec) + "], extLen[2].\n");
      }
      ASSERT_EQ(afterSound ? 0 : out.AddVideo(H264()), 0);
      ASSERT_EQ(out.muxer.WriteHeader(), 0);
      EXPECT_EQ(afterSound ? out.Audio(AdtsPacket(2), 1) : out.Video(H264().frames[0], 1), 0);
      EXPECT_EQ(out.End().size(), 1U);
    }
  }
}

TEST(Muxer, FramesBeforeTheHeaderAreRefusedAndDoNotCount) {
  LogCapture log;
  for (const FFMPEG_MUXER_FORMAT format : {kMp4, kFlv}) {
    Muxing out;
    ASSERT_EQ(out.Init(format), 0);
    ASSERT_EQ(out.AddVideo(H264()), 0);
    ASSERT_EQ(out.AddSound("1|16000", "MPEG4-GENERIC"), 0);
    log.Clear();
    EXPECT_EQ(out.Audio(AdtsPacket(0), 5000000), -1);
    EXPECT_EQ(out.Video(H264().frames[0], 9000000), -1);
    EXPECT_EQ(log.Messages(),
              (Messages{"1|Error while writing audio frame.\n", "1|Error while writing video frame\n"}));
    EXPECT_TRUE(out.sink.bytes.empty());
    ASSERT_EQ(out.muxer.WriteHeader(), 0);
    EXPECT_EQ(out.Audio(AdtsPacket(0), 20000000), 0);
    EXPECT_EQ(out.Video(H264(), 20000000), 30);
    const std::vector<Track> tracks = out.End();
    ASSERT_EQ(tracks.size(), 2U);
    EXPECT_LE(tracks[0].times[0] + tracks[1].times[0], 2000);
    ExpectSamePictures(tracks[0], H264());
  }
}

TEST(Muxer, BadFrames) {
  LogCapture log;
  Muxing out;
  unsigned char byte = 0;
  ASSERT_EQ(out.Start(H264()), 0);
  EXPECT_EQ(out.muxer.WriteVdoFrame(nullptr, 10, 1, true), -1);
  EXPECT_EQ(out.muxer.WriteVdoFrame(&byte, 0, 1, true), -1);
  EXPECT_EQ(out.muxer.WriteVdoFrame(&byte, INT_MIN, 1, true), -1);
  EXPECT_EQ(log.Messages(), Messages(3, "1|Error while writing video frame\n"));
  std::mt19937 random(3);
  for (int i = 0; i < 200; ++i) {  // any bytes may be written
    Bytes frame(1 + random() % 300);
    for (std::uint8_t& value : frame) {
      value = static_cast<std::uint8_t>(random() % (i % 3 == 0 ? 2 : 256));
    }
    out.Video({frame, 0, i % 7 == 0}, i * 40000LL);
  }
}

TEST(Muxer, HeadersThatTheContainerRefuses) {
  const struct {
    FFMPEG_MUXER_FORMAT format;
    const char* video;
    const char* audio;
  } cases[] = {{kFlv, "H264", "PCMU"},  // MP3 at 32000 Hz
               {kFlv, "MP4V-ES", nullptr},
               {kFlv, "JPEG", nullptr},
               {kMp3, "H264", nullptr}};
  LogCapture log;
  for (const auto& c : cases) {
    Muxing out;
    ASSERT_EQ(out.Init(c.format), 0);
    ASSERT_EQ(out.AddVideo(H264(), c.video), 0);
    ASSERT_EQ(c.audio == nullptr ? 0 : out.AddSound("1|8000", c.audio), 0);
    log.Clear();
    EXPECT_EQ(out.muxer.WriteHeader(), -1) << c.format << c.video;
    EXPECT_EQ(out.muxer.WriteHeader(), -1);
    EXPECT_EQ(log.Messages(), Messages(2, "1|Error occurred when write header.\n"));
    EXPECT_EQ(out.Video(H264().frames[0], 1), -1);
    out.Audio(Bytes(8000, 0xFF));
    out.muxer.Finalize();
    ASSERT_EQ(out.Start(H264()), 0);  // as good as new
    EXPECT_EQ(out.Video(H264()), 30);
  }
}

TEST(Muxer, FinalizeEndsOnceAndAllowsAnotherStart) {
  Muxing out;
  out.muxer.Finalize();
  ASSERT_EQ(out.Init(), 0);
  out.muxer.Finalize();
  EXPECT_TRUE(out.sink.bytes.empty());
  Bytes first;
  for (int round = 0; round < 2; ++round) {
    first.swap(out.sink.bytes);
    out.sink.bytes.clear();
    ASSERT_EQ(out.Start(H264()), 0);
    EXPECT_EQ(out.Video(H264(), 1000000 + round * 70000000), 30);
    out.muxer.Finalize();
    ExpectSamePictures(out.End().at(0), H264());
    EXPECT_EQ(out.Video(H264().frames[0], 1), -1);
    EXPECT_EQ(out.muxer.GetMovVdoTrackNextFragStart(), 0);
  }
  EXPECT_EQ(out.sink.bytes, first);  // a new time line, too
  Muxing ended;
  ASSERT_EQ(ended.Start(H264()), 0);
  EXPECT_EQ(ended.Video(H264()), 30);  // the destructor does the same
}

// --- policy and callback ---------------------------------------------------------------------------------------------

TEST(Muxer, PolicyTakesPacketsOver) {
  LogCapture log;
  Muxing out;
  int calls = 0;
  out.policy.answer = [&calls] { return ++calls == 3 ? -5 : 0; };
  ASSERT_EQ(out.Start(H264()), 0);
  EXPECT_EQ(out.Video(H264()), 29);
  EXPECT_EQ(log.Messages(), Messages{"1|Error while writing video frame\n"});
  EXPECT_EQ(out.policy.afterVdoCalls, 29);
  ASSERT_EQ(out.policy.packets.size(), 30U);
  for (std::size_t i = 0; i < 30; ++i) {
    const SeenPacket& packet = out.policy.packets[i];
    EXPECT_EQ(packet.stream, 0);
    EXPECT_EQ(packet.pts, static_cast<std::int64_t>(i) * 40000);  // of the failed one, too
    EXPECT_EQ(packet.dts, packet.pts);
    EXPECT_EQ(packet.key, i % 10 == 0);
    EXPECT_EQ(packet.size, static_cast<int>(H264().frames[i].data.size()));
  }
  // It may do without a header; another start begins another time line.
  out.muxer.Finalize();
  ASSERT_EQ(out.Init(), 0);
  ASSERT_EQ(out.AddVideo(H264()), 0);
  EXPECT_EQ(out.Video(H264().frames[0], 7000000), 0);
  EXPECT_EQ(out.policy.packets.back().pts, 0);

  const MuxCtrler standard;
  ESFormat fmt;
  fmt.i_codec_id = AV_CODEC_ID_AAC;
  EXPECT_EQ(standard.GetMuxAdoCodec(fmt), AV_CODEC_ID_AAC);
  fmt.i_codec_id = AV_CODEC_ID_PCM_ALAW;
  EXPECT_EQ(standard.GetMuxAdoCodec(fmt), AV_CODEC_ID_MP3);
  EXPECT_EQ(standard.AfterWriteVdo(nullptr), 0);
  EXPECT_EQ(standard.AfterWriteAdo(nullptr), 0);
  EXPECT_LT(standard.WritePkt(nullptr, nullptr), 0);
}

TEST(CallbackIo, HandsOverWhatIsLeft) {
  Sink sink;
  mediautil::CallbackIo io(&sink, Sink::Write);
  ASSERT_TRUE(io.AllocBuffer(16));
  AVIOContext* output = io.Open();
  ASSERT_NE(output, nullptr);
  avio_write(output, Bytes(20, 7).data(), 20);
  EXPECT_LT(sink.bytes.size(), 20U);
  io.Close();
  io.Close();
  EXPECT_EQ(sink.bytes, Bytes(20, 7));
}

// What the callback answers, and what that does to the calls.
TEST(Muxer, Callback) {
  Clip clip = EncodeClip({"mjpeg", 64, 48, 12});
  clip.frames[3].data.resize(2000000);  // goes through the buffer in pieces
  const auto run = [&clip](Muxing& out, int (*write)(void*, unsigned char*, int)) {
    EXPECT_EQ(out.muxer.Init(kMp4, &out.sink, write), 0);
    EXPECT_EQ(out.AddVideo(clip, "JPEG"), 0);
    EXPECT_EQ(out.muxer.WriteHeader(), 0);
    const int written = out.Video(clip);
    out.muxer.Finalize();
    return written;
  };
  Muxing whole;
  EXPECT_EQ(run(whole, Sink::Write), 12);
  EXPECT_EQ(*std::max_element(whole.sink.sizes.begin(), whole.sink.sizes.end()), 1048575);
  EXPECT_EQ(ReadBack(whole.sink.bytes).at(0).packets.at(3), clip.frames[3].data);
  for (const int taken : {0, 1}) {  // fewer than offered, and slow: all the same
    Muxing slow;
    slow.sink.answer = [taken](int) { return usleep(200), taken; };
    EXPECT_EQ(run(slow, Sink::Write), 12);
    EXPECT_EQ(slow.sink.bytes, whole.sink.bytes);
  }
  Muxing absent;
  EXPECT_EQ(run(absent, nullptr), 12);

  LogCapture log;
  Muxing failing;
  failing.sink.answer = [&failing](int size) { return failing.sink.sizes.size() == 5 ? -EIO : size; };
  const int written = run(failing, Sink::Write);
  EXPECT_TRUE(written > 0 && written < 12) << written;
  EXPECT_EQ(failing.sink.sizes.size(), 5U);  // not called again
  Messages expected(static_cast<std::size_t>(13 - written), "1|Error while writing video frame\n");
  expected[0] = "1|No extra, pExt[(nil)], Len[0].\n";
  EXPECT_EQ(log.Messages(), expected);
}
