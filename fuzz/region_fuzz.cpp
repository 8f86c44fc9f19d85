#include <cstdint>
#include <stdexcept>
#include <string>

#include "utils/mpeg4util.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  AVFrame* mask = nullptr;
  try {
    GetPrivacyRegionFrame(&mask, std::string(reinterpret_cast<const char*>(data + 2), size - 2), data[0], data[1]);
  } catch (const std::invalid_argument&) {
  }
  DoFFmpegFrameFree(&mask);
  return 0;
}
