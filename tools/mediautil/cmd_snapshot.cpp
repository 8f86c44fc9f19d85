// mediautil snapshot: a key frame as JPEG.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/keyframe.h"

namespace {

struct SnapshotArgs : PictureArgs {
  int maxSide = 0;
  int quality = -1;
};

int Snapshot(const SnapshotArgs& args) {
  KeyFrame key;
  if (const int code = FindKeyFrame(args, key); code != kDone) {
    return code;
  }
  Picture picture;
  if (const int code = DecodeKeyFrame(args.input, key, args.maxSide, picture); code != kDone) {
    return code;
  }
  const int code = WriteJpeg(args, *picture, args.quality, args.privacy);
  if (code == kDone) {
    Note(OutputName(args.output) + ": " + SizeText(*picture) + KeyFrameText(key));
  }
  return code;
}

}  // namespace

void AddSnapshot(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("snapshot", "Write the key frame at or before a time as a JPEG.");
  const auto args = std::make_shared<SnapshotArgs>();
  AddPictureOptions(*command, *args);
  command->add_option("--max-side", args->maxSide, "longest side in pixels; never enlarges")
      ->type_name("N")
      ->check(CLI::Range(1, 65535).description(""));
  command->add_option("--quality", args->quality, "JPEG quality, 1 to 100; 85 without it")
      ->type_name("Q")
      ->check(CLI::Range(1, 100).description(""));
  command->footer(
      "Examples:\n  mediautil snapshot gate.mp4 -o gate.jpg --at 12.5 --max-side 640\n"
      "  mediautil snapshot gate.mp4 -o - --privacy 00000000500000005000500000005000 > gate.jpg");
  command->callback([args, &action] { action = [args] { return Snapshot(*args); }; });
}
