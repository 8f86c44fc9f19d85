// mediautil camera: the records of the server's cameras.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/camerainfo.h"

namespace {

constexpr int kSchema = 1;
constexpr int kMaxInt = std::numeric_limits<int>::max();

struct CameraArgs {
  std::string act;
  int number = 0;  // 0: not given
  std::string codec;
  std::string privacy;
  std::vector<int> streams;
  std::string live = "high";
  bool json = false;
};

std::string Name(int cameraId) {
  return "camera " + std::to_string(cameraId);
}

int FailStore(const std::string& directory, const std::string& what) {
  return Fail(kFailed, directory + ": cannot " + what + "; check the directory, its permissions and the free space");
}

std::string ProfileName(CAM_PROFILE_TYPE profile) {
  for (const auto& [name, value] : kProfiles) {
    if (value == profile) {
      return name;
    }
  }
  return "";
}

int Add(const CameraArgs& args, const std::string& directory) {
  if (args.codec.empty()) {
    return Fail(kUsage, "camera add: --codec is missing; give the codec of its video, as --codec h264");
  }
  if (!IsPrivacyText(args.privacy)) {
    return Fail(kUsage, "camera add: \"" + args.privacy + "\" is no region text; " + kPrivacyForm);
  }
  Camera camera;
  const bool isThere = camera.Load(args.number, 0, 0) == 0;
  camera = Camera();
  camera.id = args.number;
  camera.videoType = VideoTypeOf(args.codec);
  camera.privacyRegion = args.privacy;
  camera.liveProfile = kProfiles.at(args.live);
  std::copy(args.streams.begin(), args.streams.end(), camera.uiStreamNo);
  if (camera.Save() != 0) {
    return FailStore(directory, "store the camera");
  }
  Note(Name(args.number) + (isThere ? ": replaced the one of that number" : ": added"));
  return kDone;
}

int Remove(const CameraArgs& args, const std::string& directory) {
  Camera camera;
  if (const int code = LoadCamera(args.number, camera); code != kDone) {
    return code;
  }
  if (Camera::Remove(args.number) != 0) {
    return FailStore(directory, "remove the camera");
  }
  Note(Name(args.number) + ": removed with its events");
  return kDone;
}

std::string Text(const std::vector<Camera>& cameras) {
  std::string text;
  for (const Camera& camera : cameras) {
    text += Name(camera.id) + ": " + VideoTypeText(camera.videoType);
    for (const CAM_PROFILE_TYPE profile : {CAM_PROFILE_HIGH, CAM_PROFILE_MEDIUM, CAM_PROFILE_LOW}) {
      text += ", " + ProfileName(profile) + " is stream " + std::to_string(camera.GetUiStreamNo(profile)) +
              (camera.GetLiveProfile() == profile ? " (live)" : "");
    }
    text += (camera.privacyRegion.empty() ? "" : ", privacy " + camera.privacyRegion) + "\n";
  }
  return text;
}

std::string JsonText(const std::vector<Camera>& cameras) {
  Json::Value root;
  root["schema"] = kSchema;
  root["cameras"] = Json::arrayValue;
  for (const Camera& camera : cameras) {
    const std::string codec = VideoTypeName(camera.videoType);
    const std::string live = ProfileName(camera.GetLiveProfile());
    Json::Value entry;
    entry["number"] = camera.id;
    entry["video_type"] = camera.videoType;
    entry["codec"] = codec.empty() ? Json::Value() : Json::Value(codec);
    entry["live"] = live.empty() ? Json::Value() : Json::Value(live);
    entry["privacy"] = camera.privacyRegion;
    for (const auto& [name, profile] : kProfiles) {
      entry["streams"][name] = camera.GetUiStreamNo(profile);
    }
    root["cameras"].append(entry);
  }
  return JsonLine(root);
}

int List(const CameraArgs& args, const std::string& directory) {
  std::vector<Camera> cameras;
  if (Camera::List(cameras) != 0) {
    return FailStore(directory, "read the cameras");
  }
  if (cameras.empty() && !args.json) {
    Note(directory + ": no camera yet; mediautil camera add makes one");
    return kDone;
  }
  return PrintResult(args.json ? JsonText(cameras) : Text(cameras));
}

int Run(const CameraArgs& args) {
  const bool isList = args.act == "list";
  if (isList != (args.number == 0)) {
    return Fail(kUsage, "camera " + args.act +
                            (isList ? ": takes no number; leave it out"
                                    : ": the camera's number is missing; mediautil camera list " +
                                          std::string("shows those there are")));
  }
  std::string directory;
  if (const int code = FindStateDir("the cameras", directory); code != kDone) {
    return code;
  }
  return isList ? List(args, directory) : args.act == "add" ? Add(args, directory) : Remove(args, directory);
}

}  // namespace

void AddCamera(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("camera", "Show or change the records of the server's cameras.");
  const auto args = std::make_shared<CameraArgs>();
  command->add_option("WHAT", args->act, "add, list or remove")
      ->required()
      ->type_name("")
      ->check(CLI::IsMember({"add", "list", "remove"}).description(""));
  command->add_option("N", args->number, "the camera's number, from 1 on")
      ->type_name("")
      ->check(CLI::Range(1, kMaxInt).description(""));
  command->add_option("--codec", args->codec, "of its video: mjpeg, mpeg4, h264, mxpeg or hevc")
      ->type_name("C")
      ->check(CLI::IsMember(VideoTypeNames()).description(""));
  command->add_option("--privacy", args->privacy, "regions to hide: XXXXYYYY a corner, ; between regions")
      ->type_name("TEXT");
  command->add_option("--streams", args->streams, "streams of high, medium and low profile; 0,1,2 without it")
      ->type_name("H,M,L")
      ->delimiter(',')
      ->expected(3)
      ->check(CLI::Range(0, kMaxInt).description(""));
  command->add_option("--live", args->live, "profile for live view: high, medium or low; high without it")
      ->type_name("P")
      ->check(CLI::IsMember(&kProfiles).description(""));
  command->add_flag("--json", args->json, "list: print one JSON object instead of text");
  command->footer(
      "The records stand in the directory that MEDIAUTIL_STATE_DIR names. add replaces a camera of that number,\n"
      "remove takes the camera's events with it.\n\n"
      "Examples:\n  mediautil camera add 12 --codec h264 --live low\n  mediautil camera list --json");
  command->callback([args, &action] { action = [args] { return Run(*args); }; });
}
