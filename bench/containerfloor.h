// The floor of muxing and demuxing: straight FFmpeg calls. Everything throws std::runtime_error when it fails.
#pragma once

#include <string>
#include <vector>

#include "bench/clip.h"
#include "bench/floorio.h"
#include "utils/internal/ffmpegptr.h"

namespace bench {

// A clip as buffers that FFmpeg need not copy. The clip must outlive it.
struct SharedClip {
  explicit SharedClip(const Clip& clip);

  const Clip& clip;
  std::vector<SharedBytes> video;
  std::vector<SharedBytes> aac;
  std::vector<SharedBytes> mulaw;
};

// Fragmented MP4 of that many seconds: AAC as it is, or G.711 as MP3 of 32 kHz and 32 kbit/s.
void FloorMuxCopy(const SharedClip& clip, int seconds, Sink& sink);
void FloorMuxEncode(const SharedClip& clip, int seconds, Sink& sink);

// The same with AAC as an MP4 file without fragments.
void FloorWriteFile(const SharedClip& clip, int seconds, const std::string& path);

// An opened file.
class FloorDemux {
 public:
  // analyse: as the library does, which also changes what reading costs. An MP4 tells enough without.
  FloorDemux(const std::string& path, bool analyse);
  // Reads all packets of video and sound from the start.
  void Loop(Sink& sink);

 private:
  mediautil::InputPtr m_input;
  int m_videoIndex = -1;
  int m_soundIndex = -1;
};

}  // namespace bench
