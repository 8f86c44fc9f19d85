// The floor: the least work that gives the library's result, in straight FFmpeg and libjpeg calls. Nothing of the
// library is used here. Everything throws std::runtime_error when it fails.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/inputs.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace bench {

// Pixels of one row that a privacy region covers, first to last.
struct Run {
  int row;
  int first;
  int last;
};

// The runs that a region text covers in a picture of that size.
std::vector<Run> CoveredRuns(const std::string& regions, int width, int height);

// Decodes one key frame, scales it to width x height RGB24, paints the runs black and compresses to a JPEG of quality
// 85 in jpeg, which has room for capacity bytes. Returns the JPEG's bytes.
std::size_t FloorSnapshot(AVCodecID codec, const Bytes& keyFrame, int width, int height, const std::vector<Run>& runs,
                          unsigned char* jpeg, std::size_t capacity);

// Scales a packed kWidth x kHeight RGB24 picture and compresses it likewise.
std::size_t FloorThumbnail(const Bytes& rgb, int width, int height, unsigned char* jpeg, std::size_t capacity);

}  // namespace bench
