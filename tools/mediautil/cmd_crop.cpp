// mediautil crop: a rectangle of a key frame as JPEG.
#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/keyframe.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace {

struct Rectangle {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

struct CropArgs : PictureArgs {
  std::string rectangle;
};

std::string RectangleText(const Rectangle& r) {
  return std::to_string(r.width) + "x" + std::to_string(r.height) + " at " + std::to_string(r.x) + "," +
         std::to_string(r.y);
}

// Reads "X,Y,W,H", none of them negative.
bool ReadRectangle(const std::string& text, Rectangle& rectangle) {
  const char* at = text.data();
  const char* end = at + text.size();
  for (int* value : {&rectangle.x, &rectangle.y, &rectangle.width, &rectangle.height}) {
    if (value != &rectangle.x && (at == end || *at++ != ',')) {
      return false;
    }
    const auto [next, error] = std::from_chars(at, end, *value);
    if (error != std::errc() || *value < 0) {
      return false;
    }
    at = next;
  }
  return at == end;
}

bool IsInside(const Rectangle& r, const AVFrame& picture) {
  return std::int64_t{r.x} + r.width <= picture.width && std::int64_t{r.y} + r.height <= picture.height;
}

// The whole picture in YUV 4:2:0, privacy regions painted; null on failure.
Picture ToYuv(const AVFrame& rgb, const std::string& privacy) {
  AVFrame* yuv = nullptr;
  if (privacy.empty()) {
    DoFFmpegConvertFrameFormat(&rgb, AV_PIX_FMT_YUV420P, &yuv);
    return Picture(yuv);
  }
  AVFrame* base = nullptr;
  AVFrame* mask = nullptr;
  if (DoFFmpegConvertFrameFormat(&rgb, AV_PIX_FMT_RGBA, &base) == 0 &&
      GetPrivacyRegionFrame(&mask, privacy, rgb.width, rgb.height) == 0) {
    DoFFMpegOverlayTwoImage(base, mask, &yuv, AV_PIX_FMT_YUV420P);
  }
  DoFFmpegFrameFree(&mask);
  DoFFmpegFrameFree(&base);
  return Picture(yuv);
}

// The rectangle in RGB, null on failure.
Picture CutOut(AVFrame& yuv, const Rectangle& r) {
  const Picture part(av_frame_alloc());
  AVFrame* rgb = nullptr;
  CropAttr crop = {};
  if (DoFFMpegInitFilter(crop, yuv.width, yuv.height, r.width, r.height, r.x, r.y) == 0 &&
      DoFFMpegCrop(crop, &yuv, part.get()) == 0) {
    DoFFmpegConvertFrameFormat(part.get(), AV_PIX_FMT_RGB24, &rgb);
  }
  DoFFMpegReleaseFilter(crop);
  return Picture(rgb);
}

int Crop(const CropArgs& args) {
  KeyFrame key;
  if (const int code = FindKeyFrame(args, key); code != kDone) {
    return code;
  }
  Picture picture;
  if (const int code = DecodeKeyFrame(args.input, key, 0, picture); code != kDone) {
    return code;
  }
  Rectangle wish;
  ReadRectangle(args.rectangle, wish);
  const std::string failure = args.input + ": cannot cut out " + RectangleText(wish) + ": ";
  if (!IsInside(wish, *picture)) {
    return Fail(kFailed, failure + "the picture is " + SizeText(*picture) + "; give a rectangle inside of it");
  }
  const Picture yuv = ToYuv(*picture, args.privacy);
  const Picture part = yuv == nullptr ? nullptr : CutOut(*yuv, wish);
  if (part == nullptr) {
    return Fail(kFailed, failure + "the picture cannot be converted; run again with -v for the cause");
  }
  const int code = WriteJpeg(args, *part, -1, "", "try a smaller rectangle");
  if (code == kDone) {
    const bool isRounded = part->width != wish.width || part->height != wish.height || (wish.x | wish.y) % 2 != 0;
    const Rectangle got = {wish.x & ~1, wish.y & ~1, part->width, part->height};
    Note(OutputName(args.output) + ": " + RectangleText(got) + (isRounded ? ", rounded to even numbers" : "") +
         KeyFrameText(key));
  }
  return code;
}

std::string CheckRectangle(const std::string& text) {
  Rectangle r;
  if (!ReadRectangle(text, r)) {
    return "\"" + text + "\" is no rectangle: write X,Y,W,H in pixels";
  }
  return r.width < 2 || r.height < 2 ? "\"" + text + "\" is too small: 2x2 pixels at least" : "";
}

}  // namespace

void AddCrop(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("crop", "Write a rectangle of the key frame at or before a time as a JPEG.");
  const auto args = std::make_shared<CropArgs>();
  AddPictureOptions(*command, *args);
  command->add_option("--rect", args->rectangle, "left and upper edge, width and height in pixels")
      ->required()
      ->type_name("X,Y,W,H")
      ->check(CheckRectangle);
  command->footer(
      "Examples:\n  mediautil crop gate.mp4 --rect 320,0,320,180 -o door.jpg\n"
      "  mediautil crop gate.mp4 --rect 0,200,640,160 --at 12.5 -o - > drive.jpg");
  command->callback([args, &action] { action = [args] { return Crop(*args); }; });
}
