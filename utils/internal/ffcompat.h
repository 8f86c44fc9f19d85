// What depends on the FFmpeg version, and the contract of the older one-call decoder on top of today's send and
// receive. No other file tests the version.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
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

// avcodec_close, which later versions advise against; it keeps the context's settings for a reopening.
int CloseCodec(AVCodecContext* ctx);

// Bytes of codec configuration data or of a packet with FFmpeg's zero padding behind them, from av_mallocz; null for a
// null source, for no bytes and without memory. Release with av_free or free.
unsigned char* CopyPadded(const unsigned char* data, int size);

}  // namespace mediautil
