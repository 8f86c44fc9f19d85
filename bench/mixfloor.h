// The floor of mixing: straight FFmpeg calls.
#pragma once

#include <string>
#include <vector>

namespace bench {

// Mixes stereo files of 44.1 kHz, each at its own level, into a WAV of 16 bit. Throws std::runtime_error when it fails.
void FloorMix(const std::vector<std::string>& inputs, const std::string& output);

}  // namespace bench
