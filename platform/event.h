// Platform interface: event records.
#pragma once

#include <vector>

#include "platform/export.h"

struct Camera;

// One recorded event with its two small pictures.
class VY_API Event {
 public:
  // An event of that number; nothing is read.
  explicit Event(int eventId = 0) : m_id(eventId) {}

  // The number of the event.
  int GetId() const { return m_id; }

  // Copies the thumbnail JPEG into the record, none when jpeg is null; nothing is stored yet.
  void SetThumbnail(const unsigned char* jpeg, unsigned int size);
  // Stores the record's thumbnail for that camera. 0 on success; -1 also without a thumbnail or a loaded camera.
  int SaveThumbnail(const Camera* camera);
  // Stores the preview JPEG for that camera and notes the time. 0 on success; -1 also for an empty JPEG or a camera
  // that is not loaded, then the record is unchanged.
  int SavePreviewThumbnail(const unsigned char* jpeg, unsigned int size, const Camera* camera);

  // The JPEGs; empty when there is none.
  const std::vector<unsigned char>& GetThumbnail() const { return m_thumbnail; }
  const std::vector<unsigned char>& GetPreview() const { return m_preview; }
  // When the preview was stored, seconds since 1970; 0 before.
  long long GetPreviewCreateTm() const { return m_previewCreateTm; }

  // Reads an event of a camera from the store. 0 on success; -1 when there is none, then the record is unchanged.
  int Load(int eventId, const Camera& camera);

 private:
  int m_id;
  std::vector<unsigned char> m_thumbnail;
  std::vector<unsigned char> m_preview;
  long long m_previewCreateTm = 0;
};
