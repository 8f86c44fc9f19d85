#include "platform/camera.h"

#include <algorithm>
#include <iterator>

#include "platform/local/store.h"

using local::Statement;
using local::Store;

namespace {

// The columns that FromRow reads, in its order.
#define CAMERA_COLUMNS "id, video_type, privacy_region, stream_high, stream_medium, stream_low, live_profile"

Camera FromRow(const Statement& row) {
  Camera camera;
  camera.id = row.GetInt(0);
  camera.videoType = row.GetInt(1);
  camera.privacyRegion = row.GetText(2);
  for (int i = 0; i < 3; ++i) camera.uiStreamNo[i] = row.GetInt(3 + i);
  camera.liveProfile = static_cast<CAM_PROFILE_TYPE>(row.GetInt(6));
  return camera;
}

}  // namespace

bool IsSupportedMp4VdoType(int videoType) {
  constexpr int kTypes[] = {2, 3, 5, 6, 7, 8};
  return std::find(std::begin(kTypes), std::end(kTypes), videoType) != std::end(kTypes);
}

int Camera::Load(int cameraId, int, int) {
  const Store store(Store::Access::kRead);
  if (cameraId < 1 || !store.IsOpen()) return -1;
  Statement row(store, "SELECT " CAMERA_COLUMNS " FROM cameras WHERE id = ?");
  if (!row.Bind(cameraId).Next()) return -1;
  *this = FromRow(row);
  return 0;
}

CAM_PROFILE_TYPE Camera::GetLiveProfile() const {
  return liveProfile;
}

int Camera::GetUiStreamNo(CAM_PROFILE_TYPE profile) const {
  return profile < CAM_PROFILE_HIGH || profile > CAM_PROFILE_LOW ? -1 : uiStreamNo[profile];
}

int Camera::Save() const {
  if (id < 1) return -1;
  const Store store(Store::Access::kWrite);
  if (!store.IsOpen()) return -1;
  Statement statement(store, "INSERT OR REPLACE INTO cameras (" CAMERA_COLUMNS ") VALUES (?, ?, ?, ?, ?, ?, ?)");
  statement.Bind(id).Bind(videoType).Bind(privacyRegion);
  for (const int streamNo : uiStreamNo) statement.Bind(streamNo);
  return statement.Bind(liveProfile).Run() ? 0 : -1;
}

int Camera::Remove(int cameraId) {
  const Store store(Store::Access::kRead);
  if (cameraId < 1 || !store.IsOpen()) return -1;
  const bool removed = Statement(store, "DELETE FROM cameras WHERE id = ?").Bind(cameraId).Run();
  return removed && store.ChangedRows() == 1 ? 0 : -1;
}

int Camera::List(std::vector<Camera>& cameras) {
  const Store store(Store::Access::kRead);
  std::vector<Camera> found;
  if (store.IsOpen()) {
    Statement row(store, "SELECT " CAMERA_COLUMNS " FROM cameras ORDER BY id");
    while (row.Next()) found.push_back(FromRow(row));
    if (!row.Succeeded()) return -1;
  } else if (store.GetState() == Store::State::kFailed) {
    return -1;
  }
  cameras = std::move(found);
  return 0;
}
