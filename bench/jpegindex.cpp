// A stored JPEG by its index, and the same seek and read by hand.
#include <cstddef>
#include <cstring>
#include <memory>

#include "bench/inputs.h"
#include "bench/require.h"
#include "bench/stills.h"
#include "bench/tempfile.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/jpegextractor.h"

using bench::Require;
using mediautil::FfPtr;

namespace {

using bench::Bytes;

constexpr int kSide = 640;
constexpr int kRate = 25;
constexpr unsigned int kFrames = 60 * kRate;
constexpr unsigned int kStride = 37;  // to the next index, so that no frame follows the one before it
constexpr std::size_t kCapacity = 1 << 20;

// A grey slope that depends on number.
void Draw(AVFrame& frame, unsigned int number) {
  Require(av_frame_make_writable(&frame) >= 0, "drawing");
  for (int plane = 0; plane < 3; ++plane) {
    const int side = plane == 0 ? kSide : kSide / 2;
    for (int y = 0; y < side; ++y) {
      std::uint8_t* row = frame.data[plane] + static_cast<std::ptrdiff_t>(y) * frame.linesize[plane];
      for (int x = 0; x < side; ++x) {
        row[x] = plane == 0 ? static_cast<std::uint8_t>((x * x + y * 3 + static_cast<int>(number)) & 0xFF) : 128;
      }
    }
  }
  frame.pts = number;
}

struct AviDeleter {
  void operator()(AVFormatContext* p) const {
    avio_closep(&p->pb);
    LockAVFormatFreeContext(p);
  }
};

// A minute of Motion JPEG in an AVI file.
void WriteRecording(const std::string& path) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  const FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  ctx->width = kSide;
  ctx->height = kSide;
  ctx->pix_fmt = AV_PIX_FMT_YUVJ420P;
  ctx->time_base = {1, kRate};
  ctx->thread_count = 1;
  Require(LockAVCodecOpen(ctx.get(), codec, nullptr) >= 0, "opening the encoder");
  AVFormatContext* created = nullptr;
  Require(avformat_alloc_output_context2(&created, nullptr, "avi", nullptr) >= 0, "making the container");
  const std::unique_ptr<AVFormatContext, AviDeleter> avi(created);
  AVStream* stream = avformat_new_stream(avi.get(), nullptr);
  Require(stream != nullptr && avcodec_parameters_from_context(stream->codecpar, ctx.get()) >= 0, "adding a stream");
  stream->time_base = ctx->time_base;
  stream->avg_frame_rate = av_inv_q(ctx->time_base);
  Require(avio_open(&avi->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(avi.get(), nullptr) >= 0,
          "writing the header");

  const FfPtr<AVFrame> frame(av_frame_alloc());
  frame->format = ctx->pix_fmt;
  frame->width = kSide;
  frame->height = kSide;
  Require(av_frame_get_buffer(frame.get(), 0) >= 0, "allocating a picture");
  const FfPtr<AVPacket> packet(av_packet_alloc());
  for (unsigned int i = 0; i < kFrames; ++i) {
    Draw(*frame, i);
    Require(avcodec_send_frame(ctx.get(), frame.get()) >= 0 && avcodec_receive_packet(ctx.get(), packet.get()) >= 0,
            "encoding");
    packet->duration = 1;
    Require(av_write_frame(avi.get(), packet.get()) >= 0, "writing");
    av_packet_unref(packet.get());
  }
  Require(av_write_trailer(avi.get()) >= 0, "writing the index");
}

// The recording, opened by both sides. The buffers are theirs, as a server keeps them.
struct Opened {
  bench::TempFile file;
  JpegExtractor library;
  mediautil::InputPtr floor;
  FfPtr<AVPacket> packet{av_packet_alloc()};
  Bytes buffer = Bytes(kCapacity);

  Opened() {
    WriteRecording(file.Path());
    AVFormatContext* input = nullptr;
    Require(library.Init(file.Path()) == 0 && avformat_open_input(&input, file.Path().c_str(), nullptr, nullptr) >= 0,
            "opening");
    floor.reset(input);
    Require(avformat_find_stream_info(input, nullptr) >= 0, "analysing");
  }

  // Both return the size of the frame, which is in the buffer then.
  unsigned int ByLibrary(unsigned int index) {
    auto size = static_cast<unsigned int>(kCapacity);
    Require(library.ReadFrame(index, buffer.data(), size) == 0, "ReadFrame");
    return size;
  }
  unsigned int ByHand(unsigned int index) {
    Require(av_seek_frame(floor.get(), 0, index, AVSEEK_FLAG_ANY) >= 0 && av_read_frame(floor.get(), packet.get()) >= 0,
            "reading");
    const auto size = static_cast<std::size_t>(packet->size);
    Require(size <= kCapacity, "holding the frame");
    std::memcpy(buffer.data(), packet->data, size);
    av_packet_unref(packet.get());
    return static_cast<unsigned int>(size);
  }
  Bytes Taken(unsigned int size) const { return Bytes(buffer.begin(), buffer.begin() + size); }
};

template <typename Read>
std::function<void(int)> RepeatAcross(Read read) {
  return [read, index = 0U](int times) mutable {
    for (int i = 0; i < times; ++i) {
      index = (index + kStride) % kFrames;
      read(index);
    }
  };
}

}  // namespace

std::vector<bench::Workload> bench::JpegWorkloads() {
  const auto opened = std::make_shared<Opened>();
  const auto check = [opened] {
    for (unsigned int index = 0; index < kFrames; index += kStride) {
      const Bytes library = opened->Taken(opened->ByLibrary(index));
      Require(library == opened->Taken(opened->ByHand(index)), "agreeing on a frame");
    }
  };
  return {{"jpeg/index", RepeatAcross([opened](unsigned int index) { opened->ByLibrary(index); }),
           RepeatAcross([opened](unsigned int index) { opened->ByHand(index); }), check}};
}
