#include "bench/containerfloor.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "utils/internal/ffcompat.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

using mediautil::FfPtr;

namespace bench {
namespace {

constexpr int kIoBuffer = 1 << 16;
constexpr int kMp3Rate = 32000;
constexpr int kVideoIndex = 0;
constexpr int kSoundIndex = 1;

void Require(bool ok, const char* step) {
  if (!ok) {
    throw std::runtime_error(std::string("floor: ") + step + " failed");
  }
}

SharedClip::Buffer Share(const Bytes& bytes) {
  const auto keep = [](void*, std::uint8_t*) {};
  SharedClip::Buffer buffer(
      av_buffer_create(const_cast<std::uint8_t*>(bytes.data()), bytes.size(), keep, nullptr, AV_BUFFER_FLAG_READONLY));
  Require(buffer != nullptr, "av_buffer_create");
  return buffer;
}

std::vector<SharedClip::Buffer> Share(const std::vector<Bytes>& frames) {
  std::vector<SharedClip::Buffer> shared;
  for (const Bytes& frame : frames) {
    shared.push_back(Share(frame));
  }
  return shared;
}

// Borrows a shared frame from byte skip on.
void Lend(AVPacket* packet, const SharedClip::Buffer& frame, int skip) {
  packet->buf = av_buffer_ref(frame.get());
  Require(packet->buf != nullptr, "av_buffer_ref");
  packet->data = frame->data + skip;
  packet->size = static_cast<int>(frame->size) - skip;
}

int OnBytes(void* sink, mediautil::IoBytes data, int size) {
  static_cast<Sink*>(sink)->Take(data, size);
  return size;
}

// ---------------------------------------------------------------------------------------------------------------------
// Muxing
// ---------------------------------------------------------------------------------------------------------------------

class Mp4 {
 public:
  explicit Mp4(Sink& sink) : m_hasFragments(true) {
    Alloc();
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBuffer));
    m_ctx->pb = avio_alloc_context(buffer, kIoBuffer, 1, &sink, nullptr, OnBytes, nullptr);
    Require(m_ctx->pb != nullptr, "avio_alloc_context");
  }
  explicit Mp4(const std::string& path) : m_hasFragments(false) {
    Alloc();
    Require(avio_open(&m_ctx->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0, "avio_open");
  }
  ~Mp4() {
    if (m_hasFragments && m_ctx->pb != nullptr) {
      av_freep(&m_ctx->pb->buffer);
      avio_context_free(&m_ctx->pb);
    }
    avio_closep(&m_ctx->pb);
    avformat_free_context(m_ctx);
  }
  Mp4(const Mp4&) = delete;
  Mp4& operator=(const Mp4&) = delete;

  void AddVideo(const Clip& clip) {
    AVStream* st = AddStream({1, static_cast<int>(kSecond)});
    st->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    st->codecpar->codec_id = AV_CODEC_ID_H264;
    st->codecpar->width = clip.width;
    st->codecpar->height = clip.height;
    st->codecpar->format = AV_PIX_FMT_YUV420P;
    SetExtra(st, clip.parameterSets.data(), clip.parameterSets.size());
  }

  void AddAac() {
    AVStream* st = AddStream({1, kAacRate});
    st->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    st->codecpar->codec_id = AV_CODEC_ID_AAC;
    st->codecpar->sample_rate = kAacRate;
    st->codecpar->frame_size = kAacSamples;
    st->codecpar->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    constexpr std::uint8_t kConfig[] = {0x14, 0x08};  // AAC LC, 16 kHz, mono
    SetExtra(st, kConfig, sizeof(kConfig));
  }

  void AddEncoded(const AVCodecContext* encoder) {
    AVStream* st = AddStream({1, kMp3Rate});
    Require(avcodec_parameters_from_context(st->codecpar, encoder) >= 0, "avcodec_parameters_from_context");
  }

  void Begin() {
    AVDictionary* options = nullptr;
    if (m_hasFragments) {
      av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof+skip_trailer", 0);
    }
    const int ret = avformat_write_header(m_ctx, &options);
    av_dict_free(&options);
    Require(ret >= 0, "avformat_write_header");
  }

  void WriteVideo(const SharedClip& clip, std::int64_t i) {
    Lend(m_packet.get(), At(clip.video, i), 0);
    m_packet->flags = IsKey(i) ? AV_PKT_FLAG_KEY : 0;
    Write(kVideoIndex, i * kFrameTime);
  }

  void WriteAac(const SharedClip& clip, std::int64_t i) {
    Lend(m_packet.get(), At(clip.aac, i), kAdtsHeader);
    m_packet->flags = AV_PKT_FLAG_KEY;
    Write(kSoundIndex, i * kAacSamples);
  }

  void WriteEncoded(AVPacket* packet) {
    packet->stream_index = kSoundIndex;
    Require(av_interleaved_write_frame(m_ctx, packet) >= 0, "av_interleaved_write_frame");
  }

  void End() {
    Require(av_write_trailer(m_ctx) == 0, "av_write_trailer");
    avio_flush(m_ctx->pb);
  }

 private:
  void Alloc() {
    Require(m_packet != nullptr && avformat_alloc_output_context2(&m_ctx, nullptr, "mp4", nullptr) >= 0,
            "avformat_alloc_output_context2");
  }

  AVStream* AddStream(AVRational timeBase) {
    AVStream* st = avformat_new_stream(m_ctx, nullptr);
    Require(st != nullptr, "avformat_new_stream");
    st->time_base = timeBase;
    return st;
  }

  static void SetExtra(AVStream* st, const std::uint8_t* data, std::size_t size) {
    st->codecpar->extradata = static_cast<std::uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    Require(st->codecpar->extradata != nullptr, "av_mallocz");
    std::memcpy(st->codecpar->extradata, data, size);
    st->codecpar->extradata_size = static_cast<int>(size);
  }

  // time: in the stream's time base.
  void Write(int index, std::int64_t time) {
    m_packet->stream_index = index;
    m_packet->pts = time;
    m_packet->dts = time;
    Require(av_interleaved_write_frame(m_ctx, m_packet.get()) >= 0, "av_interleaved_write_frame");
  }

  const bool m_hasFragments;
  const FfPtr<AVPacket> m_packet{av_packet_alloc()};
  AVFormatContext* m_ctx = nullptr;
};

void MuxCopy(Mp4& mp4, const SharedClip& clip, int seconds) {
  mp4.AddVideo(clip.clip);
  mp4.AddAac();
  mp4.Begin();
  Play(
      seconds, kAacTime, [&](std::int64_t i, std::int64_t) { mp4.WriteVideo(clip, i); },
      [&](std::int64_t i, std::int64_t) { mp4.WriteAac(clip, i); });
  mp4.End();
}

// G.711 to MP3, one whole encoder frame after the other.
class Transcoder {
 public:
  Transcoder() {
    Open(m_decoder, avcodec_find_decoder(AV_CODEC_ID_PCM_MULAW), AV_SAMPLE_FMT_S16, kMulawRate);
    Open(m_encoder, avcodec_find_encoder(AV_CODEC_ID_MP3), AV_SAMPLE_FMT_S16P, kMp3Rate);
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    SwrContext* swr = nullptr;
    const int ret = swr_alloc_set_opts2(&swr, &mono, AV_SAMPLE_FMT_S16P, kMp3Rate, &mono, AV_SAMPLE_FMT_S16, kMulawRate,
                                        0, nullptr);
    m_swr.reset(swr);
    Require(ret >= 0 && swr_init(swr) >= 0, "swr_init");
    m_frame->format = AV_SAMPLE_FMT_S16P;
    m_frame->ch_layout = mono;
    m_frame->sample_rate = kMp3Rate;
    m_frame->nb_samples = m_encoder->frame_size;
    Require(av_frame_get_buffer(m_frame.get(), 0) >= 0, "av_frame_get_buffer");
  }

