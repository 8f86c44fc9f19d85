#include <gtest/gtest.h>

#include <random>

#include "platform/camera.h"
#include "platform/event.h"
#include "platform/jpeg.h"
#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/tempdir.h"
#include "utils/imageobject.h"
#include "utils/internal/fitsize.h"

namespace {

using Messages = std::vector<std::string>;

int LoadFrame(ImageObject& image, int vdoType, const Bytes& data, unsigned int width = 0, unsigned int height = 0,
              const Bytes& extradata = {}) {
  return image.LoadFromMPEG(vdoType, extradata.data(), static_cast<unsigned int>(extradata.size()), data.data(),
                            static_cast<unsigned int>(data.size()), width, height);
}

int LoadSolid(ImageObject& image, unsigned int width, unsigned int height, std::uint8_t value = 100) {
  const Bytes rgb(static_cast<std::size_t>(width) * height * 3, value);
  return image.LoadFromRGB(rgb.data(), static_cast<unsigned int>(rgb.size()), width, height);
}

std::string SizeOf(const ImageObject& image) {
  return std::to_string(image.GetWidth()) + "x" + std::to_string(image.GetHeight()) + "/" +
         std::to_string(image.GetLength());
}

unsigned int At(const ImageObject& image, int x, int y) {
  return PixelAt(image.GetImage(), static_cast<int>(image.GetWidth()) * 3, x, y);
}

}  // namespace

TEST(ImageObject, EmptyUntilLoadedAndAfterFree) {
  ImageObject image;
  EXPECT_TRUE(image.IsEmpty());
  EXPECT_EQ(SizeOf(image), "0x0/0");
  ASSERT_EQ(LoadSolid(image, 20, 10), 0);
  EXPECT_EQ(SizeOf(image), "20x10/600");
  ASSERT_EQ(LoadSolid(image, 4, 4, 7), 0);  // replaces
  EXPECT_EQ(At(image, 3, 3), 0x070707U);
  ASSERT_EQ(image.LoadFromRGB(image.GetImage(), 24, 4, 2), 0);  // from itself
  EXPECT_EQ(SizeOf(image), "4x2/24");
  image.Free();
  EXPECT_TRUE(image.IsEmpty());
  EXPECT_EQ(SizeOf(image), "0x0/0");
  EXPECT_EQ(image.LoadFromRGB(nullptr, 10, 1, 1), -1);
}

TEST(ImageObject, JpegRoundTrip) {
  ImageObject image;
  ASSERT_EQ(LoadSolid(image, 33, 21, 120), 0);
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  ASSERT_EQ(image.CompressToJPEG(jpeg, size, 90), 0);
  ImageObject read;
  ASSERT_EQ(read.LoadFromJPEG(jpeg, size), 0);
  EXPECT_EQ(SizeOf(read), "33x21/2079");
  EXPECT_NEAR(static_cast<int>(At(read, 32, 20) & 255U), 120, 3);

  LogCapture log;
  EXPECT_EQ(read.LoadFromJPEG(jpeg, size / 2), -1);
  EXPECT_EQ(read.LoadFromJPEG(nullptr, 5), -1);
  EXPECT_EQ(read.LoadFromJPEG(jpeg, 0), -1);
  EXPECT_EQ(SizeOf(read), "33x21/2079");
  ASSERT_EQ(log.Lines().size(), 3U);
  EXPECT_EQ(log.Lines()[0].path, "utils/imageobject");
  EXPECT_EQ(log.Messages()[0].substr(0, 29), "3|Failed to decompress JPEG: ");
  delete[] jpeg;
}

TEST(ImageObject, CompressFailures) {
  LogCapture log;
  ImageObject empty;
  auto* jpeg = reinterpret_cast<unsigned char*>(1);
  unsigned int size = 5;
  EXPECT_EQ(empty.CompressToJPEG(jpeg, size, -1), -1);
  EXPECT_EQ(log.Messages(), Messages{"3|ImageObject is empty.\n"});
  EXPECT_EQ(jpeg, nullptr);

  // A tiny picture's JPEG is larger than its raw bytes; a short buffer never holds the stated rows.
  ImageObject tiny;
  ASSERT_EQ(LoadSolid(tiny, 4, 4), 0);
  EXPECT_EQ(tiny.CompressToJPEG(jpeg, size, -1), -1);
  const Bytes few(100);
  ImageObject lying;
  ASSERT_EQ(lying.LoadFromRGB(few.data(), 100, 100, 100), 0);
  EXPECT_EQ(lying.CompressToJPEG(jpeg, size, -1), -1);
  EXPECT_EQ(size, 0U);
  ASSERT_EQ(log.Messages().size(), 3U);
  EXPECT_EQ(log.Messages()[2], "3|Failed to compress JPEG: -1.\n");
}

