// Sound of any shape and in pieces of any size to whole frames of an encoder: what all encoders of the library share.
#pragma once

#include <cstdint>

#include "utils/internal/ffcompat.h"
#include "utils/internal/resampler.h"
#include "utils/internal/samplemerger.h"

namespace mediautil {

class SoundGatherer {
 public:
  enum class Outcome { kOk, kNoResampler, kNoMemory, kFailed };

  // The two steps of the set-up, each false for sound that cannot be converted or held. out is what the resampler
  // makes; where enc wants something else, its buffers hold that much all the same, with zeros or older sound behind
  // it.
  bool SetUpResampler(const SoundShape& in, const SoundShape& out);
  bool SetUpBuffers(const AVCodecContext& enc);

  int FrameBytes() const { return m_merger.FrameBytes(); }  // of a whole encoder frame, all channels

  // How much converted sound to expect of one call: 64 encoder frames, given the bytes that one converts to, and
  // 8 MiB at most. The buffers grow past it; twice as much may wait after an error.
  void SetCapacity(std::int64_t convertedFrameBytes);
  int Capacity() const { return m_capacity; }  // bytes

  // Converts a frame of the given shape; converted then lies over it, described as enc wants its frames. It has no
  // samples after a failure, and may have none when the resampler keeps them.
  Outcome Convert(const SoundShape& shape, const AVFrame& in, const AVCodecContext& enc, AVFrame& converted);

  // Adds converted samples behind the waiting ones. False without memory, nothing added then.
  bool Append(const AVFrame& converted) { return m_merger.Append(converted.data, converted.nb_samples); }

  // Encodes every whole frame that waits, with frame as the vehicle, and hands the packets to write(packet), which
  // returns false to stop. They carry no time; index and duration are those of st, which may be null. Sets gotPacket
  // when the last frame gave one. Negative: the encoder's error.
  template <typename Write>
  int Encode(AVCodecContext* enc, AVFrame* frame, const AVStream* st, bool& gotPacket, Write write) {
    const FfPtr<AVPacket> packet(av_packet_alloc());
    int ret = packet == nullptr ? AVERROR(ENOMEM) : 0;
    bool goOn = true;
    gotPacket = false;
    while (ret >= 0 && goOn && m_merger.Next(*frame)) {
      ret = EncodeFrame(enc, frame, packet.get(), gotPacket, [&](AVPacket* encoded) {
        Assign(*encoded, *enc, st);
        return goOn = write(encoded);
      });
    }
    m_merger.KeepAtMost(m_capacity * 2);
    return ret;
  }

  void Free();
  const SwrContext* Context() const { return m_resampler.Context(); }

 private:
  static void Assign(AVPacket& packet, const AVCodecContext& enc, const AVStream* st);

  Resampler m_resampler;
  SampleBuffer m_converted;
  SampleMerger m_merger;
  int m_convertedStride = 0;  // bytes of a sample in a plane of the resampler's output
  int m_capacity = 0;
};

}  // namespace mediautil
