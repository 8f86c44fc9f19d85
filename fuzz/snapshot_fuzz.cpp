#include <cstdint>
#include <cstdlib>
#include <string>

#include "utils/mpeg4util.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHead = 4;
  if (size < kHead) {
    return 0;
  }
  const int vdoType = data[0] % 10;
  const std::size_t extraSize = data[1];
  const std::size_t textSize = data[2];
  const int maxSide = data[3];
  if (size < kHead + extraSize + textSize) {
    return 0;
  }
  const std::uint8_t* extradata = data + kHead;
  const std::string region(reinterpret_cast<const char*>(extradata + extraSize), textSize);
  const std::uint8_t* frame = extradata + extraSize + textSize;
  const auto frameSize = static_cast<int>(size - kHead - extraSize - textSize);
  AVFrame* picture = nullptr;
  if (DoFFMpegGetScaledFrame(vdoType, extradata, static_cast<int>(extraSize), frame, frameSize, &picture, maxSide) !=
      0) {
    return 0;
  }
  unsigned char* jpeg = nullptr;
  int jpegSize = 0;
  DoFFMpegGetJpeg(picture, &jpeg, &jpegSize, maxSide - 100, region);
  std::free(jpeg);
  DoFFmpegFrameFree(&picture);
  return 0;
}
