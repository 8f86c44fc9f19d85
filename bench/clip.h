// Four seconds of coded video and sound, to be repeated for as long as a benchmark wants.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/inputs.h"

extern "C" {
#include <libavutil/samplefmt.h>
}

namespace bench {

constexpr std::int64_t kSecond = 1000000;  // microseconds
constexpr int kClipSeconds = 4;
constexpr int kFrameRate = 25;
constexpr int kKeyInterval = 50;  // frames
constexpr std::int64_t kFrameTime = kSecond / kFrameRate;

constexpr int kAacRate = 16000;
constexpr int kAacSamples = 1024;  // of a frame
constexpr int kAdtsHeader = 7;     // bytes
constexpr std::int64_t kAacTime = kSecond * kAacSamples / kAacRate;

constexpr int kMulawRate = 8000;
constexpr int kMulawSamples = 160;  // of a piece
constexpr std::int64_t kMulawTime = kSecond * kMulawSamples / kMulawRate;

// The frames that are repeated one after the other; sound is mono.
struct Clip {
  int width = 0;
  int height = 0;
  Bytes parameterSets;       // Annex B
  std::vector<Bytes> video;  // H.264, Annex B without B frames; a key frame has the parameter sets in front
  std::vector<Bytes> aac;    // with ADTS headers
  std::vector<Bytes> mulaw;  // pieces of G.711
};

// How long a repetition is and how large its frames are.
struct ClipShape {
  int width;
  int height;
  int bitRate;  // of the video
};

// Draws a moving scene with sensor noise, makes sound, and encodes them. The same everywhere but for what the encoders'
// versions change.
Clip MakeClip(const ClipShape& shape);

// How sound is coded.
struct SoundCoding {
  const char* encoder;
  AVSampleFormat format;  // planar, or 16-bit mono
  int rate;
  int samples;  // of a packet
  int channels = 1;
  int bitRate = 32000;
  const char* options = "";
};

// The sound of a clip, a packet after the other.
std::vector<Bytes> EncodeSound(const SoundCoding& coding);

// One file. Loading throws when it is not whole.
void SaveClip(const Clip& clip, const std::string& path);
Clip LoadClip(const std::string& path);

// Frame number i of the endless repetition.
template <typename Frame>
const Frame& At(const std::vector<Frame>& frames, std::int64_t i) {
  return frames[static_cast<std::size_t>(i) % frames.size()];
}

constexpr bool IsKey(std::int64_t videoFrame) {
  return videoFrame % kKeyInterval == 0;
}

// Calls video(i, time) and sound(j, time) for every frame of that many seconds, in the order of their times, video
// first. Times are microseconds from 0; soundTime: of one piece of sound.
template <typename Video, typename Sound>
void Play(std::int64_t seconds, std::int64_t soundTime, Video video, Sound sound) {
  std::int64_t j = 0;
  for (std::int64_t i = 0; i < seconds * kFrameRate; ++i) {
    for (; j * soundTime < i * kFrameTime; ++j) {
      sound(j, j * soundTime);
    }
    video(i, i * kFrameTime);
  }
  for (; j * soundTime < seconds * kSecond; ++j) {
    sound(j, j * soundTime);
  }
}

}  // namespace bench
