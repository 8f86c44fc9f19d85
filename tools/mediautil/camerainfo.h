// Names for what camera records hold.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/camera.h"

// The names of a camera's profiles.
inline const std::map<std::string, CAM_PROFILE_TYPE> kProfiles = {
    {"high", CAM_PROFILE_HIGH}, {"medium", CAM_PROFILE_MEDIUM}, {"low", CAM_PROFILE_LOW}};

// A video type's codec, such as "h264"; empty for none.
std::string VideoTypeName(int type);

// The same for people: "video type 9" for one without a codec.
std::string VideoTypeText(int type);

// The type of a codec; 0 for one that cameras do not send.
int VideoTypeOf(const std::string& codec);

// The codecs, without doubles.
std::vector<std::string> VideoTypeNames();

// Loads a registered camera. kDone, or prints how it is registered.
int LoadCamera(int cameraId, Camera& camera);

// Prints that the camera has no stream for the profile that was given, or for live view when profile is empty, and
// which option names another one. kFailed.
int FailNoStream(int cameraId, const std::string& profile, const std::string& option);

// "camera 12, stream 1"
std::string StreamName(int cameraId, int streamNo);
