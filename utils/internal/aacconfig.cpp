#include "utils/internal/aacconfig.h"

#include <algorithm>
#include <iterator>

#include "utils/internal/ffcompat.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

namespace mediautil {
namespace {

constexpr std::uint32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                    22050, 16000, 12000, 11025, 8000,  7350};
constexpr int kLowComplexity = 2;

}  // namespace

int AacRateIndex(std::uint32_t rate) {
  const auto* found = std::find(std::begin(kRates), std::end(kRates), rate);
  return found == std::end(kRates) ? -1 : static_cast<int>(found - std::begin(kRates));
}

int AacChannelConfig(int channels) {
  if (channels >= 1 && channels <= 6) {
    return channels;
  }
  return channels == 8 ? 7 : 0;
}

std::array<std::uint8_t, 2> AacSpecificConfig(int rateIndex, int channelConfig) {
  return {static_cast<std::uint8_t>(kLowComplexity << 3 | rateIndex >> 1),
          static_cast<std::uint8_t>((rateIndex & 1) << 7 | channelConfig << 3)};
}

bool FillAacParameters(AVCodecParameters& par, int rate, int channels, std::int64_t bitRate) {
  const auto config = AacSpecificConfig(AacRateIndex(static_cast<std::uint32_t>(rate)), AacChannelConfig(channels));
  av_freep(&par.extradata);
  par.extradata = CopyPadded(config.data(), static_cast<int>(config.size()));
  par.extradata_size = par.extradata == nullptr ? 0 : static_cast<int>(config.size());
  par.codec_type = AVMEDIA_TYPE_AUDIO;
  par.codec_id = AV_CODEC_ID_AAC;
  par.sample_rate = rate;
  par.bit_rate = bitRate;
  par.frame_size = 1024;  // without it every packet that carries no time would get the time 0
  av_channel_layout_uninit(&par.ch_layout);
  av_channel_layout_default(&par.ch_layout, channels);
  return par.extradata != nullptr;
}

}  // namespace mediautil
