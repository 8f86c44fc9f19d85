#include "platform/event.h"

#include <ctime>

#include "platform/camera.h"
#include "platform/local/store.h"

using local::Statement;
using local::Store;

void Event::SetThumbnail(const unsigned char* jpeg, unsigned int size) {
  if (jpeg == nullptr) size = 0;
  m_thumbnail = std::vector<unsigned char>(jpeg, jpeg + size);  // jpeg may be what it replaces
}

int Event::SaveThumbnail(const Camera* camera) {
  if (camera == nullptr || camera->id < 1 || m_thumbnail.empty()) return -1;
  const Store store(Store::Access::kWrite);
  if (!store.IsOpen()) return -1;
  Statement statement(store,
                      "INSERT INTO events (camera_id, event_id, thumbnail) VALUES (?, ?, ?) "
                      "ON CONFLICT (camera_id, event_id) DO UPDATE SET thumbnail = excluded.thumbnail");
  return statement.Bind(camera->id).Bind(m_id).Bind(m_thumbnail).Run() ? 0 : -1;
}

int Event::SavePreviewThumbnail(const unsigned char* jpeg, unsigned int size, const Camera* camera) {
  if (jpeg == nullptr || size == 0 || camera == nullptr || camera->id < 1) return -1;
  const Store store(Store::Access::kWrite);
  if (!store.IsOpen()) return -1;
  std::vector<unsigned char> preview(jpeg, jpeg + size);
  const long long now = std::time(nullptr);
  Statement statement(store,
                      "INSERT INTO events (camera_id, event_id, preview, preview_create_tm) VALUES (?, ?, ?, ?) "
                      "ON CONFLICT (camera_id, event_id) DO UPDATE SET preview = excluded.preview, "
                      "preview_create_tm = excluded.preview_create_tm");
  if (!statement.Bind(camera->id).Bind(m_id).Bind(preview).Bind(now).Run()) return -1;
  m_preview = std::move(preview);
  m_previewCreateTm = now;
  return 0;
}

int Event::Load(int eventId, const Camera& camera) {
  const Store store(Store::Access::kRead);
  if (!store.IsOpen()) return -1;
  Statement row(store, "SELECT thumbnail, preview, preview_create_tm FROM events WHERE camera_id = ? AND event_id = ?");
  if (!row.Bind(camera.id).Bind(eventId).Next()) return -1;
  m_id = eventId;
  m_thumbnail = row.GetBlob(0);
  m_preview = row.GetBlob(1);
  m_previewCreateTm = row.GetInt64(2);
  return 0;
}
