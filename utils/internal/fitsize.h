// The size rules of pictures, each with its own rounding.
#pragma once

namespace mediautil {

struct Size {
  int width;
  int height;
};

// Shrinks so that the longer side is at most maxSide; a maxSide below 1 or not below the longer side changes nothing.
// The ratio has 64 bits of mantissa and the products are truncated: 1920x1080 to 1000 gives 999x562.
Size FitLongestSide(Size picture, int maxSide);

// Completes a wanted size by the picture's: the picture's own when neither side is above 0; a side that is not follows
// from the other, the division truncating, and stays as it was where it cannot.
Size CompleteSize(Size picture, Size wanted);

// Scales so that the box is covered and one side touches it; halves round away from zero.
Size CoverBox(Size picture, Size box);

// Shrinks so that neither side is longer than box; scale and products are floats, truncated, at least 1: 1000x500 to
// 640 gives 640x320.
Size FitSquare(Size picture, int box);

}  // namespace mediautil
