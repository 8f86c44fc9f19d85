#include "bench/soundfloor.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include "bench/require.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

using mediautil::FfPtr;

namespace bench {
namespace {

constexpr AVChannelLayout kMono = AV_CHANNEL_LAYOUT_MONO;
constexpr AVChannelLayout kStereo = AV_CHANNEL_LAYOUT_STEREO;

FfPtr<AVCodecContext> NewContext(const AVCodec* codec, AVSampleFormat format, int rate) {
  FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  Require(codec != nullptr && ctx != nullptr, "avcodec_alloc_context3");
  ctx->sample_fmt = format;
  ctx->sample_rate = rate;
  ctx->ch_layout = kMono;
  ctx->thread_count = 1;
  return ctx;
}

void Open(AVCodecContext* ctx) {
  Require(avcodec_open2(ctx, ctx->codec, nullptr) >= 0, "avcodec_open2");
}

FfPtr<SwrContext> NewResampler(AVChannelLayout outLayout, AVSampleFormat outFormat, int outRate,
                               AVChannelLayout inLayout, AVSampleFormat inFormat, int inRate) {
  SwrContext* swr = nullptr;
  const int ret = swr_alloc_set_opts2(&swr, &outLayout, outFormat, outRate, &inLayout, inFormat, inRate, 0, nullptr);
  FfPtr<SwrContext> owned(swr);
  Require(ret >= 0 && swr_init(swr) >= 0, "swr_init");
  return owned;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Encoders
// ---------------------------------------------------------------------------------------------------------------------

FloorTranscoder::FloorTranscoder(AVCodecID decoder, int rate, const FloorCoding& destination) {
  AVSampleFormat source = AV_SAMPLE_FMT_S16;
  if (decoder != AV_CODEC_ID_NONE) {
    m_decoder = NewContext(avcodec_find_decoder(decoder), AV_SAMPLE_FMT_S16, rate);
    Open(m_decoder.get());
    source = m_decoder->sample_fmt;
  }
  m_encoder = NewContext(avcodec_find_encoder_by_name(destination.encoder), destination.format, destination.rate);
  m_encoder->bit_rate = destination.bitRate;
  m_encoder->bits_per_coded_sample = destination.bits;
  m_encoder->flags |= m_encoder->codec_id == AV_CODEC_ID_MP3 ? AV_CODEC_FLAG_GLOBAL_HEADER : 0;
  Open(m_encoder.get());
  m_swr = NewResampler(kMono, destination.format, destination.rate, kMono, source, rate);
  m_frame->format = destination.format;
  m_frame->ch_layout = kMono;
  m_frame->sample_rate = destination.rate;
  m_frame->nb_samples = m_encoder->frame_size > 0 ? m_encoder->frame_size : kDefaultFrame;
  Require(av_frame_get_buffer(m_frame.get(), 0) >= 0, "av_frame_get_buffer");
  m_stride = static_cast<std::size_t>(av_get_bytes_per_sample(destination.format));
  m_samples.resize(kRoom * m_stride);
}

void FloorTranscoder::Feed(const SharedBytes& piece, const Write& write) {
  Lend(m_packet.get(), piece);
  Require(avcodec_send_packet(m_decoder.get(), m_packet.get()) >= 0 &&
              avcodec_receive_frame(m_decoder.get(), m_decoded.get()) >= 0,
          "decoding");
  av_packet_unref(m_packet.get());
  Feed(*m_decoded, write);
}

void FloorTranscoder::Feed(const AVFrame& samples, const Write& write) {
  std::uint8_t* out = m_samples.data() + static_cast<std::size_t>(m_waiting) * m_stride;
  const int converted = swr_convert(m_swr.get(), &out, kRoom - m_waiting,
                                    const_cast<const std::uint8_t**>(samples.extended_data), samples.nb_samples);
  Require(converted >= 0, "swr_convert");
  m_waiting += converted;
  std::size_t at = 0;
  const std::size_t frameBytes = static_cast<std::size_t>(m_frame->nb_samples) * m_stride;
  for (; m_waiting >= m_frame->nb_samples; m_waiting -= m_frame->nb_samples, at += frameBytes) {
    Require(av_frame_make_writable(m_frame.get()) >= 0, "av_frame_make_writable");
    std::memcpy(m_frame->data[0], &m_samples[at], frameBytes);
    Require(avcodec_send_frame(m_encoder.get(), m_frame.get()) >= 0, "avcodec_send_frame");
    while (avcodec_receive_packet(m_encoder.get(), m_packet.get()) >= 0) {
      write(m_packet.get());
      av_packet_unref(m_packet.get());
    }
  }
  std::memmove(m_samples.data(), &m_samples[at], static_cast<std::size_t>(m_waiting) * m_stride);
}

void FloorSpeak(const std::vector<SharedBytes>& pieces, int seconds, const FloorCoding& destination,
                const char* container, Sink& sink) {
  FloorTranscoder transcoder(AV_CODEC_ID_PCM_MULAW, kMulawRate, destination);
  AVFormatContext* output = nullptr;
  Require(avformat_alloc_output_context2(&output, nullptr, container, nullptr) >= 0, "avformat_alloc_output_context2");
  const auto release = [](AVFormatContext* p) {
    CloseSink(*p);
    avformat_free_context(p);
  };
  const std::unique_ptr<AVFormatContext, decltype(release)> owned(output, release);
  OpenSink(*output, sink);
  const AVStream* stream = avformat_new_stream(output, nullptr);
  Require(stream != nullptr && avcodec_parameters_from_context(stream->codecpar, &transcoder.Encoder()) >= 0 &&
              avformat_write_header(output, nullptr) >= 0,
          "avformat_write_header");
  const auto write = [output](AVPacket* packet) { Require(av_write_frame(output, packet) >= 0, "av_write_frame"); };
  for (std::int64_t i = 0; i * kMulawTime < seconds * kSecond; ++i) {
    transcoder.Feed(At(pieces, i), write);
  }
  Require(av_write_trailer(output) >= 0, "av_write_trailer");
}

// ---------------------------------------------------------------------------------------------------------------------
// G.711
// ---------------------------------------------------------------------------------------------------------------------

namespace {

using UlawTable = std::array<std::uint8_t, 1 << 14>;

// By the upper 14 bits of a sample: sign, segment and four bits of the biased magnitude, all inverted.
UlawTable MakeUlawTable() {
  UlawTable table = {};
  for (int i = 0; i < 1 << 14; ++i) {
    const bool isNegative = i >= 1 << 13;
    const int magnitude = std::min(isNegative ? (1 << 14) - i : i, 8158) + 33;
    int segment = 0;
    while (magnitude >> (segment + 6) != 0) {
      ++segment;
    }
    const int code = segment << 4 | (magnitude >> (segment + 1) & 0x0F);
    table[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(code ^ (isNegative ? 0x7F : 0xFF));
  }
  return table;
}

struct FileCloser {
  void operator()(FILE* p) const { std::fclose(p); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

void WriteHeader(FILE* file, std::uint32_t size) {
  const std::uint32_t riffSize = size + 36;
  std::uint8_t header[] = "RIFF....WAVEfmt \x10\0\0\0\x07\0\x02\0\x40\x1F\0\0\x80\x3E\0\0\x02\0\x08\0data....";
  std::memcpy(header + 4, &riffSize, 4);
  std::memcpy(header + 40, &size, 4);
  Require(std::fseek(file, 0, SEEK_SET) == 0 && std::fwrite(header, 44, 1, file) == 1, "writing the header");
}

}  // namespace

void FloorG711(const std::string& source, const std::string& destination) {
  static const UlawTable table = MakeUlawTable();
  AVFormatContext* opened = nullptr;
  Require(avformat_open_input(&opened, source.c_str(), nullptr, nullptr) >= 0, "avformat_open_input");
  const mediautil::InputPtr input(opened);
  Require(avformat_find_stream_info(opened, nullptr) >= 0, "avformat_find_stream_info");
  const AVCodecParameters& sound = *opened->streams[0]->codecpar;
  const FfPtr<AVCodecContext> decoder(avcodec_alloc_context3(avcodec_find_decoder(sound.codec_id)));
  Require(decoder != nullptr && avcodec_parameters_to_context(decoder.get(), &sound) >= 0, "describing the sound");
  Open(decoder.get());
  const FfPtr<SwrContext> swr =
      NewResampler(kStereo, AV_SAMPLE_FMT_S16, 8000, sound.ch_layout, decoder->sample_fmt, sound.sample_rate);

  const FilePtr file(std::fopen(destination.c_str(), "wb"));
  Require(file != nullptr, "fopen");
  WriteHeader(file.get(), 0);
  const FfPtr<AVPacket> packet(av_packet_alloc());
  const FfPtr<AVFrame> frame(av_frame_alloc());
  std::array<std::int16_t, 4096> samples = {};
  std::array<std::uint8_t, 4096> codes = {};
  std::uint32_t size = 0;
  while (av_read_frame(opened, packet.get()) >= 0) {
    Require(avcodec_send_packet(decoder.get(), packet.get()) >= 0, "decoding");
    av_packet_unref(packet.get());
    while (avcodec_receive_frame(decoder.get(), frame.get()) >= 0) {
      auto* out = reinterpret_cast<std::uint8_t*>(samples.data());
      const int converted = swr_convert(swr.get(), &out, static_cast<int>(samples.size() / 2),
                                        const_cast<const std::uint8_t**>(frame->extended_data), frame->nb_samples);
      Require(converted >= 0, "swr_convert");
      const auto count = static_cast<std::size_t>(converted) * 2;
      for (std::size_t i = 0; i < count; ++i) {
        codes[i] = table[static_cast<std::uint16_t>(samples[i]) >> 2];
      }
      Require(std::fwrite(codes.data(), 1, count, file.get()) == count, "writing");
      size += static_cast<std::uint32_t>(count);
    }
  }
  WriteHeader(file.get(), size);
}

FloorUlaw::FloorUlaw()
    : m_encoder(NewContext(avcodec_find_encoder(AV_CODEC_ID_PCM_MULAW), AV_SAMPLE_FMT_S16, 8000)),
      m_decoder(NewContext(avcodec_find_decoder(AV_CODEC_ID_PCM_MULAW), AV_SAMPLE_FMT_S16, 8000)) {
  Open(m_encoder.get());
  Open(m_decoder.get());
}

const AVPacket& FloorUlaw::Encode(const AVFrame& samples) {
  Require(avcodec_send_frame(m_encoder.get(), &samples) >= 0 &&
              avcodec_receive_packet(m_encoder.get(), m_packet.get()) >= 0,
          "encoding");
  return *m_packet;
}

const AVFrame& FloorUlaw::Decode(const SharedBytes& codes) {
  av_packet_unref(m_packet.get());
  Lend(m_packet.get(), codes);
  Require(avcodec_send_packet(m_decoder.get(), m_packet.get()) >= 0 &&
              avcodec_receive_frame(m_decoder.get(), m_frame.get()) >= 0,
          "decoding");
  return *m_frame;
}

}  // namespace bench
