#include "utils/internal/polygonmask.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <vector>

#include "platform/text.h"

namespace mediautil {
namespace {

constexpr std::size_t kPointLength = 8;  // characters: 4 of x, 4 of y
constexpr int kUnits = 10000;            // the picture's width and height in the text's units

struct Point {
  int x;
  int y;
};

// Extended precision, so that the truncation gives the same pixel on every machine.
int ToPixel(int units, int side) {
  return static_cast<int>(static_cast<long double>(units) * side / kUnits);
}

std::vector<Point> ParsePolygon(const std::string& region, int width, int height) {
  std::vector<Point> points;
  for (std::size_t at = 0; at + kPointLength <= region.size(); at += kPointLength) {
    const int x = std::stoi(region.substr(at, kPointLength / 2));
    const int y = std::stoi(region.substr(at + kPointLength / 2, kPointLength / 2));
    points.push_back({ToPixel(x, width), ToPixel(y, height)});
  }
  return points;
}

// Where the polygon's edges cross a row, in ascending order. An edge counts when exactly one of its ends lies at or
// above the row. The division truncates toward zero.
void Crossings(const std::vector<Point>& polygon, int row, std::vector<int>& columns) {
  columns.clear();
  for (std::size_t i = 0; i < polygon.size(); ++i) {
    const Point& a = polygon[i];
    const Point& b = polygon[i + 1 == polygon.size() ? 0 : i + 1];
    if ((a.y <= row) != (b.y <= row)) {
      const std::int64_t run = static_cast<std::int64_t>(row - a.y) * (b.x - a.x);
      columns.push_back(static_cast<int>(run / (b.y - a.y)) + a.x);
    }
  }
  std::sort(columns.begin(), columns.end());
}

void PaintRun(const Canvas& canvas, int row, int first, int last) {
  first = std::max(first, 0);
  last = std::min(last, canvas.width - 1);
  if (first > last) {
    return;
  }
  const auto count = static_cast<std::size_t>(last - first) + 1;
  unsigned char* pixel = canvas.data + static_cast<std::ptrdiff_t>(row) * canvas.stride +
                         static_cast<std::ptrdiff_t>(first) * canvas.pixelSize;
  if (canvas.pixelSize == 3) {
    std::memset(pixel, 0, count * 3);
    return;
  }
  constexpr unsigned char kOpaqueBlack[4] = {0, 0, 0, 0xFF};
  for (std::size_t i = 0; i < count; ++i) {
    std::memcpy(pixel + i * 4, kOpaqueBlack, 4);
  }
}

void PaintPolygon(const std::vector<Point>& polygon, const Canvas& canvas) {
  if (polygon.empty()) {
    return;
  }
  const auto [top, bottom] =
      std::minmax_element(polygon.begin(), polygon.end(), [](const Point& a, const Point& b) { return a.y < b.y; });
  const int lastRow = std::min(bottom->y, canvas.height - 1);
  std::vector<int> columns;
  for (int row = std::max(top->y, 0); row <= lastRow; ++row) {
    Crossings(polygon, row, columns);
    for (std::size_t i = 0; i + 1 < columns.size(); i += 2) {
      PaintRun(canvas, row, columns[i], columns[i + 1]);
    }
  }
}

}  // namespace

void PaintRegions(const std::string& privacyRegion, const Canvas& canvas) {
  for (const std::string& region : String2StrVector(privacyRegion, ";")) {
    PaintPolygon(ParsePolygon(region, canvas.width, canvas.height), canvas);
  }
}

bool TryPaintRegions(const std::string& privacyRegion, const Canvas& canvas) {
  try {
    PaintRegions(privacyRegion, canvas);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace mediautil
