// What the floors have in common: where bytes come from and go to.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "bench/inputs.h"
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

// Work into a sink, as many times; each has one of its own.
inline std::function<void(int times)> Repeat(const std::function<void(Sink&)>& work) {
  return [work](int times) {
    for (int i = 0; i < times; ++i) {
      Sink sink;
      work(sink);
    }
  };
}

// Output of an FFmpeg container into a sink, which must outlive it. Throws std::runtime_error.
void OpenSink(AVFormatContext& output, Sink& sink);
void CloseSink(AVFormatContext& output);

// Frames in reference-counted buffers, so that FFmpeg need not copy them. The bytes must outlive them.
struct Unref {
  void operator()(AVBufferRef* p) const { av_buffer_unref(&p); }
};
using SharedBytes = std::unique_ptr<AVBufferRef, Unref>;
std::vector<SharedBytes> Share(const std::vector<Bytes>& frames);

// Borrows a frame from byte skip on.
void Lend(AVPacket* packet, const SharedBytes& frame, int skip = 0);

}  // namespace bench
