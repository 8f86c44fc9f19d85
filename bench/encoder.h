// FFmpeg's encoders, for what the benchmarks make of their own.
#pragma once

#include <string>

#include "bench/require.h"
#include "utils/internal/ffmpegptr.h"

extern "C" {
#include <libavutil/dict.h>
}

namespace bench {

inline mediautil::FfPtr<AVCodecContext> NewEncoder(const char* name) {
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  Require(codec != nullptr, std::string("finding ") + name);
  mediautil::FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  Require(ctx != nullptr, "allocating an encoder");
  ctx->thread_count = 1;
  return ctx;
}

// Options that the encoder does not know are errors.
inline void Open(AVCodecContext* ctx, const char* options) {
  AVDictionary* dictionary = nullptr;
  Require(av_dict_parse_string(&dictionary, options, "=", ",", 0) >= 0, "reading the options");
  const bool opened = avcodec_open2(ctx, ctx->codec, &dictionary) >= 0;
  const bool allUsed = av_dict_count(dictionary) == 0;
  av_dict_free(&dictionary);
  Require(opened && allUsed, std::string("opening ") + ctx->codec->name);
}

}  // namespace bench
