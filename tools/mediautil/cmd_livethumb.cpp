// mediautil live-thumb: a camera's current small picture, shared with the server's processes.
#include <sys/shm.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>

#include "platform/file.h"
#include "platform/livestream.h"
#include "platform/sync.h"
#include "tools/mediautil/args.h"
#include "tools/mediautil/camerainfo.h"
#include "utils/sharedthumb.h"

namespace {

struct LiveThumbArgs {
  int camera = 0;
  std::string profile;  // empty: the one for live view
  unsigned int maxAge = 1;
  std::string output;
  bool base64 = false;
};

bool IsLive(const Camera& camera, int streamNo) {
  const ShmStreamFifo* fifo = LiveStreamFifoAt(camera.id, streamNo);
  if (fifo != nullptr) {
    shmdt(fifo);
  }
  return fifo != nullptr;
}

// Finds out why there was no picture.
int FailThumb(const Camera& camera, int streamNo) {
  const std::string directory = SharedThumb::kDirectory;
  if (MakeDirIfNotExist(directory) != 0) {
    return Fail(kFailed, directory + ": cannot write the cache of thumbnails: " + std::strerror(errno) +
                             "; make the directory and give it to this user");
  }
  const std::string lockFile = directory + "/" + std::to_string(camera.id) + "." + std::to_string(streamNo) + ".lock";
  if (VyFlock lock(lockFile); lock.LockSh(0) != 0 && errno != EWOULDBLOCK) {
    return Fail(kFailed,
                lockFile + ": cannot lock the cached thumbnail: " + std::strerror(errno) + "; give it to this user");
  }
  if (!IsLive(camera, streamNo)) {
    return Fail(kFailed, StreamName(camera.id, streamNo) +
                             ": no live stream; see that the camera is connected, or feed a recording with "
                             "mediautil feed");
  }
  return Fail(kFailed, StreamName(camera.id, streamNo) +
                           ": cannot make the thumbnail: no key frame yet, a damaged one, or another video type than "
                           "the camera's record has; run again with -v for the cause");
}

int PrintBase64(const SharedThumb& thumb, const Camera& camera, int streamNo) {
  std::string text;
  return thumb.GetBase64Thumb(text) == 0 ? PrintResult(text + "\n") : FailThumb(camera, streamNo);
}

int WriteThumb(const SharedThumb& thumb, const Camera& camera, int streamNo, const std::string& output) {
  SharedThumb::Bytes jpeg;
  if (thumb.GetThumb(jpeg) != 0) {
    return FailThumb(camera, streamNo);
  }
  const int code = WritePicture(output, jpeg.first.get(), jpeg.second);
  if (code == kDone) {
    Note(OutputName(output) + ": " + StreamName(camera.id, streamNo) + ", " + std::to_string(jpeg.second) + " bytes");
  }
  return code;
}

int LiveThumb(const LiveThumbArgs& args) {
  if (args.base64 != args.output.empty()) {
    return Fail(kUsage, "live-thumb: where the picture goes is missing; give either --output or --base64");
  }
  if (const int code = args.base64 ? kDone : CheckOutput(args.output, "", "picture"); code != kDone) {
    return code;
  }
  Camera camera;
  if (const int code = LoadCamera(args.camera, camera); code != kDone) {
    return code;
  }
  const CAM_PROFILE_TYPE profile = args.profile.empty() ? camera.GetLiveProfile() : kProfiles.at(args.profile);
  const int streamNo = camera.GetUiStreamNo(profile);
  if (streamNo < 0) {
    return FailNoStream(args.camera, args.profile, "--stream-profile");
  }
  const SharedThumb thumb(camera, profile, args.maxAge);
  return args.base64 ? PrintBase64(thumb, camera, streamNo) : WriteThumb(thumb, camera, streamNo, args.output);
}

}  // namespace

void AddLiveThumb(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("live-thumb", "Write a camera's current small picture as a JPEG.");
  const auto args = std::make_shared<LiveThumbArgs>();
  command->add_option("--camera", args->camera, "number of a registered camera")
      ->required()
      ->type_name("N")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()).description(""));
  command->add_option("--stream-profile", args->profile, "high, medium or low; the camera's live profile without it")
      ->type_name("P")
      ->check(CLI::IsMember(&kProfiles).description(""));
  command->add_option("--max-age", args->maxAge, "a picture of less than S seconds will do; 1 without it, 0: a new one")
      ->type_name("S");
  CLI::Option* output =
      command->add_option("-o,--output", args->output, "JPEG file to write, - for stdout")->type_name("OUT");
  command->add_flag("--base64", args->base64, "print the picture as base64 text instead")->excludes(output);
  command->footer(
      "The picture comes from the cache that all processes of the server share, or from the live stream.\n\n"
      "Examples:\n  mediautil live-thumb --camera 12 -o gate.jpg\n"
      "  mediautil live-thumb --camera 12 --stream-profile low --base64");
  command->callback([args, &action] { action = [args] { return LiveThumb(*args); }; });
}
