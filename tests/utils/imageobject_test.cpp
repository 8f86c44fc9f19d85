#include <gtest/gtest.h>

#include "platform/camera.h"
#include "platform/event.h"
#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/tempdir.h"
#include "utils/imageobject.h"
#include "utils/internal/fitsize.h"

namespace {

int LoadFrame(ImageObject& image, int vdoType, const Clip& clip, unsigned int width = 0, unsigned int height = 0) {
  const Bytes& data = clip.frames.at(0).data;
  return image.LoadFromMPEG(vdoType, clip.extradata.data(), static_cast<unsigned int>(clip.extradata.size()),
                            data.data(), static_cast<unsigned int>(data.size()), width, height);
}

void LoadSolid(ImageObject& image, unsigned int width, unsigned int height, std::uint8_t value = 100) {
  const Bytes rgb(static_cast<std::size_t>(width) * height * 3, value);
  ASSERT_EQ(image.LoadFromRGB(rgb.data(), static_cast<unsigned int>(rgb.size()), width, height), 0);
}

// An image of fewer bytes than its sides ask for.
void LoadShort(ImageObject& image) {
  ASSERT_EQ(image.LoadFromRGB(Bytes(100).data(), 100, 100, 100), 0);
}

int LoadJpeg(ImageObject& image, const Bytes& jpeg) {
  return image.LoadFromJPEG(jpeg.data(), static_cast<unsigned int>(jpeg.size()));
}

std::string SizeOf(const ImageObject& image) {
  return std::to_string(image.GetWidth()) + "x" + std::to_string(image.GetHeight()) + "/" +
         std::to_string(image.GetLength());
}

unsigned int At(const ImageObject& image, int x, int y) {
  return PixelAt(image.GetImage(), static_cast<int>(image.GetWidth()) * 3, x, y);
}

}  // namespace

TEST(ImageObject, LoadsReplace) {
  ImageObject image;
  EXPECT_TRUE(image.IsEmpty());
  LoadSolid(image, 20, 10);
  LoadSolid(image, 4, 4, 7);
  EXPECT_EQ(At(image, 3, 3), 0x070707U);
  ASSERT_EQ(image.LoadFromRGB(image.GetImage(), 24, 4, 2), 0);  // from itself
  EXPECT_EQ(SizeOf(image), "4x2/24");
  image.Free();
  EXPECT_EQ(SizeOf(image), "0x0/0");
  EXPECT_EQ(image.LoadFromRGB(nullptr, 10, 1, 1), -1);
}

TEST(ImageObject, Jpeg) {
  ImageObject image;
  LoadSolid(image, 33, 21, 120);
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  ASSERT_EQ(image.CompressToJPEG(jpeg, size, 90), 0);
  const Bytes bytes(jpeg, jpeg + size);
  delete[] jpeg;
  ImageObject read;
  ASSERT_EQ(LoadJpeg(read, bytes), 0);
  EXPECT_EQ(SizeOf(read), "33x21/2079");
  EXPECT_NEAR(static_cast<int>(At(read, 32, 20) & 255U), 120, 3);

  LogCapture log;
  EXPECT_EQ(LoadJpeg(read, Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size / 2))), -1);
  EXPECT_EQ(SizeOf(read), "33x21/2079");
  // A tiny picture's JPEG is larger than its raw bytes; a short buffer never holds the stated rows.
  ImageObject unfit[3];
  LoadSolid(unfit[1], 4, 4);
  LoadShort(unfit[2]);
  for (const ImageObject& from : unfit) EXPECT_EQ(from.CompressToJPEG(jpeg, size, -1), -1);
  EXPECT_TRUE(jpeg == nullptr && size == 0);
  EXPECT_EQ(log.Text(),
            "3|Failed to decompress JPEG: -1\n3|ImageObject is empty.\n"
            "3|Failed to compress JPEG: -1.\n3|Failed to compress JPEG: -1.\n");
  EXPECT_EQ(log.Lines()[0].path, "utils/imageobject");
}

