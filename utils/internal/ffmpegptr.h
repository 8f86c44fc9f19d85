// Owning pointers for FFmpeg's objects. Contexts that need the FFmpeg lock are freed under it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace mediautil {

struct FfDeleter {
  void operator()(AVBSFContext* p) const { av_bsf_free(&p); }
  void operator()(AVCodecContext* p) const { LockAVCodecFreeContext(p); }
  void operator()(AVCodecParameters* p) const { avcodec_parameters_free(&p); }
  void operator()(AVFilterGraph* p) const { avfilter_graph_free(&p); }
  void operator()(AVFrame* p) const { av_frame_free(&p); }
  void operator()(AVPacket* p) const { av_packet_free(&p); }
  void operator()(SwrContext* p) const { swr_free(&p); }
  void operator()(SwsContext* p) const { sws_freeContext(p); }
};

template <typename T>
using FfPtr = std::unique_ptr<T, FfDeleter>;

// An opened input; outputs end with LockAVFormatFreeContext.
struct InputCloser {
  void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
using InputPtr = std::unique_ptr<AVFormatContext, InputCloser>;

// Memory from malloc.
struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;

// A C stream, closed at the end.
struct FileCloser {
  void operator()(std::FILE* p) const { std::fclose(p); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Runs a function when the scope ends, on every path out.
template <typename F>
class ScopeExit {
 public:
  explicit ScopeExit(F f) : m_function(std::move(f)) {}
  ~ScopeExit() { m_function(); }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

 private:
  F m_function;
};

}  // namespace mediautil
