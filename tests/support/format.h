// A format record of a test's own.
#pragma once

#include <algorithm>

#include "tests/support/media.h"
#include "utils/esformat.h"

// Gives its configuration data up at the end.
struct Format : ESFormat {
  explicit Format(std::int32_t cat = ES_UNKNOWN, int codecId = -1, std::uint32_t code = 0) {
    i_cat = cat;
    i_codec_id = codecId;
    i_codec = code;
  }
  Format(const Format&) = delete;
  Format& operator=(const Format&) = delete;
  ~Format() { Reset(ES_UNKNOWN); }
  void SetExtra(const Bytes& bytes) {
    p_extra = static_cast<unsigned char*>(std::malloc(bytes.size() + 1));
    std::copy(bytes.begin(), bytes.end(), p_extra);
    i_extra = static_cast<std::int32_t>(bytes.size());
  }
};
