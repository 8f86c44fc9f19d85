#include "utils/ffmpegdemuxer.h"

#include <algorithm>
#include <climits>
#include <cstdint>

#include "utils/internal/ffcompat.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/log.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

using mediautil::FfPtr;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr unsigned int kDefaultRate = 16000;  // of a stream that does not tell

int ClampBitRate(std::int64_t bitRate) {
  return static_cast<int>(std::clamp<std::int64_t>(bitRate, 0, INT_MAX));
}

void CopyExtra(const unsigned char* extradata, int size, ESFormat& fmt) {
  fmt.p_extra = mediautil::CopyPadded(extradata, size);
  fmt.i_extra = fmt.p_extra == nullptr ? 0 : size;
}

void DescribeAudio(const AVCodecParameters& par, ESFormat& afmt) {
  afmt.Reset(ES_AUDIO);
  afmt.i_codec_id = par.codec_id;
  afmt.audio.i_channels = static_cast<std::uint8_t>(std::clamp(par.ch_layout.nb_channels, 1, UINT8_MAX));
  afmt.audio.i_rate = par.sample_rate < 1 ? kDefaultRate : static_cast<unsigned int>(par.sample_rate);
  afmt.i_bitrate = ClampBitRate(par.bit_rate);
  if (par.codec_id == AV_CODEC_ID_AAC) {
    afmt.str_codec = "MPEG4-GENERIC";
    afmt.i_codec = EsFourCC("mp4a");
  }
  CopyExtra(par.extradata, par.extradata_size, afmt);
}

void DescribeVideo(const AVCodecContext& ctx, ESFormat& vfmt) {
  vfmt.Reset(ES_VIDEO);
  vfmt.video.i_width = static_cast<unsigned int>(ctx.width);
  vfmt.video.i_height = static_cast<unsigned int>(ctx.height);
  vfmt.i_codec_id = ctx.codec_id;
  vfmt.i_bitrate = ClampBitRate(ctx.bit_rate);
  if (ctx.codec_id == AV_CODEC_ID_H264) {
    vfmt.str_codec = "H264";
    vfmt.i_codec = EsFourCC("h264");
  }
  CopyExtra(ctx.extradata, ctx.extradata_size, vfmt);
}

}  // namespace

FFmpegDemux::FFmpegDemux() {
  LockAVCodecRegister();
}

FFmpegDemux::~FFmpegDemux() {
  Close();
}

void FFmpegDemux::Close() {
  LockAVCodecFreeContext(m_pVdoCodecCtx);
  avformat_close_input(&m_pInputCtx);
  m_vdoStreamIdx = -1;
  m_adoStreamIdx = -1;
}

int FFmpegDemux::Open(const std::string& path, ESFormat& vfmt, ESFormat& afmt) {
  Close();
  const int ret = avformat_open_input(&m_pInputCtx, path.c_str(), nullptr, nullptr);
  VY_FAIL_IF(ret < 0, 2, LOG_LEVEL_ERR, "Could not open source file %s. Ret:%d\n", path.c_str(), ret);
  VY_FAIL_IF(avformat_find_stream_info(m_pInputCtx, nullptr) < 0, 3, LOG_LEVEL_ERR,
             "Could not find stream information.\n");
  for (unsigned int i = 0; i < m_pInputCtx->nb_streams; ++i) {
    const AVCodecParameters& par = *m_pInputCtx->streams[i]->codecpar;
    if (par.codec_type == AVMEDIA_TYPE_VIDEO) {
      m_vdoStreamIdx = static_cast<int>(i);
      VY_FAIL_IF(!InitVideoFormat(vfmt), 3, LOG_LEVEL_ERR, "Could not init video stream in the file.\n");
    } else if (par.codec_type == AVMEDIA_TYPE_AUDIO) {
      m_adoStreamIdx = static_cast<int>(i);
      DescribeAudio(par, afmt);
    }
  }
  return 0;
}

bool FFmpegDemux::InitVideoFormat(ESFormat& vfmt) {
  const AVStream* st = GetVdoStream();
  FfPtr<AVCodecContext> ctx(st == nullptr ? nullptr : avcodec_alloc_context3(nullptr));
  VY_FAIL_IF(ctx == nullptr || avcodec_parameters_to_context(ctx.get(), st->codecpar) < 0, false, LOG_LEVEL_ERR,
             "Failed to get codec.\n");
  const AVCodec* decoder = avcodec_find_decoder(ctx->codec_id);
  VY_FAIL_IF(decoder == nullptr, false, LOG_LEVEL_ERR, "Failed to find decoder with codec %d.\n",
             static_cast<int>(ctx->codec_id));
  VY_FAIL_IF(LockAVCodecOpen(ctx.get(), decoder, nullptr) < 0, false, LOG_LEVEL_ERR, "Failed to open video codec.\n");
  LockAVCodecFreeContext(m_pVdoCodecCtx);
  m_pVdoCodecCtx = ctx.release();
  DescribeVideo(*m_pVdoCodecCtx, vfmt);
  return true;
}

int FFmpegDemux::Demux(ESFormat& vfmt, ESFormat& afmt, void* opaque,
                       FETCH_CONN (*fetch)(void* opaque, ESFormat& fmt, AVPacket& pkt, AVStream* st)) {
  const FfPtr<AVPacket> packet(av_packet_alloc());
  AVStream* st = nullptr;
  while (packet != nullptr && fetch != nullptr && ReadFrame(st, *packet) >= 0) {
    FETCH_CONN answer = FETCH_CONN_NEXT;
    if (packet->stream_index == m_vdoStreamIdx) {
      answer = fetch(opaque, vfmt, *packet, st);
    } else if (packet->stream_index == m_adoStreamIdx) {
      answer = fetch(opaque, afmt, *packet, st);
    }
    if (answer != FETCH_CONN_NEXT) {
      return 1;
    }
  }
  return 0;
}

int FFmpegDemux::ReadFrame(AVStream*& st, AVPacket& pkt) {
  av_packet_unref(&pkt);
  if (m_pInputCtx == nullptr) {
    return AVERROR(EINVAL);
  }
  const int ret = av_read_frame(m_pInputCtx, &pkt);
  if (ret >= 0) {
    st = m_pInputCtx->streams[pkt.stream_index];
  }
  return ret;
}

void FFmpegDemux::Seek(long long ts, int flags) {
  const AVStream* st = GetVdoStream();
  if (st == nullptr || st->time_base.num == 0) {
    return;
  }
  // Whole seconds first; unsigned, so that absurd times wrap instead of overflowing.
  const auto target =
      static_cast<std::uint64_t>(ts / st->time_base.num) * static_cast<std::uint64_t>(st->time_base.den);
  av_seek_frame(m_pInputCtx, m_vdoStreamIdx, static_cast<std::int64_t>(target), flags);
}

AVStream* FFmpegDemux::GetVdoStream() {
  return m_pInputCtx == nullptr || m_vdoStreamIdx < 0 ? nullptr : m_pInputCtx->streams[m_vdoStreamIdx];
}

long long AvPacketPtsToRealPts(long long pts, AVRational& tb) {
  if (tb.den == 0) {
    return 0;
  }
  // Unsigned, so that a missing timestamp wraps instead of overflowing.
  const auto product = static_cast<unsigned long long>(pts) * 1000000ULL *
                       static_cast<unsigned long long>(static_cast<long long>(tb.num));
  return static_cast<long long>(product) / tb.den;
}
