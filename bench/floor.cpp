#include "bench/floor.h"

#include <jpeglib.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "bench/require.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace bench {
namespace {

struct Free {
  void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
  void operator()(AVFrame* p) const { av_frame_free(&p); }
  void operator()(AVPacket* p) const { av_packet_free(&p); }
  void operator()(SwsContext* p) const { sws_freeContext(p); }
  void operator()(unsigned char* p) const { av_free(p); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

Owned<AVFrame> Decode(AVCodecID codecId, const Bytes& keyFrame) {
  const AVCodec* codec = avcodec_find_decoder(codecId);
  Require(codec != nullptr, "avcodec_find_decoder");
  const Owned<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  Require(ctx != nullptr && avcodec_open2(ctx.get(), codec, nullptr) == 0, "avcodec_open2");
  const Owned<AVPacket> packet(av_packet_alloc());
  Require(packet != nullptr, "av_packet_alloc");
  packet->data = const_cast<std::uint8_t*>(keyFrame.data());
  packet->size = static_cast<int>(keyFrame.size());
  Require(avcodec_send_packet(ctx.get(), packet.get()) == 0, "avcodec_send_packet");
  Owned<AVFrame> frame(av_frame_alloc());
  Require(frame != nullptr && avcodec_receive_frame(ctx.get(), frame.get()) == 0, "avcodec_receive_frame");
  return frame;
}

struct Source {
  const std::uint8_t* const* data;
  const int* stride;
  int width;
  int height;
  int format;
};

Owned<unsigned char> ScaleToRgb(const Source& source, int width, int height) {
  // Full-range YUV has a format of its own that libswscale only takes with a complaint.
  const bool fullRange = source.format == AV_PIX_FMT_YUVJ420P;
  const Owned<SwsContext> sws(sws_alloc_context());
  Require(sws != nullptr, "sws_alloc_context");
  av_opt_set_int(sws.get(), "sws_flags", SWS_BICUBIC, 0);
  av_opt_set_int(sws.get(), "srcw", source.width, 0);
  av_opt_set_int(sws.get(), "srch", source.height, 0);
  av_opt_set_int(sws.get(), "src_format", fullRange ? AV_PIX_FMT_YUV420P : source.format, 0);
  av_opt_set_int(sws.get(), "src_range", fullRange ? 1 : 0, 0);
  av_opt_set_int(sws.get(), "dstw", width, 0);
  av_opt_set_int(sws.get(), "dsth", height, 0);
  av_opt_set_int(sws.get(), "dst_format", AV_PIX_FMT_RGB24, 0);
  Require(sws_init_context(sws.get(), nullptr, nullptr) >= 0, "sws_init_context");

  Owned<unsigned char> rgb(static_cast<unsigned char*>(av_malloc(
      static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 3 + AV_INPUT_BUFFER_PADDING_SIZE)));
  Require(rgb != nullptr, "av_malloc");
  unsigned char* rows[4] = {rgb.get()};
  const int stride[4] = {width * 3};
  Require(sws_scale(sws.get(), source.data, source.stride, 0, source.height, rows, stride) == height, "sws_scale");
  return rgb;
}

void Paint(const std::vector<Run>& runs, unsigned char* rgb, int width) {
  for (const Run& run : runs) {
    const std::ptrdiff_t pixel = static_cast<std::ptrdiff_t>(run.row) * width + run.first;
    std::memset(rgb + pixel * 3, 0, static_cast<std::size_t>(run.last - run.first + 1) * 3);
  }
}

// The default error handler ends the process with a message, which suits a benchmark.
boolean Overflow(j_compress_ptr info) {
  (*info->err->error_exit)(reinterpret_cast<j_common_ptr>(info));
  return FALSE;
}

std::size_t Compress(unsigned char* rgb, int width, int height, unsigned char* jpeg, std::size_t capacity) {
  jpeg_compress_struct info = {};
  jpeg_error_mgr errors = {};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  jpeg_destination_mgr destination = {};
  destination.init_destination = [](j_compress_ptr) {};
  destination.empty_output_buffer = Overflow;
  destination.term_destination = [](j_compress_ptr) {};
  destination.next_output_byte = jpeg;
  destination.free_in_buffer = capacity;
  info.dest = &destination;
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 85, TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = rgb + std::size_t{info.next_scanline} * info.image_width * 3;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  return capacity - destination.free_in_buffer;
}

}  // namespace

std::vector<Run> CoveredRuns(const std::string& regions, int width, int height) {
  struct Corner {
    int x;
    int y;
  };
  std::vector<Run> runs;
  for (std::size_t begin = 0; begin < regions.size();) {
    const std::size_t end = std::min(regions.find(';', begin), regions.size());
    std::vector<Corner> corners;
    for (std::size_t at = begin; at + 8 <= end; at += 8) {
      corners.push_back(
          {std::stoi(regions.substr(at, 4)) * width / 10000, std::stoi(regions.substr(at + 4, 4)) * height / 10000});
    }
    begin = end + 1;
    for (int row = 0; row < height; ++row) {
      std::vector<int> crossings;
      for (std::size_t i = 0; i < corners.size(); ++i) {
        const Corner& a = corners[i];
        const Corner& b = corners[(i + 1) % corners.size()];
        if ((a.y <= row) != (b.y <= row)) {
          crossings.push_back((row - a.y) * (b.x - a.x) / (b.y - a.y) + a.x);
        }
      }
      std::sort(crossings.begin(), crossings.end());
      for (std::size_t i = 0; i + 1 < crossings.size(); i += 2) {
        runs.push_back({row, crossings[i], std::min(crossings[i + 1], width - 1)});
      }
    }
  }
  return runs;
}

std::size_t FloorSnapshot(AVCodecID codec, const Bytes& keyFrame, int width, int height, const std::vector<Run>& runs,
                          unsigned char* jpeg, std::size_t capacity) {
  Owned<unsigned char> rgb;
  {
    const Owned<AVFrame> frame = Decode(codec, keyFrame);
    rgb = ScaleToRgb({frame->data, frame->linesize, frame->width, frame->height, frame->format}, width, height);
  }
  Paint(runs, rgb.get(), width);
  return Compress(rgb.get(), width, height, jpeg, capacity);
}

std::size_t FloorThumbnail(const Bytes& rgb, int width, int height, unsigned char* jpeg, std::size_t capacity) {
  const std::uint8_t* rows[4] = {rgb.data()};
  const int stride[4] = {kWidth * 3};
  const Owned<unsigned char> small = ScaleToRgb({rows, stride, kWidth, kHeight, AV_PIX_FMT_RGB24}, width, height);
  return Compress(small.get(), width, height, jpeg, capacity);
}

}  // namespace bench
