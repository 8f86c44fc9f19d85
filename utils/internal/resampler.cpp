#include "utils/internal/resampler.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

namespace mediautil {
namespace {

constexpr int kMaxRate = 768000;  // samples per second; to or from higher rates the filter would take gigabytes

// libswresample lets a missing format pass.
bool IsPlausible(const SoundShape& shape, int minRate) {
  return shape.rate >= minRate && shape.rate <= kMaxRate && av_get_bytes_per_sample(shape.format) > 0;
}

AVChannelLayout PlainLayout(const AVChannelLayout& layout) {
  if (layout.order == AV_CHANNEL_ORDER_NATIVE) {
    return layout;
  }
  AVChannelLayout plain = {};
  av_channel_layout_default(&plain, layout.nb_channels);
  return plain;
}

}  // namespace

SoundShape ShapeOf(const AVCodecContext& ctx) {
  return {PlainLayout(ctx.ch_layout), ctx.sample_fmt, ctx.sample_rate};
}

SoundShape ShapeOf(const AVFrame& frame) {
  return {PlainLayout(frame.ch_layout), static_cast<AVSampleFormat>(frame.format), frame.sample_rate};
}

bool Resampler::SetUp(const SoundShape& in, const SoundShape& out) {
  m_in = in;
  m_out = out;
  m_swr.reset();
  if (!IsPlausible(in, m_minRate) || !IsPlausible(out, kMinRate)) {
    return false;
  }
  SwrContext* swr = nullptr;
  const int ret = swr_alloc_set_opts2(&swr, &m_out.layout, m_out.format, m_out.rate, &m_in.layout, m_in.format,
                                      m_in.rate, 0, nullptr);
  m_swr.reset(swr);
  if (ret < 0 || m_swr == nullptr || swr_init(m_swr.get()) < 0) {
    m_swr.reset();
    return false;
  }
  return true;
}

bool Resampler::Follow(const SoundShape& in) {
  const bool isSame =
      in.format == m_in.format && in.rate == m_in.rate && in.layout.nb_channels == m_in.layout.nb_channels;
  return (m_swr != nullptr && isSame) || SetUp(in, m_out);
}

std::int64_t Resampler::MaxOutput(int samples) const {
  return av_rescale_rnd(swr_get_delay(m_swr.get(), m_in.rate) + samples, m_out.rate, m_in.rate, AV_ROUND_UP);
}

int Resampler::Convert(unsigned char* const* planes, int room, const AVFrame& frame) {
  return swr_convert(m_swr.get(), const_cast<unsigned char**>(planes), room,
                     const_cast<const unsigned char**>(frame.extended_data), frame.nb_samples);
}

}  // namespace mediautil
