#include "utils/internal/scaler.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

namespace mediautil {
namespace {

AVPixelFormat PlainFormat(AVPixelFormat format, bool& fullRange) {
  fullRange = true;
  switch (format) {
    case AV_PIX_FMT_YUVJ420P:
      return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ411P:
      return AV_PIX_FMT_YUV411P;
    case AV_PIX_FMT_YUVJ422P:
      return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
      return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P:
      return AV_PIX_FMT_YUV440P;
    default:
      fullRange = false;
      return format;
  }
}

bool SetSide(SwsContext* sws, const char* width, const char* height, const char* format, const char* range, int w,
             int h, AVPixelFormat fmt) {
  bool fullRange = false;
  const AVPixelFormat plain = PlainFormat(fmt, fullRange);
  return av_opt_set_int(sws, width, w, 0) >= 0 && av_opt_set_int(sws, height, h, 0) >= 0 &&
         av_opt_set_pixel_fmt(sws, format, plain, 0) >= 0 && av_opt_set_int(sws, range, fullRange ? 1 : 0, 0) >= 0;
}

// libswscale's fast paths work on 16 pixels at a time, with aligned stores: rows that are not made for it are left
// short, overrun or, with NV12, a crash.
bool SuitsLibswscale(const Target& target) {
  constexpr unsigned int kAlignment = 32;
  bool suits = target.width % 16 == 0;
  for (int plane = 0; plane < av_pix_fmt_count_planes(target.format); ++plane) {
    suits = suits && reinterpret_cast<std::uintptr_t>(target.data[plane]) % kAlignment == 0 &&
            static_cast<unsigned int>(target.stride[plane]) % kAlignment == 0;
  }
  return suits;
}

}  // namespace

bool RunScaler(SwsContext* scaler, const unsigned char* const source[], const int sourceStride[], int sourceHeight,
               const Target& target) {
  if (source[0] == nullptr) {
    return false;
  }
  if (SuitsLibswscale(target)) {
    return sws_scale(scaler, source, sourceStride, 0, sourceHeight, target.data, target.stride) > 0;
  }
  const FfPtr<AVFrame> roomy(av_frame_alloc());
  if (roomy == nullptr) {
    return false;
  }
  roomy->format = target.format;
  roomy->width = target.width;
  roomy->height = target.height;
  if (av_frame_get_buffer(roomy.get(), 0) < 0 ||
      sws_scale(scaler, source, sourceStride, 0, sourceHeight, roomy->data, roomy->linesize) <= 0) {
    return false;
  }
  const auto* rows = const_cast<const unsigned char**>(roomy->data);
  av_image_copy(const_cast<unsigned char**>(target.data), const_cast<int*>(target.stride),
                const_cast<const unsigned char**>(rows), roomy->linesize, target.format, target.width, target.height);
  return true;
}

FfPtr<SwsContext> MakeScaler(int srcWidth, int srcHeight, AVPixelFormat srcFormat, int dstWidth, int dstHeight,
                             AVPixelFormat dstFormat, int flags) {
  // libswscale aborts on a format that it has no description of.
  if (sws_isSupportedInput(srcFormat) <= 0 || sws_isSupportedOutput(dstFormat) <= 0) {
    return nullptr;
  }
  FfPtr<SwsContext> sws(sws_alloc_context());
  if (sws == nullptr || av_opt_set_int(sws.get(), "sws_flags", flags, 0) < 0 ||
      !SetSide(sws.get(), "srcw", "srch", "src_format", "src_range", srcWidth, srcHeight, srcFormat) ||
      !SetSide(sws.get(), "dstw", "dsth", "dst_format", "dst_range", dstWidth, dstHeight, dstFormat) ||
      sws_init_context(sws.get(), nullptr, nullptr) < 0) {
    return nullptr;
  }
  return sws;
}

int PackedSize(AVPixelFormat format, int width, int height) {
  return av_image_get_buffer_size(format, width, height, 1);
}

void LayOver(AVFrame* frame, unsigned char* buffer, AVPixelFormat format, int width, int height) {
  av_image_fill_arrays(frame->data, frame->linesize, buffer, format, width, height, 1);
}

bool LiesOver(const AVFrame* frame, const unsigned char* buffer, int bufferSize, AVPixelFormat format, int width,
              int height) {
  int needed[4] = {};
  if (frame->data[0] != buffer || frame->format != format || av_image_fill_linesizes(needed, format, width) < 0) {
    return false;
  }
  ptrdiff_t strides[4] = {};
  for (int plane = 0; plane < 4; ++plane) {
    if (frame->linesize[plane] < needed[plane]) {
      return false;
    }
    strides[plane] = frame->linesize[plane];
  }
  std::size_t sizes[4] = {};
  if (av_image_fill_plane_sizes(sizes, format, height, strides) < 0) {
    return false;
  }
  for (int plane = 0; plane < 4 && sizes[plane] > 0; ++plane) {
    const bool last = plane == 3 || frame->data[plane + 1] == nullptr;
    const unsigned char* end = last ? buffer + bufferSize : frame->data[plane + 1];
    if (frame->data[plane] == nullptr || frame->data[plane] > end ||
        sizes[plane] > static_cast<std::size_t>(end - frame->data[plane])) {
      return false;
    }
  }
  return true;
}

bool AllocPackedPicture(AVFrame* frame, int width, int height, AVPixelFormat format) {
  const int size = PackedSize(format, width, height);
  if (size < 1) {
    return false;
  }
  frame->buf[0] = av_buffer_alloc(static_cast<std::size_t>(size) + kPictureSlack);
  if (frame->buf[0] == nullptr) {
    return false;
  }
  std::memset(frame->buf[0]->data + size, 0, kPictureSlack);
  frame->width = width;
  frame->height = height;
  frame->format = format;
  LayOver(frame, frame->buf[0]->data, format, width, height);
  return true;
}

FfPtr<AVFrame> CopyPacked(const AVFrame* frame) {
  FfPtr<AVFrame> copy(av_frame_alloc());
  if (frame->data[0] == nullptr || copy == nullptr ||
      !AllocPackedPicture(copy.get(), frame->width, frame->height, static_cast<AVPixelFormat>(frame->format)) ||
      av_frame_copy(copy.get(), frame) < 0) {
    return nullptr;
  }
  return copy;
}

bool IsPackedPicture(const AVFrame* frame) {
  const auto format = static_cast<AVPixelFormat>(frame->format);
  return frame->data[0] != nullptr && av_pix_fmt_count_planes(format) == 1 &&
         frame->linesize[0] == av_image_get_linesize(format, frame->width, 0);
}

}  // namespace mediautil
