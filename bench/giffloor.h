// The floor of animated pictures: straight FFmpeg calls. Throws std::runtime_error when it fails.
#pragma once

#include <string>
#include <vector>

#include "utils/internal/ffmpegptr.h"

namespace bench {

// Writes pictures of one size, YUV420P, as a GIF with one colour table. delay: hundredths of a second.
void FloorGif(const std::vector<mediautil::FfPtr<AVFrame>>& pictures, int delay, const std::string& path);

}  // namespace bench
