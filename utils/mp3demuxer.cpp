#include "utils/mp3demuxer.h"

#include <unistd.h>

#include <algorithm>
#include <climits>

#include "platform/time.h"
#include "utils/audioutil.h"
#include "utils/internal/inputfile.h"
#include "utils/internal/log.h"

extern "C" {
#include <libavutil/mathematics.h>
}

using mediautil::FfPtr;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr long long kLongestSleep = 300000;  // microseconds

// Numbers that are not known are negative.
int ToInt(long long value) {
  return static_cast<int>(std::clamp<long long>(value, 0, INT_MAX));
}

}  // namespace

DemuxMp3::DemuxMp3() {
  LockAVCodecRegister();
}

DemuxMp3::~DemuxMp3() {
  Close();
}

void DemuxMp3::Close() {
  LockAVCodecFreeContext(m_pCodecCtx);
  avformat_close_input(&m_pInputCtx);
  m_totalTime = 0;
  m_lastDelivery = 0;
  m_correction = 0;
  m_frameRate = 1.0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is fixed
int DemuxMp3::Open(std::string path, ESFormat& fmt) {
  Close();
  AVFormatContext* opened = nullptr;
  const bool isOpen = mediautil::OpenInput(path, opened) >= 0;
  mediautil::InputPtr input(opened);
  VY_FAIL_IF(!isOpen, -1, LOG_LEVEL_ERR, "Could not open source file %s.\n", path.c_str());
  VY_FAIL_IF(avformat_find_stream_info(input.get(), nullptr) < 0, -1, LOG_LEVEL_ERR, "Failed to get stream info.\n");
  const int index = mediautil::FindAudioStream(input.get());
  VY_FAIL_IF(index < 0, -1, LOG_LEVEL_ERR, "Could not find any audio stream in the file.\n");
  const AVStream& stream = *input->streams[index];
  FfPtr<AVCodecContext> ctx = mediautil::NewDecoderContext(stream);
  VY_FAIL_IF(ctx == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc codec context.\n");
  const AVCodec* decoder = avcodec_find_decoder(ctx->codec_id);
  VY_FAIL_IF(decoder == nullptr, -1, LOG_LEVEL_ERR, "Failed to find decoder with codec %d.\n",
             static_cast<int>(ctx->codec_id));
  VY_FAIL_IF(LockAVCodecOpen(ctx.get(), decoder, nullptr) < 0, -1, LOG_LEVEL_ERR, "Failed to open codec.\n");

  m_totalTime = std::max(mediautil::PlayingTime(stream), 0LL);
  m_frameRate = static_cast<double>(ctx->sample_rate) / ctx->frame_size;
  VY_LOG(LOG_LEVEL_ERR, "Duration: %d, Fps: %f\n", ToInt(USecToSec(m_totalTime)), m_frameRate);
  const AVRational frameTime = {ctx->frame_size, ctx->sample_rate};
  VY_LOG(LOG_LEVEL_ERR, "Total frame: %d\n",
         ToInt(av_rescale_q_rnd(stream.duration, stream.time_base, frameTime, AV_ROUND_ZERO)));
  m_pInputCtx = input.release();
  m_pCodecCtx = ctx.release();
  fmt.Reset(ES_UNKNOWN);
  fmt = GetAdoFmt(m_pCodecCtx);
  return 0;
}

int DemuxMp3::Demux(AudioDataHandler* handler) {
  const FfPtr<AVPacket> packet(av_packet_alloc());
  const FfPtr<AVFrame> frame(av_frame_alloc());
  VY_FAIL_IF(packet == nullptr || frame == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc frame.\n");
  bool isStopped = false;
  const auto deliver = [this, handler, &isStopped](AVFrame& decoded) {
    isStopped = handler != nullptr && Process(handler, &decoded) != 0;
    return !isStopped;
  };
  while (m_pInputCtx != nullptr && av_read_frame(m_pInputCtx, packet.get()) >= 0) {
    const int ret = mediautil::DecodePacket(m_pCodecCtx, *packet, frame.get(), deliver);
    av_packet_unref(packet.get());
    if (isStopped) {
      return -1;
    }
    if (ret < 0) {
      VY_LOG(LOG_LEVEL_ERR, "Failed to decode. Codec[%d]\n", static_cast<int>(m_pCodecCtx->codec_id));
    }
  }
  return 0;
}

int DemuxMp3::Process(AudioDataHandler* handler, AVFrame* frame) {
  DoFramePtsSleep();
  return handler == nullptr ? 1 : handler->OnAudioFrame(frame);
}

void DemuxMp3::DoFramePtsSleep() {
  // No rate, no wait: 0 / 0 has no integer.
  const auto interval = m_frameRate > 0 ? static_cast<long long>(1 / m_frameRate * 1000000) : 0LL;
  for (long long wait = interval - m_correction; wait > 0; wait -= kLongestSleep) {
    usleep(static_cast<useconds_t>(std::min(wait, kLongestSleep)));
  }
  const long long now = GetMonotonicTimestamp();
  if (m_lastDelivery > 0) {
    m_correction += (now - m_lastDelivery - interval) / 2;
  }
  m_lastDelivery = now;
}
