// A page of all cameras as they are now: live_thumbnail > wall.html
//
// The pictures are part of the page. However many such pages are made, by however many processes: a camera's picture is
// written once a second, and decoded once or a few times.
#include <iostream>
#include <string>
#include <vector>

#include "platform/camera.h"
#include "utils/sharedthumb.h"

namespace {

constexpr unsigned int kMaxAge = 1;  // seconds

std::string Figure(const Camera& camera) {
  const std::string name = "Camera " + std::to_string(camera.id);
  std::string picture;
  if (SharedThumb(camera, camera.GetLiveProfile(), kMaxAge).GetBase64Thumb(picture) != 0) {
    return "<figure>no picture<figcaption>" + name + "</figcaption></figure>\n";
  }
  return "<figure><img alt=\"" + name + "\" src=\"data:image/jpeg;base64," + picture + "\"><figcaption>" + name +
         "</figcaption></figure>\n";
}

}  // namespace

int main() {
  std::vector<Camera> cameras;
  if (Camera::List(cameras) != 0) {
    std::cerr << "live_thumbnail: cannot read the cameras; check MEDIAUTIL_STATE_DIR\n";
    return 1;
  }
  std::cout << "<!DOCTYPE html>\n<title>Cameras</title>\n";
  for (const Camera& camera : cameras) {
    std::cout << Figure(camera);
  }
  return std::cout.flush() ? 0 : 1;
}
