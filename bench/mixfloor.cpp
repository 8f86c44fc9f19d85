#include "bench/mixfloor.h"

#include "bench/require.h"
#include "utils/internal/ffmpegptr.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

using mediautil::FfPtr;

namespace bench {
namespace {

constexpr int kRate = 44100;
constexpr int kSampleBytes = 4;  // of both channels

// The decoded sound of a file.
class Source {
 public:
  explicit Source(const std::string& path) {
    AVFormatContext* input = nullptr;
    const int ret = avformat_open_input(&input, path.c_str(), nullptr, nullptr);
    m_input.reset(input);
    Require(ret >= 0 && avformat_find_stream_info(input, nullptr) >= 0 && input->nb_streams == 1, "opening " + path);
    const AVStream* st = input->streams[0];
    const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
    m_decoder.reset(avcodec_alloc_context3(codec));
    Require(codec != nullptr && avcodec_parameters_to_context(m_decoder.get(), st->codecpar) >= 0,
            "describing " + path);
    m_decoder->pkt_timebase = st->time_base;
    Require(avcodec_open2(m_decoder.get(), codec, nullptr) >= 0, "opening the decoder of " + path);
  }

  const AVCodecContext& Decoder() const { return *m_decoder; }

  // False at the end.
  bool Next(AVFrame* frame) {
    int ret = 0;
    while ((ret = avcodec_receive_frame(m_decoder.get(), frame)) == AVERROR(EAGAIN)) {
      const bool isRead = av_read_frame(m_input.get(), m_packet.get()) >= 0;
      Require(avcodec_send_packet(m_decoder.get(), isRead ? m_packet.get() : nullptr) >= 0, "decoding");
      av_packet_unref(m_packet.get());
    }
    return ret >= 0;
  }

 private:
  mediautil::InputPtr m_input;
  FfPtr<AVCodecContext> m_decoder;
  FfPtr<AVPacket> m_packet{av_packet_alloc()};
};

class Graph {
 public:
  explicit Graph(const std::vector<Source>& sources) {
    m_graph->nb_threads = 1;
    std::string text;
    std::string pads;
    for (std::size_t i = 0; i < sources.size(); ++i) {
      const AVCodecContext& ctx = sources[i].Decoder();
      const std::string number = std::to_string(i);
      text += "abuffer@" + number + "=sample_rate=" + std::to_string(ctx.sample_rate) +
              ":sample_fmt=" + av_get_sample_fmt_name(ctx.sample_fmt) + ":channel_layout=stereo[" + number + "];";
      pads += "[" + number + "]";
    }
    const std::string count = std::to_string(sources.size());
    text += pads + "amix=inputs=" + count + ":dropout_transition=2147483647,volume=" + count +
            ",aformat=sample_fmts=s16:sample_rates=" + std::to_string(kRate) + ",abuffersink@sink";
    AVFilterInOut* in = nullptr;
    AVFilterInOut* out = nullptr;
    Require(avfilter_graph_parse2(m_graph.get(), text.c_str(), &in, &out) >= 0 &&
                avfilter_graph_config(m_graph.get(), nullptr) >= 0,
            "building the graph");
    for (std::size_t i = 0; i < sources.size(); ++i) {
      m_sources.push_back(Find("abuffer@" + std::to_string(i)));
    }
    m_sink = Find("abuffersink@sink");
  }

  // The next mixed frame, for which sources are read as the graph asks. False at the end.
  bool Next(std::vector<Source>& sources, AVFrame* frame) {
    int ret = 0;
    while ((ret = av_buffersink_get_frame(m_sink, frame)) == AVERROR(EAGAIN)) {
      for (std::size_t i = 0; i < sources.size(); ++i) {
        if (av_buffersrc_get_nb_failed_requests(m_sources[i]) > 0) {
          const bool isRead = sources[i].Next(m_frame.get());
          Require(av_buffersrc_add_frame(m_sources[i], isRead ? m_frame.get() : nullptr) >= 0, "feeding the graph");
        }
      }
    }
    return ret >= 0;
  }

 private:
  AVFilterContext* Find(const std::string& name) {
    AVFilterContext* filter = avfilter_graph_get_filter(m_graph.get(), name.c_str());
    Require(filter != nullptr, "finding " + name);
    return filter;
  }

  const FfPtr<AVFilterGraph> m_graph{avfilter_graph_alloc()};
  const FfPtr<AVFrame> m_frame{av_frame_alloc()};
  std::vector<AVFilterContext*> m_sources;
  AVFilterContext* m_sink = nullptr;
};

class Wav {
 public:
  explicit Wav(const std::string& path) {
    Require(avformat_alloc_output_context2(&m_ctx, nullptr, "wav", nullptr) >= 0, "making a WAV");
    AVCodecParameters* par = avformat_new_stream(m_ctx, nullptr)->codecpar;
    par->codec_type = AVMEDIA_TYPE_AUDIO;
    par->codec_id = AV_CODEC_ID_PCM_S16LE;
    par->sample_rate = kRate;
    par->bits_per_coded_sample = 16;
    par->ch_layout = AV_CHANNEL_LAYOUT_STEREO;
    par->block_align = kSampleBytes;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rf64", "auto", 0);
    const bool isBegun =
        avio_open(&m_ctx->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(m_ctx, &options) >= 0;
    av_dict_free(&options);
    Require(isBegun, "writing " + path);
  }
  ~Wav() {
    avio_closep(&m_ctx->pb);
    avformat_free_context(m_ctx);
  }
  Wav(const Wav&) = delete;
  Wav& operator=(const Wav&) = delete;

  void Write(const AVFrame& frame) {
    m_packet->buf = av_buffer_ref(frame.buf[0]);
    m_packet->data = frame.data[0];
    m_packet->size = frame.nb_samples * kSampleBytes;
    m_packet->pts = m_packet->dts = m_samples;
    m_samples += frame.nb_samples;
    Require(av_write_frame(m_ctx, m_packet.get()) >= 0, "writing sound");
    av_packet_unref(m_packet.get());
  }

  void End() { Require(av_write_trailer(m_ctx) == 0, "completing the WAV"); }

 private:
  AVFormatContext* m_ctx = nullptr;
  const FfPtr<AVPacket> m_packet{av_packet_alloc()};
  std::int64_t m_samples = 0;
};

}  // namespace

void FloorMix(const std::vector<std::string>& inputs, const std::string& output) {
  std::vector<Source> sources;
  for (const std::string& path : inputs) {
    sources.emplace_back(path);
  }
  Graph graph(sources);
  Wav wav(output);
  const FfPtr<AVFrame> frame(av_frame_alloc());
  while (graph.Next(sources, frame.get())) {
    wav.Write(*frame);
    av_frame_unref(frame.get());
  }
  wav.End();
}

}  // namespace bench