TEST(ImageObject, ResizeReusesALargerTarget) {
  ImageObject source;
  ImageObject target;
  ASSERT_EQ(LoadSolid(source, 64, 64, 77), 0);
  ASSERT_EQ(LoadSolid(target, 100, 100), 0);
  const unsigned char* buffer = target.GetImage();
  ASSERT_EQ(source.Resize(target, 50, 40), 0);
  EXPECT_EQ(target.GetImage(), buffer);
  EXPECT_EQ(SizeOf(target), "50x40/6000");
  EXPECT_EQ(At(target, 49, 39), 0x4D4D4DU);
  ASSERT_EQ(source.Resize(target, 51, 41), 0);
  EXPECT_EQ(SizeOf(target), "51x41/6273");
  EXPECT_EQ(At(target, 50, 40), 0x4D4D4DU);
}

TEST(ImageObject, ResizeRefusals) {
  ImageObject source;
  ImageObject target;
  ASSERT_EQ(LoadSolid(source, 64, 64), 0);
  ASSERT_EQ(LoadSolid(target, 8, 8), 0);
  LogCapture log;
  EXPECT_EQ(source.Resize(target, 37838, 37838), -1);  // 3 x w x h wraps to a small number in 32 bits
  EXPECT_EQ(source.Resize(target, 1, 4294967295U), -1);
  EXPECT_EQ(SizeOf(target), "8x8/192");
  EXPECT_EQ(log.Messages(),
            (Messages{"3|Failed to create buffer: 175436 bytes\n", "3|Failed to create buffer: 4294967293 bytes\n"}));
  log.Clear();
  EXPECT_EQ(source.Resize(target, 0, 10), -1);
  ImageObject empty;
  EXPECT_EQ(empty.Resize(target, 10, 10), -1);
  const Bytes few(100);
  ImageObject lying;
  ASSERT_EQ(lying.LoadFromRGB(few.data(), 100, 100, 100), 0);
  EXPECT_EQ(lying.Resize(target, 10, 10), -1);
  EXPECT_EQ(log.Messages(), (Messages{"3|Failed to get convert ctx (64, 64), (0, 10)\n",
                                      "3|Failed to get convert ctx (0, 0), (10, 10)\n",
                                      "3|Failed to get convert ctx (100, 100), (10, 10)\n"}));
}

TEST(ImageObject, FromEveryVideoType) {
  const struct {
    int vdoType;
    Bytes data;
    Bytes extradata;
  } cases[] = {
      {1, EncodeClip({"mjpeg", 322, 180, 1}).frames[0].data, {}},
      {2, EncodeClip({"mpeg4", 322, 180, 1}).frames[0].data, {}},
      {3, EncodeClip({"libx264", 322, 180, 8, 3}).frames[0].data, {}},
      {5, MxpegKeyFrame(322, 180), {}},
      {6, EncodeClip({"libx265", 322, 180, 8, 3, true}).frames[0].data,
       EncodeClip({"libx265", 322, 180, 8, 3, true}).extradata},
      {7, EncodeClip({"libx264", 322, 180, 1}).frames[0].data, {}},
      {8, EncodeClip({"libx265", 322, 180, 1}).frames[0].data, {}},
  };
  for (const auto& c : cases) {
    LogCapture log;
    ImageObject image;
    ASSERT_EQ(LoadFrame(image, c.vdoType, c.data, 0, 0, c.extradata), 0) << c.vdoType;
    EXPECT_EQ(SizeOf(image), "322x180/173880");
    EXPECT_NEAR(static_cast<int>(At(image, 300, 10) >> 16), 206, 14) << c.vdoType;
    EXPECT_TRUE(log.Lines().empty());
  }
}

