#include "utils/internal/ffcompat.h"

#include <cstring>

extern "C" {
#include <libavcodec/version.h>
#include <libavutil/mem.h>
}

namespace mediautil {

int DecodeOnce(AVCodecContext* ctx, AVFrame* frame, const AVPacket* packet, int* gotPicture) {
  *gotPicture = 0;
  int ret = avcodec_send_packet(ctx, packet);
  if (ret == AVERROR(EAGAIN)) {
    // Pictures of earlier packets are still queued: the one-call decoder would have dropped them.
    while (avcodec_receive_frame(ctx, frame) >= 0) {
    }
    ret = avcodec_send_packet(ctx, packet);
  }
  if (ret < 0) {
    av_frame_unref(frame);
    return ret;
  }
  ret = avcodec_receive_frame(ctx, frame);
  if (ret == 0) {
    *gotPicture = 1;
  } else if (ret != AVERROR(EAGAIN)) {
    return ret;
  }
  return packet->size;
}

bool DrainPicture(AVCodecContext* ctx, AVFrame* frame) {
  avcodec_send_packet(ctx, nullptr);
  return avcodec_receive_frame(ctx, frame) == 0;
}

int CloseCodec(AVCodecContext* ctx) {
#if LIBAVCODEC_VERSION_MAJOR >= 61
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
  return avcodec_close(ctx);
#if LIBAVCODEC_VERSION_MAJOR >= 61
#pragma GCC diagnostic pop
#endif
}

unsigned char* CopyPadded(const unsigned char* data, int size) {
  if (data == nullptr || size < 1) {
    return nullptr;
  }
  const auto bytes = static_cast<std::size_t>(size);
  auto* copy = static_cast<unsigned char*>(av_mallocz(bytes + AV_INPUT_BUFFER_PADDING_SIZE));
  if (copy != nullptr) {
    std::memcpy(copy, data, bytes);
  }
  return copy;
}

}  // namespace mediautil
