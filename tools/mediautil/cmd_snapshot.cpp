// mediautil snapshot: a key frame as JPEG.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/keyframe.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace {

struct SnapshotArgs : PictureArgs {
  int maxSide = 0;
  int quality = -1;
};

int Snapshot(const SnapshotArgs& args) {
  if (const int code = CheckPictureArgs(args); code != kDone) {
    return code;
  }
  KeyFrame key;
  if (const int code = FindKeyFrame(args.input, args.at, key); code != kDone) {
    return code;
  }
  AVFrame* picture = nullptr;
  if (DoFFMpegGetScaledFrame(key.videoType, key.extradata.data(), static_cast<int>(key.extradata.size()),
                             key.data.data(), static_cast<int>(key.data.size()), &picture, args.maxSide) != 0) {
    return Fail(kFailed, args.input + ": cannot decode the key frame" + KeyFrameText(key) + ": it is damaged, or " +
                             "--max-side leaves nothing of it; try another --at");
  }
  const std::string size = std::to_string(picture->width) + "x" + std::to_string(picture->height);
  unsigned char* jpeg = nullptr;
  int jpegSize = 0;
  const int made = DoFFMpegGetJpeg(picture, &jpeg, &jpegSize, args.quality, args.privacy);
  DoFFmpegFrameFree(&picture);
  if (made != 0) {
    return Fail(kFailed, args.input + ": cannot make the JPEG" +
                             (args.privacy.empty() ? "" : " or paint the privacy regions") +
                             ": try a lower --quality or --max-side");
  }
  const int code = WriteOutput(args.output, jpeg, static_cast<unsigned int>(jpegSize));
  std::free(jpeg);
  if (code == kDone) {
    Note(args.output + ": " + size + KeyFrameText(key));
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
