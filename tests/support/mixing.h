// A mixer under test with its surroundings.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/fulldisk.h"
#include "tests/support/log_capture.h"
#include "tests/support/readback.h"
#include "tests/support/tempdir.h"
#include "utils/audiomixer.h"

// Four seconds of G.711 in packets of 20 ms, amplitude 0.25: 730 Hz, 1000 Hz.
inline const SoundClip& Low() {
  static const SoundClip clip = EncodeTone({"pcm_mulaw", 8000, 1, 4, 730, 0, 0.25});
  return clip;
}
inline const SoundClip& High() {
  static const SoundClip clip = EncodeTone({"pcm_mulaw", 8000, 1, 4, 1000, 0, 0.25});
  return clip;
}

// A mixer, its log and its files.
struct Mixing {
  TempDir dir;
  LogCapture log;
  AudioMixer mixer;
  std::list<AVPacket*> popped;

  explicit Mixing(const std::vector<SoundClip>& streams = {}) {
    for (const SoundClip& clip : streams) EXPECT_GE(Add(clip), 0);
    EXPECT_EQ(streams.size() < 2 ? 0 : SetOutput("mix.wav"), 0);
  }
  ~Mixing() {
    for (AVPacket*& packet : popped) av_packet_free(&packet);
  }
  // A stream, or a file of that name.
  int Add(const SoundClip& clip, const std::string& name = "") {
    return name.empty() ? mixer.AddStream(ParametersOf(clip).get()) : mixer.AddInput(WriteFile({clip}, dir.Path(name)));
  }
  int SetOutput(const std::string& name) { return mixer.SetOutput(name.empty() ? "" : dir.Path(name)); }
  int Push(unsigned int idx, const Bytes& data) { return mixer.PushPkt(idx, MakePacket(data)); }
  // Packets [from, to) of a clip.
  void Push(unsigned int idx, const SoundClip& clip, std::size_t from, std::size_t to) {
    for (; from < to; ++from) ASSERT_EQ(Push(idx, clip.packets.at(from)), 0);
  }
  void Pass() { ASSERT_EQ(mixer.ProcessInput(), 0); }
  Track Mix(const std::string& name = "mix.wav") {
    EXPECT_EQ(mixer.WriteToFile(), 0);
    return std::move(ReadBack(ReadBytes(dir.Path(name))).at(0));
  }
  // Messages that contain a text, of one function or any.
  std::size_t Count(const std::string& text, const std::string& function = "") const {
    std::size_t count = 0;
    for (const LogLine& line : log.Lines()) {
      count += line.text.find(text) != std::string::npos && line.function.find(function) == 0 ? 1U : 0U;
    }
    return count;
  }
  // Calls that failed, with a code or, for 0, any, and what they said, with the folder left out. Clears the log.
  void Fails(const std::vector<int>& results, const std::string& messages, int code = -1) {
    for (const int result : results) EXPECT_TRUE(code == 0 ? result < 0 : result == code) << result;
    const std::string folder = dir.Path("");
    std::string text = "\n" + log.Text();
    for (std::size_t i = 0; (i = text.find(folder, i)) != std::string::npos;) text.erase(i, folder.size());
    EXPECT_EQ(text, messages);
    log.Clear();
  }
  auto Files() const { return std::distance(std::filesystem::directory_iterator(dir.Path()), {}); }
  std::size_t Troubles() const { return Count("rror") + Count("Failed") + Count("Detect frame drop"); }
};
