#include "utils/gifprocess.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>

#include "tests/support/fulldisk.h"
#include "tests/support/log_capture.h"
#include "tests/support/readback.h"
#include "tests/support/tempdir.h"

extern "C" {
#include <libavutil/imgutils.h>
}

using mediautil::FfPtr;
using Size = std::pair<int, int>;

namespace {

const Bytes kEmptyGif = {'G', 'I', 'F', '8', '9', 'a', 0, 0, 0, 0, 0, 0, 0, 0x3B};

// A GIF as its bytes tell: the delays in hundredths of a second.
struct Gif {
  Size size;
  std::vector<int> delays;
  int pictures = 0;
  bool isWhole = false;

  explicit Gif(const Bytes& bytes) {
    const auto word = [&bytes](std::size_t at) { return bytes.at(at) | bytes.at(at + 1) << 8; };
    const auto table = [&bytes](std::size_t at) { return (bytes.at(at) & 0x80) != 0 ? 6U << (bytes[at] & 7U) : 0U; };
    size = {word(6), word(8)};
    for (std::size_t at = 13 + table(10); !isWhole;) {
      const int kind = bytes.at(at);
      if (kind == 0x3B) {
        isWhole = at + 1 == bytes.size();
        return;
      }
      if (kind == 0x21 && bytes.at(at + 1) == 0xF9) delays.push_back(word(at + 4));
      pictures += kind == 0x2C ? 1 : 0;
      at += kind == 0x2C ? 11 + table(at + 9) : 2;
      while (bytes.at(at) != 0) at += bytes.at(at) + 1U;
      ++at;
    }
  }
};

// A GIF in the making, and the file that becomes of it.
struct Making : GifProcess {
  TempDir dir;
  std::string path = dir.Path("made.gif");

  Making() { SetGifPath(path); }
  using GifProcess::AddFrame;
  int AddFrame(const Bytes& data, int type, const Bytes& extra = {}) {
    return AddFrame(const_cast<unsigned char*>(data.data()), static_cast<int>(data.size()),
                    const_cast<unsigned char*>(extra.data()), static_cast<int>(extra.size()), type);
  }
  int AddFrameFromJpeg(Bytes jpeg) { return GifProcess::AddFrameFromJpeg(jpeg.data(), static_cast<int>(jpeg.size())); }
  Bytes Made() {
    EXPECT_EQ(Process(), 0);
    return ReadBytes(path);
  }
  std::vector<FfPtr<AVFrame>> Pictures() {
    std::vector<Track> tracks = ReadBack(Made());
    return tracks.empty() ? std::vector<FfPtr<AVFrame>>() : std::move(tracks[0].pictures);
  }
  auto Files() const {
    const std::filesystem::directory_iterator all(dir.Path());
    return std::distance(begin(all), end(all));
  }
};

// Red, green, blue, red, ...
FfPtr<AVFrame> Solid(int width, int height, int n = 0) {
  const auto part = [n](int i) { return static_cast<std::uint8_t>(n % 3 == i ? 250 : 10); };
  return SolidRgb(width, height, part(0), part(1), part(2));
}

// A BGRA frame over one block of av_malloc.
AVFrame* BlockFrame(int width, int height) {
  AVFrame* frame = av_frame_alloc();
  frame->format = AV_PIX_FMT_BGRA;
  frame->width = width;
  frame->height = height;
  av_image_alloc(frame->data, frame->linesize, width, height, AV_PIX_FMT_BGRA, 1);
  std::fill_n(frame->data[0], static_cast<std::size_t>(width * height * 4), std::uint8_t{250});
  return frame;
}

}  // namespace

TEST(GifProcess, FirstFrameFixesTheSize) {
  const std::pair<Size, Size> cases[] = {
      {{1280, 720}, {640, 360}}, {{1000, 500}, {640, 320}}, {{700, 1400}, {320, 640}}, {{640, 640}, {640, 640}},
      {{99, 53}, {99, 53}},      {{1064, 100}, {639, 60}},  {{705, 141}, {640, 127}},  {{1366, 768}, {640, 359}},
      {{3000, 1}, {640, 1}},     {{1, 2000}, {1, 640}},     {{641, 641}, {640, 640}},
  };
  for (const auto& [first, wanted] : cases) {
    Making gif;
    EXPECT_EQ(gif.AddFrame(Solid(first.first, first.second).release()), 0);
    EXPECT_EQ(gif.AddFrame(Solid(320, 240, 1).release()), 0);
    EXPECT_EQ(gif.AddFrame(BlockFrame(wanted.first, wanted.second)), 0);
    const std::vector<FfPtr<AVFrame>> pictures = gif.Pictures();
    EXPECT_EQ(Gif(ReadBytes(gif.path)).size, wanted);
    ASSERT_EQ(pictures.size(), 3U) << first.first;
    for (int n = 0; n < 2; ++n) {
      const auto i = static_cast<std::size_t>(n);
      EXPECT_LT(MeanDifference(pictures[i].get(), Solid(wanted.first, wanted.second, n).get()), 3) << first.first;
    }
    const FfPtr<AVFrame> white = SolidRgb(wanted.first, wanted.second, 250, 250, 250);
    EXPECT_LT(MeanDifference(pictures[2].get(), white.get()), 3) << first.first;
  }
}

