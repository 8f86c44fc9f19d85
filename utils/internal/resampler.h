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

class Resampler {
 public:
  // minRate: the lowest input rate; below the default only for callers that bound the output themselves.
  explicit Resampler(int minRate = kMinRate) : m_minRate(minRate) {}

  // False for a shape without channels or format, and for a rate that no sound has: output and memory would be without
  // bound. Sound that was still inside is dropped.
  bool SetUp(const SoundShape& in, const SoundShape& out);

  // Sets up again when the input has another format, rate or channel count than before: libswresample trusts the shape
  // that it was told and would read planes that are not there.
  bool Follow(const SoundShape& in);

  // How many samples a conversion of that many may give at most, those still inside included.
  std::int64_t MaxOutput(int samples) const;

  // Converts a frame into planes with room for that many samples. The count written, or a negative error.
  int Convert(unsigned char* const* planes, int room, const AVFrame& frame);

  void Free() { m_swr.reset(); }
  const SwrContext* Context() const { return m_swr.get(); }

 private:
  static constexpr int kMinRate = 1000;  // samples per second; from lower rates a few samples become very many

  int m_minRate;
  FfPtr<SwrContext> m_swr;
  SoundShape m_in = {};
  SoundShape m_out = {};
};

}  // namespace mediautil