  const AVCodecContext* Encoder() const { return m_encoder.get(); }

  template <typename Write>
  void Feed(const SharedClip::Buffer& piece, Write write) {
    Lend(m_packet.get(), piece, 0);
    Require(avcodec_send_packet(m_decoder.get(), m_packet.get()) >= 0 &&
                avcodec_receive_frame(m_decoder.get(), m_decoded.get()) >= 0,
            "decoding");
    av_packet_unref(m_packet.get());
    std::uint8_t* out = reinterpret_cast<std::uint8_t*>(m_samples + m_waiting);
    const int converted =
        swr_convert(m_swr.get(), &out, kRoom - m_waiting, const_cast<const std::uint8_t**>(m_decoded->extended_data),
                    m_decoded->nb_samples);
    Require(converted >= 0, "swr_convert");
    m_waiting += converted;
    while (m_waiting >= m_frame->nb_samples) {
      EncodeOne(write);
    }
  }

 private:
  static constexpr int kRoom = 8192;  // samples, far more than a piece and a frame

  static void Open(FfPtr<AVCodecContext>& ctx, const AVCodec* codec, AVSampleFormat format, int rate) {
    ctx.reset(avcodec_alloc_context3(codec));
    Require(codec != nullptr && ctx != nullptr, "avcodec_alloc_context3");
    ctx->sample_fmt = format;
    ctx->sample_rate = rate;
    ctx->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    ctx->bit_rate = 32000;
    ctx->thread_count = 1;
    ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    Require(avcodec_open2(ctx.get(), codec, nullptr) >= 0, "avcodec_open2");
  }

