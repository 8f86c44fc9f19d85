#include "tests/support/media.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include "utils/internal/ffcompat.h"

extern "C" {
#include <libavutil/opt.h>
}

using mediautil::FfPtr;

// The HEVC encoder that the tests use does not give all of its memory back.
extern "C" const char* __lsan_default_suppressions();
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:libx265\n";
}

namespace {

constexpr AVRational kFrameRate = {25, 1};

FfPtr<AVFrame> NewFrame(AVPixelFormat format, int width, int height, int alignment = 0) {
  FfPtr<AVFrame> frame(av_frame_alloc());
  frame->format = format;
  frame->width = width;
  frame->height = height;
  Require(av_frame_get_buffer(frame.get(), alignment) >= 0, "picture buffer");
  return frame;
}

FfPtr<AVFrame> Converted(const AVFrame* frame, AVPixelFormat format) {
  FfPtr<AVFrame> converted = NewFrame(format, frame->width, frame->height);
  const FfPtr<SwsContext> sws(sws_getContext(frame->width, frame->height, static_cast<AVPixelFormat>(frame->format),
                                             frame->width, frame->height, format, SWS_BICUBIC, nullptr, nullptr,
                                             nullptr));
  Require(sws != nullptr, "scaler");
  sws_scale(sws.get(), frame->data, frame->linesize, 0, frame->height, converted->data, converted->linesize);
  return converted;
}

void Encode(AVCodecContext* ctx, const AVFrame* frame, Clip& clip) {
  Require(avcodec_send_frame(ctx, frame) >= 0, "send frame");
  const FfPtr<AVPacket> packet(av_packet_alloc());
  while (avcodec_receive_packet(ctx, packet.get()) >= 0) {
    clip.frames.push_back(
        {Bytes(packet->data, packet->data + packet->size), packet->pts, (packet->flags & AV_PKT_FLAG_KEY) != 0});
    av_packet_unref(packet.get());
  }
}

FfPtr<AVCodecContext> OpenEncoder(const ClipWish& wish) {
  const AVCodec* codec = avcodec_find_encoder_by_name(wish.encoder);
  Require(codec != nullptr, wish.encoder);
  FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  ctx->width = wish.width;
  ctx->height = wish.height;
  ctx->time_base = av_inv_q(kFrameRate);
  ctx->framerate = kFrameRate;
  ctx->gop_size = wish.gop;
  ctx->max_b_frames = wish.bFrames;
  ctx->thread_count = 1;
  ctx->pix_fmt = codec->id == AV_CODEC_ID_MJPEG ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
  if (codec->id == AV_CODEC_ID_MJPEG || codec->id == AV_CODEC_ID_MPEG4) {
    ctx->flags |= AV_CODEC_FLAG_QSCALE;
    ctx->global_quality = 3 * FF_QP2LAMBDA;
  }
  if (wish.globalHeader) ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  const std::string params = wish.params;
  const std::string separator = params.empty() ? "" : ":";
  av_opt_set(ctx->priv_data, "preset", "ultrafast", 0);  // of H.264 and HEVC alone
  av_opt_set(ctx->priv_data, "x264-params", (params + separator + "scenecut=0").c_str(), 0);
  const std::string serial = "log-level=none:pools=none:frame-threads=1:bframes=" + std::to_string(wish.bFrames);
  av_opt_set(ctx->priv_data, "x265-params", (params + separator + serial).c_str(), 0);
  Require(avcodec_open2(ctx.get(), codec, nullptr) >= 0, "open encoder");
  return ctx;
}

AVStream* AddVideo(AVFormatContext* oc, const Clip& clip) {
  AVStream* st = avformat_new_stream(oc, nullptr);
  avcodec_parameters_copy(st->codecpar, ParametersOf(clip).get());
  st->time_base = av_inv_q(kFrameRate);
  st->avg_frame_rate = kFrameRate;
  return st;
}

AVStream* AddSilence(AVFormatContext* oc, int rate) {
  AVStream* st = avformat_new_stream(oc, nullptr);
  st->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
  st->codecpar->codec_id = AV_CODEC_ID_PCM_MULAW;
  st->codecpar->sample_rate = rate;
  av_channel_layout_default(&st->codecpar->ch_layout, 1);
  st->codecpar->bits_per_coded_sample = 8;
  st->time_base = {1, rate};
  return st;
}

// Times in ticks of timeBase.
void WritePacket(AVFormatContext* oc, const AVStream* st, const CodedFrame& frame, std::int64_t dts,
                 std::int64_t duration, AVRational timeBase) {
  const FfPtr<AVPacket> packet(MakePacket(frame.data));
  packet->stream_index = st->index;
  packet->flags = frame.key ? AV_PKT_FLAG_KEY : 0;
  packet->pts = frame.pts;
  packet->dts = dts;
  packet->duration = duration;
  av_packet_rescale_ts(packet.get(), timeBase, st->time_base);
  Require(av_interleaved_write_frame(oc, packet.get()) >= 0, "write packet");
}

}  // namespace

