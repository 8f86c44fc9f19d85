// The floor of sound: straight FFmpeg calls. Everything throws std::runtime_error when it fails.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench/clip.h"
#include "bench/floorio.h"

namespace bench {

struct FloorCoding {
  const char* encoder;
  AVSampleFormat format;
  int rate;
  int bitRate;
  int bits = 0;  // of a coded sample, where the encoder wants to know
};

// Mono sound to whole frames of an encoder: decoded, or given as samples, and resampled.
class FloorTranscoder {
 public:
  using Write = std::function<void(AVPacket* packet)>;

  // decoder: of G.711 or the like; AV_CODEC_ID_NONE for samples of 16 bit.
  FloorTranscoder(AVCodecID decoder, int rate, const FloorCoding& destination);

  const AVCodecContext& Encoder() const { return *m_encoder; }
  void Feed(const SharedBytes& piece, const Write& write);
  void Feed(const AVFrame& samples, const Write& write);

 private:
  static constexpr int kRoom = 16384;  // samples, far more than a piece and a frame
  static constexpr int kDefaultFrame = 1024;

  mediautil::FfPtr<AVCodecContext> m_decoder;
  mediautil::FfPtr<AVCodecContext> m_encoder;
  mediautil::FfPtr<SwrContext> m_swr;
  const mediautil::FfPtr<AVPacket> m_packet{av_packet_alloc()};
  const mediautil::FfPtr<AVFrame> m_decoded{av_frame_alloc()};
  const mediautil::FfPtr<AVFrame> m_frame{av_frame_alloc()};
  std::vector<std::uint8_t> m_samples;
  std::size_t m_stride = 0;  // bytes of a sample
  int m_waiting = 0;
};

// That many seconds of repeated G.711 pieces, 8000 Hz mono, coded and in a container.
void FloorSpeak(const std::vector<SharedBytes>& pieces, int seconds, const FloorCoding& destination,
                const char* container, Sink& sink);

// A sound file to a mu-law WAV file, 8000 Hz stereo.
void FloorG711(const std::string& source, const std::string& destination);

// FFmpeg's own G.711 codec, one way and the other; both open at the construction.
class FloorUlaw {
 public:
  FloorUlaw();
  // Samples of one frame to codes and back; the result is valid until the next call.
  const AVPacket& Encode(const AVFrame& samples);
  const AVFrame& Decode(const SharedBytes& codes);

 private:
  mediautil::FfPtr<AVCodecContext> m_encoder;
  mediautil::FfPtr<AVCodecContext> m_decoder;
  const mediautil::FfPtr<AVPacket> m_packet{av_packet_alloc()};
  const mediautil::FfPtr<AVFrame> m_frame{av_frame_alloc()};
};

}  // namespace bench
