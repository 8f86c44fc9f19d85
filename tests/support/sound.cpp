#include "tests/support/sound.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "utils/internal/aacconfig.h"
#include "utils/internal/ffcompat.h"
#include "utils/internal/resampler.h"

extern "C" {
#include <libavutil/opt.h>
}

using mediautil::FfPtr;

namespace {

FfPtr<AVCodecContext> OpenEncoder(const SoundWish& wish) {
  const AVCodec* codec = avcodec_find_encoder_by_name(wish.encoder);
  Require(codec != nullptr, wish.encoder);
  FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  ctx->sample_rate = wish.rate;
  av_channel_layout_default(&ctx->ch_layout, wish.channels);
  ctx->sample_fmt = mediautil::ChooseSampleFormat(codec, AV_SAMPLE_FMT_FLTP);
  ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (wish.bitRate > 0) {
    ctx->bit_rate = wish.bitRate;
    ctx->bits_per_coded_sample = wish.bitRate / wish.rate;
  }
  Require(avcodec_open2(ctx.get(), codec, nullptr) >= 0, "open encoder");
  return ctx;
}

}  // namespace

Samples Tone(int rate, double seconds, double frequency, double amplitude) {
  Samples tone(static_cast<std::size_t>(rate * seconds));
  for (std::size_t i = 0; i < tone.size(); ++i) {
    tone[i] = static_cast<float>(amplitude * std::sin(2 * M_PI * frequency * static_cast<double>(i) / rate));
  }
  return tone;
}

double LevelAt(const Samples& sound, int rate, double frequency) {
  const std::size_t begin = sound.size() / 4;
  const std::size_t count = sound.size() / 2;
  double re = 0;
  double im = 0;
  double weight = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const double window = 0.5 - 0.5 * std::cos(2 * M_PI * static_cast<double>(i) / static_cast<double>(count));
    const double phase = 2 * M_PI * frequency * static_cast<double>(i) / rate;
    re += static_cast<double>(sound[begin + i]) * window * std::cos(phase);
    im += static_cast<double>(sound[begin + i]) * window * std::sin(phase);
    weight += window;
  }
  return weight > 0 ? 2 * std::hypot(re, im) / weight : 0;
}

double LevelIn(const Samples& sound, int rate, double from, double to, double frequency) {
  const auto at = [&](double seconds) {
    return sound.data() + std::min(static_cast<std::size_t>(std::lround(seconds * rate)), sound.size());
  };
  return LevelAt(Samples(at(from), at(to)), rate, frequency);
}

SoundClip EncodeTone(const SoundWish& wish) {
  const FfPtr<AVCodecContext> ctx = OpenEncoder(wish);
  SoundClip clip;
  clip.codecId = ctx->codec_id;
  clip.rate = wish.rate;
  clip.channels = wish.channels;
  if (ctx->extradata_size > 0) {
    clip.extradata.assign(ctx->extradata, ctx->extradata + ctx->extradata_size);
  }
  const Samples tone = Tone(wish.rate, wish.seconds, wish.frequency, wish.amplitude);
  const int step = ctx->frame_size > 0 ? ctx->frame_size : wish.rate / 50;
  const FfPtr<AVPacket> packet(av_packet_alloc());
  const auto keep = [&clip](const AVPacket* coded) {
    clip.packets.emplace_back(coded->data, coded->data + coded->size);
    return true;
  };
  bool gotPacket = false;
  for (std::size_t at = 0; at < tone.size(); at += static_cast<std::size_t>(step)) {
    const int count = std::min(step, static_cast<int>(tone.size() - at));
    const FfPtr<AVFrame> frame = SoundFrame(ctx->sample_fmt, wish.rate, wish.channels, tone, at, count);
    Require(mediautil::EncodeFrame(ctx.get(), frame.get(), packet.get(), gotPacket, keep) >= 0, "encode");
  }
  mediautil::EncodeFrame(ctx.get(), nullptr, packet.get(), gotPacket, keep);
  return clip;
}

FfPtr<AVCodecParameters> ParametersOf(const SoundClip& clip) {
  FfPtr<AVCodecParameters> par = NewParameters(AVMEDIA_TYPE_AUDIO, clip.codecId, clip.extradata);
  par->sample_rate = clip.rate;
  av_channel_layout_default(&par->ch_layout, clip.channels);
  return par;
}

