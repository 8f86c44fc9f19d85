// One RGB picture in memory, and event thumbnails made from it.
#pragma once

#include <string>

#include "platform/export.h"

struct Camera;
class Event;

// A packed RGB24 picture. Empty until a load succeeds. All int results: 0, or -1 on failure.
class VY_API ImageObject {
 public:
  ImageObject() = default;
  ~ImageObject();
  ImageObject(const ImageObject&) = delete;
  ImageObject& operator=(const ImageObject&) = delete;

  // The regions that LoadFromMPEG paints black; format as in GetPrivacyRegionFrame, empty for none.
  void SetPrivacyRegion(const std::string& privacyRegion);

  // The picture as it stands.
  unsigned int GetWidth() const { return m_width; }
  unsigned int GetHeight() const { return m_height; }
  unsigned int GetLength() const { return m_length; }  // bytes in use: 3 x width x height, or as LoadFromRGB was told
  unsigned char* GetImage() const { return m_image; }  // null when empty
  bool IsEmpty() const { return m_image == nullptr; }

  // Releases the picture; the privacy regions stay.
  void Free();

  // Each load replaces the picture. A failure leaves the old one, except LoadFromRGB without memory: empty then.
  int LoadFromJPEG(const unsigned char* jpeg, unsigned int size);
  // size: bytes in rgb. Taken as given: a picture whose rows do not fit in size is refused where it is used.
  int LoadFromRGB(const unsigned char* rgb, unsigned int size, unsigned int width, unsigned int height);
  // One coded frame; video types and extradata as in DoFFMpegInitVideo. A width or height of 0 takes the decoded one.
  // Decoded sides below 17 pixels and results over 64 megapixels fail.
  int LoadFromMPEG(int vdoType, const unsigned char* extradata, unsigned int extradataSize, const unsigned char* data,
                   unsigned int size, unsigned int width, unsigned int height);

  // Scales into target, whose buffer is reused when it is large enough; at most 64 megapixels. A failure leaves target
  // as it was.
  int Resize(ImageObject& target, unsigned int width, unsigned int height) const;
  // Scales source into target's buffer, which is set up by its width, height and length.
  static int ResizeRGBImage(ImageObject& target, const ImageObject& source);

  // quality 1 to 100, -1 for the default. The caller releases jpeg with delete[]; null and size 0 on failure.
  int CompressToJPEG(unsigned char*& jpeg, unsigned int& size, int quality) const;

 private:
  // Replaces the picture by one from malloc.
  void Take(unsigned char* image, unsigned int length, unsigned int width, unsigned int height);
  bool HoldsRgb() const;
  static bool ScaleRgb(ImageObject& target, const ImageObject& source);

  std::string m_strPrivacyRegion;
  unsigned int m_width = 0;
  unsigned int m_height = 0;
  unsigned int m_length = 0;
  unsigned char* m_image = nullptr;  // malloc
};

// The size of a thumbnail (120 x 90 box) or, large, of a preview (240 x 180 box): the picture's aspect ratio kept, the
// box covered. -1 for an image without a size.
VY_API int GetThumbnailSize(const ImageObject& image, int& width, int& height, bool large);

// Scales to that size, the box's own for an image without a size, and compresses. 0, and the caller releases jpeg with
// delete[]; or -1 with jpeg null and size 0.
VY_API int CompressImgToJPEG(const ImageObject& image, unsigned char*& jpeg, unsigned int& size, int& width,
                             int& height, bool large);
VY_API int CompressImgToJPEG(const ImageObject& image, unsigned char*& jpeg, unsigned int& size, bool large);

// Make the thumbnail or the preview and store it with the event. A null event makes the picture and drops it.
// The thumbnail's result says nothing about its storing.
VY_API int MakeEvtThumbnail(const ImageObject& image, Event* event, const Camera* camera);
VY_API int MakeEvtPreviewThumbnail(const ImageObject& image, Event* event, const Camera* camera);
