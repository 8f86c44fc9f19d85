#include "utils/ffmpegmuxer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "tests/support/log_capture.h"
#include "tests/support/muxing.h"
#include "utils/esformat.h"

namespace {

Bytes AdtsPacket(std::size_t n) {
  return WithAdts(Aac().packets.at(n), 16000, 1);
}

void ExpectSamePictures(const Track& track, const Clip& clip = H264()) {
  const std::vector<mediautil::FfPtr<AVFrame>> expected = DecodeFrames(clip);
  ASSERT_EQ(track.pictures.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(MeanDifference(track.pictures[i].get(), expected[i].get()), 0) << i;
  }
}

}  // namespace

// --- containers ------------------------------------------------------------------------------------------------------

TEST(Muxer, VideoArrivesUnchanged) {
  const struct {
    const char* codec;
    const char* encoder;
    const char* tag;
    int width = 160;
    FFMPEG_MUXER_FORMAT format = kMp4;
    bool setsApart = true;
    bool inMp4 = false;  // length prefixes and an avcC or hvcC box, instead of start codes
  } cases[] = {{"H264", "libx264", "avc1"},
               {"H264", "libx264", "avc1", 322},
               {"AVC1", "libx264", "avc1", 160, kMp4, true, true},
               {"H265", "libx265", "hvc1"},
               {"H265", "libx265", "hvc1", 160, kMp4, true, true},
               {"MP4V-ES", "mpeg4", "mp4v"},
               {"MP4V-ES", "mpeg4", "mp4v", 160, kMp4, false},
               {"JPEG", "mjpeg", "mp4v"},
               {"H264", "libx264", "avc1", 160, static_cast<FFMPEG_MUXER_FORMAT>(7)},  // stands for MP4
               {"H264", "libx264", "", 160, kFlv}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.codec) + " " + std::to_string(&c - cases));
    Clip clip = EncodeClip({c.encoder, c.width, 120, 12, 0, c.setsApart, 5});
    clip = c.inMp4 ? AsInMp4(clip) : clip;
    LogCapture log;
    Muxing out;
    ASSERT_EQ(out.Start(clip, c.codec, c.format), 0);
    EXPECT_EQ(out.Video(clip, 5000000), 12);
    const Track track = out.EndOne();
    EXPECT_EQ(log.Text(), clip.extradata.empty() ? "1|No extra, pExt[(nil)], Len[0].\n" : "");
    EXPECT_EQ(track.codecId, clip.codecId);
    EXPECT_STREQ(track.tag.c_str(), c.tag);
    EXPECT_EQ(std::pair(track.width, track.height), std::pair(clip.width, clip.height));
    ASSERT_EQ(track.times.size(), 12U);
    for (std::size_t i = 0; i < 12; ++i) {
      EXPECT_EQ(track.times[i] - track.times[0], static_cast<std::int64_t>(i) * 40000);
      EXPECT_EQ(track.keys[i], clip.frames[i].key);
    }
    EXPECT_EQ(track.errors, 0);
    ExpectSamePictures(track, clip);
  }
}

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
    ASSERT_EQ(out.Init(format) + out.AddVideo() + out.AddSound() + out.muxer.WriteHeader(), 0);
    std::size_t heard = 0;
    for (std::size_t i = 0; i < 30; ++i) {
      const auto now = static_cast<long long>(i) * 40000;
      EXPECT_EQ(out.Video(H264().frames[i], 5000000 + now), 0);
      for (long long next = 0; next = 20000 + static_cast<long long>(heard) * 64000, next <= now; ++heard) {
        EXPECT_EQ(out.Audio(AdtsPacket(heard), 5000000 + next), 0);
      }
    }
    const std::vector<Track> tracks = out.End();
    ASSERT_EQ(tracks.size(), 2U);
    ExpectSamePictures(tracks[0]);
    const auto first = Aac().packets.begin();
    EXPECT_EQ(tracks[1].packets, std::vector<Bytes>(first, first + static_cast<std::ptrdiff_t>(heard)));
    EXPECT_NEAR(LevelAt(tracks[1].sound, 16000, 1000), 0.5, 0.02);
    for (std::size_t i = 0; i < tracks[1].times.size(); ++i) {
      // FFmpeg lets every track of a fragmented MP4 begin at 0: the first sound is drawn there.
      const double expected = i == 0 && format == kMp4 ? 0 : 20000 + static_cast<double>(i) * 64000;
      EXPECT_NEAR(static_cast<double>(tracks[1].times[i] - tracks[0].times[0]), expected, 1100);
    }
    EXPECT_EQ(std::pair(out.policy.afterVdoCalls, out.policy.afterAdoCalls), std::pair(30, static_cast<int>(heard)));
  }
}

// --- time line -------------------------------------------------------------------------------------------------------