  template <typename Write>
  void EncodeOne(Write write) {
    const auto count = static_cast<std::size_t>(m_frame->nb_samples);
    Require(av_frame_make_writable(m_frame.get()) >= 0, "av_frame_make_writable");
    std::memcpy(m_frame->data[0], m_samples, count * sizeof(*m_samples));
    m_waiting -= m_frame->nb_samples;
    std::copy_n(m_samples + count, m_waiting, m_samples);
    Require(avcodec_send_frame(m_encoder.get(), m_frame.get()) >= 0, "avcodec_send_frame");
    while (avcodec_receive_packet(m_encoder.get(), m_packet.get()) >= 0) {
      write(m_packet.get());
    }
  }

  FfPtr<AVCodecContext> m_decoder;
  FfPtr<AVCodecContext> m_encoder;
  FfPtr<SwrContext> m_swr;
  const FfPtr<AVPacket> m_packet{av_packet_alloc()};
  const FfPtr<AVFrame> m_decoded{av_frame_alloc()};
  const FfPtr<AVFrame> m_frame{av_frame_alloc()};
  std::int16_t m_samples[kRoom] = {};
  int m_waiting = 0;
};

}  // namespace

SharedClip::SharedClip(const Clip& source)
    : clip(source), video(Share(source.video)), aac(Share(source.aac)), mulaw(Share(source.mulaw)) {}

void FloorMuxCopy(const SharedClip& clip, int seconds, Sink& sink) {
  Mp4 mp4(sink);
  MuxCopy(mp4, clip, seconds);
}

void FloorWriteFile(const SharedClip& clip, int seconds, const std::string& path) {
  Mp4 mp4(path);
  MuxCopy(mp4, clip, seconds);
}

void FloorMuxEncode(const SharedClip& clip, int seconds, Sink& sink) {
  Mp4 mp4(sink);
  Transcoder transcoder;
  mp4.AddVideo(clip.clip);
  mp4.AddEncoded(transcoder.Encoder());
  mp4.Begin();
  const auto write = [&mp4](AVPacket* packet) { mp4.WriteEncoded(packet); };
  Play(
      seconds, kMulawTime, [&](std::int64_t i, std::int64_t) { mp4.WriteVideo(clip, i); },
      [&](std::int64_t i, std::int64_t) { transcoder.Feed(At(clip.mulaw, i), write); });
  mp4.End();
}

FloorDemux::FloorDemux(const std::string& path, bool analyse) {
  AVFormatContext* input = nullptr;
  const int ret = avformat_open_input(&input, path.c_str(), nullptr, nullptr);
  m_input.reset(input);
  Require(ret >= 0, "avformat_open_input");
  Require(!analyse || avformat_find_stream_info(input, nullptr) >= 0, "avformat_find_stream_info");
  for (unsigned int i = 0; i < input->nb_streams; ++i) {
    const bool isVideo = input->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    (isVideo ? m_videoIndex : m_soundIndex) = static_cast<int>(i);
  }
}

void FloorDemux::Loop(Sink& sink) {
  Require(av_seek_frame(m_input.get(), m_videoIndex, 0, AVSEEK_FLAG_BACKWARD) >= 0, "av_seek_frame");
  const FfPtr<AVPacket> packet(av_packet_alloc());
  Require(packet != nullptr, "av_packet_alloc");
  while (av_read_frame(m_input.get(), packet.get()) >= 0) {
    if (packet->stream_index == m_videoIndex || packet->stream_index == m_soundIndex) {
      sink.TakePacket(*packet);
    }
    av_packet_unref(packet.get());
  }
}

}  // namespace bench
