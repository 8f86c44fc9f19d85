// Stream format records as FFmpeg codec parameters and packets.
#pragma once

#include <cstdint>

#include "platform/export.h"
#include "utils/esformat.h"

struct AVCodecParameters;
struct AVPacket;

// Functions only; nothing is kept.
class VY_API FFmpegAdapter {
 public:
  // New codec parameters that describe fmt, or null for an unknown category and without memory. Sets fmt.i_codec_id
  // from an audio codec code; bG726LE chooses the little-endian G.726. The caller frees them with
  // avcodec_parameters_free.
  static AVCodecParameters* AllocCodecParameters(ESFormat& fmt, bool bG726LE);

  // New codec parameters of the camera audio-out channel: G.711 mu-law, 8000 Hz, two channels. Null without memory. The
  // caller frees them with avcodec_parameters_free.
  static AVCodecParameters* AudioOutCodecParameters();

  // A new packet that owns a copy of size bytes, zero padded behind them, or null. The caller frees it with
  // av_packet_free.
  static AVPacket* AllocPktCpBuf(const std::uint8_t* data, unsigned int size);
};
