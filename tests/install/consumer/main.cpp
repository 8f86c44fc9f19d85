// A program of somebody else: a grey picture as a JPEG on standard output.
#include <cstdio>
#include <vector>

#include "utils/imageobject.h"

int main() {
  constexpr unsigned int kSide = 64;
  const std::vector<unsigned char> rgb(3 * kSide * kSide, 128);
  ImageObject image;
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  if (image.LoadFromRGB(rgb.data(), static_cast<unsigned int>(rgb.size()), kSide, kSide) != 0 ||
      image.CompressToJPEG(jpeg, size, 85) != 0) {
    return 1;
  }
  const bool isWritten = std::fwrite(jpeg, 1, size, stdout) == size;
  delete[] jpeg;
  return isWritten ? 0 : 1;
}
