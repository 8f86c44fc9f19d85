// Sound made by the tests: tones, coded by FFmpeg's encoders, and their level.
#pragma once

#include <vector>

#include "tests/support/media.h"

// Samples of one channel, full scale 1.
using Samples = std::vector<float>;

Samples Tone(int rate, double seconds, double frequency = 1000, double amplitude = 0.5);

// Amplitude of one frequency in the middle half of the sound.
double LevelAt(const Samples& sound, int rate, double frequency);

// The same between two seconds of the sound; what it does not have is left out.
double LevelIn(const Samples& sound, int rate, double from, double to, double frequency);

struct SoundWish {
  const char* encoder;  // "pcm_mulaw", "g726le", "aac", "libmp3lame", ...
  int rate = 8000;
  int channels = 1;
  double seconds = 2;
  double frequency = 1000;
  int bitRate = 0;
  double amplitude = 0.5;
};

struct SoundClip {
  AVCodecID codecId = AV_CODEC_ID_NONE;
  int rate = 0;
  int channels = 0;
  Bytes extradata;
  std::vector<Bytes> packets;  // one encoder frame each; 20 ms for encoders without frames
};

// Encodes a tone, the same on every channel.
SoundClip EncodeTone(const SoundWish& wish);

mediautil::FfPtr<AVCodecParameters> ParametersOf(const SoundClip& clip);

// Writes a file of the container that its name asks for, with a track of each clip. Returns the path.
std::string WriteFile(const std::vector<SoundClip>& clips, const std::string& path);

// A raw AAC (LC) packet with its ADTS header.
Bytes WithAdts(const Bytes& raw, int rate, int channels);

// A frame of the samples from one place on, the same on every channel.
mediautil::FfPtr<AVFrame> SoundFrame(AVSampleFormat format, int rate, int channels, const Samples& sound,
                                     std::size_t from, int count);

// One channel of a decoded frame, appended to sound.
void AppendSamples(const AVFrame* frame, Samples& sound, std::size_t channel = 0);

// A file with a tone of amplitude 0.5 on two channels, coded by the ffmpeg program as its options and the file's name
// say.
void SaveTone(const std::string& path, const std::string& options, double seconds = 2, double frequency = 1000);