TEST(ImageObject, Resize) {
  ImageObject source;
  ImageObject target;
  LoadSolid(source, 64, 64, 77);
  LoadSolid(target, 100, 100);
  const unsigned char* buffer = target.GetImage();
  ASSERT_EQ(source.Resize(target, 50, 40), 0);
  EXPECT_EQ(target.GetImage(), buffer) << "a larger target is used again";
  EXPECT_EQ(SizeOf(target), "50x40/6000");
  EXPECT_EQ(At(target, 49, 39), 0x4D4D4DU);
  ASSERT_EQ(source.Resize(target, 51, 41), 0);
  EXPECT_EQ(SizeOf(target), "51x41/6273");
  EXPECT_EQ(At(target, 50, 40), 0x4D4D4DU);

  LogCapture log;
  EXPECT_EQ(source.Resize(target, 37838, 37838), -1);  // 3 x w x h wraps to a small number in 32 bits
  EXPECT_EQ(source.Resize(target, 1, 4294967295U), -1);
  EXPECT_EQ(source.Resize(target, 0, 10), -1);
  ImageObject unfit[2];
  LoadShort(unfit[1]);
  for (const ImageObject& from : unfit) EXPECT_EQ(from.Resize(target, 10, 10), -1);
  EXPECT_EQ(SizeOf(target), "51x41/6273") << "a failure leaves the target";
  EXPECT_EQ(At(target, 50, 40), 0x4D4D4DU);
  EXPECT_EQ(log.Text(),
            "3|Failed to create buffer: 175436 bytes\n3|Failed to create buffer: 4294967293 bytes\n"
            "3|Failed to get convert ctx (64, 64), (0, 10)\n3|Failed to get convert ctx (0, 0), (10, 10)\n"
            "3|Failed to get convert ctx (100, 100), (10, 10)\n");
  ASSERT_EQ(source.Resize(source, 128, 96), 0);
  EXPECT_EQ(SizeOf(source), "128x96/36864");
  EXPECT_EQ(At(source, 127, 95), 0x4D4D4DU);
}

TEST(ImageObject, FromCodedFrames) {
  Clip mxpeg;
  mxpeg.frames = {{MxpegKeyFrame(322, 180), 0, true}};
  const std::pair<int, Clip> cases[] = {{1, EncodeClip({"mjpeg", 322, 180, 1})},
                                        {3, EncodeClip({"libx264", 322, 180, 8, 3})},
                                        {5, mxpeg},
                                        {6, EncodeClip({"libx265", 322, 180, 8, 3, true})},
                                        {8, EncodeClip({"libx265", 322, 180, 1})}};
  for (const auto& [vdoType, clip] : cases) {
    LogCapture log;
    ImageObject image;
    ASSERT_EQ(LoadFrame(image, vdoType, clip), 0) << vdoType;
    EXPECT_EQ(SizeOf(image), "322x180/173880");
    EXPECT_NEAR(static_cast<int>(At(image, 300, 10) >> 16), 206, 14) << vdoType;
    EXPECT_TRUE(log.Lines().empty());
  }
  ImageObject image;
  const std::tuple<unsigned int, unsigned int, const char*> wanted[] = {
      {640, 0, "640x180/345600"}, {0, 90, "322x90/86940"}, {77, 33, "77x33/7623"}};
  for (const auto& [width, height, size] : wanted) {
    EXPECT_EQ(LoadFrame(image, 1, cases[0].second, width, height), 0);
    EXPECT_EQ(SizeOf(image), size);
  }
}

TEST(ImageObject, FrameFailures) {
  const Clip key = EncodeClip({"libx264", 320, 240, 1});
  Clip garbage;
  garbage.frames = {{Bytes(300, 0x42), 0, true}};
  const struct {
    int vdoType;
    Clip clip;
    unsigned int width;
    Messages messages;
  } cases[] = {{4, key, 0, {"1|Wrong video type. [4]\n", "4|Failed to init FFmpeg dec: -1, VdoType[4]\n"}},
               {3, garbage, 0, {"4|Failed to decode FFmpeg: -1\n"}},
               {6, garbage, 0, {"6|Failed to decode again FFmpeg: -1\n"}},
               {8, garbage, 0, {"4|Failed to decode FFmpeg: -1\n"}},
               {3, EncodeClip({"libx264", 16, 96, 1}), 0, {"3|Abnormal resolution[16x96], ignore.\n"}},
               {3, EncodeClip({"libx264", 96, 16, 1}), 0, {"3|Abnormal resolution[96x16], ignore.\n"}},
               {3, key, 4000000000U, {"3|Failed to scale FFmpeg: -1\n"}}};
  ImageObject image;
  LoadSolid(image, 3, 3);
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(LoadFrame(image, c.vdoType, c.clip, c.width), -1);
    EXPECT_EQ(log.Messages(), c.messages);
    EXPECT_EQ(SizeOf(image), "3x3/27");
  }
  EXPECT_EQ(image.LoadFromMPEG(3, nullptr, 0, nullptr, 10, 0, 0), -1);
  EXPECT_EQ(image.LoadFromMPEG(3, nullptr, 0, key.frames[0].data.data(), 4294967295U, 0, 0), -1);
  EXPECT_EQ(LoadFrame(image, 1, EncodeClip({"mjpeg", 17, 17, 1})), 0);
}

