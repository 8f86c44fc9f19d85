// Platform interface: camera records.
#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// Which of a camera's streams is meant.
enum CAM_PROFILE_TYPE : int { CAM_PROFILE_HIGH = 0, CAM_PROFILE_MEDIUM = 1, CAM_PROFILE_LOW = 2 };

// Whether pictures of a video type come from key frames by way of a decoder: MPEG-4, H.264, MxPEG and HEVC.
VY_API bool IsSupportedMp4VdoType(int videoType);

// One camera of the server. The identifier is the record's first field; 0 while nothing is loaded.
struct VY_API Camera {
  int id = 0;                     // above 0 when loaded
  int videoType = 0;              // 1 MJPEG, 2 MPEG-4, 3 H.264, 5 MxPEG, 6 HEVC, 7 H.264, 8 HEVC
  std::string privacyRegion;      // polygons separated by ';', 8 characters a point; empty: nothing is hidden
  int uiStreamNo[3] = {0, 1, 2};  // the stream of each profile
  CAM_PROFILE_TYPE liveProfile = CAM_PROFILE_HIGH;  // the profile that live views show

  // Reads a camera from the store. 0 on success; -1 when there is no such camera, then the record is unchanged.
  // The two numbers after the identifier are the server's load options; the local store has none.
  int Load(int cameraId, int options, int flags);

  // The profile that live views show.
  CAM_PROFILE_TYPE GetLiveProfile() const;
  // The stream number that user interfaces show for a profile; -1 for a profile that does not exist.
  int GetUiStreamNo(CAM_PROFILE_TYPE profile) const;

  // Store upkeep. 0 on success, -1 on failure or for an identifier below 1.
  int Save() const;
  // Takes the camera's events with it; -1 also when there is no such camera.
  static int Remove(int cameraId);
  // All cameras by identifier; an empty list when nothing was ever stored. After -1 the list is unchanged.
  static int List(std::vector<Camera>& cameras);
};
