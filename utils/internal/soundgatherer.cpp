#include "utils/internal/soundgatherer.h"

#include <algorithm>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

namespace mediautil {

bool SoundGatherer::SetUpResampler(const SoundShape& in, const SoundShape& out) {
  const bool isPlanar = av_sample_fmt_is_planar(out.format) != 0;
  m_convertedStride = av_get_bytes_per_sample(out.format) * (isPlanar ? 1 : out.layout.nb_channels);
  return m_resampler.SetUp(in, out);
}

bool SoundGatherer::SetUpBuffers(const AVCodecContext& enc) {
  return m_converted.SetFormat(enc.sample_fmt, enc.ch_layout.nb_channels) &&
         m_merger.SetUp(enc.sample_fmt, enc.ch_layout.nb_channels, enc.frame_size);
}

void SoundGatherer::SetCapacity(std::int64_t convertedFrameBytes) {
  constexpr int kFrames = 64;
  constexpr std::int64_t kMost = 8 << 20;  // with twice as much waiting, the merger still takes more
  m_capacity = static_cast<int>(std::min(convertedFrameBytes, kMost / kFrames)) * kFrames;
}

SoundGatherer::Outcome SoundGatherer::Convert(const SoundShape& shape, const AVFrame& in, const AVCodecContext& enc,
                                              AVFrame& converted) {
  converted.nb_samples = 0;
  converted.format = enc.sample_fmt;
  converted.sample_rate = enc.sample_rate;
  if (av_channel_layout_copy(&converted.ch_layout, &enc.ch_layout) < 0) {
    return Outcome::kNoMemory;
  }
  if (!m_resampler.Follow(shape)) {
    return Outcome::kNoResampler;
  }
  if (in.nb_samples < 1 || in.extended_data == nullptr || in.extended_data[0] == nullptr) {
    return Outcome::kFailed;
  }
  const std::int64_t room = m_resampler.MaxOutput(in.nb_samples);
  const auto stride = static_cast<std::int64_t>(m_converted.Stride());
  if (stride == 0 || !m_converted.Reserve(std::max(room, (room * m_convertedStride + stride - 1) / stride))) {
    return Outcome::kNoMemory;
  }
  const int samples = m_resampler.Convert(m_converted.Planes(), static_cast<int>(room), in);
  converted.nb_samples = std::max(samples, 0);
  std::copy_n(m_converted.Planes(), m_converted.PlaneCount(), converted.data);
  return samples < 0 ? Outcome::kFailed : Outcome::kOk;
}

void SoundGatherer::Assign(AVPacket& packet, const AVCodecContext& enc, const AVStream* st) {
  if (st != nullptr) {
    packet.stream_index = st->index;
    packet.duration = av_rescale_q(packet.duration, {1, enc.sample_rate}, st->time_base);
  }
}

void SoundGatherer::Free() {
  m_merger.Free();
  m_converted.Free();
  m_resampler.Free();
  m_convertedStride = 0;
  m_capacity = 0;
}

}  // namespace mediautil