TEST(GifProcess, DelaysAsTheFileHasThem) {
  const std::pair<int, int> cases[] = {{250, 25},       {259, 25},       {5, 0},           {-250, 0},  {INT_MIN, 0},
                                       {655350, 65535}, {655360, 65535}, {INT_MAX, 65535}, {1000, 100}};
  for (const auto& [ms, hundredths] : cases) {
    for (const int count : {1, 3}) {
      Making gif;
      if (ms != 1000) gif.SetGifDelay(ms);
      for (int n = 0; n < count; ++n) gif.AddFrame(Solid(16, 16, n).release());
      const Gif made(gif.Made());
      EXPECT_TRUE(made.isWhole);
      EXPECT_EQ(made.delays, std::vector<int>(static_cast<std::size_t>(count), hundredths)) << ms;
    }
  }
}

TEST(GifProcess, ManyFramesOrNone) {
  const LogCapture log;
  Making gif;
  EXPECT_EQ(gif.Made(), kEmptyGif);
  for (int n = 0; n < 200; ++n) gif.AddFrame(Solid(24, 16, n / 2).release());
  const std::vector<FfPtr<AVFrame>> pictures = gif.Pictures();
  EXPECT_EQ(Gif(ReadBytes(gif.path)).delays, std::vector<int>(200, 100));
  ASSERT_EQ(pictures.size(), 200U);
  for (const std::size_t n : {0U, 3U, 100U, 199U}) {
    EXPECT_LT(MeanDifference(pictures[n].get(), Solid(24, 16, static_cast<int>(n) / 2).get()), 3) << n;
  }
  EXPECT_EQ(log.Messages(), Messages());
}

TEST(GifProcess, CodedFramesAndJpegs) {
  const std::pair<ClipWish, int> cases[] = {
      {{"libx264", 322, 180, 1}, 3},          {{"libx264", 322, 180, 8, 3}, 3}, {{"libx264", 320, 180, 8, 3, true}, 7},
      {{"libx265", 320, 180, 8, 3, true}, 8}, {{"libx265", 320, 180, 1}, 6},    {{"mpeg4", 320, 180, 4, 2}, 2},
      {{"mjpeg", 1280, 720, 1}, 1},           {{"mjpeg", 1280, 720, 1}, 0},
  };
  for (const auto& [wish, type] : cases) {
    const LogCapture log;
    Making gif;
    const Clip clip = EncodeClip(wish);
    const Bytes& key = clip.frames[0].data;
    EXPECT_EQ(type == 0 ? gif.AddFrameFromJpeg(key) : gif.AddFrame(key, type, clip.extradata), 0) << wish.encoder;
    EXPECT_EQ(gif.AddFrame(EncodeClip({"libx264", 160, 90, 1}).frames[0].data, 3), 0);
    EXPECT_EQ(gif.AddFrameFromJpeg(EncodeClip({"mjpeg", 160, 90, 1}).frames[0].data), 0);
    const int width = std::min(wish.width, 640);
    const FfPtr<AVFrame> expected = TestPicture(AV_PIX_FMT_RGB24, width, std::min(wish.height, 360));
    const std::vector<FfPtr<AVFrame>> pictures = gif.Pictures();
    ASSERT_EQ(pictures.size(), 3U);
    for (const FfPtr<AVFrame>& picture : pictures) EXPECT_LT(MeanDifference(picture.get(), expected.get()), 9);
    EXPECT_EQ(log.Messages(), Messages());
  }
}