TEST(ImageObject, PrivacyRegionsArePaintedOnEveryLoad) {
  const Clip key = EncodeClip({"libx264", 320, 240, 1});
  ImageObject image;
  image.SetPrivacyRegion("00000000500000005000500000005000");
  for (const auto& [vdoType, clip] :
       {std::pair(3, key), {1, EncodeClip({"mjpeg", 320, 240, 1})}}) {  // the latter full range
    ASSERT_EQ(LoadFrame(image, vdoType, clip), 0);
    EXPECT_LT(At(image, 100, 60) & 255U, 4U);
    EXPECT_NEAR(static_cast<int>(At(image, 300, 230) >> 8 & 255U), 211, 12);
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

TEST(Thumbnail, Sizes) {
  const int cases[][6] = {{1920, 1080, 160, 90, 320, 180},  {640, 480, 120, 90, 240, 180},
                          {1080, 1920, 120, 213, 240, 427}, {100, 100, 120, 120, 240, 240},
                          {704, 576, 120, 98, 240, 196},    {720, 576, 120, 96, 240, 192}};
  for (const auto& c : cases) {
    const mediautil::Size small = mediautil::CoverBox({c[0], c[1]}, {120, 90});
    const mediautil::Size large = mediautil::CoverBox({c[0], c[1]}, {240, 180});
    EXPECT_EQ(std::tie(small.width, small.height, large.width, large.height), std::tie(c[2], c[3], c[4], c[5]));
  }
  LogCapture log;
  for (const auto& [large, size] : {std::pair(true, std::pair(240, 180)), {false, {120, 90}}}) {
    std::pair<int, int> fallback;
    unsigned char* jpeg = nullptr;
    unsigned int length = 0;
    EXPECT_EQ(CompressImgToJPEG(ImageObject(), jpeg, length, fallback.first, fallback.second, large), -1);
    EXPECT_EQ(fallback, size);
    EXPECT_EQ(jpeg, nullptr);
  }
  EXPECT_EQ(log.Messages()[0], "3|Invalid image width[0], height[0]\n");
  EXPECT_EQ(log.Messages().back(), "3|Failed to get convert ctx (0, 0), (120, 90)\n");
}

TEST(Thumbnail, AreStoredWithTheEvent) {
  const TempDir state;
  setenv("MEDIAUTIL_STATE_DIR", state.Path().c_str(), 1);
  ImageObject image;
  LoadSolid(image, 1280, 720, 90);
  Camera camera;
  camera.id = 7;
  Event event(3);
  ASSERT_EQ(MakeEvtThumbnail(image, &event, &camera), 0);
  ASSERT_EQ(MakeEvtPreviewThumbnail(image, &event, &camera), 0);
  EXPECT_GT(event.GetPreviewCreateTm(), 1600000000);
  Event stored;
  ASSERT_EQ(stored.Load(3, camera), 0);
  ImageObject picture;
  ASSERT_EQ(LoadJpeg(picture, stored.GetThumbnail()), 0);
  EXPECT_EQ(SizeOf(picture), "160x90/43200");
  ASSERT_EQ(LoadJpeg(picture, stored.GetPreview()), 0);
  EXPECT_EQ(SizeOf(picture), "320x180/172800");
  EXPECT_EQ(MakeEvtThumbnail(image, nullptr, nullptr) + MakeEvtPreviewThumbnail(image, nullptr, nullptr), 0);

  // Without a store the preview fails aloud; the thumbnail's storing is nobody's result.
  unsetenv("MEDIAUTIL_STATE_DIR");
  LogCapture log;
  Event homeless(4);
  EXPECT_EQ(MakeEvtThumbnail(image, &homeless, &camera), 0);
  EXPECT_FALSE(homeless.GetThumbnail().empty());
  EXPECT_EQ(MakeEvtPreviewThumbnail(image, &homeless, &camera), -1);
  EXPECT_EQ(log.Messages(), Messages{"3|Cam[7]: Failed to save preview thumbnail at time [0]\n"});
  const ImageObject none;
  EXPECT_EQ(MakeEvtThumbnail(none, &homeless, &camera) + MakeEvtPreviewThumbnail(none, &homeless, &camera), -2);
}
