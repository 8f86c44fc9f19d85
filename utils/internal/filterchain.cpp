#include "utils/internal/filterchain.h"

#include <cstdint>
#include <cstring>

extern "C" {
#include <libavfilter/buffersrc.h>
#include <libavutil/opt.h>
}

namespace mediautil {

FfPtr<AVFilterGraph> MakeGraph() {
  FfPtr<AVFilterGraph> graph(avfilter_graph_alloc());
  if (graph != nullptr) {
    graph->nb_threads = 1;  // read when the first filter comes in
  }
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
  std::uint8_t list[sizeof(format)];
  std::memcpy(list, &format, sizeof(format));
  return av_opt_set_bin(sink, "pix_fmts", list, sizeof(list), AV_OPT_SEARCH_CHILDREN);
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
