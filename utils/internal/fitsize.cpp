#include "utils/internal/fitsize.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace mediautil {
namespace {

// The store drops what the x87 registers keep beyond a float.
float RoundToFloat(long double value) {
  const volatile float rounded = static_cast<float>(value);
  return rounded;
}

int Proportional(int side, int numerator, int denominator, int unchanged) {
  if (denominator <= 0) {
    return unchanged;
  }
  const long long result = static_cast<long long>(side) * numerator / denominator;
  return result > INT_MAX ? unchanged : static_cast<int>(result);
}

}  // namespace

Size CompleteSize(Size picture, Size wanted) {
  if (wanted.width < 1 && wanted.height < 1) {
    return picture;
  }
  if (wanted.width < 1) {
    wanted.width = Proportional(picture.width, wanted.height, picture.height, wanted.width);
  } else if (wanted.height < 1) {
    wanted.height = Proportional(picture.height, wanted.width, picture.width, wanted.height);
  }
  return wanted;
}

Size FitLongestSide(Size picture, int maxSide) {
  const int longest = std::max(picture.width, picture.height);
  if (maxSide < 1 || maxSide >= longest) {
    return picture;
  }
  const long double ratio = static_cast<long double>(maxSide) / longest;
  return {static_cast<int>(picture.width * ratio), static_cast<int>(picture.height * ratio)};
}

Size CoverBox(Size picture, Size box) {
  const long double byHeight = static_cast<long double>(box.height) / picture.height;
  const long double byWidth = static_cast<long double>(box.width) / picture.width;
  const float scale = RoundToFloat(std::max(byHeight, byWidth));
  const auto side = [scale](int pixels) {
    const float rounded = std::round(RoundToFloat(static_cast<long double>(pixels) * scale));
    return rounded < static_cast<float>(INT_MAX) ? static_cast<int>(rounded) : INT_MAX;
  };
  return {side(picture.width), side(picture.height)};
}

Size FitSquare(Size picture, int box) {
  const int longest = std::max(picture.width, picture.height);
  if (longest <= box) {
    return picture;
  }
  const float scale = RoundToFloat(static_cast<long double>(box) / longest);
  const auto side = [scale](int pixels) {
    return std::max(static_cast<int>(RoundToFloat(static_cast<long double>(pixels) * scale)), 1);
  };
  return {side(picture.width), side(picture.height)};
}

}  // namespace mediautil
