#include "utils/internal/resampler.h"

#include <climits>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
}

namespace mediautil {
namespace {

constexpr int kMaxSoundRate = 768000;  // samples per second; to or from higher rates the filter would take gigabytes

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

// libswresample lets a missing format pass.
bool IsPlausible(const SoundShape& shape, int minRate) {
  return shape.rate >= minRate && shape.rate <= kMaxSoundRate && av_get_bytes_per_sample(shape.format) > 0;
}

FfPtr<AVFrame> MakeSoundFrame(const SoundShape& shape, int samples) {
  FfPtr<AVFrame> frame(av_frame_alloc());
  if (frame == nullptr) {
    return nullptr;
  }
  frame->nb_samples = samples;
  frame->format = shape.format;
  frame->sample_rate = shape.rate;
  frame->ch_layout = shape.layout;
  return av_frame_get_buffer(frame.get(), 0) < 0 ? nullptr : std::move(frame);
}

FfPtr<AVFrame> SplitFrame(AVFrame* frame, int count) {
  FfPtr<AVFrame> rest(av_frame_clone(frame));
  if (rest == nullptr) {
    return nullptr;
  }
  const auto format = static_cast<AVSampleFormat>(frame->format);
  const bool isPlanar = av_sample_fmt_is_planar(format) != 0;
  const int step = count * av_get_bytes_per_sample(format) * (isPlanar ? 1 : frame->ch_layout.nb_channels);
  for (int i = 0; i < (isPlanar ? frame->ch_layout.nb_channels : 1); ++i) {
    rest->extended_data[i] += step;
    if (i < AV_NUM_DATA_POINTERS) {
      rest->data[i] = rest->extended_data[i];
    }
  }
  rest->nb_samples -= count;
  frame->nb_samples = count;
  return rest;
}

bool Resampler::SetUp(const SoundShape& in, const SoundShape& out) {
  m_in = in;
  m_out = out;
  m_swr.reset();
  if (!IsPlausible(in, m_minRate) || !IsPlausible(out)) {
    return false;
  }
  SwrContext* swr = nullptr;
  const int ret = swr_alloc_set_opts2(&swr, &m_out.layout, m_out.format, m_out.rate, &m_in.layout, m_in.format,
                                      m_in.rate, 0, nullptr);
  m_swr.reset(swr);
  if (ret < 0 || m_swr == nullptr || av_opt_set_double(swr, "rematrix_maxval", m_maxSum, 0) < 0 || swr_init(swr) < 0) {
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

bool Resampler::Fit(AVFrame* frame, const SoundShape& shape) {
  const SoundShape is = ShapeOf(*frame);
  if (is.format == shape.format && is.rate == shape.rate && is.layout.nb_channels == shape.layout.nb_channels) {
    Free();
    return av_channel_layout_copy(&frame->ch_layout, &shape.layout) >= 0;
  }
  m_maxSum = 1;
  const bool isReady = m_swr == nullptr ? SetUp(is, shape) : Follow(is);
  const std::int64_t room = isReady ? MaxOutput(frame->nb_samples) : 0;
  const FfPtr<AVFrame> fitting(room < 1 || room > INT_MAX ? nullptr : MakeSoundFrame(shape, static_cast<int>(room)));
  if (fitting == nullptr) {
    return false;
  }
  fitting->nb_samples = Convert(fitting->extended_data, static_cast<int>(room), *frame);
  fitting->pts = frame->pts;
  av_frame_unref(frame);
  av_frame_move_ref(frame, fitting.get());
  return frame->nb_samples >= 0;
}

}  // namespace mediautil
