#include "bench/giffloor.h"

#include "bench/require.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/opt.h>
}

using mediautil::FfPtr;

namespace bench {
namespace {

struct Graph {
  FfPtr<AVFilterGraph> graph;
  AVFilterContext* in = nullptr;
  AVFilterContext* out = nullptr;
};

Graph MakeGraph(int width, int height) {
  Graph made = {FfPtr<AVFilterGraph>(avfilter_graph_alloc())};
  AVFilterGraph* graph = made.graph.get();
  graph->nb_threads = 1;
  const std::string source = "video_size=" + std::to_string(width) + "x" + std::to_string(height) +
                             ":pix_fmt=bgra:time_base=1/1:pixel_aspect=1/1";
  Require(avfilter_graph_create_filter(&made.in, avfilter_get_by_name("buffer"), "in", source.c_str(), nullptr,
                                       graph) >= 0 &&
              avfilter_graph_create_filter(&made.out, avfilter_get_by_name("buffersink"), "out", nullptr, nullptr,
                                           graph) >= 0,
          "filters");
  AVFilterInOut* outputs = avfilter_inout_alloc();
  AVFilterInOut* inputs = avfilter_inout_alloc();
  outputs->name = av_strdup("in");
  outputs->filter_ctx = made.in;
  inputs->name = av_strdup("out");
  inputs->filter_ctx = made.out;
  const int ret =
      avfilter_graph_parse_ptr(graph, "split[o1][o2];[o1]palettegen[p];[o2][p]paletteuse", &inputs, &outputs, nullptr);
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  Require(ret >= 0 && avfilter_graph_config(graph, nullptr) >= 0, "filter graph");
  return made;
}

// Hands every picture over in BGRA, then the end.
void Feed(const std::vector<FfPtr<AVFrame>>& pictures, int delay, AVFilterContext* in) {
  const int width = pictures[0]->width;
  const int height = pictures[0]->height;
  const FfPtr<SwsContext> sws(sws_getContext(width, height, AV_PIX_FMT_YUV420P, width, height, AV_PIX_FMT_BGRA,
                                             SWS_BICUBIC, nullptr, nullptr, nullptr));
  Require(sws != nullptr, "scaler");
  std::int64_t pts = 0;
  for (const FfPtr<AVFrame>& picture : pictures) {
    const FfPtr<AVFrame> frame(av_frame_alloc());
    frame->width = width;
    frame->height = height;
    frame->format = AV_PIX_FMT_BGRA;
    frame->pts = pts;
    pts += delay;
    Require(av_frame_get_buffer(frame.get(), 0) >= 0 &&
                sws_scale(sws.get(), picture->data, picture->linesize, 0, height, frame->data, frame->linesize) > 0 &&
                av_buffersrc_add_frame_flags(in, frame.get(), 0) >= 0,
            "a picture");
  }
  Require(av_buffersrc_add_frame_flags(in, nullptr, 0) >= 0, "the end");
}

FfPtr<AVCodecContext> OpenEncoder(int width, int height) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_GIF);
  FfPtr<AVCodecContext> encoder(avcodec_alloc_context3(codec));
  encoder->width = width;
  encoder->height = height;
  encoder->pix_fmt = AV_PIX_FMT_PAL8;
  encoder->time_base = {1, 1};
  Require(avcodec_open2(encoder.get(), codec, nullptr) >= 0, "encoder");
  return encoder;
}

void Encode(AVCodecContext* encoder, const AVFrame* frame, AVPacket* packet, AVFormatContext* output) {
  Require(avcodec_send_frame(encoder, frame) >= 0, "encoding");
  while (avcodec_receive_packet(encoder, packet) >= 0) {
    Require(av_write_frame(output, packet) >= 0, "writing");
    av_packet_unref(packet);
  }
}

}  // namespace

void FloorGif(const std::vector<FfPtr<AVFrame>>& pictures, int delay, const std::string& path) {
  const FfPtr<AVCodecContext> encoder = OpenEncoder(pictures[0]->width, pictures[0]->height);
  const Graph graph = MakeGraph(pictures[0]->width, pictures[0]->height);
  Feed(pictures, delay, graph.in);

  AVFormatContext* output = nullptr;
  Require(avformat_alloc_output_context2(&output, nullptr, "gif", nullptr) >= 0, "container");
  const mediautil::ScopeExit close([output] {
    avio_closep(&output->pb);
    avformat_free_context(output);
  });
  const AVStream* stream = avformat_new_stream(output, nullptr);
  Require(avcodec_parameters_from_context(stream->codecpar, encoder.get()) >= 0 &&
              av_opt_set_int(output->priv_data, "final_delay", delay, 0) >= 0 &&
              avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(output, nullptr) >= 0,
          "header");
  const FfPtr<AVFrame> frame(av_frame_alloc());
  const FfPtr<AVPacket> packet(av_packet_alloc());
  while (av_buffersink_get_frame(graph.out, frame.get()) >= 0) {
    Encode(encoder.get(), frame.get(), packet.get(), output);
    av_frame_unref(frame.get());
  }
  Require(av_write_trailer(output) >= 0, "trailer");
}

}  // namespace bench
