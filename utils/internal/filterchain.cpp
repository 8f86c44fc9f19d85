#include "utils/internal/filterchain.h"

#include <cstdint>
#include <cstring>

extern "C" {
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

namespace mediautil {
namespace {

// A list of one value.
template <typename T>
int SetList(AVFilterContext* filter, const char* option, T value) {
  std::uint8_t list[sizeof(value)];
  std::memcpy(list, &value, sizeof(value));
  return av_opt_set_bin(filter, option, list, sizeof(list), AV_OPT_SEARCH_CHILDREN);
}

}  // namespace

FfPtr<AVFilterGraph> MakeGraph() {
  FfPtr<AVFilterGraph> graph(avfilter_graph_alloc());
  // Of floats, libswresample would sum channels to more than full scale.
  if (graph == nullptr || av_opt_set(graph.get(), "aresample_swr_opts", "rematrix_maxval=1", 0) < 0) {
    return nullptr;
  }
  graph->nb_threads = 1;  // read when the first filter comes in
  return graph;
}

AVFilterContext* AddFilter(AVFilterGraph* graph, const char* filter, const char* name, const char* arguments) {
  AVFilterContext* context = nullptr;
  const AVFilter* kind = avfilter_get_by_name(filter);
  if (kind == nullptr || avfilter_graph_create_filter(&context, kind, name, arguments, nullptr, graph) < 0) {
    return nullptr;
  }
  return context;
}

int RestrictSink(AVFilterContext* sink, AVPixelFormat format) {
  return SetList(sink, "pix_fmts", format);
}

int RestrictSink(AVFilterContext* sink, const AVCodecContext& encoder) {
  char layout[64];
  int ret = av_channel_layout_describe(&encoder.ch_layout, layout, sizeof(layout));
  ret = ret < 0 ? ret : SetList(sink, "sample_fmts", encoder.sample_fmt);
  ret = ret < 0 ? ret : av_opt_set(sink, "ch_layouts", layout, AV_OPT_SEARCH_CHILDREN);
  return ret < 0 ? ret : SetList(sink, "sample_rates", encoder.sample_rate);
}

int FeedOnly(AVFilterContext* source, const AVFrame* frame) {
  const FfPtr<AVFrame> timed(av_frame_clone(frame));
  if (timed == nullptr) {
    return AVERROR(ENOMEM);
  }
  timed->pts = 0;
  const int ret = av_buffersrc_add_frame_flags(source, timed.get(), AV_BUFFERSRC_FLAG_KEEP_REF);
  return ret < 0 ? ret : av_buffersrc_add_frame_flags(source, nullptr, AV_BUFFERSRC_FLAG_KEEP_REF);
}

}  // namespace mediautil
