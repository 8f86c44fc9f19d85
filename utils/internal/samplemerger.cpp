#include "utils/internal/samplemerger.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/samplefmt.h>
}

namespace mediautil {
namespace {

constexpr std::int64_t kMaxBytes = 64 << 20;

}  // namespace

bool SampleBuffer::SetFormat(AVSampleFormat format, int channels) {
  Free();
  const int sampleSize = av_get_bytes_per_sample(format);
  const bool isPlanar = av_sample_fmt_is_planar(format) != 0;
  if (sampleSize < 1 || channels < 1 || (isPlanar && channels > AV_NUM_DATA_POINTERS)) {
    return false;
  }
  m_planeCount = isPlanar ? static_cast<std::size_t>(channels) : 1;
  m_stride = static_cast<std::size_t>(isPlanar ? sampleSize : sampleSize * channels);
  return true;
}

bool SampleBuffer::Reserve(std::int64_t samples) {
  if (samples <= m_room) {
    return true;
  }
  const std::int64_t limit =
      m_stride * m_planeCount == 0 ? 0 : kMaxBytes / static_cast<std::int64_t>(m_stride * m_planeCount);
  if (samples > limit) {
    return false;
  }
  const std::int64_t room = std::min(std::max(samples, 2 * m_room), limit);
  for (std::size_t i = 0; i < m_planeCount; ++i) {
    const std::size_t old = static_cast<std::size_t>(m_room) * m_stride;
    const std::size_t size = static_cast<std::size_t>(room) * m_stride + AV_INPUT_BUFFER_PADDING_SIZE;
    auto* grown = static_cast<unsigned char*>(av_realloc(m_planes[i], size));
    if (grown == nullptr) {
      return false;
    }
    std::memset(grown + old, 0, size - old);
    m_planes[i] = grown;
  }
  m_room = room;
  return true;
}

void SampleBuffer::Free() {
  for (unsigned char*& plane : m_planes) {
    av_freep(&plane);
  }
  m_planeCount = 0;
  m_stride = 0;
  m_room = 0;
}

bool SampleMerger::SetUp(AVSampleFormat format, int channels, int frameSize) {
  Free();
  m_frameSize = frameSize < 1 ? kDefaultFrameSize : frameSize;
  return m_samples.SetFormat(format, channels);
}

bool SampleMerger::Append(const unsigned char* const* planes, int samples) {
  const std::size_t stride = m_samples.Stride();
  const auto waiting = static_cast<std::size_t>(m_end - m_begin);
  for (std::size_t i = 0; m_begin > 0 && i < m_samples.PlaneCount(); ++i) {
    unsigned char* plane = m_samples.Planes()[i];
    std::memmove(plane, plane + static_cast<std::size_t>(m_begin) * stride, waiting * stride);
  }
  m_begin = 0;
  m_end = static_cast<int>(waiting);
  if (samples < 1 || !m_samples.Reserve(std::int64_t{m_end} + samples)) {
    return samples == 0;
  }
  for (std::size_t i = 0; i < m_samples.PlaneCount(); ++i) {
    std::memcpy(m_samples.Planes()[i] + waiting * stride, planes[i], static_cast<std::size_t>(samples) * stride);
  }
  m_end += samples;
  return true;
}

bool SampleMerger::Next(AVFrame& frame) {
  if (m_end - m_begin < m_frameSize) {
    return false;
  }
  for (std::size_t i = 0; i < m_samples.PlaneCount(); ++i) {
    frame.data[i] = m_samples.Planes()[i] + static_cast<std::size_t>(m_begin) * m_samples.Stride();
  }
  frame.extended_data = frame.data;
  frame.nb_samples = m_frameSize;
  frame.linesize[0] = static_cast<int>(static_cast<std::size_t>(m_frameSize) * m_samples.Stride());
  m_begin += m_frameSize;
  return true;
}

void SampleMerger::KeepAtMost(int bytes) {
  while (WaitingBytes() > bytes && m_end - m_begin >= m_frameSize) {
    m_begin += m_frameSize;
  }
}

void SampleMerger::Free() {
  m_samples.Free();
  m_begin = 0;
  m_end = 0;
}

int SampleMerger::Bytes(int samples) const {
  return static_cast<int>(static_cast<std::size_t>(samples) * m_samples.Stride() * m_samples.PlaneCount());
}

}  // namespace mediautil
