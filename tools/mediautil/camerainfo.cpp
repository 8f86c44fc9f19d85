#include "tools/mediautil/camerainfo.h"

#include <algorithm>
#include <iterator>

#include "tools/mediautil/args.h"

namespace {

struct VideoType {
  int type;
  const char* codec;
};
// Types 7 and 8 are told apart by servers only.
constexpr VideoType kTypes[] = {{1, "mjpeg"}, {2, "mpeg4"}, {3, "h264"}, {5, "mxpeg"},
                                {6, "hevc"},  {7, "h264"},  {8, "hevc"}};

}  // namespace

std::string VideoTypeName(int type) {
  const auto* found =
      std::find_if(std::begin(kTypes), std::end(kTypes), [type](const VideoType& entry) { return entry.type == type; });
  return found == std::end(kTypes) ? "" : found->codec;
}

std::string VideoTypeText(int type) {
  const std::string name = VideoTypeName(type);
  return name.empty() ? "video type " + std::to_string(type) : name;
}

int VideoTypeOf(const std::string& codec) {
  const auto* found = std::find_if(std::begin(kTypes), std::end(kTypes),
                                   [&codec](const VideoType& entry) { return entry.codec == codec; });
  return found == std::end(kTypes) ? 0 : found->type;
}

std::vector<std::string> VideoTypeNames() {
  std::vector<std::string> names;
  for (const VideoType& entry : kTypes) {
    if (VideoTypeOf(entry.codec) == entry.type) {
      names.emplace_back(entry.codec);
    }
  }
  return names;
}

int LoadCamera(int cameraId, Camera& camera) {
  std::string directory;
  if (const int code = FindStateDir("the cameras", directory); code != kDone) {
    return code;
  }
  const std::string id = std::to_string(cameraId);
  return camera.Load(cameraId, 0, 0) == 0
             ? kDone
             : Fail(kFailed, "camera " + id + ": not registered in " + directory +
                                 "; register it, as with mediautil camera add " + id + " --codec h264");
}

int FailNoStream(int cameraId, const std::string& profile, const std::string& option) {
  return Fail(kFailed, "camera " + std::to_string(cameraId) + ": its " + (profile.empty() ? "live" : profile) +
                           " profile has no stream; give " + option + ", or register it again");
}

std::string StreamName(int cameraId, int streamNo) {
  return "camera " + std::to_string(cameraId) + ", stream " + std::to_string(streamNo);
}
