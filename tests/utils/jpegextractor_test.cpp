#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/tempdir.h"
#include "utils/jpegextractor.h"

namespace {

const Clip& Pictures() {
  static const Clip clip = EncodeClip({"mjpeg", 96, 64, 30});
  return clip;
}

// The files of the tests.
int MakeFiles(const TempDir& dir) {
  WriteFile(Pictures(), dir.Path("a.avi"));
  WriteFile(Pictures(), dir.Path("sound.avi"), 8000);
  WriteFile(Pictures(), dir.Path("sound.mov"), 8000);
  WriteFile(EncodeClip({"libx264", 96, 64, 3}), dir.Path("h264.mp4"));
  SaveBytes(dir.Path("one.jpg"), Pictures().frames[0].data.data(), Pictures().frames[0].data.size());
  SaveBytes(dir.Path("text.avi"), "no media at all", 15);
  Bytes late = ReadBytes(dir.Path("a.avi"));
  late.at(136) = 10;  // frames, the start of its stream
  SaveBytes(dir.Path("late.avi"), late.data(), late.size());
  const std::string command =
      "cd " + dir.Path() + " && mkfifo pipe.avi && ffmpeg -nostdin -v error -i a.avi -c copy a.mov -c copy a.mp4 " +
      "-c copy a.mkv -c copy raw.mjpeg -c copy -output_ts_offset 3 late.mov -c copy -movflags empty_moov+frag_keyframe "
      "fragments.mp4 && " +
      "ffmpeg -nostdin -v error -f lavfi -i sine=d=1 -i one.jpg -map 0 -map 1 -c:v copy -disposition:v attached_pic " +
      "cover.mp4 -map 0 sound.wav && cp one.jpg cam%d.jpg && ffmpeg -nostdin -v error -i one.jpg -s 48x32 " +
      "cam1.jpg && for f in a.avi a.mp4; do head -c $(($(wc -c <$f) / 2)) $f >cut_$f; done";
  Require(std::system(command.c_str()) == 0, command);
  return 0;
}

std::string Path(const std::string& name) {
  static const TempDir dir;
  [[maybe_unused]] static const int made = MakeFiles(dir);
  return dir.Path(name);
}

// The frame's bytes; none when it cannot be read.
Bytes Read(JpegExtractor& file, unsigned int index) {
  Bytes bytes(1 << 20);
  auto size = static_cast<unsigned int>(bytes.size());
  bytes.resize(file.ReadFrame(index, bytes.data(), size) == 0 ? size : 0);
  return bytes;
}

bool IsUnlocked(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY);
  const bool isTaken = flock(fd, LOCK_EX | LOCK_NB) == 0;
  close(fd);
  return isTaken;
}

}  // namespace

// Frames, rate and width of each file.
TEST(JpegExtractor, FramesAsTheyAreStored) {
  constexpr float kAnyRate = -1;
  const std::tuple<const char*, unsigned int, float, int> cases[] = {
      {"a.avi", 30, 25, 96},          {"sound.avi", 30, 25, 96}, {"a.mov", 30, 25, 96},     {"a.mp4", 30, 25, 96},
      {"fragments.mp4", 30, 25, 96},  {"sound.mov", 30, 25, 96}, {"a.mkv", 1, 25, 96},      {"cut_a.avi", 1, 25, 96},
      {"raw.mjpeg", 0, kAnyRate, 96}, {"one.jpg", 0, 25, 96},    {"cover.mp4", 0, 9e4, 96}, {"sound.wav", 0, 0, 0},
      {"h264.mp4", 0, 0, 0},          {"late.mov", 30, 25, 96},  {"late.avi", 30, 25, 96},  {"cam%d.jpg", 0, 25, 96}};
  JpegExtractor file;  // each Init replaces what was open
  for (const auto& [name, frames, rate, width] : cases) {
    SCOPED_TRACE(name);
    ASSERT_EQ(file.Init(Path(name)), 0);
    EXPECT_TRUE(IsUnlocked(Path(name)));
    __tag_JPEG_FRAME_INFO info = {};
    EXPECT_EQ(file.GetFrameInfo(info), 0);
    EXPECT_EQ(std::tuple(info.frameCount, rate == kAnyRate ? rate : info.frameRate, info.width, info.height),
              std::tuple(frames, rate, width, width * 2 / 3));
    for (unsigned int i = 0; i < info.frameCount; ++i) {
      const unsigned int index = i * 7 % info.frameCount;  // back and forth
      EXPECT_EQ(Read(file, index), Pictures().frames[index].data) << index;
    }
    EXPECT_EQ(Read(file, info.frameCount), Bytes());
  }
  EXPECT_EQ(file.Finish(), 0);
  EXPECT_EQ(file.Finish(), 1);
}