// Whatever the times are: those of the packets rise from 0 on, and with them the container's.
TEST(Muxer, TimesAlwaysRise) {
  constexpr long long kFar = 4000000000000000000LL;
  const struct {
    std::vector<long long> times;
    std::vector<long long> expected;  // microseconds, milliseconds in FLV
    FFMPEG_MUXER_FORMAT format = kMp4;
    bool fits = true;  // what the container can hold
  } cases[] = {{{1000000, 1000000, 900000, 1040000}, {0, 1, 2, 40000}},
               {{1, 40001, 80001, 120001}, {0, 40000, 80000, 120000}},
               {{0, 0, 500, 40500}, {0, 0, 0, 40000}, kMp4, false},  // a first time of 0 is no zero yet
               {{-5, 100, 40100}, {0, 0, 40000}, kMp4, false},
               {{LLONG_MIN, 7, 8}, {0, 0, 1}, kMp4, false},
               {{5, LLONG_MIN, -1, 6}, {0, 1, 2, 3}},
               {{5000000, 5040000, 4000000000}, {0, 40000, 3995000000}},
               {{5, kFar, 6, kFar}, {0, kFar - 5, kFar - 4, kFar - 3}, kMp4, false},  // a jump stays
               {{LLONG_MAX - 1, LLONG_MAX, LLONG_MAX, 1}, {0, 1, 2, 3}},
               {{1, LLONG_MAX, LLONG_MAX, 5}, {0, LLONG_MAX - 1, LLONG_MAX, LLONG_MAX}, kMp4, false},
               {{1000000, 1000400, 1000800, 1040000}, {0, 1, 2, 40}, kFlv}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    Muxing out;
    ASSERT_EQ(out.Start(H264(), "H264", c.format), 0);
    if (!c.fits) out.policy.answer = [] { return 0; };
    std::vector<long long> given;
    for (std::size_t i = 0; i < c.times.size(); ++i) {
      EXPECT_EQ(out.Video(H264().frames[i], c.times[i]), 0);
      given.push_back(out.policy.packets.back().pts);
    }
    EXPECT_EQ(given, c.expected);
    const Track track = out.EndOne();
    EXPECT_EQ(track.times.size(), c.fits ? c.times.size() : 0);
    EXPECT_TRUE(std::is_sorted(track.times.begin(), track.times.end(), std::less_equal<>()));
    EXPECT_TRUE(track.times.empty() || track.times[0] == 0);
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
  EXPECT_EQ(out.AddSound(), -1);
  const std::string described = "6|Get audio channels[1].\n6|Get audio rate[16000].\n";
  const std::string notAdded =
      "1|Failed to add audio stream, info[1|16000], codec[MPEG4-GENERIC], G726LE[0], extra[0].\n";
  EXPECT_EQ(log.Text(),
            "1|Uninited video stream.\n"
            "1|Uninited audio stream.\n"
            "1|Error occurred when write header.\n"
            "1|Error param, oc[(nil)].\n"
            "1|Failed to add stream, codec[H264].\n"
            "1|Failed to add video stream, codec[H264], extLen[1].\n" +
                described + "1|Error param, oc[(nil)].\n1|Failed to add stream, codec[86018].\n" + notAdded);
  EXPECT_EQ(log.Lines()[0].path, "utils/ffmpegmuxer");

  log.Clear();
  ASSERT_EQ(out.Init(), 0);
  EXPECT_EQ(out.Init(), -1);
  EXPECT_EQ(out.muxer.WriteHeader(), -1);  // no stream
  ASSERT_EQ(out.AddVideo(), 0);
  EXPECT_EQ(out.AddVideo(), -1);
  ASSERT_EQ(out.muxer.WriteHeader(), 0);
  const std::size_t header = out.sink.bytes.size();
  EXPECT_EQ(out.muxer.WriteHeader(), -1);
  EXPECT_EQ(out.sink.bytes.size(), header);
  EXPECT_EQ(out.AddSound(), -1);  // too late
  EXPECT_EQ(log.Text(),
            "1|Already inited.\n"
            "1|Error occurred when write header.\n"
            "1|Already init video.\n"
            "1|Already write header.\n" +
                described + notAdded);
  EXPECT_EQ(out.Video(), 30);
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
      ASSERT_EQ(out.Init() + (afterSound ? out.AddSound() : 0), 0);
      LogCapture log;
      EXPECT_EQ(out.muxer.AddVdoStream(c.codec, c.width, c.height, extra, 2), -1);
      EXPECT_EQ(log.Messages()[0], c.message);
      ASSERT_EQ(afterSound ? 0 : out.AddVideo(), 0);
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
    ASSERT_EQ(out.Init(format) + out.AddVideo() + out.AddSound(), 0);
    log.Clear();
    EXPECT_EQ(out.Audio(AdtsPacket(0), 5000000), -1);
    EXPECT_EQ(out.Video(H264().frames[0], 9000000), -1);
    EXPECT_EQ(log.Text(), "1|Error while writing audio frame.\n1|Error while writing video frame\n");
    EXPECT_TRUE(out.sink.bytes.empty());
    ASSERT_EQ(out.muxer.WriteHeader(), 0);
    EXPECT_EQ(out.Audio(AdtsPacket(0), 20000000), 0);
    EXPECT_EQ(out.Video(H264(), 20000000), 30);
    const std::vector<Track> tracks = out.End();
    ASSERT_EQ(tracks.size(), 2U);
    EXPECT_LE(tracks[0].times[0] + tracks[1].times[0], 2000);
    ExpectSamePictures(tracks[0]);
  }
}