TEST(ImageObject, WantedSidesAreIndependent) {
  const Bytes key = EncodeClip({"libx264", 1920, 1080, 1}).frames[0].data;
  const struct {
    unsigned int width, height;
    const char* size;
  } cases[] = {
      {0, 0, "1920x1080/6220800"}, {640, 0, "640x1080/2073600"}, {0, 90, "1920x90/518400"}, {77, 33, "77x33/7623"}};
  for (const auto& c : cases) {
    ImageObject image;
    EXPECT_EQ(LoadFrame(image, 3, key, c.width, c.height), 0);
    EXPECT_EQ(SizeOf(image), c.size);
  }
}

TEST(ImageObject, FrameFailures) {
  const Bytes key = EncodeClip({"libx264", 320, 240, 1}).frames[0].data;
  const Bytes garbage(300, 0x42);
  const Bytes narrow = EncodeClip({"libx264", 16, 96, 1}).frames[0].data;
  const Bytes flat = EncodeClip({"libx264", 96, 16, 1}).frames[0].data;
  const struct {
    int vdoType;
    const Bytes& data;
    unsigned int width;
    Messages messages;
  } cases[] = {
      {4, key, 0, {"1|Wrong video type. [4]\n", "4|Failed to init FFmpeg dec: -1, VdoType[4]\n"}},
      {3, garbage, 0, {"4|Failed to decode FFmpeg: -1\n"}},
      {6, garbage, 0, {"6|Failed to decode again FFmpeg: -1\n"}},
      {8, garbage, 0, {"4|Failed to decode FFmpeg: -1\n"}},
      {3, narrow, 0, {"3|Abnormal resolution[16x96], ignore.\n"}},
      {3, flat, 0, {"3|Abnormal resolution[96x16], ignore.\n"}},
      {3, key, 4000000000U, {"3|Failed to scale FFmpeg: -1\n"}},
  };
  for (const auto& c : cases) {
    ImageObject image;
    ASSERT_EQ(LoadSolid(image, 3, 3, 9), 0);
    LogCapture log;
    EXPECT_EQ(LoadFrame(image, c.vdoType, c.data, c.width), -1);
    EXPECT_EQ(log.Messages(), c.messages);
    EXPECT_EQ(SizeOf(image), "3x3/27");
  }
  ImageObject image;
  LogCapture log;
  EXPECT_EQ(image.LoadFromMPEG(3, nullptr, 0, nullptr, 10, 0, 0), -1);
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(image.LoadFromMPEG(3, nullptr, 0, key.data(), 4294967295U, 0, 0), -1);
  EXPECT_EQ(LoadFrame(image, 3, EncodeClip({"libx264", 18, 18, 1}).frames[0].data), 0);
}

TEST(ImageObject, PrivacyRegionsArePaintedOnEveryLoad) {
  const Bytes key = EncodeClip({"libx264", 320, 240, 1}).frames[0].data;
  const Bytes mjpeg = EncodeClip({"mjpeg", 320, 240, 1}).frames[0].data;  // full range
  ImageObject image;
  image.SetPrivacyRegion("00000000500000005000500000005000");
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(LoadFrame(image, round == 0 ? 3 : 1, round == 0 ? key : mjpeg), 0);
    EXPECT_LT(At(image, 100, 60) & 255U, 4U);
    EXPECT_NEAR(static_cast<int>(At(image, 300, 230) >> 16), 207, 12);
    EXPECT_NEAR(static_cast<int>(At(image, 300, 230) >> 8 & 255U), 211, 12);
    image.Free();
  }
  ASSERT_EQ(LoadFrame(image, 3, key, 100, 75), 0);
  EXPECT_LT(At(image, 20, 20) & 255U, 4U);
  image.Free();
  image.SetPrivacyRegion("0000none");
  LogCapture log;
  EXPECT_EQ(LoadFrame(image, 3, key), -1);
  EXPECT_TRUE(image.IsEmpty());
  EXPECT_EQ(log.Messages(), Messages{"1|LoadFromMPEG, fail to get privacy region frame.\n"});
}

// --- thumbnails ------------------------------------------------------------------------------------------------------

