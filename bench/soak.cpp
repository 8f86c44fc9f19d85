// A long export: does the muxer's memory stay what it was after ten minutes?
#include <malloc.h>

#include <cstdio>
#include <string>

#include "bench/clip.h"
#include "bench/longrun.h"
#include "bench/require.h"
#include "bench/usage.h"
#include "utils/ffmpegmuxer.h"

namespace {

using bench::Bytes;
using bench::Require;

// Key frames of 6 to 24 kB and about 2 kB for the others.
constexpr bench::ClipShape kShape = {640, 360, 432000};
constexpr std::int64_t kWarmUp = 600 * bench::kSecond;
constexpr std::int64_t kAllowedGrowth = 4 << 20;  // bytes
constexpr std::int64_t kStart = 1700000000 * bench::kSecond;

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
  std::printf("frames: %lld video, %lld sound; %.1f MiB written\n", static_cast<long long>(result.videoFrames),
              static_cast<long long>(result.soundFrames), static_cast<double>(result.bytes) / (1 << 20));
  return bench::HasStayed(result.residentEarly, result.residentLate, kAllowedGrowth) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunHours(
      argc, argv,
      "Exports that many hours of H.264 with AAC to nowhere. Exit codes: 0 memory stayed, 1 it grew, 2 it did not "
      "work.",
      "length of the export", 24, [](int hours) {
        const bench::Clip clip = bench::MakeClip(kShape);
        malloc_trim(0);  // what the encoder left free would hide growth
        return Report(Run(clip, hours));
      });
}
