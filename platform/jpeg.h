// Platform interface: JPEG codec.
#pragma once

#include <cstddef>
#include <cstdio>

#include <jpeglib.h>

#include "platform/export.h"

// Compresses width x height packed 8-bit RGB rows into out, at most outCapacity bytes, and sets outLength.
// quality 1 to 100; -1 asks for the default, 85. Sides 1 to 65500 pixels. 0 on success; -1 for bad arguments or a JPEG
// that does not fit, then outLength is 0.
VY_API int EncodeToJpeg(int width, int height, unsigned char* rgb, unsigned char* out, int outCapacity, int& outLength,
                        int quality);

// Decodes a JPEG into a new buffer of packed rows in the wanted colour space: JCS_RGB (3 bytes a pixel) or
// JCS_EXT_BGRA (4 bytes, alpha 255). scale 1, 2, 4 or 8 decodes at that fraction of the size.
// 0 on success; the caller frees *out with free(), 64 zero bytes follow the outLength bytes of the rows. -1 for bad
// arguments and anything that is no whole JPEG with all rows (its end marker may be missing); -2, before memory is
// taken, for more than 64 megapixels at full size or an absurd number of scans. On failure *out, outLength, width and
// height are left as they were.
VY_API int DecodeJpeg(const unsigned char* jpeg, int size, unsigned char** out, int& outLength, J_COLOR_SPACE space,
                      unsigned int scale, int& width, int& height);
