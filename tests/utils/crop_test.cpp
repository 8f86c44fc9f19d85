#include <gtest/gtest.h>

#include <array>

#include "tests/support/log_capture.h"
#include "tests/support/media.h"

using mediautil::FfPtr;

namespace {

struct Crop : CropAttr {
  Crop() : CropAttr{} {}
  ~Crop() { DoFFMpegReleaseFilter(*this); }
};

FfPtr<AVFrame> Yuv(int width, int height, int n = 0) {
  return TestPicture(AV_PIX_FMT_YUV420P, width, height, n);
}

// True when part holds the pixels of whole from (x, y) on.
bool IsPartOf(const AVFrame& part, const AVFrame& whole, std::size_t x, std::size_t y) {
  const FfPtr<AVFrame> wanted(av_frame_clone(&whole));
  wanted->crop_left = x;
  wanted->crop_top = y;
  wanted->crop_right = static_cast<std::size_t>(whole.width - part.width) - x;
  wanted->crop_bottom = static_cast<std::size_t>(whole.height - part.height) - y;
  return av_frame_apply_cropping(wanted.get(), AV_FRAME_CROP_UNALIGNED) >= 0 &&
         MeanDifference(&part, wanted.get()) == 0;
}

}  // namespace

// Asked for and got: width, height, x, y.
TEST(Crop, CutsTheRectangleRoundedToEvenNumbers) {
  using Rectangle = std::array<int, 4>;
  const std::tuple<int, int, Rectangle, Rectangle> cases[] = {
      {320, 240, {100, 50, 10, 6}, {100, 50, 10, 6}},      {320, 240, {320, 240, 0, 0}, {320, 240, 0, 0}},
      {320, 240, {100, 51, 11, 7}, {100, 50, 10, 6}},      {320, 240, {100, 50, 300, 230}, {100, 50, 220, 190}},
      {320, 240, {100, 50, -8, -9}, {100, 50, 0, 0}},      {99, 53, {99, 53, 0, 0}, {98, 52, 0, 0}},
      {1080, 1088, {2, 2, 1079, 1087}, {2, 2, 1078, 1086}}};
  for (const auto& [width, height, wish, got] : cases) {
    SCOPED_TRACE(testing::PrintToString(wish));
    Crop crop;
    ASSERT_EQ(DoFFMpegInitFilter(crop, width, height, wish[0], wish[1], wish[2], wish[3]), 0);
    const FfPtr<AVFrame> input = Yuv(width, height);
    const FfPtr<AVFrame> output(av_frame_alloc());
    ASSERT_EQ(DoFFMpegCrop(crop, input.get(), output.get()), 0);
    EXPECT_EQ(std::tuple(output->width, output->height, output->format),
              std::tuple(got[0], got[1], AV_PIX_FMT_YUV420P));
    EXPECT_TRUE(IsPartOf(*output, *input, static_cast<std::size_t>(got[2]), static_cast<std::size_t>(got[3])));
  }
}

// Each picture is its own, also in a frame that is used again, in the place of its input, and after the graph's end.
TEST(Crop, PicturesOfOneGraphAreIndependent) {
  Crop crop;
  ASSERT_EQ(DoFFMpegInitFilter(crop, 64, 64, 8, 8, 0, 0), 0);
  ASSERT_EQ(DoFFMpegInitFilter(crop, 320, 240, 200, 100, 40, 60), 0);
  const FfPtr<AVFrame> inputs[] = {Yuv(320, 240, 0), Yuv(320, 240, 5), Yuv(320, 240, 0)};
  const FfPtr<AVFrame> outputs[] = {Yuv(16, 16), Yuv(16, 16)};
  for (const int i : {0, 1, 0, 1}) ASSERT_EQ(DoFFMpegCrop(crop, inputs[i].get(), outputs[i].get()), 0);
  EXPECT_TRUE(IsPartOf(*inputs[0], *inputs[2], 0, 0));
  EXPECT_EQ(DoFFMpegCrop(crop, inputs[2].get(), inputs[2].get()), 0);
  DoFFMpegReleaseFilter(crop);
  EXPECT_TRUE(IsPartOf(*outputs[0], *inputs[0], 40, 60) && IsPartOf(*outputs[1], *inputs[1], 40, 60));
  EXPECT_TRUE(IsPartOf(*inputs[2], *outputs[0], 0, 0));
  EXPECT_FALSE(IsPartOf(*outputs[0], *outputs[1], 0, 0));
}

TEST(Crop, Refusals) {
  const std::string source = "1|Fail to create filter bufferSrc\n";
  const std::string graph = "1|Fail in filter graph\n";
  const std::tuple<std::array<int, 4>, std::string> sizes[] = {{{0, 240, 100, 50}, source},
                                                               {{320, -1, 100, 50}, source},
                                                               {{320, 240, 100, 1}, graph},
                                                               {{320, 240, INT32_MIN, 5}, graph},
                                                               {{320, 240, 322, 50}, graph}};
  Crop failed;
  for (const auto& [s, message] : sizes) {
    LogCapture log;
    EXPECT_EQ(DoFFMpegInitFilter(failed, s[0], s[1], s[2], s[3], 0, 0), -1);
    EXPECT_EQ(log.Messages(), Messages{message});
  }
  Crop empty;
  Crop built;
  ASSERT_EQ(DoFFMpegInitFilter(built, 320, 240, 100, 50, 0, 0), 0);
  const FfPtr<AVFrame> output = Yuv(16, 16);
  AVFrame* const out = output.get();
  const std::tuple<CropAttr&, FfPtr<AVFrame>, AVFrame*> pictures[] = {
      {built, Yuv(318, 240), out},  {built, TestPicture(AV_PIX_FMT_YUVJ420P, 320, 240), out},
      {built, Yuv(320, 480), out},  {built, FfPtr<AVFrame>(av_frame_alloc()), out},
      {built, nullptr, out},        {built, Yuv(320, 240), nullptr},
      {failed, Yuv(320, 240), out}, {empty, Yuv(320, 240), out}};
  for (const auto& [crop, input, target] : pictures) {
    LogCapture log;
    EXPECT_EQ(DoFFMpegCrop(crop, input.get(), target), -1);
    EXPECT_EQ(log.Messages(), Messages{"1|Error while feeding the filtergraph\n"});
    EXPECT_EQ(output->width, 16);
  }
  EXPECT_EQ(DoFFMpegCrop(built, Yuv(320, 240).get(), output.get()), 0);
  DoFFMpegReleaseFilter(failed);
  DoFFMpegReleaseFilter(failed);
  EXPECT_EQ(failed.pGraph, nullptr);
}
