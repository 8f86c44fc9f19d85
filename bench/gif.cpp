// Decoded pictures to an animated GIF.
#include <memory>

#include "bench/giffloor.h"
#include "bench/inputs.h"
#include "bench/require.h"
#include "bench/stills.h"
#include "bench/tempfile.h"
#include "utils/gifprocess.h"

using bench::Require;
using mediautil::FfPtr;

namespace {

constexpr int kFrames = 30;
constexpr int kGifWidth = 640;
constexpr int kGifHeight = 360;
constexpr int kDelayMs = 500;

using Pictures = std::vector<FfPtr<AVFrame>>;

// Coloured tiles that move: some hundred colours, since the cost of a GIF grows with their number.
FfPtr<AVFrame> MakePicture(int n) {
  FfPtr<AVFrame> picture(av_frame_alloc());
  picture->format = AV_PIX_FMT_YUV420P;
  picture->width = kGifWidth;
  picture->height = kGifHeight;
  Require(av_frame_get_buffer(picture.get(), 0) >= 0, "av_frame_get_buffer");
  for (int plane = 0; plane < 3; ++plane) {
    const int step = plane == 0 ? 1 : 2;
    for (int y = 0; y < kGifHeight / step; ++y) {
      std::uint8_t* row = picture->data[plane] + static_cast<std::ptrdiff_t>(y) * picture->linesize[plane];
      for (int x = 0; x < kGifWidth / step; ++x) {
        const int tile = (x * step + 4 * n) / 40 * (plane + 3) + y * step / 40 * (7 - plane);
        row[x] = static_cast<std::uint8_t>(32 + tile * 11 % 192);
      }
    }
  }
  return picture;
}

void LibraryGif(const Pictures& pictures, const std::string& path) {
  GifProcess gif;
  gif.SetGifPath(path);
  gif.SetGifDelay(kDelayMs);
  for (const FfPtr<AVFrame>& picture : pictures) {
    Require(gif.AddFrame(av_frame_clone(picture.get())) == 0, "AddFrame");
  }
  Require(gif.Process() == 0, "Process");
}

}  // namespace

std::vector<bench::Workload> bench::GifWorkloads() {
  const auto pictures = std::make_shared<Pictures>();
  for (int n = 0; n < kFrames; ++n) {
    pictures->push_back(MakePicture(n));
  }
  const auto file = std::make_shared<TempFile>();
  const auto library = [pictures, file] { LibraryGif(*pictures, file->Path()); };
  const auto floor = [pictures, file] { FloorGif(*pictures, kDelayMs / 10, file->Path()); };
  const auto check = [library, floor, file] {
    library();
    const Bytes gif = ReadFile(file->Path());
    floor();
    Require(gif == ReadFile(file->Path()) && gif.size() > 10000, "comparing the GIFs");
  };
  return {{"gif/30x640x360", Repeat(library), Repeat(floor), check}};
}
