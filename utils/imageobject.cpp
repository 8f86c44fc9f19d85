#include "utils/imageobject.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "platform/camera.h"
#include "platform/event.h"
#include "platform/jpeg.h"
#include "utils/internal/ffcompat.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/fitsize.h"
#include "utils/internal/guarded.h"
#include "utils/internal/log.h"
#include "utils/internal/oneshot.h"
#include "utils/internal/polygonmask.h"
#include "utils/internal/scaler.h"
#include "utils/mpeg4util.h"

using mediautil::FfPtr;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr int kVideoTypeHevc = 6;
constexpr int kMinSide = 17;  // a decoded picture below it is damage, not video

// Bytes of a packed RGB24 picture; they may not fit in 32 bits.
std::uint64_t RgbSize(unsigned int width, unsigned int height) {
  return static_cast<std::uint64_t>(width) * height * 3;
}

// An image of that many bytes, not initialised, zeros behind them, aligned for libswscale; null without memory.
// Released with free.
unsigned char* AllocImage(unsigned int size) {
  void* image = nullptr;
  const std::uint64_t bytes = static_cast<std::uint64_t>(size) + mediautil::kPictureSlack;
  if (bytes > SIZE_MAX || posix_memalign(&image, 64, static_cast<std::size_t>(bytes)) != 0) {
    return nullptr;
  }
  std::memset(static_cast<unsigned char*>(image) + size, 0, mediautil::kPictureSlack);
  return static_cast<unsigned char*>(image);
}

// A size beyond int becomes negative, which decoders refuse.
int ToInt(unsigned int size) {
  return size > INT_MAX ? -1 : static_cast<int>(size);
}

// A wanted side, 0 for the decoded one; beyond int it becomes one that no picture can have.
int ChooseSide(unsigned int wanted, int decoded) {
  return wanted == 0 ? decoded : static_cast<int>(std::min(wanted, static_cast<unsigned int>(INT_MAX)));
}

int DecodePicture(FFmpegAttr& attr, int vdoType, const unsigned char* data, int size) {
  int ret = DoFFMpegDecode(attr, data, size);
  if (ret != 0 && vdoType == kVideoTypeHevc) {
    ret = DoFFMpegDecode(attr, data, size);
  }
  if (ret == 0 || mediautil::DrainPicture(attr.pCodecCtx, attr.pRawFrame)) {
    return 0;
  }
  VY_FAIL_IF(vdoType == kVideoTypeHevc, -1, LOG_LEVEL_DEBUG, "Failed to decode again FFmpeg: %d\n", ret);
  VY_LOG(LOG_LEVEL_NOTE, "Failed to decode FFmpeg: %d\n", ret);
  return -1;
}

