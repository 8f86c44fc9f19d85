#include <cstdint>

#include "utils/imageobject.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  ImageObject image;
  ImageObject resized;
  if (image.LoadFromJPEG(data + 2, static_cast<unsigned int>(size - 2)) != 0) {
    return 0;
  }
  unsigned char* jpeg = nullptr;
  unsigned int jpegSize = 0;
  if (image.Resize(resized, data[0] * 4U, data[1] * 4U) == 0 && resized.CompressToJPEG(jpeg, jpegSize, -1) == 0) {
    delete[] jpeg;
  }
  if (CompressImgToJPEG(image, jpeg, jpegSize, data[0] % 2 == 0) == 0) {
    delete[] jpeg;
  }
  return 0;
}
