#include "utils/audiomixer.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include "utils/internal/ffcompat.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/filterchain.h"
#include "utils/internal/inputfile.h"
#include "utils/internal/log.h"
#include "utils/internal/mixerinput.h"
#include "utils/internal/soundformat.h"
#include "utils/internal/wholefile.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/common.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

using mediautil::FfPtr;
using mediautil::InputPtr;
using mediautil::SoundFormat;
using mediautil::SoundShape;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

// How far an input may be behind the furthest one, and what it is padded with then.
constexpr int kToleranceMs = 500;
constexpr int kSilenceMs = 10;
constexpr std::int64_t kSilencePtsStep = 10000;  // whatever the time base
constexpr int kFlushToleranceMs = -100;          // this far beyond the flushed input
constexpr int kMaxPaddingSeconds = 600;

constexpr std::size_t kMaxMixedPackets = 1500;  // that wait
constexpr int kMaxChannels = 2;
constexpr int kCountLimit = 1 << 30;  // samples

static_assert(AudioMixer::FmtCodecCtx::kNoPts == AV_NOPTS_VALUE, "no time stamp");

}  // namespace

AudioMixer::AudioMixer() : m_pFrame(av_frame_alloc()) {
  LockAVCodecRegister();
  LockAVFilterRegister();
}

AudioMixer::~AudioMixer() {
  CloseOutput();
  for (Input& in : m_inputs) {
    VY_LOG(LOG_LEVEL_ERR, "Samples on input %ld (%d Hz, samples=%d, ttime=%f)\n",
           static_cast<long>(&in - m_inputs.data()), in.shape.rate, in.samples, in.Seconds());
    in.Free();
  }
  av_frame_free(&m_pFrame);
}

// ---------------------------------------------------------------------------------------------------------------------
// Inputs
// ---------------------------------------------------------------------------------------------------------------------

namespace {

int OpenDecoder(const AVCodecParameters& par, AVRational timeBase, FfPtr<AVCodecContext>& opened) {
  const AVCodec* decoder = avcodec_find_decoder(par.codec_id);
  VY_FAIL_IF(decoder == nullptr, -1, LOG_LEVEL_ERR, "Could not find input codec[%d]\n", static_cast<int>(par.codec_id));
  FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(decoder));
  VY_FAIL_IF(ctx == nullptr, AVERROR(ENOMEM), LOG_LEVEL_ERR, "Could not alloc memory for input codec context\n");
  int ret = avcodec_parameters_to_context(ctx.get(), &par);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Can't copy codecpar values to input codec context error[%s]\n",
             GetFfmpegErr(ret).c_str());
  ctx->pkt_timebase = timeBase;
  ret = LockAVCodecOpen(ctx.get(), decoder, nullptr);
  // A decoder opens for sound that the graph cannot take, and for other media.
  const SoundShape shape = mediautil::ShapeOf(*ctx);
  const bool isMixable = mediautil::IsPlausible(shape) && shape.layout.order == AV_CHANNEL_ORDER_NATIVE;
  ret = ret >= 0 && !isMixable ? AVERROR(EINVAL) : ret;
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not open input codec error[%s]\n", GetFfmpegErr(ret).c_str());
  opened = std::move(ctx);
  return 0;
}

int OpenInputFile(const std::string& path, InputPtr& opened) {
  AVFormatContext* input = nullptr;
  int ret = mediautil::OpenInput(path, input);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not open input file[%s] error[%s]\n", path.c_str(),
             GetFfmpegErr(ret).c_str());
  opened.reset(input);
  ret = avformat_find_stream_info(input, nullptr);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not open find stream info error[%s]\n", GetFfmpegErr(ret).c_str());
  return 0;
}

// The only audio stream; the others are not read.
int PickAudioStream(const AVFormatContext& input, const AVStream*& picked) {
  int found = 0;
  for (unsigned int i = 0; i < input.nb_streams; ++i) {
    if (input.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
      picked = input.streams[i];
      ++found;
    } else {
      input.streams[i]->discard = AVDISCARD_ALL;
    }
  }
  VY_FAIL_IF(found > 1, -1, LOG_LEVEL_ERR, "Expected one audio input stream, but found %d\n", found);
  VY_FAIL_IF(found < 1, -1, LOG_LEVEL_ERR, "File input has no stream audio\n");
  return 0;
}

}  // namespace

