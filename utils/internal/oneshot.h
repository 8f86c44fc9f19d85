// A decoder session for one picture.
#pragma once

#include <malloc.h>

#include "utils/internal/scaler.h"
#include "utils/mpeg4util.h"

namespace mediautil {

// Ends with everything released and the large decoding buffers given back to the system.
struct OneShotSession {
  FFmpegAttr attr = {};
  unsigned char* buffer = nullptr;  // of DoFFMpegScale
  int bufferSize = 0;

  OneShotSession() = default;
  ~OneShotSession() {
    DoFFMpegFree(attr, buffer);
    malloc_trim(0);
  }
  OneShotSession(const OneShotSession&) = delete;
  OneShotSession& operator=(const OneShotSession&) = delete;

  // After the initialisation: shows pictures whose references are missing, refuses those that are too large.
  void TakeAnyPicture() {
    attr.pCodecCtx->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
    attr.pCodecCtx->max_pixels = kMaxPixels;
  }
};

}  // namespace mediautil
