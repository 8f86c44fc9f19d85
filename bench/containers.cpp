// Writing and reading recordings of a minute.
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/containerfloor.h"
#include "bench/require.h"
#include "bench/runner.h"
#include "bench/tempfile.h"
#include "utils/ffmpegdemuxer.h"
#include "utils/ffmpegmuxer.h"

using bench::Bytes;
using bench::Clip;
using bench::Require;
using bench::Sink;
using bench::TempFile;
using bench::Workload;

namespace {

constexpr int kSeconds = 60;
constexpr bench::ClipShape kShape = {bench::kWidth, bench::kHeight, 8000000};
constexpr const char* kClipFile = "clip.frames";

constexpr std::int64_t kVideoFrames = std::int64_t{kSeconds} * bench::kFrameRate;
constexpr std::int64_t kAacFrames = (kSeconds * bench::kSecond + bench::kAacTime - 1) / bench::kAacTime;

// Frames have times of day.
constexpr std::int64_t kStart = 1700000000 * bench::kSecond;

// ---------------------------------------------------------------------------------------------------------------------
// The library's side
// ---------------------------------------------------------------------------------------------------------------------

struct SoundKind {
  const char* info;
  const char* codec;
  std::vector<Bytes> Clip::*frames;
  std::int64_t time;  // microseconds of a frame
};

constexpr SoundKind kAac = {"1|16000", "MPEG4-GENERIC", &Clip::aac, bench::kAacTime};
constexpr SoundKind kMulaw = {"1|8000", "PCMU", &Clip::mulaw, bench::kMulawTime};

int TakeOutput(void* sink, unsigned char* data, int size) {
  static_cast<Sink*>(sink)->Take(data, size);
  return size;
}

int Size(const Bytes& bytes) {
  return static_cast<int>(bytes.size());
}

// Frames are the caller's for the length of a call, but not const.
unsigned char* Data(const Bytes& bytes) {
  return const_cast<unsigned char*>(bytes.data());
}

void Mux(const Clip& clip, const SoundKind& kind, Sink& sink) {
  const MuxCtrler ctrler;
  FFmpegMuxer muxer(ctrler);
  Require(muxer.Init(FFMPEG_MUXER_FORMAT_MP4, &sink, TakeOutput) == 0 &&
              muxer.AddVdoStream("H264", clip.width, clip.height, clip.parameterSets.data(),
                                 Size(clip.parameterSets)) == 0 &&
              muxer.AddAdoStream(kind.info, kind.codec, false) == 0 && muxer.WriteHeader() == 0,
          "starting the muxer");
  bench::Play(
      kSeconds, kind.time,
      [&](std::int64_t i, std::int64_t time) {
        const Bytes& frame = bench::At(clip.video, i);
        Require(muxer.WriteVdoFrame(Data(frame), Size(frame), kStart + time, bench::IsKey(i)) == 0, "WriteVdoFrame");
      },
      [&](std::int64_t i, std::int64_t time) {
        const Bytes& frame = bench::At(clip.*kind.frames, i);
        Require(muxer.WriteAdoFrame(Data(frame), Size(frame), kStart + time) == 0, "WriteAdoFrame");
      });
  muxer.Finalize();
}

class Demuxer {
 public:
  explicit Demuxer(const std::string& path) { Require(m_demux.Open(path, m_video, m_sound) == 0, "opening the MP4"); }
  ~Demuxer() {
    m_video.Reset(ES_UNKNOWN);
    m_sound.Reset(ES_UNKNOWN);
  }
  Demuxer(const Demuxer&) = delete;
  Demuxer& operator=(const Demuxer&) = delete;

  void Loop(Sink& sink) {
    m_demux.Seek(0, AVSEEK_FLAG_BACKWARD);
    Require(m_demux.Demux(m_video, m_sound, &sink, OnPacket) == 0, "Demux");
  }

 private:
  static FETCH_CONN OnPacket(void* sink, ESFormat&, AVPacket& packet, AVStream*) {
    static_cast<Sink*>(sink)->TakePacket(packet);
    return FETCH_CONN_NEXT;
  }

