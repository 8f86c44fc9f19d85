#include "utils/ffmpegadapter.h"

#include <climits>
#include <cstring>

#include "utils/internal/codectable.h"
#include "utils/internal/ffcompat.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/log.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

using mediautil::FfPtr;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

void FillVideo(AVCodecParameters& par, const ESFormat& fmt) {
  par.codec_type = AVMEDIA_TYPE_VIDEO;
  par.width = static_cast<int>(fmt.video.i_width);
  par.height = static_cast<int>(fmt.video.i_height);
  par.sample_aspect_ratio = {static_cast<int>(fmt.video.i_sar_num), static_cast<int>(fmt.video.i_sar_den)};
  par.bit_rate = static_cast<std::uint32_t>(fmt.i_bitrate);  // widened without its sign
}

void FillAudio(AVCodecParameters& par, const ESFormat& fmt) {
  par.codec_type = AVMEDIA_TYPE_AUDIO;
  av_channel_layout_default(&par.ch_layout, fmt.audio.i_channels);
  par.sample_rate = static_cast<int>(fmt.audio.i_rate);
  par.bit_rate = fmt.i_bitrate;
  par.bits_per_coded_sample = mediautil::BitsPerCodedSample(fmt.i_codec, fmt.i_bitrate);
}

}  // namespace

AVCodecParameters* FFmpegAdapter::AllocCodecParameters(ESFormat& fmt, bool bG726LE) {
  FfPtr<AVCodecParameters> par(avcodec_parameters_alloc());
  VY_FAIL_IF(par == nullptr, nullptr, LOG_LEVEL_ERR, "Failed to alloc codec parameters\n\n");
  FillAdoFmtIDByCodec(fmt, bG726LE);
  par->codec_id = static_cast<AVCodecID>(fmt.i_codec_id);
  if (fmt.i_cat == ES_VIDEO) {
    FillVideo(*par, fmt);
  } else if (fmt.i_cat == ES_AUDIO) {
    FillAudio(*par, fmt);
  } else {
    VY_LOG(LOG_LEVEL_ERR, "Unknown codec type %d\n\n", fmt.i_cat);
    return nullptr;
  }
  par->extradata = mediautil::CopyPadded(fmt.p_extra, fmt.i_extra);
  par->extradata_size = par->extradata == nullptr ? 0 : fmt.i_extra;
  return par.release();
}

AVCodecParameters* FFmpegAdapter::AudioOutCodecParameters() {
  AVCodecParameters* par = avcodec_parameters_alloc();
  if (par == nullptr) {
    return nullptr;
  }
  par->codec_type = AVMEDIA_TYPE_AUDIO;
  par->codec_id = AV_CODEC_ID_PCM_MULAW;
  par->format = AV_SAMPLE_FMT_S16;
  par->sample_rate = 8000;
  av_channel_layout_default(&par->ch_layout, 2);  // stereo, whatever is played
  par->bits_per_coded_sample = 8;
  return par;
}

AVPacket* FFmpegAdapter::AllocPktCpBuf(const std::uint8_t* data, unsigned int size) {
  const bool isUsable = size <= INT_MAX - AV_INPUT_BUFFER_PADDING_SIZE && (data != nullptr || size == 0);
  auto* buffer = static_cast<std::uint8_t*>(
      isUsable ? av_mallocz(static_cast<std::size_t>(size) + AV_INPUT_BUFFER_PADDING_SIZE) : nullptr);
  FfPtr<AVPacket> packet(av_packet_alloc());
  if (buffer == nullptr || packet == nullptr) {
    VY_LOG(LOG_LEVEL_ERR, "Failed to alloc pkt & buffer\n\n");
    av_free(buffer);
    return nullptr;
  }
  if (size > 0) {
    std::memcpy(buffer, data, size);
  }
  if (av_packet_from_data(packet.get(), buffer, static_cast<int>(size)) < 0) {
    VY_LOG(LOG_LEVEL_ERR, "Failed to assign data to pkt\n\n");
    av_free(buffer);
    return nullptr;
  }
  return packet.release();
}
