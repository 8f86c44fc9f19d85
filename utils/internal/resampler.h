// Resampling that follows what the frames really are.
#pragma once

#include <cstdint>

#include "utils/internal/ffmpegptr.h"

namespace mediautil {

struct SoundShape {
  AVChannelLayout layout;
  AVSampleFormat format;
  int rate;
};

// The shape of a codec's or a frame's sound. A layout that is not told is the default one of the channel count.
SoundShape ShapeOf(const AVCodecContext& ctx);
SoundShape ShapeOf(const AVFrame& frame);

constexpr int kMinSoundRate = 1000;  // samples per second; from lower rates a few samples become very many

// False for a shape without format, and for rates that no sound has.
bool IsPlausible(const SoundShape& shape, int minRate = kMinSoundRate);

// A frame with room for that many samples, or null.
FfPtr<AVFrame> MakeSoundFrame(const SoundShape& shape, int samples);

// Shortens a frame to count samples, of which it must have more. Returns the others, from the same buffers, or null
// with the frame unchanged.
FfPtr<AVFrame> SplitFrame(AVFrame* frame, int count);

class Resampler {
 public:
  // minRate: the lowest input rate; below the default only for callers that bound the output themselves.
  explicit Resampler(int minRate = kMinSoundRate) : m_minRate(minRate) {}

  // False for shapes without channels and for implausible ones. Sound that was still inside is dropped.
  bool SetUp(const SoundShape& in, const SoundShape& out);

  // Sets up again when the input has another format, rate or channel count than before: libswresample trusts the shape
  // that it was told and would read planes that are not there.
  bool Follow(const SoundShape& in);

  // How many samples a conversion of that many may give at most, those still inside included.
  std::int64_t MaxOutput(int samples) const;

  // Converts a frame into planes with room for that many samples. The count written, or a negative error.
  int Convert(unsigned char* const* planes, int room, const AVFrame& frame);

  // Gives a frame that shape, always the same one, by conversion when it has another. Floats are kept within full scale
  // where channels are summed, as whole numbers are. False when that cannot be.
  bool Fit(AVFrame* frame, const SoundShape& shape);

  void Free() { m_swr.reset(); }
  const SwrContext* Context() const { return m_swr.get(); }

 private:
  int m_minRate;
  double m_maxSum = 0;  // of a channel mixed from others at full scale; 0: as its format has it
  FfPtr<SwrContext> m_swr;
  SoundShape m_in = {};
  SoundShape m_out = {};
};

}  // namespace mediautil
