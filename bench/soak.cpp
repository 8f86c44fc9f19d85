// A long export: does the muxer's memory stay what it was after ten minutes?
#include <malloc.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "bench/clip.h"
#include "bench/usage.h"
#include "utils/ffmpegmuxer.h"

namespace {

using bench::Bytes;

// Key frames of 6 to 24 kB and about 2 kB for the others.
constexpr bench::ClipShape kShape = {640, 360, 432000};
constexpr std::int64_t kWarmUp = 600 * bench::kSecond;
constexpr std::int64_t kAllowedGrowth = 4 << 20;  // bytes
constexpr std::int64_t kStart = 1700000000 * bench::kSecond;

void Require(bool ok, const char* step) {
  if (!ok) {
    throw std::runtime_error(std::string(step) + " failed");
  }
}

struct Export {
  std::int64_t videoFrames = 0;
  std::int64_t soundFrames = 0;
  std::int64_t bytes = 0;
  std::int64_t residentEarly = 0;
  std::int64_t residentLate = 0;
};

int CountBytes(void* bytes, unsigned char*, int size) {
  *static_cast<std::int64_t*>(bytes) += size;
  return size;
}

int Size(const Bytes& bytes) {
  return static_cast<int>(bytes.size());
}

Export Run(const bench::Clip& clip, int hours) {
  Export result;
  const MuxCtrler ctrler;
  FFmpegMuxer muxer(ctrler);
  Require(muxer.Init(FFMPEG_MUXER_FORMAT_MP4, &result.bytes, CountBytes) == 0 &&
              muxer.AddVdoStream("H264", clip.width, clip.height, clip.parameterSets.data(),
                                 Size(clip.parameterSets)) == 0 &&
              muxer.AddAdoStream("1|16000", "MPEG4-GENERIC", false) == 0 && muxer.WriteHeader() == 0,
          "starting the muxer");
  bench::Play(
      std::int64_t{hours} * 3600, bench::kAacTime,
      [&](std::int64_t i, std::int64_t time) {
        Bytes frame = bench::At(clip.video, i);
        Require(muxer.WriteVdoFrame(frame.data(), Size(frame), kStart + time, bench::IsKey(i)) == 0, "WriteVdoFrame");
        ++result.videoFrames;
        if (time == kWarmUp) {
          result.residentEarly = bench::ResidentBytes();
        }
      },
      [&](std::int64_t i, std::int64_t time) {
        Bytes frame = bench::At(clip.aac, i);
        Require(muxer.WriteAdoFrame(frame.data(), Size(frame), kStart + time) == 0, "WriteAdoFrame");
        ++result.soundFrames;
      });
  result.residentLate = bench::ResidentBytes();  // with everything still open
  muxer.Finalize();
  return result;
}

int Report(const Export& result) {
  const auto mebi = [](std::int64_t bytes) { return static_cast<double>(bytes) / (1 << 20); };
  const std::int64_t growth = result.residentLate - result.residentEarly;
  std::printf("frames: %lld video, %lld sound; %.1f MiB written\n", static_cast<long long>(result.videoFrames),
              static_cast<long long>(result.soundFrames), mebi(result.bytes));
  std::printf("resident: %.2f MiB after ten minutes, %.2f MiB at the end, grown by %.2f MiB (at most %.0f)\n",
              mebi(result.residentEarly), mebi(result.residentLate), mebi(growth), mebi(kAllowedGrowth));
  return growth > kAllowedGrowth ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Exports that many hours of H.264 with AAC to nowhere. Exit codes: 0 memory stayed, 1 it grew, 2 it did not "
      "work.");
  int hours = 24;
  app.add_option("HOURS", hours, "length of the export (24)")->check(CLI::Range(1, 100000).description(""));
  CLI11_PARSE(app, argc, argv);
  try {
    const bench::Clip clip = bench::MakeClip(kShape);
    malloc_trim(0);  // what the encoder left free would hide growth
    return Report(Run(clip, hours));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
  }
}
