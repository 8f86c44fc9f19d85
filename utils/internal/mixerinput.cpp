#include "utils/internal/mixerinput.h"

#include <algorithm>

#include "utils/internal/soundformat.h"

extern "C" {
#include <libavfilter/buffersrc.h>
#include <libavutil/common.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

void AudioMixer::FmtCodecCtx::Free() {
  for (AVPacket*& packet : pktQueue) {
    av_packet_free(&packet);
  }
  pktQueue.clear();
  LockAVCodecFreeContext(codecCtx);
  if (fmtCtx != nullptr && fmtCtx->iformat != nullptr) {
    avformat_close_input(&fmtCtx);
  } else if (fmtCtx != nullptr) {
    avio_closep(&fmtCtx->pb);
    LockAVFormatFreeContext(fmtCtx);
  }
  srcCtx = nullptr;  // the graph's
}

namespace mediautil {
namespace {

constexpr std::size_t kMaxPackets = 1500;
constexpr int kMaxQueuedBytes = 16 << 20;
constexpr int kMaxPassMs = 10000;
constexpr std::int64_t kMaxPassBytes = 64 << 20;

// Further ones can turn up while a file is read.
int FirstSound(const AVFormatContext& file) {
  unsigned int i = 0;
  while (i < file.nb_streams && file.streams[i]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) {
    ++i;
  }
  return static_cast<int>(i);
}

}  // namespace

int ReadSoundPacket(AVFormatContext* file, FfPtr<AVPacket>& packet) {
  packet.reset(av_packet_alloc());
  const int ret = packet == nullptr ? AVERROR(ENOMEM) : av_read_frame(file, packet.get());
  if (ret < 0 || packet->stream_index != FirstSound(*file)) {
    packet.reset();
  }
  return ret;
}

FfPtr<AVPacket> TakeFirst(std::list<AVPacket*>& queue) {
  FfPtr<AVPacket> packet(queue.front());
  queue.pop_front();
  return packet;
}

bool MixerInput::IsBeyond(const MixerInput& other) const {
  return std::int64_t{samples} * other.shape.rate > std::int64_t{other.samples} * shape.rate;
}

bool MixerInput::IsAsked() const {
  return srcCtx != nullptr && !isEnded && av_buffersrc_get_nb_failed_requests(srcCtx) > 0;
}

std::int64_t MixerInput::SamplesBehind(const MixerInput& leader, int milliseconds) const {
  const std::int64_t rate = leader.shape.rate;
  return av_rescale_rnd(std::int64_t{leader.samples} * 1000 - milliseconds * rate, shape.rate, rate * 1000,
                        AV_ROUND_UP);
}

int MixerInput::PassSamples(int passRate) const {
  const std::int64_t sampleBytes = std::int64_t{shape.layout.nb_channels} * av_get_bytes_per_sample(shape.format);
  const std::int64_t ms = std::min<std::int64_t>(kMaxPassMs, kMaxPassBytes * 1000 / (sampleBytes * shape.rate));
  return static_cast<int>(passRate * ms / 1000);
}

bool MixerInput::Queue(AVPacket* packet) {
  const bool wasEmpty = pktQueue.empty();
  pktQueue.push_back(packet);
  isEndQueued = packet == nullptr;
  std::int64_t bytes = 0;
  for (const AVPacket* waiting : pktQueue) {
    bytes += waiting == nullptr ? 0 : waiting->size;
  }
  isOverrun = isOverrun && !wasEmpty;
  const bool wasOverrun = isOverrun;
  while (pktQueue.size() > kMaxPackets || bytes > kMaxQueuedBytes) {
    bytes -= TakeFirst(pktQueue)->size;
    isOverrun = true;
  }
  return isOverrun == wasOverrun;
}

int MixerInput::Feed(AVFrame* frame) {
  const int most = PassSamples(frame->sample_rate);
  if (frame->nb_samples > most && most > 0) {
    rest = SplitFrame(frame, most);
  }
  SilenceWildSamples(frame);
  if (srcCtx == nullptr || !resampler.Fit(frame, shape)) {
    return -1;
  }
  if (frame->nb_samples < 1) {
    return 0;
  }
  // The frame stays the caller's. The graph runs at once: of frames that gather, the mixing filter takes one a pass.
  const int ret = av_buffersrc_add_frame_flags(srcCtx, frame, AV_BUFFERSRC_FLAG_KEEP_REF | AV_BUFFERSRC_FLAG_PUSH);
  if (ret >= 0) {
    samples = av_sat_add32(samples, frame->nb_samples);
    lastPts = frame->pts;
  }
  return ret;
}

}  // namespace mediautil
