// Current small pictures of cameras, shared between processes: one JPEG file a stream, renewed when it is too old.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/camera.h"
#include "platform/export.h"

// One stream's picture, in a file of the cache directory that every process of the server uses. A fresh file is read
// under a shared lock; otherwise the newest key frame of the live stream, for MJPEG the newest frame, is decoded
// without a lock, maybe by several processes at once, and written under an exclusive one by one of them. Privacy
// regions are not painted.
class VY_API SharedThumb {
 public:
  using Bytes = std::pair<std::unique_ptr<unsigned char[]>, unsigned int>;  // the array and its length

  // The cache: file 12.1 is the picture of camera 12's stream 1, file 12.1.lock its lock.
  static constexpr char kDirectory[] = "/var/packages/Korvane/target/@kestrel/@SharedThumb";

  // Loads the camera from the store and takes the stream that user interfaces show for one of its profiles, as
  // SharedThumb(12, &Camera::GetLiveProfile, 1). maxAge: seconds that a file stays fresh. GetThumb fails for a camera
  // that cannot be loaded.
  SharedThumb(int cameraId, CAM_PROFILE_TYPE (Camera::*profileGetter)() const, unsigned int maxAge);
  // The same for a camera that the caller has loaded.
  SharedThumb(const Camera& camera, CAM_PROFILE_TYPE profile, unsigned int maxAge);

  // The JPEG, of thumbnail size (GetThumbnailSize). What out held is released first. 0, or -1 with out empty: no such
  // camera, no live stream, no picture in it, or the cache cannot be locked or read. A picture that cannot be written
  // into the cache is still handed out.
  int GetThumb(Bytes& out) const;

  // The same as base64 text, empty on failure.
  int GetBase64Thumb(std::string& out) const;

 private:
  int m_cameraId = 0;
  int m_streamNo = 0;
  int m_videoType = 0;
  unsigned int m_maxAge = 0;
};

// The live stream's picture of a loaded camera, made less than a second ago from the newest key frame, for MJPEG from
// the newest frame. 0, or -1 with out empty.
VY_API int GetSharedThumb(const Camera& camera, SharedThumb::Bytes& out);
