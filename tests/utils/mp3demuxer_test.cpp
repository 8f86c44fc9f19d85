#include "utils/mp3demuxer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <numeric>
#include <thread>

#include "platform/time.h"
#include "tests/support/log_capture.h"
#include "tests/support/sound.h"
#include "tests/support/tempdir.h"

namespace {

// Plays in a time of its own, in which only sleeping and the work of the listener take time.
struct Mp3Demuxer : ::testing::Test, AudioDataHandler {
  static inline Mp3Demuxer* s_current = nullptr;

  TempDir dir;
  LogCapture log;
  ESFormat fmt;
  DemuxMp3 demuxer;
  long long now = 5000000;
  std::vector<long long> sleeps;
  std::vector<double> times;  // of the frames, microseconds
  Samples sound;
  std::function<int()> listen = [] { return 0; };

  Mp3Demuxer() { s_current = this; }
  ~Mp3Demuxer() override { s_current = nullptr; }
  int OnAudioFrame(AVFrame* frame) override {
    times.push_back(static_cast<double>(now));
    AppendSamples(frame, sound);
    return listen();
  }
  int Open(const std::string& name, const std::string& options, double seconds = 2, double frequency = 1000) {
    SaveTone(dir.Path(name), options, seconds, frequency);
    return demuxer.Open(dir.Path(name), fmt);
  }
};

}  // namespace

// In place of the platform's time topic and of the C library's function; other tests really sleep.
long long USecToSec(long long usec) {
  return usec / 1000000;
}

std::int64_t GetMonotonicTimestamp() {
  return Mp3Demuxer::s_current == nullptr ? 0 : Mp3Demuxer::s_current->now;
}

extern "C" int usleep(useconds_t usec) {
  if (Mp3Demuxer::s_current == nullptr) {
    std::this_thread::sleep_for(std::chrono::microseconds(usec));
  } else {
    Mp3Demuxer::s_current->sleeps.push_back(usec);
    Mp3Demuxer::s_current->now += usec;
  }
  return 0;
}

TEST_F(Mp3Demuxer, DescribesAndPlays) {
  // Of the last one: the cover is no sound.
  for (const auto& [name, options, fps, messages, level] :
       {std::tuple{"1.mp3", "-ar 44100", 44100 / 1152.0, "1|Duration: 2, Fps: 38.281250\n1|Total frame: 78\n", 0.475},
        {"2.mp4", "-ar 32000", 31.25, "1|Duration: 2, Fps: 31.250000\n1|Total frame: 62\n", 0.5},
        {"3.wav", "-ar 8000", INFINITY, "1|Duration: 2, Fps: inf\n1|Total frame: 0\n", 0.5},
        {"4.mkv", "-c:a mp3", 48000 / 1152.0, "1|Duration: 0, Fps: 41.666667\n1|Total frame: 0\n", 0.475},
        {"5.mp3", "-f lavfi -i color=s=64x48:d=0.04 -map 0 -map 1 -c:v mjpeg -ar 32000", 32000 / 1152.0,
         "1|Duration: 2, Fps: 27.777778\n1|Total frame: 57\n1|Failed to decode. Codec[86017]\n", 0.475}}) {
    SCOPED_TRACE(name);
    log.Clear();
    sound.clear();
    fmt.p_extra = static_cast<unsigned char*>(std::malloc(3));
    ASSERT_EQ(Open(name, options, 2, 730), 0);
    EXPECT_DOUBLE_EQ(demuxer.GetFPS(), fps);
    EXPECT_NEAR(static_cast<double>(demuxer.GetTotalTime()), *name == '4' ? 0 : 2e6, 70000);
    EXPECT_TRUE(fmt.i_codec_id == AV_CODEC_ID_MP3 && fmt.audio.i_channels == 2 && fmt.p_extra == nullptr);
    ASSERT_EQ(demuxer.Demux(this), 0);
    EXPECT_EQ(log.Text(), messages);
    EXPECT_NEAR(LevelAt(sound, static_cast<int>(fmt.audio.i_rate), 730), level, level * 0.02);
    EXPECT_NEAR(static_cast<double>(sound.size()) / fmt.audio.i_rate, 2, 0.07);
  }
  EXPECT_EQ(sleeps.front(), 26122);
}

TEST_F(Mp3Demuxer, SleepsInShortSteps) {
  EXPECT_EQ(demuxer.Demux(this), 0);
  EXPECT_EQ(demuxer.Process(nullptr, nullptr), 1);
  EXPECT_EQ(sleeps, (std::vector<long long>{300000, 300000, 300000, 100000}));
  // A delay is made up for by half, then by half of what is left, rounded toward none; so is coming too early.
  const int cases[][2] = {{0, 1000000},     {9, 1000000},      {0, 999996}, {0, 999998}, {0, 999999},
                          {400000, 999999}, {2000000, 800000}, {0, 0},      {0, 400000}};
  for (const auto& [delay, wait] : cases) {
    now += delay;
    sleeps.clear();
    demuxer.DoFramePtsSleep();
    EXPECT_EQ(std::accumulate(sleeps.begin(), sleeps.end(), 0LL), wait);
  }
}

// A listener that takes its time, stalls once and at last refuses.
TEST_F(Mp3Demuxer, KeepsTimeForAMinute) {
  ASSERT_EQ(Open("a.mp3", "-ar 44100", 61), 0);
  unsigned int work = 1;
  listen = [&] {
    work = work * 1664525 + 1013904223;
    now += 2000 + (work >> 22) + (times.size() == 300 ? 400000 : 0);
    return times.size() < 2298 ? 0 : 7;
  };
  EXPECT_EQ(demuxer.Demux(this), -1);
  ASSERT_EQ(times.size(), 2298U);
  for (std::size_t i = 0; i < times.size(); ++i) {
    EXPECT_NEAR(times[i], times[0] + static_cast<double>(i) * 1152e6 / 44100, i < 300 || i >= 325 ? 20000 : 420000);
  }
  EXPECT_EQ(demuxer.Demux(nullptr), 0);
  EXPECT_EQ(demuxer.Open(dir.Path("none"), fmt), -1);
  EXPECT_EQ(demuxer.GetFPS(), 1.0);
}

TEST_F(Mp3Demuxer, PlaysOnBehindDamage) {
  SaveTone(dir.Path("a"), "-ar 44100 -f mp3");
  Bytes mp3 = ReadBytes(dir.Path("a"));
  std::fill_n(mp3.begin() + 10000, 3000, 0xA5);
  SaveBytes(dir.Path("a"), mp3.data(), mp3.size());
  ASSERT_EQ(demuxer.Open(dir.Path("a"), fmt), 0);
  EXPECT_EQ(demuxer.Demux(this), 0);
  EXPECT_NEAR(LevelAt(Samples(sound.end() - 44100, sound.end()), 44100, 1000), 0.475, 0.01);
}
