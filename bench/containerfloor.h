// The floor of muxing and demuxing: straight FFmpeg calls. Everything throws std::runtime_error when it fails.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/clip.h"
#include "utils/internal/ffmpegptr.h"

namespace bench {

// Counts bytes and, for comparisons, keeps them.
struct Sink {
  Bytes* copy = nullptr;
  std::int64_t bytes = 0;
  std::int64_t packets = 0;  // demuxing

  void Take(const std::uint8_t* data, int size) {
    bytes += size;
    if (copy != nullptr) {
      copy->insert(copy->end(), data, data + size);
    }
  }
  void TakePacket(const AVPacket& packet) {
    ++packets;
    Take(packet.data, packet.size);
  }
};

// A clip whose frames lie in reference-counted buffers, so that FFmpeg need not copy them. The clip must outlive it.
class SharedClip {
 public:
  struct Unref {
    void operator()(AVBufferRef* p) const { av_buffer_unref(&p); }
  };
  using Buffer = std::unique_ptr<AVBufferRef, Unref>;

  explicit SharedClip(const Clip& clip);

  const Clip& clip;
  std::vector<Buffer> video;
  std::vector<Buffer> aac;
  std::vector<Buffer> mulaw;
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