TEST(Thumbnail, Sizes) {
  const struct {
    int width, height, smallWidth, smallHeight, largeWidth, largeHeight;
  } cases[] = {{1920, 1080, 160, 90, 320, 180}, {640, 480, 120, 90, 240, 180},  {1080, 1920, 120, 213, 240, 427},
               {100, 100, 120, 120, 240, 240},  {704, 576, 120, 98, 240, 196},  {3840, 2160, 160, 90, 320, 180},
               {720, 576, 120, 96, 240, 192},   {2592, 1944, 120, 90, 240, 180}};
  for (const auto& c : cases) {
    const mediautil::Size small = mediautil::CoverBox({c.width, c.height}, {120, 90});
    const mediautil::Size large = mediautil::CoverBox({c.width, c.height}, {240, 180});
    EXPECT_EQ(small.width, c.smallWidth);
    EXPECT_EQ(small.height, c.smallHeight);
    EXPECT_EQ(large.width, c.largeWidth);
    EXPECT_EQ(large.height, c.largeHeight);
  }
}

TEST(Thumbnail, ImageWithoutSizeFallsBackToTheBox) {
  LogCapture log;
  const ImageObject empty;
  int width = 0;
  int height = 0;
  EXPECT_EQ(GetThumbnailSize(empty, width, height, false), -1);
  EXPECT_EQ(log.Messages(), Messages{"3|Invalid image width[0], height[0]\n"});
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  EXPECT_EQ(CompressImgToJPEG(empty, jpeg, size, width, height, true), -1);
  EXPECT_EQ(width, 240);
  EXPECT_EQ(height, 180);
  EXPECT_EQ(CompressImgToJPEG(empty, jpeg, size, width, height, false), -1);
  EXPECT_EQ(width, 120);
  EXPECT_EQ(height, 90);
  EXPECT_EQ(jpeg, nullptr);
  EXPECT_EQ(log.Messages().back(), "3|Failed to get convert ctx (0, 0), (120, 90)\n");
}

TEST(Thumbnail, AreStoredWithTheEvent) {
  const TempDir state;
  setenv("MEDIAUTIL_STATE_DIR", state.Path().c_str(), 1);
  ImageObject image;
  ASSERT_EQ(LoadSolid(image, 1280, 720, 90), 0);
  Camera camera;
  camera.id = 7;
  Event event(3);
  ASSERT_EQ(MakeEvtThumbnail(image, &event, &camera), 0);
  ASSERT_EQ(MakeEvtPreviewThumbnail(image, &event, &camera), 0);
  EXPECT_GT(event.GetPreviewCreateTm(), 1600000000);
  Event stored;
  ASSERT_EQ(stored.Load(3, camera), 0);
  ImageObject picture;
  ASSERT_EQ(picture.LoadFromJPEG(stored.GetThumbnail().data(), static_cast<unsigned int>(stored.GetThumbnail().size())),
            0);
  EXPECT_EQ(SizeOf(picture), "160x90/43200");
  ASSERT_EQ(picture.LoadFromJPEG(stored.GetPreview().data(), static_cast<unsigned int>(stored.GetPreview().size())), 0);
  EXPECT_EQ(SizeOf(picture), "320x180/172800");
  EXPECT_EQ(MakeEvtThumbnail(image, nullptr, nullptr), 0);
  EXPECT_EQ(MakeEvtPreviewThumbnail(image, nullptr, nullptr), 0);

  // Without a store the preview fails aloud; the thumbnail's storing is nobody's result.
  unsetenv("MEDIAUTIL_STATE_DIR");
  LogCapture log;
  Event homeless(4);
  EXPECT_EQ(MakeEvtThumbnail(image, &homeless, &camera), 0);
  EXPECT_FALSE(homeless.GetThumbnail().empty());
  EXPECT_EQ(MakeEvtPreviewThumbnail(image, &homeless, &camera), -1);
  EXPECT_EQ(log.Messages(), Messages{"3|Cam[7]: Failed to save preview thumbnail at time [0]\n"});
  const ImageObject empty;
  EXPECT_EQ(MakeEvtThumbnail(empty, &homeless, &camera), -1);
  EXPECT_EQ(MakeEvtPreviewThumbnail(empty, &homeless, &camera), -1);
}
