#include "bench/floorio.h"

#include <string>

#include "bench/require.h"
#include "utils/internal/ffcompat.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace bench {
namespace {

constexpr int kIoBuffer = 1 << 16;

int OnBytes(void* sink, mediautil::IoBytes data, int size) {
  static_cast<Sink*>(sink)->Take(data, size);
  return size;
}

}  // namespace

void OpenSink(AVFormatContext& output, Sink& sink) {
  auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBuffer));
  output.pb = avio_alloc_context(buffer, kIoBuffer, 1, &sink, nullptr, OnBytes, nullptr);
  Require(output.pb != nullptr, "avio_alloc_context");
}

void CloseSink(AVFormatContext& output) {
  if (output.pb != nullptr) {
    av_freep(&output.pb->buffer);
    avio_context_free(&output.pb);
  }
}

std::vector<SharedBytes> Share(const std::vector<Bytes>& frames) {
  const auto keep = [](void*, std::uint8_t*) {};
  std::vector<SharedBytes> shared;
  for (const Bytes& bytes : frames) {
    shared.emplace_back(av_buffer_create(const_cast<std::uint8_t*>(bytes.data()), bytes.size(), keep, nullptr,
                                         AV_BUFFER_FLAG_READONLY));
    Require(shared.back() != nullptr, "av_buffer_create");
  }
  return shared;
}

void Lend(AVPacket* packet, const SharedBytes& frame, int skip) {
  packet->buf = av_buffer_ref(frame.get());
  Require(packet->buf != nullptr, "av_buffer_ref");
  packet->data = frame->data + skip;
  packet->size = static_cast<int>(frame->size) - skip;
}

}  // namespace bench
