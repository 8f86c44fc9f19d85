#include "bench/clip.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>

#include "bench/encoder.h"
#include "bench/require.h"
#include "utils/internal/ffmpegptr.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

using mediautil::FfPtr;

namespace bench {
namespace {

// Marsaglia's xorshift: the same numbers everywhere.
class Noise {
 public:
  explicit Noise(std::uint32_t seed) : m_state(seed * 2654435761U + 1) {}
  int Below(int limit) {
    m_state ^= m_state << 13;
    m_state ^= m_state >> 17;
    m_state ^= m_state << 5;
    return static_cast<int>((m_state >> 8) % static_cast<std::uint32_t>(limit));
  }

 private:
  std::uint32_t m_state;
};

// ---------------------------------------------------------------------------------------------------------------------
// Encoding
// ---------------------------------------------------------------------------------------------------------------------

FfPtr<AVFrame> NewFrame(const std::function<void(AVFrame&)>& describe) {
  FfPtr<AVFrame> frame(av_frame_alloc());
  Require(frame != nullptr, "allocating a frame");
  describe(*frame);
  Require(av_frame_get_buffer(frame.get(), 0) >= 0, "allocating a frame");
  return frame;
}

// Encodes frames 0 to count - 1, each drawn into frame first. Null ends the encoder's stream.
std::vector<Bytes> Encode(AVCodecContext* ctx, AVFrame* frame, int count, const std::function<void(int)>& draw) {
  std::vector<Bytes> packets;
  const FfPtr<AVPacket> packet(av_packet_alloc());
  Require(packet != nullptr, "allocating a packet");
  for (int i = 0; i <= count; ++i) {
    if (i < count) {
      Require(av_frame_make_writable(frame) >= 0, "reusing a frame");
      draw(i);
    }
    Require(avcodec_send_frame(ctx, i < count ? frame : nullptr) >= 0, "encoding");
    while (avcodec_receive_packet(ctx, packet.get()) >= 0) {
      packets.emplace_back(packet->data, packet->data + packet->size);
      av_packet_unref(packet.get());
    }
  }
  return packets;
}

// ---------------------------------------------------------------------------------------------------------------------
// Video
// ---------------------------------------------------------------------------------------------------------------------

// Slopes and edges that pass by, and the noise of a sensor, whose share of the bits grows with the bit rate.
void DrawScene(AVFrame& frame, int number) {
  Noise noise(static_cast<std::uint32_t>(number) + 1);
  for (int plane = 0; plane < 3; ++plane) {
    const int scale = plane == 0 ? 1 : 2;
    for (int y = 0; y < frame.height / scale; ++y) {
      std::uint8_t* row = frame.data[plane] + static_cast<std::ptrdiff_t>(y) * frame.linesize[plane];
      for (int x = 0; x < frame.width / scale; ++x) {
        const int at = x * scale + 3 * number;
        const int slope = std::abs((at + y * scale) % 256 - 128) / 2;
        const int edge = plane == 0 && at % 96 > 40 && y % 72 > 30 ? 50 : 0;
        row[x] = static_cast<std::uint8_t>(70 + slope + edge + (plane == 0 ? noise.Below(16) : 0));
      }
    }
    frame.pts = number;
  }
}

void EncodeVideo(const ClipShape& shape, Clip& clip) {
  const FfPtr<AVCodecContext> ctx = NewEncoder("libx264");
  ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  ctx->width = shape.width;
  ctx->height = shape.height;
  ctx->pix_fmt = AV_PIX_FMT_YUV420P;
  ctx->time_base = {1, kFrameRate};
  ctx->gop_size = kKeyInterval;
  ctx->max_b_frames = 0;
  ctx->bit_rate = shape.bitRate;
  ctx->rc_max_rate = shape.bitRate;
  ctx->rc_buffer_size = shape.bitRate * 2;
  const std::string interval = std::to_string(kKeyInterval);
  Open(ctx.get(), ("preset=veryfast,profile=high,x264-params=scenecut=0:min-keyint=" + interval).c_str());
  const FfPtr<AVFrame> frame = NewFrame([&](AVFrame& f) {
    f.format = AV_PIX_FMT_YUV420P;
    f.width = shape.width;
    f.height = shape.height;
  });
  const int count = kClipSeconds * kFrameRate;
  clip.parameterSets.assign(ctx->extradata, ctx->extradata + ctx->extradata_size);
  clip.video = Encode(ctx.get(), frame.get(), count, [&](int number) { DrawScene(*frame, number); });
  Require(clip.video.size() == static_cast<std::size_t>(count), "getting a packet of every picture");
  for (std::size_t i = 0; i < clip.video.size(); i += kKeyInterval) {
    clip.video[i].insert(clip.video[i].begin(), clip.parameterSets.begin(), clip.parameterSets.end());
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// Sound
// ---------------------------------------------------------------------------------------------------------------------

// A tone that slides up and down over noise, -1 to 1.
double Sound(double seconds, Noise& noise) {
  constexpr double kPi = 3.14159265358979323846;
  const double phase = 2 * kPi * (600 * seconds + 120 * std::sin(2 * kPi * seconds));
  return 0.4 * std::sin(phase) + 0.1 * (noise.Below(2001) / 1000.0 - 1);
}

// Fills a frame of 16-bit mono sound or of planar sound with what is heard from its time on; each channel has noise of
// its own.
void DrawSound(AVFrame& frame, Noise& noise) {
  for (int channel = 0; channel < frame.ch_layout.nb_channels; ++channel) {
    std::uint8_t* plane = frame.data[channel];
    for (int i = 0; i < frame.nb_samples; ++i) {
      const double value = Sound(static_cast<double>(frame.pts + i) / frame.sample_rate, noise);
      if (frame.format == AV_SAMPLE_FMT_FLTP) {
        reinterpret_cast<float*>(plane)[i] = static_cast<float>(value);
      } else {
        reinterpret_cast<std::int16_t*>(plane)[i] = static_cast<std::int16_t>(value * 32767);
      }
    }
  }
}

// AAC LC, 16 kHz, mono, without checksum.
void AddAdtsHeader(Bytes& frame) {
  constexpr unsigned int kRateIndex = 8;
  const auto size = static_cast<unsigned int>(frame.size() + kAdtsHeader);
  Require(size < 8192, "an ADTS header");
  const unsigned int header[kAdtsHeader] = {
      0xFF, 0xF1, 1U << 6 | kRateIndex << 2, 1U << 6 | size >> 11, size >> 3, (size & 7) << 5 | 0x1F, 0xFC};
  frame.insert(frame.begin(), kAdtsHeader, 0);
  std::transform(std::begin(header), std::end(header), frame.begin(),
                 [](unsigned int byte) { return static_cast<std::uint8_t>(byte & 0xFF); });
}

// ---------------------------------------------------------------------------------------------------------------------
// The file: four numbers of frames and sizes, then every frame behind its size
// ---------------------------------------------------------------------------------------------------------------------

void WriteNumber(std::ostream& out, std::size_t number) {
  const auto value = static_cast<std::uint32_t>(number);
  out.write(reinterpret_cast<const char*>(&value), sizeof(value));
}

std::size_t ReadNumber(std::istream& in) {
  std::uint32_t value = 0;
  in.read(reinterpret_cast<char*>(&value), sizeof(value));
  Require(in.good() && value < (1U << 24), "reading a clip");
  return value;
}

void WriteBytes(std::ostream& out, const Bytes& bytes) {
  WriteNumber(out, bytes.size());
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

Bytes ReadBytes(std::istream& in) {
  Bytes bytes(ReadNumber(in));
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  Require(in.good() && !bytes.empty(), "reading a clip");
  return bytes;
}

constexpr std::vector<Bytes> Clip::*kLists[] = {&Clip::video, &Clip::aac, &Clip::mulaw};

}  // namespace

std::vector<Bytes> EncodeSound(const SoundCoding& coding) {
  const FfPtr<AVCodecContext> ctx = NewEncoder(coding.encoder);
  ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_channel_layout_default(&ctx->ch_layout, coding.channels);
  ctx->sample_rate = coding.rate;
  ctx->sample_fmt = coding.format;
  ctx->bit_rate = coding.bitRate;
  Open(ctx.get(), coding.options);
  const FfPtr<AVFrame> frame = NewFrame([&](AVFrame& f) {
    f.format = coding.format;
    av_channel_layout_default(&f.ch_layout, coding.channels);
    f.sample_rate = coding.rate;
    f.nb_samples = coding.samples;
  });
  Noise noise(7);
  return Encode(ctx.get(), frame.get(), kClipSeconds * coding.rate / coding.samples, [&](int number) {
    frame->pts = std::int64_t{number} * coding.samples;
    DrawSound(*frame, noise);
  });
}

Clip MakeClip(const ClipShape& shape) {
  Clip clip;
  clip.width = shape.width;
  clip.height = shape.height;
  EncodeVideo(shape, clip);
  clip.aac = EncodeSound({"aac", AV_SAMPLE_FMT_FLTP, kAacRate, kAacSamples});
  std::for_each(clip.aac.begin(), clip.aac.end(), AddAdtsHeader);
  clip.mulaw = EncodeSound({"pcm_mulaw", AV_SAMPLE_FMT_S16, kMulawRate, kMulawSamples});
  Require(!clip.aac.empty() && !clip.mulaw.empty(), "encoding sound");
  return clip;
}

void SaveClip(const Clip& clip, const std::string& path) {
  std::ofstream out(path, std::ios::binary);
  WriteNumber(out, static_cast<std::size_t>(clip.width));
  WriteNumber(out, static_cast<std::size_t>(clip.height));
  WriteBytes(out, clip.parameterSets);
  for (const auto list : kLists) {
    WriteNumber(out, (clip.*list).size());
    for (const Bytes& frame : clip.*list) {
      WriteBytes(out, frame);
    }
  }
  out.close();
  Require(out.good(), "writing " + path);
}

Clip LoadClip(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  Clip clip;
  clip.width = static_cast<int>(ReadNumber(in));
  clip.height = static_cast<int>(ReadNumber(in));
  clip.parameterSets = ReadBytes(in);
  for (const auto list : kLists) {
    const std::size_t count = ReadNumber(in);
    Require(count > 0, "reading " + path);
    for (std::size_t i = 0; i < count; ++i) {
      (clip.*list).push_back(ReadBytes(in));
    }
  }
  return clip;
}

}  // namespace bench
