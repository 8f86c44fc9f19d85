// Whole encoder frames out of pieces of sound of any size.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "utils/internal/ffmpegptr.h"

namespace mediautil {

// Room for samples: one block for interleaved formats, one a channel for planar ones. Grows as needed.
class SampleBuffer {
 public:
  SampleBuffer() = default;
  ~SampleBuffer() { Free(); }
  SampleBuffer(const SampleBuffer&) = delete;
  SampleBuffer& operator=(const SampleBuffer&) = delete;

  // Starts empty. False for a format or channel count that no frame can hold.
  bool SetFormat(AVSampleFormat format, int channels);

  // Makes room for that many samples and keeps what is there; the new ones are zero. False without memory, or for more
  // than 64 MiB in all.
  bool Reserve(std::int64_t samples);

  void Free();

  unsigned char* const* Planes() const { return m_planes.data(); }
  std::size_t PlaneCount() const { return m_planeCount; }
  std::size_t Stride() const { return m_stride; }  // bytes of a sample in one plane

 private:
  std::array<unsigned char*, AV_NUM_DATA_POINTERS> m_planes{};
  std::size_t m_planeCount = 0;
  std::size_t m_stride = 0;
  std::int64_t m_room = 0;  // samples
};

class SampleMerger {
 public:
  static constexpr int kDefaultFrameSize = 1024;  // samples, for encoders that take any number

  // Starts empty. frameSize: samples of a whole frame; below 1 stands for the default.
  bool SetUp(AVSampleFormat format, int channels, int frameSize);

  int FrameSize() const { return m_frameSize; }  // samples
  int FrameBytes() const { return Bytes(m_frameSize); }
  int WaitingBytes() const { return Bytes(m_end - m_begin); }

  // Adds samples behind the waiting ones. False without memory, nothing added then. Frames taken before become invalid.
  bool Append(const unsigned char* const* planes, int samples);

  // Lays the next whole frame under frame: its data and sample count. False when too few samples wait.
  bool Next(AVFrame& frame);

  // Drops the oldest whole frames until no more than that many bytes wait.
  void KeepAtMost(int bytes);

  void Free();

 private:
  int Bytes(int samples) const;

  SampleBuffer m_samples;
  int m_frameSize = kDefaultFrameSize;
  int m_begin = 0;  // samples: what waits
  int m_end = 0;
};

}  // namespace mediautil