// Replaces the session's picture by one with the regions painted black.
int MaskPicture(FFmpegAttr& attr, const std::string& privacyRegion) {
  VY_FAIL_IF(attr.pRawFrame == nullptr, -1, LOG_LEVEL_ERR, "LoadFromMPEG, FFAttr.pRawFrame is nullptr.\n");
  AVFrame* converted = nullptr;
  VY_FAIL_IF(DoFFmpegConvertFrameFormat(attr.pRawFrame, AV_PIX_FMT_RGBA, &converted) != 0, -1, LOG_LEVEL_ERR,
             "LoadFromMPEG, fail to convert frame format.\n");
  const FfPtr<AVFrame> rgba(converted);
  VY_FAIL_IF(
      !mediautil::TryPaintRegions(privacyRegion, {rgba->data[0], rgba->linesize[0], rgba->width, rgba->height, 4}), -1,
      LOG_LEVEL_ERR, "LoadFromMPEG, fail to get privacy region frame.\n");
  AVFrame* masked = nullptr;
  VY_FAIL_IF(DoFFmpegConvertFrameFormat(rgba.get(), AV_PIX_FMT_YUV420P, &masked) != 0, -1, LOG_LEVEL_ERR,
             "LoadFromMPEG, fail to overlay two image.\n");
  av_frame_free(&attr.pRawFrame);
  attr.pRawFrame = masked;
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// ImageObject
// ---------------------------------------------------------------------------------------------------------------------

ImageObject::~ImageObject() {
  Free();
}

void ImageObject::SetPrivacyRegion(const std::string& privacyRegion) {
  m_strPrivacyRegion = privacyRegion;
}

void ImageObject::Free() {
  Take(nullptr, 0, 0, 0);
}

void ImageObject::Take(unsigned char* image, unsigned int length, unsigned int width, unsigned int height) {
  std::free(m_image);
  m_image = image;
  m_length = length;
  m_width = width;
  m_height = height;
}

int ImageObject::LoadFromJPEG(const unsigned char* jpeg, unsigned int size) {
  unsigned char* image = nullptr;
  int length = 0;
  int width = 0;
  int height = 0;
  const int ret = DecodeJpeg(jpeg, ToInt(size), &image, length, JCS_RGB, 1, width, height);
  VY_FAIL_IF(ret != 0, -1, LOG_LEVEL_WARN, "Failed to decompress JPEG: %d\n", ret);
  Take(image, static_cast<unsigned int>(length), static_cast<unsigned int>(width), static_cast<unsigned int>(height));
  return 0;
}

int ImageObject::LoadFromRGB(const unsigned char* rgb, unsigned int size, unsigned int width, unsigned int height) {
  if (rgb == nullptr) {
    return -1;
  }
  unsigned char* image = AllocImage(size);
  if (image == nullptr) {
    Free();
  }
  VY_FAIL_IF(image == nullptr, -1, LOG_LEVEL_WARN, "Failed to create buffer: %u bytes\n", size);
  std::memcpy(image, rgb, size);
  Take(image, size, width, height);
  return 0;
}

int ImageObject::LoadFromMPEG(int vdoType, const unsigned char* extradata, unsigned int extradataSize,
                              const unsigned char* data, unsigned int size, unsigned int width, unsigned int height) {
  if (data == nullptr) {
    return -1;
  }
  mediautil::OneShotSession session;
  FFmpegAttr& attr = session.attr;
  const int initRet = DoFFMpegInitVideo(attr, vdoType, extradata, ToInt(extradataSize));
  VY_FAIL_IF(initRet != 0, -1, LOG_LEVEL_NOTE, "Failed to init FFmpeg dec: %d, VdoType[%d]\n", initRet, vdoType);
  session.TakeAnyPicture();
  if (DecodePicture(attr, vdoType, data, ToInt(size)) != 0) {
    return -1;
  }
  VY_FAIL_IF(attr.pRawFrame->width < kMinSide || attr.pRawFrame->height < kMinSide, -1, LOG_LEVEL_WARN,
             "Abnormal resolution[%dx%d], ignore.\n", attr.pRawFrame->width, attr.pRawFrame->height);
  if (!m_strPrivacyRegion.empty() && MaskPicture(attr, m_strPrivacyRegion) != 0) {
    return -1;
  }
  int outWidth = ChooseSide(width, attr.pRawFrame->width);
  int outHeight = ChooseSide(height, attr.pRawFrame->height);
  int ret = -1;
  if (static_cast<std::int64_t>(outWidth) * outHeight <= mediautil::kMaxPixels) {
    ret = DoFFMpegScale(attr, session.buffer, session.bufferSize, outWidth, outHeight, AV_PIX_FMT_RGB24);
  }
  if (attr.pOutFrame->width < 1) {
    ret = -1;  // nothing was written
  }
  VY_FAIL_IF(ret != 0, -1, LOG_LEVEL_WARN, "Failed to scale FFmpeg: %d\n", ret);
  // A new buffer of packed rows, which free releases as well: taken over instead of copied.
  Take(session.buffer, static_cast<unsigned int>(session.bufferSize), static_cast<unsigned int>(outWidth),
       static_cast<unsigned int>(outHeight));
  session.buffer = nullptr;
  return 0;
}

int ImageObject::Resize(ImageObject& target, unsigned int width, unsigned int height) const {
  const std::uint64_t wanted = RgbSize(width, height);
  const auto needed = static_cast<unsigned int>(wanted);
  VY_FAIL_IF(wanted / 3 > mediautil::kMaxPixels, -1, LOG_LEVEL_WARN, "Failed to create buffer: %u bytes\n", needed);
  const bool isReused = &target != this && !target.IsEmpty() && target.m_length >= needed;
  mediautil::MallocPtr<unsigned char> fresh(isReused ? nullptr : AllocImage(needed));
  ImageObject wish;  // the wanted picture over a buffer that is not its own
  wish.m_image = isReused ? target.m_image : fresh.get();
  VY_FAIL_IF(wish.IsEmpty(), -1, LOG_LEVEL_WARN, "Failed to create buffer: %u bytes\n", needed);
  wish.m_length = needed;
  wish.m_width = width;
  wish.m_height = height;
  const int ret = ResizeRGBImage(wish, *this);
  wish.m_image = nullptr;
  if (ret != 0) {
    return ret;
  }
  if (isReused) {
    fresh.reset(std::exchange(target.m_image, nullptr));
  }
  target.Take(fresh.release(), needed, width, height);
  return 0;
}

int ImageObject::ResizeRGBImage(ImageObject& target, const ImageObject& source) {
  VY_FAIL_IF(!target.HoldsRgb() || !source.HoldsRgb() || !ScaleRgb(target, source), -1, LOG_LEVEL_WARN,
             "Failed to get convert ctx (%u, %u), (%u, %u)\n", source.m_width, source.m_height, target.m_width,
             target.m_height);
  return 0;
}

bool ImageObject::ScaleRgb(ImageObject& target, const ImageObject& source) {
  const int width = ToInt(target.m_width);
  const int height = ToInt(target.m_height);
  const int sourceHeight = ToInt(source.m_height);
  const FfPtr<SwsContext> scaler = mediautil::MakeScaler(ToInt(source.m_width), sourceHeight, AV_PIX_FMT_RGB24, width,
                                                         height, AV_PIX_FMT_RGB24, SWS_BICUBIC);
  const unsigned char* sourceRows[4] = {source.m_image};
  unsigned char* targetRows[4] = {target.m_image};
  const int sourceStride[4] = {3 * ToInt(source.m_width)};
  const int targetStride[4] = {3 * width};
  return scaler != nullptr && mediautil::RunScaler(scaler.get(), sourceRows, sourceStride, sourceHeight,
                                                   {targetRows, targetStride, AV_PIX_FMT_RGB24, width, height});
}

int ImageObject::CompressToJPEG(unsigned char*& jpeg, unsigned int& size, int quality) const {
  jpeg = nullptr;
  size = 0;
  VY_FAIL_IF(IsEmpty(), -1, LOG_LEVEL_WARN, "ImageObject is empty.\n");
  // The raw size is the capacity: only pictures of a few hundred pixels do not fit.
  std::unique_ptr<unsigned char[]> out(new (std::nothrow) unsigned char[m_length]);
  int written = 0;
  int ret = -1;
  if (out != nullptr && HoldsRgb()) {
    ret = EncodeToJpeg(ToInt(m_width), ToInt(m_height), m_image, out.get(), ToInt(m_length), written, quality);
  }
  VY_FAIL_IF(ret != 0, -1, LOG_LEVEL_WARN, "Failed to compress JPEG: %d.\n", ret);
  jpeg = out.release();
  size = static_cast<unsigned int>(written);
  return 0;
}

bool ImageObject::HoldsRgb() const {
  return m_image != nullptr && m_width >= 1 && m_height >= 1 && RgbSize(m_width, m_height) <= m_length &&
         m_length <= INT_MAX;
}

// ---------------------------------------------------------------------------------------------------------------------
// Event thumbnails
// ---------------------------------------------------------------------------------------------------------------------

namespace {

mediautil::Size ThumbnailBox(bool large) {
  return large ? mediautil::Size{240, 180} : mediautil::Size{120, 90};
}

// The JPEG of an event's picture; null when it cannot be made.
std::unique_ptr<unsigned char[]> CompressForEvent(const ImageObject& image, unsigned int& size, bool large) {
  unsigned char* jpeg = nullptr;
  CompressImgToJPEG(image, jpeg, size, large);
  return std::unique_ptr<unsigned char[]>(jpeg);
}

}  // namespace

int GetThumbnailSize(const ImageObject& image, int& width, int& height, bool large) {
  const auto imageWidth = static_cast<int>(image.GetWidth());
  const auto imageHeight = static_cast<int>(image.GetHeight());
  VY_FAIL_IF(imageWidth <= 0 || imageHeight <= 0, -1, LOG_LEVEL_WARN, "Invalid image width[%d], height[%d]\n",
             imageWidth, imageHeight);
  const mediautil::Size size = mediautil::CoverBox({imageWidth, imageHeight}, ThumbnailBox(large));
  width = size.width;
  height = size.height;
  return 0;
}

int CompressImgToJPEG(const ImageObject& image, unsigned char*& jpeg, unsigned int& size, int& width, int& height,
                      bool large) {
  jpeg = nullptr;
  size = 0;
  if (GetThumbnailSize(image, width, height, large) != 0) {
    const mediautil::Size box = ThumbnailBox(large);
    width = box.width;
    height = box.height;
  }
  ImageObject thumbnail;
  if (image.Resize(thumbnail, static_cast<unsigned int>(width), static_cast<unsigned int>(height)) != 0) {
    return -1;
  }
  return thumbnail.CompressToJPEG(jpeg, size, -1);
}

int CompressImgToJPEG(const ImageObject& image, unsigned char*& jpeg, unsigned int& size, bool large) {
  int width = 0;
  int height = 0;
  return CompressImgToJPEG(image, jpeg, size, width, height, large);
}

int MakeEvtThumbnail(const ImageObject& image, Event* event, const Camera* camera) {
  unsigned int size = 0;
  const auto jpeg = CompressForEvent(image, size, false);
  if (jpeg == nullptr) {
    return -1;
  }
  return mediautil::Guarded([&] {
    if (event != nullptr) {
      event->SetThumbnail(jpeg.get(), size);
      event->SaveThumbnail(camera);
    }
    return 0;
  });
}

int MakeEvtPreviewThumbnail(const ImageObject& image, Event* event, const Camera* camera) {
  unsigned int size = 0;
  const auto jpeg = CompressForEvent(image, size, true);
  if (jpeg == nullptr) {
    return -1;
  }
  const bool isSaved = event == nullptr ||
                       mediautil::Guarded([&] { return event->SavePreviewThumbnail(jpeg.get(), size, camera); }) == 0;
  VY_FAIL_IF(!isSaved, -1, LOG_LEVEL_WARN, "Cam[%d]: Failed to save preview thumbnail at time [%lld]\n",
             camera == nullptr ? 0 : camera->id, event->GetPreviewCreateTm());
  return 0;
}
