// mediautil thumbnail: the small pictures of an event.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/keyframe.h"
#include "utils/imageobject.h"

namespace {

struct ThumbnailArgs : PictureArgs {
  bool preview = false;
};

int Thumbnail(const ThumbnailArgs& args) {
  KeyFrame key;
  if (const int code = FindKeyFrame(args, key); code != kDone) {
    return code;
  }
  ImageObject image;
  image.SetPrivacyRegion(args.privacy);
  if (image.LoadFromMPEG(key.videoType, key.extradata.data(), static_cast<unsigned int>(key.extradata.size()),
                         key.data.data(), static_cast<unsigned int>(key.data.size()), 0, 0) != 0) {
    return Fail(kFailed, args.input + ": cannot decode the key frame" + KeyFrameText(key) +
                             ": it is damaged, or smaller than 17x17; try another --at");
  }
  unsigned char* bytes = nullptr;
  unsigned int size = 0;
  int width = 0;
  int height = 0;
  if (CompressImgToJPEG(image, bytes, size, width, height, args.preview) != 0) {
    return Fail(kFailed, args.input + ": cannot make the JPEG; run again with -v for the cause");
  }
  const std::unique_ptr<unsigned char[]> jpeg(bytes);
  const int code = WritePicture(args.output, jpeg.get(), size);
  if (code == kDone) {
    Note(OutputName(args.output) + ": " + std::to_string(width) + "x" + std::to_string(height) + KeyFrameText(key));
  }
  return code;
}

}  // namespace

void AddThumbnail(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("thumbnail", "Write the small picture of an event as a JPEG.");
  const auto args = std::make_shared<ThumbnailArgs>();
  AddPictureOptions(*command, *args);
  command->add_flag("--preview", args->preview, "the larger picture: covers 240x180 instead of 120x90");
  command->footer(
      "Examples:\n  mediautil thumbnail gate.mp4 -o event.jpg\n"
      "  mediautil thumbnail gate.mp4 --preview --at 12.5 -o preview.jpg");
  command->callback([args, &action] { action = [args] { return Thumbnail(*args); }; });
}