TEST(Muxer, BadFrames) {
  LogCapture log;
  Muxing out;
  unsigned char byte = 0;
  ASSERT_EQ(out.Start(), 0);
  EXPECT_EQ(out.muxer.WriteVdoFrame(nullptr, 10, 1, true), -1);
  EXPECT_EQ(out.muxer.WriteVdoFrame(&byte, 0, 1, true), -1);
  EXPECT_EQ(out.muxer.WriteVdoFrame(&byte, INT_MIN, 1, true), -1);
  EXPECT_EQ(log.Messages(), Messages(3, "1|Error while writing video frame\n"));
  for (unsigned int i = 0; i < 200; ++i) {  // any bytes may be written
    EXPECT_EQ(out.Video({RandomBytes(1 + i * 7 % 300, i % 3 == 0 ? 2 : 256), 0, i % 7 == 0}, 1 + i * 40000LL), 0) << i;
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
    ASSERT_EQ(out.Init(c.format) + out.AddVideo(H264(), c.video), 0);
    ASSERT_EQ(c.audio == nullptr ? 0 : out.AddSound("1|8000", c.audio), 0);
    log.Clear();
    EXPECT_EQ(out.muxer.WriteHeader(), -1) << c.format << c.video;
    EXPECT_EQ(out.muxer.WriteHeader(), -1);
    EXPECT_EQ(log.Messages(), Messages(2, "1|Error occurred when write header.\n"));
    EXPECT_EQ(out.Video(H264().frames[0], 1), -1);
    out.Audio(Bytes(8000, 0xFF));
    out.muxer.Finalize();
    ASSERT_EQ(out.Start(), 0);  // as good as new
    EXPECT_EQ(out.Video(), 30);
  }
}

TEST(Muxer, FinalizeEndsOnceAndAllowsAnotherStart) {
  Muxing out;
  ASSERT_EQ(out.Init(), 0);
  out.muxer.Finalize();
  EXPECT_TRUE(out.sink.bytes.empty());
  Bytes first;
  for (int round = 0; round < 2; ++round) {
    first = std::exchange(out.sink.bytes, {});
    ASSERT_EQ(out.Start(), 0);
    EXPECT_EQ(out.Video(H264(), 1000000 + round * 70000000), 30);
    out.muxer.Finalize();
    ExpectSamePictures(out.EndOne());
    EXPECT_EQ(out.Video(H264().frames[0], 1), -1);
    EXPECT_EQ(out.muxer.GetMovVdoTrackNextFragStart(), 0);
  }
  EXPECT_EQ(out.sink.bytes, first);  // a new time line, too
  ASSERT_EQ(out.Start(), 0);
  EXPECT_EQ(out.Video(), 30);  // the destructor does the same
}

// --- policy and callback ---------------------------------------------------------------------------------------------

TEST(Muxer, PolicyTakesPacketsOver) {
  LogCapture log;
  Muxing out;
  int calls = 0;
  out.policy.answer = [&calls] { return ++calls == 3 ? -5 : 0; };
  ASSERT_EQ(out.Start(), 0);
  EXPECT_EQ(out.Video(), 29);
  EXPECT_EQ(log.Messages(), Messages{"1|Error while writing video frame\n"});
  EXPECT_EQ(out.policy.afterVdoCalls, 29);
  ASSERT_EQ(out.policy.packets.size(), 30U);
  for (std::size_t i = 0; i < 30; ++i) {
    const SeenPacket& packet = out.policy.packets[i];
    const auto time = static_cast<std::int64_t>(i) * 40000;  // of the failed one, too
    EXPECT_EQ(std::tuple(packet.stream, packet.pts, packet.dts, packet.key, packet.size),
              std::tuple(0, time, time, i % 10 == 0, static_cast<int>(H264().frames[i].data.size())));
  }
  // It may do without a header; another start begins another time line.
  out.muxer.Finalize();
  ASSERT_EQ(out.Init() + out.AddVideo(), 0);
  EXPECT_EQ(out.Video(H264().frames[0], 7000000), 0);
  EXPECT_EQ(out.policy.packets.back().pts, 0);
  EXPECT_LT(MuxCtrler().WritePkt(nullptr, nullptr), 0);
}

// What the callback answers, and what that does to the calls.
TEST(Muxer, Callback) {
  Clip clip = EncodeClip({"mjpeg", 64, 48, 12});
  clip.frames[3].data.resize(2000000);  // goes through the buffer in pieces
  const auto run = [&clip](Muxing& out, int (*write)(void*, unsigned char*, int)) {
    EXPECT_EQ(out.muxer.Init(kMp4, &out.sink, write) + out.AddVideo(clip, "JPEG") + out.muxer.WriteHeader(), 0);
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