void Require(bool ok, const std::string& step) {
  if (!ok) throw std::runtime_error("material: " + step);
}

FfPtr<AVFrame> TestPicture(AVPixelFormat format, int width, int height, int n) {
  FfPtr<AVFrame> rgb = NewFrame(AV_PIX_FMT_RGB24, width, height);
  for (int y = 0; y < height; ++y) {
    std::uint8_t* pixel = rgb->data[0] + static_cast<std::ptrdiff_t>(y) * rgb->linesize[0];
    for (int x = 0; x < width; ++x, pixel += 3) {
      const bool inSquare = std::abs(x - width / 4 - n * 8) < width / 10 && std::abs(y - height / 2) < height / 10;
      const int red = x * 200 / width + 20;
      const int green = y * 200 / height + 20;
      const int blue = 180 - x * 100 / width;
      pixel[0] = static_cast<std::uint8_t>(inSquare ? 250 : red);
      pixel[1] = static_cast<std::uint8_t>(inSquare ? 240 : green);
      pixel[2] = static_cast<std::uint8_t>(inSquare ? 40 : blue);
    }
  }
  return format == AV_PIX_FMT_RGB24 ? std::move(rgb) : Converted(rgb.get(), format);
}

FfPtr<AVFrame> SolidRgb(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b, int alignment) {
  FfPtr<AVFrame> frame = NewFrame(AV_PIX_FMT_RGB24, width, height, alignment);
  const std::uint8_t colour[] = {r, g, b};
  for (int y = 0; y < height; ++y) {
    std::uint8_t* pixel = frame->data[0] + static_cast<std::ptrdiff_t>(y) * frame->linesize[0];
    for (int x = 0; x < width; ++x, pixel += 3) std::copy_n(colour, 3, pixel);
  }
  return frame;
}

Clip EncodeClip(const ClipWish& wish) {
  const FfPtr<AVCodecContext> ctx = OpenEncoder(wish);
  Clip clip;
  clip.codecId = ctx->codec_id;
  clip.width = wish.width;
  clip.height = wish.height;
  if (ctx->extradata_size > 0) clip.extradata.assign(ctx->extradata, ctx->extradata + ctx->extradata_size);
  for (int n = 0; n < wish.frames; ++n) {
    const FfPtr<AVFrame> picture = TestPicture(ctx->pix_fmt, wish.width, wish.height, n);
    picture->pts = n;
    picture->quality = ctx->global_quality;
    Encode(ctx.get(), picture.get(), clip);
  }
  Encode(ctx.get(), nullptr, clip);
  return clip;
}

Bytes MxpegKeyFrame(int width, int height) {
  const int wide = (width + 15) / 16;
  const int high = (height + 15) / 16;
  const int maskSize = (wide * high + 7) / 8;
  Bytes comment = {0xFF, 0xFE, 0, 0, 'M', 'X', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 0};
  comment[3] = static_cast<std::uint8_t>(14 + maskSize);
  comment[8] = static_cast<std::uint8_t>(wide);
  comment[10] = static_cast<std::uint8_t>(high);
  comment.insert(comment.end(), static_cast<std::size_t>(maskSize), 0xFF);
  Bytes frame = EncodeClip({"mjpeg", width, height, 1}).frames.at(0).data;
  frame.insert(frame.begin() + 2, comment.begin(), comment.end());
  return frame;
}

FfPtr<AVCodecParameters> NewParameters(AVMediaType type, AVCodecID id, const Bytes& extradata) {
  FfPtr<AVCodecParameters> par(avcodec_parameters_alloc());
  par->codec_type = type;
  par->codec_id = id;
  par->extradata = mediautil::CopyPadded(extradata.data(), static_cast<int>(extradata.size()));
  par->extradata_size = static_cast<int>(extradata.size());
  return par;
}