int AudioMixer::AddInput(const std::string& path) try {
  VY_FAIL_IF(m_pGraph != nullptr, -1, LOG_LEVEL_ERR, "Output is already set\n");
  InputPtr file;
  FfPtr<AVCodecContext> decoder;
  Input in;
  int ret = OpenInputFile(path, file);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Failed to open fromat contex [%s]\n", path.c_str());
  const AVStream* st = nullptr;
  ret = PickAudioStream(*file, st);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Failed to pick audio stream [%s]\n", path.c_str());
  ret = OpenDecoder(*st->codecpar, st->time_base, decoder);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Failed to open codec context [%s]\n", path.c_str());
  in.shape = mediautil::ShapeOf(*decoder);
  in.file = mediautil::FileOf(path);
  m_inputs.push_back(std::move(in));
  m_inputs.back().codecCtx = decoder.release();
  m_inputs.back().fmtCtx = file.release();
  return static_cast<int>(m_inputs.size()) - 1;
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

int AudioMixer::AddStream(const AVCodecParameters* par) try {
  VY_FAIL_IF(m_pGraph != nullptr, -1, LOG_LEVEL_ERR, "Output is already set\n");
  FfPtr<AVCodecContext> decoder;
  const int ret = par == nullptr ? -1 : OpenDecoder(*par, {0, 1}, decoder);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Failed to open codec context\n");
  Input in;
  in.shape = mediautil::ShapeOf(*decoder);
  m_inputs.push_back(std::move(in));
  m_inputs.back().codecCtx = decoder.release();
  char text[256];
  avcodec_string(text, sizeof(text), m_inputs.back().codecCtx, 0);
  av_log(nullptr, AV_LOG_INFO, "Input #%zu, stream:\n", m_inputs.size() - 1);
  av_log(nullptr, AV_LOG_INFO, "    Stream #0:0: %s\n", text);
  return static_cast<int>(m_inputs.size()) - 1;
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

int AudioMixer::PushPkt(unsigned idx, AVPacket* pkt) {
  VY_FAIL_IF(idx >= m_inputs.size(), -1, LOG_LEVEL_ERR, "Invalid input id %zu\n", std::size_t{idx});
  Input& in = m_inputs[idx];
  VY_FAIL_IF(!in.IsStream(), -1, LOG_LEVEL_ERR, "Input[%zu] is not a stream\n", std::size_t{idx});
  if (in.isEndQueued) {
    VY_LOG(LOG_LEVEL_DEBUG, "Input[%zu] has ended, packet dropped\n", std::size_t{idx});
    av_packet_free(&pkt);
    return 0;
  }
  try {
    if (!in.Queue(pkt)) {
      VY_LOG(LOG_LEVEL_WARN, "Too many packets wait on input[%zu], the oldest are dropped\n", std::size_t{idx});
    }
  } catch (const std::bad_alloc&) {
    return -1;
  }
  if (in.padded && pkt != nullptr) {
    AutoBalanceInput(idx, *Furthest(), kToleranceMs);
    in.padded = false;
  }
  return 0;
}

void AudioMixer::FlushStream(unsigned idx) {
  VY_FAIL_IF(idx >= m_inputs.size(), , LOG_LEVEL_ERR, "Invalid input id %zu\n", std::size_t{idx});
  for (unsigned j = 0; j < m_inputs.size(); ++j) {
    if (m_inputs[j].srcCtx != nullptr && m_inputs[j].HasWaiting()) {
      ReadInput(j);  // what was pushed is no gap
    }
  }
  Input& in = m_inputs[idx];
  VY_LOG(LOG_LEVEL_ERR, "Samples on input %ld (%d Hz, samples=%d, ttime=%f)\n", static_cast<long>(idx), in.shape.rate,
         in.samples, in.Seconds());
  if (!in.hasNewSound) {
    return;  // two streams that are flushed in turn would push each other on for ever
  }
  in.hasNewSound = false;
  for (unsigned j = 0; j < m_inputs.size(); ++j) {
    if (m_inputs[j].isBacklogged) {
      in.hasNewSound = true;  // once more when that has been read
    } else if (j != idx) {
      AutoBalanceInput(j, in, kFlushToleranceMs);
    }
  }
  KeepCountsSmall();
}

// ---------------------------------------------------------------------------------------------------------------------
// Graph: every input's source, their sum, its level, the sink
// ---------------------------------------------------------------------------------------------------------------------

namespace {

int AddFilter(AVFilterGraph* graph, const char* kind, const std::string& name, const char* arguments,
              AVFilterContext*& filter) {
  const AVFilter* found = avfilter_get_by_name(kind);
  VY_FAIL_IF(found == nullptr, -1, LOG_LEVEL_ERR, "Cannot find %s filter\n", kind);
  const int ret = avfilter_graph_create_filter(&filter, found, name.c_str(), arguments, nullptr, graph);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Cannot create %s filter\n", kind);
  return 0;
}

}  // namespace

int AudioMixer::InitFilter(AVCodecContext* outCtx) try {
  VY_FAIL_IF(m_pGraph != nullptr, -1, LOG_LEVEL_ERR, "Output is already set\n");
  if (outCtx == nullptr || m_inputs.empty() || m_pFrame == nullptr) {
    return m_pFrame == nullptr ? AVERROR(ENOMEM) : -1;
  }
  m_pGraph = mediautil::MakeGraph().release();
  VY_FAIL_IF(m_pGraph == nullptr, AVERROR(ENOMEM), LOG_LEVEL_ERR, "Unable to create filter graph.\n");
  int ret = BuildGraph(*outCtx);
  if (ret >= 0) {
    ret = avfilter_graph_config(m_pGraph, nullptr);
    if (ret < 0) {
      VY_LOG(LOG_LEVEL_ERR, "Error while configuring graph : %s\n", GetFfmpegErr(ret).c_str());
    }
  }
  if (ret < 0) {
    FreeGraph();
    return ret;
  }
  char* dump = avfilter_graph_dump(m_pGraph, nullptr);
  VY_LOG(LOG_LEVEL_ERR, "Graph :\n%s\n", dump == nullptr ? "" : dump);
  av_free(dump);
  return 0;
} catch (const std::bad_alloc&) {
  FreeGraph();
  return AVERROR(ENOMEM);
}

int AudioMixer::BuildGraph(const AVCodecContext& outCtx) {
  for (unsigned i = 0; i < m_inputs.size(); ++i) {
    if (const int ret = AddSource(i); ret < 0) {
      return ret;
    }
  }
  // An input that ends must never make the others fade.
  const std::string count = std::to_string(m_inputs.size());
  const std::string mixing = "inputs=" + count + ":dropout_transition=" + std::to_string(INT_MAX);
  int ret = AddFilter(m_pGraph, "amix", "amix", mixing.c_str(), m_pMix);
  // The mixing filter divides by the number of inputs.
  ret = ret < 0 ? ret : AddFilter(m_pGraph, "volume", "volume", ("volume=" + count).c_str(), m_pVolume);
  ret = ret < 0 ? ret : AddSink(outCtx);
  return ret < 0 ? ret : LinkFilters(outCtx);
}

int AudioMixer::AddSource(unsigned idx) {
  Input& in = m_inputs[idx];
  char arguments[128];
  std::snprintf(arguments, sizeof(arguments), "sample_rate=%d:sample_fmt=%s:channel_layout=0x%llx", in.shape.rate,
                av_get_sample_fmt_name(in.shape.format), static_cast<unsigned long long>(in.shape.layout.u.mask));
  return AddFilter(m_pGraph, "abuffer", "src" + std::to_string(idx), arguments, in.srcCtx);
}

int AudioMixer::AddSink(const AVCodecContext& outCtx) {
  const AVFilter* kind = avfilter_get_by_name("abuffersink");
  m_pSink = kind == nullptr ? nullptr : avfilter_graph_alloc_filter(m_pGraph, kind, "sink");
  VY_FAIL_IF(m_pSink == nullptr, AVERROR(ENOMEM), LOG_LEVEL_ERR, "Could not allocate the abuffersink instance\n");
  int ret = mediautil::RestrictSink(m_pSink, outCtx);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could set options to the abuffersink instance.\n");
  ret = avfilter_init_str(m_pSink, nullptr);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not initialize the abuffersink instance.\n");
  return 0;
}

int AudioMixer::LinkFilters(const AVCodecContext& outCtx) {
  const SoundShape out = mediautil::ShapeOf(outCtx);
  int ret = 0;
  for (unsigned i = 0; i < m_inputs.size() && ret >= 0; ++i) {
    const SoundShape& in = m_inputs[i].shape;
    AVFilterContext* last = m_inputs[i].srcCtx;
    // The mixing filter may take over the rate and channels of any input that it gets as it is.
    if (in.rate != out.rate || av_channel_layout_compare(&in.layout, &out.layout) != 0) {
      char arguments[128];
      std::snprintf(arguments, sizeof(arguments), "sample_rates=%d:channel_layouts=0x%llx", out.rate,
                    static_cast<unsigned long long>(out.layout.u.mask));
      AVFilterContext* format = nullptr;
      ret = AddFilter(m_pGraph, "aformat", "format" + std::to_string(i), arguments, format);
      ret = ret < 0 ? ret : avfilter_link(last, 0, format, 0);
      last = format;
    }
    ret = ret < 0 ? ret : avfilter_link(last, 0, m_pMix, i);
  }
  ret = ret < 0 ? ret : avfilter_link(m_pMix, 0, m_pVolume, 0);
  ret = ret < 0 ? ret : avfilter_link(m_pVolume, 0, m_pSink, 0);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Error connecting filters\n");
  return 0;
}

void AudioMixer::FreeGraph() {
  avfilter_graph_free(&m_pGraph);
  m_pMix = nullptr;
  m_pVolume = nullptr;
  m_pSink = nullptr;
  for (Input& in : m_inputs) {
    in.srcCtx = nullptr;
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// From the inputs into the graph
// ---------------------------------------------------------------------------------------------------------------------

int AudioMixer::ReadDecodeFrame(AVFrame* frame, FmtCodecCtx& in, int& gotFrame, bool& finished) {
  gotFrame = 0;
  finished = false;
  if (frame == nullptr || in.codecCtx == nullptr) {
    return -1;
  }
  const bool isStream = in.fmtCtx == nullptr;
  int ret = avcodec_receive_frame(in.codecCtx, frame);  // the packet before may hold more
  if (ret == AVERROR(EAGAIN)) {
    if (isStream && in.pktQueue.empty()) {
      return 0;
    }
    FfPtr<AVPacket> packet;
    const int read = isStream ? 0 : mediautil::ReadSoundPacket(in.fmtCtx, packet);
    if (isStream) {
      packet = mediautil::TakeFirst(in.pktQueue);
      finished = packet == nullptr;
    }
    // An empty packet would end the decoder's stream, as null does.
    if (read >= 0 && (packet == nullptr || packet->size < 1)) {
      return 0;
    }
    ret = avcodec_send_packet(in.codecCtx, packet.get());  // a file ends where it cannot be read on
    VY_FAIL_IF(read < 0 && read != AVERROR_EOF, read, LOG_LEVEL_ERR, "Could not read frame error[%s]\n",
               GetFfmpegErr(read).c_str());
    ret = ret < 0 ? ret : avcodec_receive_frame(in.codecCtx, frame);
  }
  if (ret == AVERROR_EOF && isStream) {
    avcodec_flush_buffers(in.codecCtx);  // a stream goes on up to its end marker
  }
  finished = ret == AVERROR_EOF && !isStream;
  if (ret == AVERROR_EOF || ret == AVERROR(EAGAIN)) {
    return 0;
  }
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not decode frame error[%s]\n", GetFfmpegErr(ret).c_str());
  gotFrame = 1;
  return 0;
}

// The graph is only told of the end when it asks for more: the mixing filter drops what it still holds of its first
// input when that ends.
int AudioMixer::PushFilterSource(unsigned idx, bool& finished) {
  finished = false;
  VY_FAIL_IF(idx >= m_inputs.size(), -1, LOG_LEVEL_ERR, "Invalid input id %zu\n", std::size_t{idx});
  Input& in = m_inputs[idx];
  const mediautil::ScopeExit mark([&in] { in.isBacklogged = in.HasWaiting(); });
  const int enough = av_sat_add32(in.samples, in.IsStream() ? in.PassSamples(in.shape.rate) : 1);
  while (!in.isAtEnd && in.samples < enough) {
    const mediautil::ScopeExit clear([this] { av_frame_unref(m_pFrame); });
    int gotFrame = in.rest == nullptr ? 0 : 1;
    if (gotFrame != 0) {
      av_frame_move_ref(m_pFrame, in.rest.get());
      in.rest.reset();
    } else if (const int ret = ReadDecodeFrame(m_pFrame, in, gotFrame, in.isAtEnd); ret < 0) {
      return ret;
    }
    if (gotFrame == 0 && !in.isAtEnd && in.IsStream() && in.pktQueue.empty()) {
      VY_LOG(LOG_LEVEL_ERR, "Input %ld has no streaming frame, skip\n", static_cast<long>(idx));
      return 0;
    }
    if (gotFrame != 0) {
      const int fed = in.Feed(m_pFrame);
      VY_FAIL_IF(fed < 0, fed, LOG_LEVEL_ERR, "Error while feeding the audio filtergraph\n");
      LogFed(idx, m_pFrame->nb_samples);
      in.hasNewSound = true;
    }
  }
  finished = in.isAtEnd;
  if (finished && in.IsAsked()) {
    VY_LOG(LOG_LEVEL_ERR, "Input %ld finished, write nullptr frame\n", static_cast<long>(idx));
    in.isEnded = true;
    const int ended = av_buffersrc_add_frame_flags(in.srcCtx, nullptr, AV_BUFFERSRC_FLAG_PUSH);
    VY_FAIL_IF(ended < 0, ended, LOG_LEVEL_ERR, "Error while feeding the audio filtergraph\n");
  }
  return 0;
}

void AudioMixer::LogFed(unsigned idx, int samples) const {
  const Input& in = m_inputs[idx];
  VY_LOG(LOG_LEVEL_ERR, "Add %d samples on input %ld (%d Hz, time=%f, ttime=%f)\n", samples, static_cast<long>(idx),
         in.shape.rate, static_cast<double>(samples) / in.shape.rate, in.Seconds());
}

AVFrame* AudioMixer::CreateSilentFrame(unsigned idx, int ms) {
  if (idx >= m_inputs.size()) {
    return nullptr;
  }
  const SoundShape& shape = m_inputs[idx].shape;
  const double samples = static_cast<double>(shape.rate) * ms / 1000;
  if (samples < 1 || samples > INT_MAX) {
    return nullptr;
  }
  FfPtr<AVFrame> frame = mediautil::MakeSoundFrame(shape, static_cast<int>(samples));
  if (frame != nullptr) {
    av_samples_set_silence(frame->extended_data, 0, frame->nb_samples, shape.layout.nb_channels, shape.format);
  }
  return frame.release();
}

void AudioMixer::AutoBalanceInput(unsigned idx, double expectSec, double toleranceSec) {
  VY_FAIL_IF(idx >= m_inputs.size(), , LOG_LEVEL_ERR, "Invalid input id %zu\n", std::size_t{idx});
  // Seconds are not exact: a thousandth of a sample is none.
  const double needed = std::ceil((expectSec - toleranceSec) * m_inputs[idx].shape.rate - 1e-3);
  AutoBalanceInput(idx, expectSec, toleranceSec,
                   needed > 0 ? static_cast<std::int64_t>(std::min<double>(needed, INT_MAX)) : 0);
}

// needed: with so many samples the input is no more behind than tolerated.
void AudioMixer::AutoBalanceInput(unsigned idx, double expectSec, double toleranceSec, std::int64_t needed) {
  Input& in = m_inputs[idx];
  needed = std::min<std::int64_t>(needed, av_sat_add32(in.samples, kMaxPaddingSeconds * in.shape.rate));
  bool finished = false;
  while (!in.IsStream() && in.srcCtx != nullptr && !in.isAtEnd && in.samples < needed) {
    PushFilterSource(idx, finished);
  }
  if (!in.IsStream() || in.isAtEnd || in.samples >= needed) {
    return;
  }
  in.padded = true;
  VY_LOG(LOG_LEVEL_ERR, "Detect frame drop from ExpectSec[%f]TorranceSec[%f], push silent frame to input [%zu][%f]\n",
         expectSec, toleranceSec, std::size_t{idx}, in.Seconds());
  const FfPtr<AVFrame> silence(CreateSilentFrame(idx, kSilenceMs));
  VY_FAIL_IF(silence == nullptr, , LOG_LEVEL_ERR, "Failed to create silent frame\n");
  while (in.samples < needed) {
    if (in.lastPts != AV_NOPTS_VALUE) {
      silence->pts = av_sat_add64(in.lastPts, kSilencePtsStep);
    }
    VY_FAIL_IF(in.Feed(silence.get()) < 0, , LOG_LEVEL_ERR, "Error while feeding the audio filtergraph\n");
    LogFed(idx, silence->nb_samples);
  }
}

void AudioMixer::AutoBalanceInput(unsigned idx, const Input& leader, int toleranceMs) {
  AutoBalanceInput(idx, leader.Seconds(), toleranceMs / 1000.0, m_inputs[idx].SamplesBehind(leader, toleranceMs));
}

void AudioMixer::DoAutoBalance() {
  const Input* leader = Furthest();
  for (unsigned i = 0; i < m_inputs.size(); ++i) {
    if (!m_inputs[i].isBacklogged) {
      AutoBalanceInput(i, *leader, m_inputs[i].IsStream() ? kToleranceMs : 0);
    }
  }
  KeepCountsSmall();
}

// The furthest stream. Only without any the files count: what is read of them ahead, a frame can be seconds, does not
// make a stream late. Null without inputs.
const AudioMixer::Input* AudioMixer::Furthest() const {
  const Input* furthest = nullptr;
  for (const Input& in : m_inputs) {
    const bool isFirst = furthest == nullptr || (in.IsStream() && !furthest->IsStream());
    if (isFirst || (in.IsStream() == furthest->IsStream() && in.IsBeyond(*furthest))) {
      furthest = &in;
    }
  }
  return furthest;
}

// The counts are ints, which 48 kHz fill in half a day. Only their differences matter: all open inputs give up the same
// whole seconds.
void AudioMixer::KeepCountsSmall() {
  std::int64_t seconds = INT_MAX;
  bool isLarge = false;
  for (const Input& in : m_inputs) {
    seconds = in.isEnded ? seconds : std::min<std::int64_t>(seconds, in.samples / in.shape.rate);
    isLarge = isLarge || in.samples > kCountLimit;
  }
  for (Input& in : m_inputs) {
    if (isLarge) {
      in.samples = static_cast<int>(std::max<std::int64_t>(in.samples - seconds * in.shape.rate, 0));
    }
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// Output
// ---------------------------------------------------------------------------------------------------------------------

int AudioMixer::SetOutput(const std::string& path) try {
  VY_FAIL_IF(m_pGraph != nullptr, -1, LOG_LEVEL_ERR, "Output is already set\n");
  VY_FAIL_IF(m_inputs.size() < 2, -1, LOG_LEVEL_ERR, "Need at least 2 inputs\n");
  const SoundFormat* format = path.empty() ? &mediautil::kRawAac : mediautil::FindSoundFormat(path);
  VY_FAIL_IF(format == nullptr, -1, LOG_LEVEL_ERR, "Unknown output format [%s]\n", path.c_str());
  int ret = OpenEncoder(*format);
  ret = ret < 0 ? ret : InitFilter(m_out.codecCtx);
  if (ret >= 0 && m_out.codecCtx->frame_size > 0) {
    av_buffersink_set_frame_size(m_pSink, static_cast<unsigned>(m_out.codecCtx->frame_size));
  }
  ret = ret < 0 || path.empty() ? ret : OpenFile(*format, path);
  if (ret < 0) {
    CloseOutput();
  }
  return ret;
} catch (const std::bad_alloc&) {
  CloseOutput();
  return AVERROR(ENOMEM);
}

bool AudioMixer::IsOutputName(const std::string& path) {
  return mediautil::FindSoundFormat(path) != nullptr;
}

int AudioMixer::OpenEncoder(const SoundFormat& format) {
  int rate = 0;
  int channels = 1;
  for (const Input& in : m_inputs) {
    rate = std::max(rate, in.shape.rate);
    channels = std::max(channels, std::min(in.shape.layout.nb_channels, kMaxChannels));
  }
  m_out.codecCtx = mediautil::MakeEncoder(format, rate, channels).release();
  VY_FAIL_IF(m_out.codecCtx == nullptr, -1, LOG_LEVEL_ERR, "Could not find output codec[%d]\n",
             static_cast<int>(format.codec));
  const int ret = LockAVCodecOpen(m_out.codecCtx, m_out.codecCtx->codec, nullptr);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not open output codec error[%s]\n", GetFfmpegErr(ret).c_str());
  return 0;
}

int AudioMixer::OpenFile(const SoundFormat& format, const std::string& path) {
  m_file = std::make_unique<mediautil::WholeFile>();
  int ret = CheckFile(mediautil::FileName(path.c_str()));
  ret = ret < 0 ? ret : mediautil::MakeSoundFile(format, *m_out.codecCtx, path, m_out.fmtCtx);
  ret = ret < 0 ? ret : m_file->Open(m_out.fmtCtx, path);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not open output file[%s] error[%s]\n", path.c_str(),
             GetFfmpegErr(ret).c_str());
  AVDictionary* options = nullptr;
  av_dict_set(&options, "rf64", "auto", 0);  // WAV beyond 4 GiB
  ret = avformat_write_header(m_out.fmtCtx, &options);
  av_dict_free(&options);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not write output header error[%s]\n", GetFfmpegErr(ret).c_str());
  return 0;
}

// An input must not be overwritten, and what is no file, a FIFO or another protocol, may wait for ever.
int AudioMixer::CheckFile(const std::string& name) const {
  const mediautil::FileId file = mediautil::FileOf(name);
  const auto isSame = [&file](const Input& in) { return in.file == file; };
  const bool isInput = file.second != 0 && std::any_of(m_inputs.begin(), m_inputs.end(), isSame);
  const bool isFile = !name.empty() && mediautil::IsPlainFileOrNone(name);
  return isInput ? AVERROR(EBUSY) : isFile ? 0 : AVERROR(ENOTSUP);
}

void AudioMixer::CloseOutput() {
  DropFile();
  FreeGraph();
  m_out.Free();
}

void AudioMixer::DropFile() {
  if (m_file != nullptr) {
    m_file->Close(m_out.fmtCtx, false);
  }
}

int AudioMixer::ProcessInput() try {
  VY_FAIL_IF(m_out.codecCtx == nullptr, -1, LOG_LEVEL_ERR, "Output is not set\n");
  if (m_isFinished) {
    return m_error;
  }
  KeepLatestPackets();
  ReadInputs();
  DoAutoBalance();
  bool isAtEnd = false;
  m_error = PullFilterSink(isAtEnd);
  if (m_error >= 0 && isAtEnd) {
    m_error = CompleteOutput();
  }
  return Finish(isAtEnd);
} catch (const std::bad_alloc&) {
  m_error = AVERROR(ENOMEM);
  return Finish(true);
}

int AudioMixer::Finish(bool isAtEnd) {
  if (m_error < 0) {
    DropFile();
  }
  m_isFinished = isAtEnd || m_error < 0;
  return m_error;
}

void AudioMixer::KeepLatestPackets() {
  while (m_out.pktQueue.size() > kMaxMixedPackets) {
    if (!m_isOverrun) {
      VY_LOG(LOG_LEVEL_WARN, "Too many mixed packets wait, the oldest are dropped\n");
      m_isOverrun = true;
    }
    mediautil::TakeFirst(m_out.pktQueue);
  }
}

void AudioMixer::ReadInputs() {
  const auto isAsked = [](const Input& in) { return in.IsAsked(); };
  const bool isAnyAsked = std::any_of(m_inputs.begin(), m_inputs.end(), isAsked);
  for (unsigned i = 0; i < m_inputs.size(); ++i) {
    const Input& in = m_inputs[i];
    if (!in.isEnded && (in.IsStream() || !isAnyAsked || in.IsAsked())) {
      VY_LOG(LOG_LEVEL_ERR, "Need to read input %ld\n", static_cast<long>(i));
      ReadInput(i);
    }
  }
}

// Behind damaged packets of a stream there may be good ones.
void AudioMixer::ReadInput(unsigned idx) {
  const Input& in = m_inputs[idx];
  const int enough = av_sat_add32(in.samples, in.PassSamples(in.shape.rate));
  bool finished = false;
  while (PushFilterSource(idx, finished) < 0 && !in.pktQueue.empty() && in.samples < enough) {
  }
}

int AudioMixer::PullFilterSink(bool& finished) {
  finished = m_isFinished;
  if (m_pSink == nullptr || m_isFinished) {
    return m_pSink == nullptr ? -1 : m_error;
  }
  int ret = 0;
  bool isStuck = true;  // the graph neither gives nor wants anything, and there is nothing more to feed
  while ((ret = av_buffersink_get_frame(m_pSink, m_pFrame)) >= 0) {
    const mediautil::ScopeExit clear([this] { av_frame_unref(m_pFrame); });
    isStuck = false;
    m_pFrame->pts = m_mixedSamples;
    m_mixedSamples += m_pFrame->nb_samples;
    VY_LOG(LOG_LEVEL_ERR, "Remove %d samples from sink (%d Hz, time=%f, ttime=%f)\n", m_pFrame->nb_samples,
           m_pFrame->sample_rate, static_cast<double>(m_pFrame->nb_samples) / m_pFrame->sample_rate, MixedSeconds());
    if (const int written = EncodeWriteFrame(m_pFrame, m_out); written < 0) {
      return written;
    }
  }
  VY_FAIL_IF(ret != AVERROR(EAGAIN) && ret != AVERROR_EOF, ret, LOG_LEVEL_ERR,
             "Could not get frame from sink error[%s]\n", GetFfmpegErr(ret).c_str());
  for (const Input& in : m_inputs) {
    isStuck = isStuck && in.isAtEnd && !in.IsAsked();
  }
  finished = ret == AVERROR_EOF || isStuck;
  return 0;
}

int AudioMixer::EncodeWriteFrame(AVFrame* frame, FmtCodecCtx& out) {
  if (out.codecCtx == nullptr) {
    return -1;
  }
  const FfPtr<AVPacket> packet(av_packet_alloc());
  int written = packet == nullptr ? AVERROR(ENOMEM) : 0;
  bool gotPacket = false;
  const int ret =
      written < 0 ? written : mediautil::EncodeFrame(out.codecCtx, frame, packet.get(), gotPacket, [&](AVPacket* p) {
        written = WritePacket(p, out);
        return written >= 0;
      });
  VY_FAIL_IF(ret < 0 && ret != AVERROR_EOF, ret, LOG_LEVEL_ERR, "Could not encode frame error[%s]\n",
             GetFfmpegErr(ret).c_str());
  return written;
}

int AudioMixer::WritePacket(AVPacket* packet, FmtCodecCtx& out) try {
  if (out.fmtCtx == nullptr) {
    FfPtr<AVPacket> kept(av_packet_clone(packet));
    if (kept == nullptr) {
      return AVERROR(ENOMEM);
    }
    kept->time_base = out.codecCtx->time_base;
    out.pktQueue.push_back(kept.get());
    static_cast<void>(kept.release());
    return 0;
  }
  av_packet_rescale_ts(packet, out.codecCtx->time_base, out.fmtCtx->streams[0]->time_base);
  const int ret = av_interleaved_write_frame(out.fmtCtx, packet);
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not write frame error[%s]\n", GetFfmpegErr(ret).c_str());
  return 0;
} catch (const std::bad_alloc&) {
  return AVERROR(ENOMEM);
}

int AudioMixer::CompleteOutput() {
  int ret = EncodeWriteFrame(nullptr, m_out);
  if (ret < 0 || m_out.fmtCtx == nullptr) {
    return ret;
  }
  ret = av_write_trailer(m_out.fmtCtx);
  const int closed = m_file->Close(m_out.fmtCtx, ret >= 0);
  ret = ret < 0 ? ret : closed;
  VY_FAIL_IF(ret < 0, ret, LOG_LEVEL_ERR, "Could not complete output file error[%s]\n", GetFfmpegErr(ret).c_str());
  return 0;
}

int AudioMixer::PopMixed(std::list<AVPacket*>& out) {
  const int ret = ProcessInput();
  if (ret < 0) {
    return ret;
  }
  out.splice(out.end(), m_out.pktQueue);
  m_isOverrun = false;
  return 0;
}

int AudioMixer::WriteToFile() {
  VY_FAIL_IF(m_out.fmtCtx == nullptr, -1, LOG_LEVEL_ERR, "No output file is set\n");
  for (unsigned i = 0; i < m_inputs.size(); ++i) {
    if (m_inputs[i].IsStream() && !m_inputs[i].isEndQueued && PushPkt(i, nullptr) < 0) {
      return AVERROR(ENOMEM);
    }
  }
  while (!m_isFinished) {
    ProcessInput();
  }
  return m_error;
}

double AudioMixer::MixedSeconds() const {
  return m_out.codecCtx == nullptr ? 0 : static_cast<double>(m_mixedSamples) / m_out.codecCtx->sample_rate;
}