std::string WriteFile(const std::vector<SoundClip>& clips, const std::string& path) {
  AVFormatContext* oc = nullptr;
  Require(avformat_alloc_output_context2(&oc, nullptr, nullptr, path.c_str()) >= 0, path);
  for (const SoundClip& clip : clips) {
    avcodec_parameters_copy(avformat_new_stream(oc, nullptr)->codecpar, ParametersOf(clip).get());
  }
  Require(avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(oc, nullptr) >= 0, path);
  for (unsigned int i = 0; i < clips.size(); ++i) {
    std::int64_t at = 0;
    for (const Bytes& data : clips[i].packets) {
      const FfPtr<AVPacket> packet(MakePacket(data));
      packet->stream_index = static_cast<int>(i);
      packet->duration = av_get_audio_frame_duration2(oc->streams[i]->codecpar, packet->size);
      packet->pts = packet->dts = at;
      at += packet->duration;
      av_packet_rescale_ts(packet.get(), {1, clips[i].rate}, oc->streams[i]->time_base);
      Require(av_interleaved_write_frame(oc, packet.get()) >= 0, path);
    }
  }
  Require(av_write_trailer(oc) >= 0, path);
  avio_closep(&oc->pb);
  avformat_free_context(oc);
  return path;
}

Bytes WithAdts(const Bytes& raw, int rate, int channels) {
  const auto index = static_cast<std::uint64_t>(mediautil::AacRateIndex(static_cast<std::uint32_t>(rate)));
  const auto config = static_cast<std::uint64_t>(mediautil::AacChannelConfig(channels));
  const std::uint64_t size = raw.size() + 7;
  return Joined({BigEndian(0xFFF1ULL << 40 | 1ULL << 38 | index << 34 | config << 30 | size << 13 | 0x1FFC, 7), raw});
}

FfPtr<AVFrame> SoundFrame(AVSampleFormat format, int rate, int channels, const Samples& sound, std::size_t from,
                          int count) {
  FfPtr<AVFrame> frames[2];
  for (FfPtr<AVFrame>& frame : frames) {
    frame.reset(av_frame_alloc());
    frame->format = &frame == frames ? AV_SAMPLE_FMT_FLTP : format;
    frame->sample_rate = rate;
    frame->nb_samples = count;
    av_channel_layout_default(&frame->ch_layout, channels);
    Require(av_frame_get_buffer(frame.get(), 0) >= 0, "sound buffer");
  }
  for (int channel = 0; channel < channels; ++channel) {
    std::memcpy(frames[0]->extended_data[channel], &sound.at(from), static_cast<std::size_t>(count) * sizeof(float));
  }
  mediautil::Resampler resampler;
  Require(resampler.SetUp(mediautil::ShapeOf(*frames[0]), mediautil::ShapeOf(*frames[1])), "resampler");
  Require(resampler.Convert(frames[1]->extended_data, count, *frames[0]) == count, "convert");
  return std::move(frames[1]);
}

void AppendSamples(const AVFrame* frame, Samples& sound, std::size_t channel) {
  mediautil::SoundShape shape = mediautil::ShapeOf(*frame);
  shape.format = AV_SAMPLE_FMT_FLTP;
  mediautil::Resampler resampler;
  Require(resampler.SetUp(mediautil::ShapeOf(*frame), shape), "resampler");
  std::vector<Samples> channels(static_cast<std::size_t>(frame->ch_layout.nb_channels),
                                Samples(static_cast<std::size_t>(frame->nb_samples)));
  std::vector<unsigned char*> planes;
  for (Samples& plane : channels) planes.push_back(reinterpret_cast<unsigned char*>(plane.data()));
  Require(resampler.Convert(planes.data(), frame->nb_samples, *frame) == frame->nb_samples, "convert");
  sound.insert(sound.end(), channels.at(channel).begin(), channels.at(channel).end());
}

void SaveTone(const std::string& path, const std::string& options, double seconds, double frequency) {
  const std::string wave = "0.5*sin(2*PI*" + std::to_string(frequency) + "*t)";
  const std::string source = "aevalsrc=" + wave + "|" + wave + ":s=48000:d=" + std::to_string(seconds);
  const std::string command = "ffmpeg -nostdin -v error -y -f lavfi -i '" + source + "' " + options + " " + path;
  Require(std::system(command.c_str()) == 0, command);
}
