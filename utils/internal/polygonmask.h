// Privacy regions: their text, and which pixels of a picture they cover.
#pragma once

#include <string>

namespace mediautil {

// A packed picture to paint on: 3 bytes a pixel (RGB) or 4 (RGBA), rows stride bytes apart.
struct Canvas {
  unsigned char* data;
  int stride;
  int width;
  int height;
  int pixelSize;
};

// Paints every pixel that the regions cover opaque black: polygons filled row by row, even-odd rule, clipped to the
// picture. Throws std::invalid_argument when a coordinate is not a number; part of the picture may be painted then.
void PaintRegions(const std::string& privacyRegion, const Canvas& canvas);

// The same without an exception: false when a coordinate is not a number, or without memory.
bool TryPaintRegions(const std::string& privacyRegion, const Canvas& canvas);

}  // namespace mediautil
