// The pictures that the benchmarks work on: one detailed 1080p picture, coded as key frames and as RGB.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<std::uint8_t>;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

struct Inputs {
  Bytes h264;   // Annex B, parameter sets in band
  Bytes hevc;   // likewise
  Bytes mjpeg;  // a JPEG
  Bytes rgb;    // packed RGB24 rows
};

// Generates the picture and encodes it. The same everywhere but for what the encoders' versions change.
Inputs MakeInputs();

// Writes the inputs as files that other programs can open too, and reads them. The folder must exist.
void SaveInputs(const Inputs& inputs, const std::string& folder);
Inputs LoadInputs(const std::string& folder);

}  // namespace bench