  FFmpegDemux m_demux;
  ESFormat m_video;
  ESFormat m_sound;
};

// ---------------------------------------------------------------------------------------------------------------------
// Agreement of library and floor
// ---------------------------------------------------------------------------------------------------------------------

using Work = std::function<void(Sink&)>;

struct Result {
  Bytes bytes;
  std::int64_t packets = 0;
};

Result Collect(const Work& work) {
  Result result;
  Sink sink;
  sink.copy = &result.bytes;
  work(sink);
  result.packets = sink.packets;
  return result;
}

void RequireSame(const Result& library, const Result& floor) {
  if (library.packets != floor.packets || library.bytes != floor.bytes) {
    throw std::runtime_error("library and floor differ: " + std::to_string(library.bytes.size()) + " and " +
                             std::to_string(floor.bytes.size()) + " bytes, " + std::to_string(library.packets) +
                             " and " + std::to_string(floor.packets) + " packets");
  }
}

// missing: how many may be missing.
void RequirePackets(std::int64_t found, std::int64_t wanted, std::int64_t missing) {
  if (found > wanted || found < wanted - missing) {
    throw std::runtime_error(std::to_string(found) + " packets instead of " + std::to_string(wanted));
  }
}

// The MP4 that a muxer made, read back.
void RequirePacketsInside(const Bytes& mp4, std::int64_t wanted, std::int64_t missing) {
  const TempFile file;
  std::ofstream out(file.Path(), std::ios::binary);
  out.write(reinterpret_cast<const char*>(mp4.data()), static_cast<std::streamsize>(mp4.size()));
  out.close();
  Require(out.good(), "writing a temporary file");
  Sink sink;
  bench::FloorDemux(file.Path(), false).Loop(sink);
  RequirePackets(sink.packets, wanted, missing);
}

// ---------------------------------------------------------------------------------------------------------------------
// The workloads
// ---------------------------------------------------------------------------------------------------------------------

Workload MakeWorkload(const std::string& name, const Work& library, const Work& floor,
                      const std::function<void(const Result&)>& verify) {
  const auto check = [library, floor, verify] {
    const Result fromLibrary = Collect(library);
    RequireSame(fromLibrary, Collect(floor));
    verify(fromLibrary);
  };
  return {name, bench::Repeat(library), bench::Repeat(floor), check};
}

// Opens at its first call, which is the warm-up.
template <typename Reader, typename... Args>
Work ReadAgain(const std::shared_ptr<TempFile>& file, Args... args) {
  return [file, args..., reader = std::make_shared<std::unique_ptr<Reader>>()](Sink& sink) {
    if (*reader == nullptr) {
      *reader = std::make_unique<Reader>(file->Path(), args...);
    }
    (*reader)->Loop(sink);
  };
}

template <typename Reader, typename... Args>
Work OpenOnly(const std::shared_ptr<TempFile>& file, Args... args) {
  return [file, args...](Sink&) { const Reader reader(file->Path(), args...); };
}

std::vector<Workload> MakeWorkloads(const std::string& folder) {
  static const Clip clip = folder.empty() ? bench::MakeClip(kShape) : bench::LoadClip(folder + "/" + kClipFile);
  static const bench::SharedClip shared(clip);
  const auto file = std::make_shared<TempFile>();
  bench::FloorWriteFile(shared, kSeconds, file->Path());

  // MP3 of 32 kHz has 1152 samples a frame. What resampler and encoder hold back at the end is not written.
  constexpr std::int64_t kMp3Frames = std::int64_t{kSeconds} * 32000 / 1152;
  constexpr std::int64_t kHeldBack = 8;
  return {MakeWorkload(
              "mux/copy", [](Sink& sink) { Mux(clip, kAac, sink); },
              [](Sink& sink) { bench::FloorMuxCopy(shared, kSeconds, sink); },
              [](const Result& result) { RequirePacketsInside(result.bytes, kVideoFrames + kAacFrames, 0); }),
          MakeWorkload(
              "mux/encode", [](Sink& sink) { Mux(clip, kMulaw, sink); },
              [](Sink& sink) { bench::FloorMuxEncode(shared, kSeconds, sink); },
              [](const Result& result) { RequirePacketsInside(result.bytes, kVideoFrames + kMp3Frames, kHeldBack); }),
          MakeWorkload("demux/loop", ReadAgain<Demuxer>(file), ReadAgain<bench::FloorDemux>(file, true),
                       [](const Result& result) { RequirePackets(result.packets, kVideoFrames + kAacFrames, 0); }),
          MakeWorkload("demux/open", OpenOnly<Demuxer>(file), OpenOnly<bench::FloorDemux>(file, false),
                       [](const Result&) {})};
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBench(argc, argv,
                         {"Recordings of a minute, written and read: the library beside the least work that gives the "
                          "same result.",
                          MakeWorkloads, [](const std::string& folder) {
                            bench::SaveClip(bench::MakeClip(kShape), folder + "/" + kClipFile);
                          }});
}