TEST(JpegExtractor, BufferOfTheCaller) {
  JpegExtractor file;
  ASSERT_EQ(file.Init(Path("sound.avi")), 0);
  const Bytes& wanted = Pictures().frames[3].data;
  const auto full = static_cast<unsigned int>(wanted.size());
  const std::tuple<unsigned int, unsigned int, bool, int, unsigned int> cases[] = {
      {3, full, true, 0, full}, {3, full + 9, true, 0, full}, {3, full - 1, true, 1, 0}, {3, 1, true, 1, 0},
      {3, 0, true, 1, 0},       {3, full, false, 1, full},    {30, full, true, 1, full}, {UINT_MAX, 9, true, 1, 9}};
  for (const auto& [index, capacity, hasBuffer, ret, wantedSize] : cases) {
    Bytes buffer(capacity + 1, 0xAA);
    unsigned int size = capacity;
    EXPECT_EQ(file.ReadFrame(index, hasBuffer ? buffer.data() : nullptr, size), ret);
    EXPECT_EQ(std::tuple(size, buffer.back()), std::tuple(wantedSize, 0xAA));
    buffer.resize(full);
    EXPECT_EQ(buffer == wanted, ret == 0);
  }
}

// GetFrameIdx and GetTimeMS of a number.
TEST(JpegExtractor, Times) {
  const std::tuple<const char*, std::vector<std::array<int, 3>>> cases[] = {
      {"a.avi", {{1000, 25, 40000}, {25, 0, 1000}, {1039, 25, 41560}, {1040, 26, 41600}, {-1, -1, -1}}},
      {"a.avi",
       {{0, 0, 0},
        {2147483, 53687, 85899320},
        {2147484, 53687, -85899331},
        {4294968, 107374, 28},
        {INT_MAX, 53687091, -40},
        {INT_MIN, -1, -1}}},
      {"cover.mp4", {{INT_MAX, INT_MAX, 0}}},
      {"sound.wav", {{1000, 0, -1}}},
      {"text.avi", {{1000, 0, -1}}}};
  for (const auto& [name, rows] : cases) {
    JpegExtractor file;
    file.Init(Path(name));
    for (const auto& [number, index, time] : rows) {
      EXPECT_EQ(std::tuple(file.GetFrameIdx(number), file.GetTimeMS(number)), std::tuple(index, time)) << name;
    }
  }
}

// A failure is told whatever the log level is, and leaves no file open.
TEST(JpegExtractor, RefusedFiles) {
  for (const std::string& name : {Path("missing.avi"), Path("text.avi"), Path("cut_a.mp4"), Path("pipe.avi"), Path(""),
                                  std::string("/dev/zero"), std::string(), "concat:" + Path("a.avi")}) {
    SCOPED_TRACE(name);
    JpegExtractor file;
    const auto openFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = openFiles();
    ASSERT_EQ(file.Init(Path("a.avi")), 0);
    LogCapture log;
    log.cfg.categLevel[LOG_CATEG_MEDIA] = 0;
    EXPECT_EQ(file.Init(name), 1);
    EXPECT_EQ(log.Messages(), Messages{"(null)|Failed to init Jpeg data.\n"});
    EXPECT_EQ(log.Lines().at(0).categ + log.Lines().at(0).path, "(null)utils/jpegextractor");
    __tag_JPEG_FRAME_INFO info = {};
    EXPECT_EQ(std::tuple(file.GetFrameInfo(info), Read(file, 0), file.Finish()), std::tuple(1, Bytes(), 1));
    EXPECT_EQ(openFiles(), before);
  }
  EXPECT_TRUE(IsUnlocked(Path("text.avi")));
}

// A writer that holds the file is waited for: until it lets go, there is nothing to read.
TEST(JpegExtractor, LockedFile) {
  const Bytes avi = ReadBytes(Path("a.avi"));
  const int fd = open(Path("locked.avi").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  std::thread writer([&] {
    usleep(100000);
    EXPECT_EQ(write(fd, avi.data(), avi.size()), static_cast<ssize_t>(avi.size()));
    close(fd);
  });
  JpegExtractor file;
  EXPECT_EQ(file.Init(Path("locked.avi")), 0);
  writer.join();
  EXPECT_EQ(Read(file, 29), Pictures().frames[29].data);
}
