// What depends on the FFmpeg version, and the contract of the older one-call decoder on top of today's send and
// receive. No other file tests the version.
#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace mediautil {

// Today's FFmpeg registers its codecs, containers and filters itself.
inline void RegisterCodecs() {}
inline void RegisterFilters() {}

// Decodes one packet. Sets gotPicture to 1 when a picture came out into frame, else to 0. Returns the bytes used, which
// is the whole packet, or a negative error. The packet must hold data: an empty one would start draining.
int DecodeOnce(AVCodecContext* ctx, AVFrame* frame, const AVPacket* packet, int* gotPicture);

// Takes a picture that the decoder still holds back for reordering. The session only accepts a reset or its end then.
bool DrainPicture(AVCodecContext* ctx, AVFrame* frame);

// Decodes a buffer of coded sound and leaves its first frame in frame; further frames of the buffer are dropped. False
// when none came out. The buffer must hold data.
bool DecodeSound(AVCodecContext* ctx, AVFrame* frame, unsigned char* data, int size);

// Encodes one frame and hands every packet that came out to write(packet), which returns false to stop. Sets gotPacket
// when there was one. Returns a negative error of the encoder, else 0.
template <typename Write>
int EncodeFrame(AVCodecContext* ctx, const AVFrame* frame, AVPacket* packet, bool& gotPacket, Write write) {
  gotPacket = false;
  int ret = avcodec_send_frame(ctx, frame);
  while (ret >= 0 && (ret = avcodec_receive_packet(ctx, packet)) >= 0) {
    gotPacket = true;
    const bool goOn = write(packet);
    av_packet_unref(packet);
    if (!goOn) {
      return 0;
    }
  }
  return ret == AVERROR(EAGAIN) ? 0 : ret;
}

// The wanted sample format when the encoder lists it or lists none, else its first one.
AVSampleFormat ChooseSampleFormat(const AVCodec* encoder, AVSampleFormat wanted);

// What FFmpeg's I/O hands to a write callback.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using IoBytes = const std::uint8_t*;
#else
using IoBytes = std::uint8_t*;
#endif

// avcodec_close, which later versions advise against; it keeps the context's settings for a reopening.
int CloseCodec(AVCodecContext* ctx);

// Bytes of codec configuration data or of a packet with FFmpeg's zero padding behind them, from av_mallocz; null for a
// null source, for no bytes and without memory. Release with av_free or free.
unsigned char* CopyPadded(const unsigned char* data, int size);

}  // namespace mediautil