FfPtr<AVCodecParameters> ParametersOf(const Clip& clip) {
  FfPtr<AVCodecParameters> par = NewParameters(AVMEDIA_TYPE_VIDEO, clip.codecId, clip.extradata);
  par->width = clip.width;
  par->height = clip.height;
  return par;
}

AVPacket* MakePacket(const Bytes& data) {
  FfPtr<AVPacket> packet(av_packet_alloc());
  Require(av_new_packet(packet.get(), static_cast<int>(data.size())) >= 0, "packet");
  std::copy(data.begin(), data.end(), packet->data);
  return packet.release();
}

void WriteFile(const Clip& clip, const std::string& path, int audioRate) {
  AVFormatContext* oc = nullptr;
  Require(avformat_alloc_output_context2(&oc, nullptr, nullptr, path.c_str()) >= 0, "container");
  const mediautil::ScopeExit release([oc] {
    avio_closep(&oc->pb);
    avformat_free_context(oc);
  });
  const AVStream* video = AddVideo(oc, clip);
  const AVStream* audio = audioRate > 0 ? AddSilence(oc, audioRate) : nullptr;
  Require(avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0, path);
  Require(avformat_write_header(oc, nullptr) >= 0, "header");
  // Frames arrive in decoding order; with B-frames the decoding times start early enough for all of them.
  std::int64_t delay = 0;
  for (std::size_t i = 0; i < clip.frames.size(); ++i) {
    delay = std::max(delay, static_cast<std::int64_t>(i) - clip.frames[i].pts);
  }
  for (std::size_t i = 0; i < clip.frames.size(); ++i) {
    const auto n = static_cast<std::int64_t>(i);
    WritePacket(oc, video, clip.frames[i], n - delay, 1, av_inv_q(kFrameRate));
    if (audio != nullptr) {
      const int samples = audioRate / kFrameRate.num;
      const Bytes silence(static_cast<std::size_t>(samples), 0xFF);
      WritePacket(oc, audio, {silence, n * samples, true}, n * samples, samples, {1, audioRate});
    }
  }
  Require(av_write_trailer(oc) >= 0, "trailer");
}

double MeanDifference(const AVFrame* a, const AVFrame* b) {
  if (a == nullptr || b == nullptr || a->width != b->width || a->height != b->height) return 255;
  const FfPtr<AVFrame> left = Converted(a, AV_PIX_FMT_RGB24);
  const FfPtr<AVFrame> right = Converted(b, AV_PIX_FMT_RGB24);
  double sum = 0;
  for (int y = 0; y < left->height; ++y) {
    const std::uint8_t* p = left->data[0] + static_cast<std::ptrdiff_t>(y) * left->linesize[0];
    const std::uint8_t* q = right->data[0] + static_cast<std::ptrdiff_t>(y) * right->linesize[0];
    for (int x = 0; x < left->width * 3; ++x) sum += std::abs(p[x] - q[x]);
  }
  return sum / (3.0 * left->width * left->height);
}

unsigned int PixelAt(const std::uint8_t* rgb, int stride, int x, int y) {
  const std::uint8_t* p = rgb + static_cast<std::ptrdiff_t>(y) * stride + static_cast<std::ptrdiff_t>(x) * 3;
  return static_cast<unsigned int>(p[0]) << 16 | static_cast<unsigned int>(p[1]) << 8 | p[2];
}

void SaveBytes(const std::string& path, const void* data, std::size_t size) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  Require(file != nullptr && std::fwrite(data, 1, size, file) == size && std::fclose(file) == 0, path);
}

Bytes ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

Bytes RandomBytes(std::size_t size, unsigned int below) {
  static std::mt19937 random(3);
  Bytes bytes(size);
  std::generate(bytes.begin(), bytes.end(), [below] { return static_cast<std::uint8_t>(random() % below); });
  return bytes;
}

Bytes BigEndian(std::uint64_t value, int size) {
  Bytes bytes;
  for (int shift = size * 8 - 8; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>(value >> shift));
  }
  return bytes;
}

Bytes Joined(const std::vector<Bytes>& pieces) {
  Bytes joined;
  for (const Bytes& piece : pieces) joined.insert(joined.end(), piece.begin(), piece.end());
  return joined;
}
