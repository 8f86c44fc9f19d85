#include "bench/inputs.h"

#include <algorithm>
#include <cstdio>

#include "bench/encoder.h"
#include "bench/require.h"
#include "platform/file.h"
#include "utils/internal/ffmpegptr.h"

extern "C" {
#include <libavutil/imgutils.h>
}

using mediautil::FfPtr;

namespace bench {
namespace {

// ---------------------------------------------------------------------------------------------------------------------
// The picture
// ---------------------------------------------------------------------------------------------------------------------

// A fixed pseudo-random number, 0 to 255, for every point.
int Random(int x, int y, std::uint32_t seed) {
  std::uint32_t h = static_cast<std::uint32_t>(x) * 0x9E3779B1U ^ static_cast<std::uint32_t>(y) * 0x85EBCA77U ^ seed;
  h = (h ^ (h >> 15)) * 0x2C1B3C6DU;
  h = (h ^ (h >> 12)) * 0x297A2D39U;
  return static_cast<int>((h ^ (h >> 15)) & 0xFF);
}

// Random points 2^shift pixels apart with straight slopes between them, -128 to 127.
int Hills(int x, int y, int shift, std::uint32_t seed) {
  const int cell = 1 << shift;
  const int column = x >> shift;
  const int row = y >> shift;
  const int right = x & (cell - 1);
  const int down = y & (cell - 1);
  const int top = Random(column, row, seed) * (cell - right) + Random(column + 1, row, seed) * right;
  const int bottom = Random(column, row + 1, seed) * (cell - right) + Random(column + 1, row + 1, seed) * right;
  return ((top * (cell - down) + bottom * down) >> (2 * shift)) - 128;
}

// Detail of every size, the finer the weaker, as in a view of a camera. finest: its points are 2^finest pixels apart.
int Landscape(int x, int y, std::uint32_t seed, int finest) {
  constexpr int kWeights[] = {0, 6, 11, 15, 18, 26, 38, 54, 76};
  int sum = 0;
  for (int shift = 8; shift >= finest; --shift) {
    sum += Hills(x, y, shift, seed + static_cast<std::uint32_t>(shift)) * kWeights[shift];
  }
  return sum / 128;
}

// A wall with windows: hard edges.
int Wall(int x, int y) {
  const bool onWall = x > kWidth / 2 && y > kHeight / 3;
  const bool window = x % 96 > 40 && y % 72 > 30;
  return onWall ? (window ? -45 : 25) : 0;
}

// Landscape, wall and the noise of a sensor.
FfPtr<AVFrame> DrawPicture() {
  FfPtr<AVFrame> frame(av_frame_alloc());
  Require(frame != nullptr, "frame");
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = kWidth;
  frame->height = kHeight;
  Require(av_frame_get_buffer(frame.get(), 0) >= 0, "picture buffer");
  for (int plane = 0; plane < 3; ++plane) {
    const int scale = plane == 0 ? 1 : 2;
    const auto seed = static_cast<std::uint32_t>(1000 * plane + 1);
    for (int y = 0; y < kHeight / scale; ++y) {
      std::uint8_t* row = frame->data[plane] + static_cast<std::ptrdiff_t>(y) * frame->linesize[plane];
      for (int x = 0; x < kWidth / scale; ++x) {
        int value = 128 + Landscape(x * scale, y * scale, seed, plane == 0 ? 1 : 3) / (scale * scale);
        if (plane == 0) {
          value += Wall(x, y) + Random(x, y, seed) % 5 - 2;
        }
        row[x] = static_cast<std::uint8_t>(std::clamp(value, 16, 235));
      }
    }
  }
  return frame;
}

Bytes ToRgb(const AVFrame* picture) {
  const FfPtr<SwsContext> scaler(sws_getContext(kWidth, kHeight, AV_PIX_FMT_YUV420P, kWidth, kHeight, AV_PIX_FMT_RGB24,
                                                SWS_BICUBIC, nullptr, nullptr, nullptr));
  Require(scaler != nullptr, "scaler");
  Bytes rgb(std::size_t{kWidth} * kHeight * 3);
  std::uint8_t* rows[4] = {rgb.data()};
  const int stride[4] = {kWidth * 3};
  Require(sws_scale(scaler.get(), picture->data, picture->linesize, 0, kHeight, rows, stride) == kHeight, "scaling");
  return rgb;
}

// ---------------------------------------------------------------------------------------------------------------------
// The key frames
// ---------------------------------------------------------------------------------------------------------------------

// Options are FFmpeg's, chosen for the sizes of a camera's key frames.
struct Recipe {
  const char* encoder;
  AVPixelFormat format;
  const char* options;
};

constexpr Recipe kH264 = {"libx264", AV_PIX_FMT_YUV420P, "preset=medium,profile=high,x264-params=qp=29:bframes=0"};
constexpr Recipe kHevc = {"libx265", AV_PIX_FMT_YUV420P,
                          "preset=fast,x265-params=qp=21:bframes=0:pools=none:frame-threads=1:log-level=none"};
constexpr Recipe kMjpeg = {"mjpeg", AV_PIX_FMT_YUVJ420P, "flags=+qscale,global_quality=354"};

FfPtr<AVCodecContext> OpenEncoder(const Recipe& recipe) {
  FfPtr<AVCodecContext> ctx = NewEncoder(recipe.encoder);
  ctx->width = kWidth;
  ctx->height = kHeight;
  ctx->pix_fmt = recipe.format;
  ctx->time_base = {1, 25};
  Open(ctx.get(), recipe.options);
  return ctx;
}

Bytes EncodeKeyFrame(AVFrame* picture, const Recipe& recipe) {
  const FfPtr<AVCodecContext> ctx = OpenEncoder(recipe);
  picture->format = recipe.format;
  picture->pts = 0;
  picture->quality = ctx->global_quality;
  const FfPtr<AVPacket> packet(av_packet_alloc());
  Require(packet != nullptr && avcodec_send_frame(ctx.get(), picture) >= 0 &&
              avcodec_send_frame(ctx.get(), nullptr) >= 0 && avcodec_receive_packet(ctx.get(), packet.get()) >= 0 &&
              (packet->flags & AV_PKT_FLAG_KEY) != 0,
          std::string("encoding with ") + recipe.encoder);
  return Bytes(packet->data, packet->data + packet->size);
}

// ---------------------------------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------------------------------

struct InputFile {
  const char* name;
  Bytes Inputs::*bytes;
};

constexpr InputFile kFiles[] = {{"key.h264", &Inputs::h264},
                                {"key.hevc", &Inputs::hevc},
                                {"key.jpg", &Inputs::mjpeg},
                                {"picture.rgb", &Inputs::rgb}};

}  // namespace

Inputs MakeInputs() {
  const FfPtr<AVFrame> picture = DrawPicture();
  Inputs inputs;
  inputs.rgb = ToRgb(picture.get());
  inputs.h264 = EncodeKeyFrame(picture.get(), kH264);
  inputs.hevc = EncodeKeyFrame(picture.get(), kHevc);
  inputs.mjpeg = EncodeKeyFrame(picture.get(), kMjpeg);
  return inputs;
}

void SaveInputs(const Inputs& inputs, const std::string& folder) {
  for (const InputFile& file : kFiles) {
    const Bytes& bytes = inputs.*file.bytes;
    const std::string path = folder + "/" + file.name;
    Require(WriteContentFromBufToFile(reinterpret_cast<const char*>(bytes.data()),
                                      static_cast<unsigned int>(bytes.size()), false, path) == 0,
            "writing " + path);
    std::printf("%s: %zu bytes\n", path.c_str(), bytes.size());
  }
}

Inputs LoadInputs(const std::string& folder) {
  Inputs inputs;
  for (const InputFile& file : kFiles) {
    const std::string path = folder + "/" + file.name;
    inputs.*file.bytes = ReadFile(path);
    Require(!(inputs.*file.bytes).empty(), "reading " + path);
  }
  Require(inputs.rgb.size() == std::size_t{kWidth} * kHeight * 3, "reading the RGB picture");
  return inputs;
}

}  // namespace bench
