#include "utils/internal/soundformat.h"

#include <algorithm>
#include <cmath>
#include <iterator>

extern "C" {
#include <libavutil/avstring.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace mediautil {
namespace {

constexpr SoundFormat kFormats[] = {{".mp3", "mp3", AV_CODEC_ID_MP3, AV_SAMPLE_FMT_S16P},
                                    {".wav", "wav", AV_CODEC_ID_PCM_S16LE, AV_SAMPLE_FMT_S16},
                                    {".aac", "adts", AV_CODEC_ID_AAC, AV_SAMPLE_FMT_FLTP},
                                    {".m4a", "ipod", AV_CODEC_ID_AAC, AV_SAMPLE_FMT_FLTP},
                                    {".mp4", "mp4", AV_CODEC_ID_AAC, AV_SAMPLE_FMT_FLTP}};

// What both MP3 and AAC have.
constexpr int kCompressedRates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};

constexpr int kBitRate = 64000;  // of one channel

constexpr int kWild = 1000;  // 60 dB over full scale

int EncoderRate(AVCodecID codec, int rate) {
  const int* last = std::end(kCompressedRates) - 1;
  return codec == AV_CODEC_ID_PCM_S16LE ? rate : *std::lower_bound(std::begin(kCompressedRates), last, rate);
}

template <typename Sample>
bool IsWild(Sample sample) {
  return !(std::fabs(sample) <= kWild);
}

// Of one plane of the frame. The search has no way out, so that it takes several samples at a time.
template <typename Sample>
void SilencePlane(AVFrame* frame, int plane, int count) {
  const auto* samples = reinterpret_cast<const Sample*>(frame->extended_data[plane]);
  int wild = 0;
  for (int i = 0; i < count; ++i) {
    wild |= IsWild(samples[i]) ? 1 : 0;
  }
  if (wild != 0 && av_frame_make_writable(frame) >= 0) {
    auto* writable = reinterpret_cast<Sample*>(frame->extended_data[plane]);
    std::replace_if(writable, writable + count, IsWild<Sample>, Sample{0});
  }
}

}  // namespace

const SoundFormat* FindSoundFormat(const std::string& path) {
  const std::size_t dot = path.rfind('.');
  const char* extension = dot == std::string::npos ? "" : path.c_str() + dot;
  const auto* found = std::find_if(std::begin(kFormats), std::end(kFormats), [&](const SoundFormat& format) {
    return av_strcasecmp(format.extension, extension) == 0;
  });
  return found == std::end(kFormats) ? nullptr : found;
}

FfPtr<AVCodecContext> MakeEncoder(const SoundFormat& format, int rate, int channels) {
  const AVCodec* encoder = avcodec_find_encoder(format.codec);
  FfPtr<AVCodecContext> ctx(encoder == nullptr ? nullptr : avcodec_alloc_context3(encoder));
  if (ctx != nullptr) {
    ctx->sample_rate = EncoderRate(format.codec, rate);
    ctx->sample_fmt = format.sampleFormat;
    ctx->bit_rate = std::int64_t{kBitRate} * channels;
    ctx->time_base = {1, ctx->sample_rate};
    ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_channel_layout_default(&ctx->ch_layout, channels);
  }
  return ctx;
}

int MakeSoundFile(const SoundFormat& format, const AVCodecContext& encoder, const std::string& path,
                  AVFormatContext*& oc) {
  int ret = avformat_alloc_output_context2(&oc, nullptr, format.container, path.c_str());
  AVStream* st = ret < 0 ? nullptr : avformat_new_stream(oc, nullptr);
  ret = ret >= 0 && st == nullptr ? AVERROR(ENOMEM) : ret;
  ret = ret < 0 ? ret : avcodec_parameters_from_context(st->codecpar, &encoder);
  if (ret < 0) {
    LockAVFormatFreeContext(oc);
    return ret;
  }
  st->time_base = encoder.time_base;
  return 0;
}

void SilenceWildSamples(AVFrame* frame) {
  const auto format = static_cast<AVSampleFormat>(frame->format);
  const AVSampleFormat packed = av_get_packed_sample_fmt(format);
  const int channels = frame->ch_layout.nb_channels;
  const bool isPlanar = av_sample_fmt_is_planar(format) != 0;
  const int count = isPlanar ? frame->nb_samples : frame->nb_samples * channels;
  for (int plane = 0; plane < (isPlanar ? channels : 1); ++plane) {
    if (packed == AV_SAMPLE_FMT_FLT) {
      SilencePlane<float>(frame, plane, count);
    } else if (packed == AV_SAMPLE_FMT_DBL) {
      SilencePlane<double>(frame, plane, count);
    }
  }
}

}  // namespace mediautil
