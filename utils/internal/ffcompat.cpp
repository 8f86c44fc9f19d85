#include "utils/internal/ffcompat.h"

#include <cstring>

#include "utils/internal/ffmpegptr.h"

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

bool DecodeSound(AVCodecContext* ctx, AVFrame* frame, unsigned char* data, int size) {
  const FfPtr<AVPacket> packet(av_packet_alloc());
  const FfPtr<AVFrame> rest(av_frame_alloc());
  if (packet == nullptr || rest == nullptr) {
    return false;
  }
  packet->data = data;
  packet->size = size;
  int gotFrame = 0;
  DecodeOnce(ctx, frame, packet.get(), &gotFrame);
  // What stays inside would come out in place of the next buffers' sound.
  while (gotFrame != 0 && avcodec_receive_frame(ctx, rest.get()) >= 0) {
  }
  return gotFrame != 0;
}

AVSampleFormat ChooseSampleFormat(const AVCodec* encoder, AVSampleFormat wanted) {
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
  const void* configs = nullptr;
  avcodec_get_supported_config(nullptr, encoder, AV_CODEC_CONFIG_SAMPLE_FORMAT, 0, &configs, nullptr);
  const auto* formats = static_cast<const AVSampleFormat*>(configs);
#else
  const AVSampleFormat* formats = encoder->sample_fmts;
#endif
  for (const AVSampleFormat* format = formats; format != nullptr && *format != AV_SAMPLE_FMT_NONE; ++format) {
    if (*format == wanted) {
      return wanted;
    }
  }
  return formats == nullptr || formats[0] == AV_SAMPLE_FMT_NONE ? wanted : formats[0];
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
