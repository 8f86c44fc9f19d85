#include "bench/containerfloor.h"

#include <algorithm>
#include <cstring>

#include "bench/require.h"
#include "bench/soundfloor.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

using mediautil::FfPtr;

namespace bench {
namespace {

constexpr int kMp3Rate = 32000;
constexpr int kVideoIndex = 0;
constexpr int kSoundIndex = 1;

// ---------------------------------------------------------------------------------------------------------------------
// Muxing
// ---------------------------------------------------------------------------------------------------------------------

class Mp4 {
 public:
  explicit Mp4(Sink& sink) : m_hasFragments(true) {
    Alloc();
    OpenSink(*m_ctx, sink);
  }
  explicit Mp4(const std::string& path) : m_hasFragments(false) {
    Alloc();
    Require(avio_open(&m_ctx->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0, "avio_open");
  }
  ~Mp4() {
    if (m_hasFragments) {
      CloseSink(*m_ctx);
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
    Lend(m_packet.get(), At(clip.video, i));
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
  FloorTranscoder transcoder(AV_CODEC_ID_PCM_MULAW, kMulawRate, {"libmp3lame", AV_SAMPLE_FMT_S16P, kMp3Rate, 32000});
  mp4.AddVideo(clip.clip);
  mp4.AddEncoded(&transcoder.Encoder());
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