// Each leaves the object as it was: without pictures and without a size.
TEST(GifProcess, WhatCannotBeAddedChangesNothing) {
  LogCapture log;
  Making gif;
  EXPECT_EQ(gif.AddFrame(Bytes{1}, 99), -1);
  EXPECT_EQ(log.Messages(), (Messages{"1|Wrong video type. [99]\n", "1|Init fail\n"}));
  const Bytes jpeg = EncodeClip({"mjpeg", 64, 48, 1}).frames[0].data;
  for (const Bytes& bad : {Bytes(), Bytes{0}, RandomBytes(500), Bytes(jpeg.begin(), jpeg.begin() + 100)}) {
    log.Clear();
    EXPECT_EQ(gif.AddFrame(bad, 3, RandomBytes(40)), -1);
    EXPECT_EQ(log.Messages(), Messages{"1|Decode fail\n"});
    EXPECT_EQ(gif.AddFrameFromJpeg(bad), -1);
  }
  EXPECT_EQ(log.Lines()[0].path, "utils/gifprocess");
  EXPECT_EQ(gif.AddFrame(nullptr, 5, nullptr, -5, 6), -1);
  EXPECT_EQ(gif.AddFrame(nullptr), -1);

  AVFrame* none = av_frame_alloc();
  EXPECT_EQ(gif.AddFrame(none), 0);
  const std::function<void(AVFrame&)> spoils[] = {
      [](AVFrame& frame) { frame.width = -16; },           [](AVFrame& frame) { frame.height = 0; },
      [](AVFrame& frame) { frame.width = INT_MAX; },       [](AVFrame& frame) { frame.format = AV_PIX_FMT_NONE; },
      [](AVFrame& frame) { frame.format = INT_MAX; },      [](AVFrame& frame) { frame.format = AV_PIX_FMT_VAAPI; },
      [](AVFrame& frame) { frame.linesize[0] = INT_MIN; }, [](AVFrame& frame) { frame.format = AV_PIX_FMT_PAL8; },
      [](AVFrame& frame) { frame.linesize[0] = 63; },      [](AVFrame& frame) { frame.format = AV_PIX_FMT_YUV420P; },
  };
  for (const auto& spoil : spoils) {
    AVFrame* frame = BlockFrame(16, 16);
    spoil(*frame);
    EXPECT_EQ(gif.AddFrame(frame), 0);
  }
  EXPECT_EQ(gif.Made(), kEmptyGif);
  gif.AddFrame(BlockFrame(20, 10));
  EXPECT_EQ(Gif(gif.Made()).size, Size(20, 10));
}

TEST(GifProcess, FailedWritingIsToldAndCanBeRepeated) {
  LogCapture log;
  Making gif;
  const auto fails = [&](const std::string& path, const Messages& messages) {
    log.Clear();
    gif.SetGifPath(path);
    EXPECT_EQ(gif.Process(), -1) << path;
    EXPECT_EQ(log.Messages(), messages) << path;
  };
  const Messages notOpened = {"1|Fail avio open error\n", "1|could not init muxer\n"};
  fails(gif.dir.Path("none/a.gif"), notOpened);
  fails("/dev/full", {"1|write gif header fail\n"});
  for (int n = 0; n < 3; ++n) gif.AddFrame(TestPicture(AV_PIX_FMT_RGB24, 160, 90, n).release());
  fails(gif.dir.Path(), notOpened);
  fails("/dev/full", {"1|Write gif tail fail\n"});

  // A disk that is full after some bytes: what stood there stays, what did not is not begun.
  SaveBytes(gif.path, "old", 3);
  {
    const FullDisk disk(1000);
    std::filesystem::create_symlink(gif.path, gif.dir.Path("link.gif"));
    for (const std::string& path : {gif.path, gif.dir.Path("link.gif"), gif.dir.Path("new.gif")}) {
      fails(path, {"1|Write gif tail fail\n"});
    }
  }
  EXPECT_EQ(ReadBytes(gif.dir.Path("link.gif")), (Bytes{'o', 'l', 'd'}));
  EXPECT_EQ(gif.Files(), 2);
  gif.SetGifPath(gif.path);
  EXPECT_EQ(Gif(gif.Made()).pictures, 3);
}

TEST(GifProcess, AgainIntoTheSameFile) {
  Making gif;
  gif.AddFrame(Solid(32, 32).release());
  const Bytes first = gif.Made();
  chmod(gif.path.c_str(), 0600);
  EXPECT_EQ(gif.Made(), first);
  struct stat status = {};
  EXPECT_EQ(stat(gif.path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  gif.AddFrame(Solid(32, 32, 1).release());
  std::filesystem::create_symlink(gif.path, gif.dir.Path("link.gif"));
  gif.SetGifPath(gif.dir.Path("link.gif"));
  EXPECT_EQ(Gif(gif.Made()).pictures, 2);
  EXPECT_EQ(gif.Files(), 2);
}
