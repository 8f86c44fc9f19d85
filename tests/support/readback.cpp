#include "tests/support/readback.h"

#include <algorithm>

#include "tests/support/tempdir.h"
#include "utils/internal/ffcompat.h"

using mediautil::FfPtr;

namespace {

FfPtr<AVCodecContext> OpenDecoder(const AVCodecParameters* par) {
  const AVCodec* codec = avcodec_find_decoder(par->codec_id);
  FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  avcodec_parameters_to_context(ctx.get(), par);
  if (codec == nullptr || avcodec_open2(ctx.get(), codec, nullptr) < 0) return nullptr;
  return ctx;
}

void Decode(AVCodecContext* ctx, const AVPacket* packet, Track& track) {
  if (ctx == nullptr || avcodec_send_packet(ctx, packet) < 0) {
    ++track.errors;
    return;
  }
  for (;;) {
    FfPtr<AVFrame> frame(av_frame_alloc());
    if (avcodec_receive_frame(ctx, frame.get()) < 0) return;
    if (ctx->codec_type == AVMEDIA_TYPE_VIDEO) {
      track.pictures.push_back(std::move(frame));
    } else {
      AppendSamples(frame.get(), track.sound);
      if (frame->ch_layout.nb_channels > 1) AppendSamples(frame.get(), track.right, 1);
    }
  }
}

void Describe(const AVCodecParameters& par, Track& track) {
  track.codecId = par.codec_id;
  for (unsigned int i = 0; i < 4; ++i) {
    track.tag += static_cast<char>(par.codec_tag >> (8 * i) & 0xFF);
  }
  track.width = par.width;
  track.height = par.height;
  track.rate = par.sample_rate;
  track.channels = par.ch_layout.nb_channels;
  track.extradata.assign(par.extradata, par.extradata + par.extradata_size);
}

std::uint64_t Number(const Bytes& bytes, std::size_t at, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i) number = number << 8 | bytes.at(at + i);
  return number;
}

}  // namespace

std::vector<Track> ReadBack(const Bytes& container, const char* format, const char* options) {
  const TempDir dir;
  SaveBytes(dir.Path("container"), container.data(), container.size());
  AVFormatContext* opened = nullptr;
  AVDictionary* parsed = nullptr;
  av_dict_parse_string(&parsed, options, "=", ":", 0);
  const int ret = avformat_open_input(&opened, dir.Path("container").c_str(),
                                      format == nullptr ? nullptr : av_find_input_format(format), &parsed);
  av_dict_free(&parsed);
  if (ret < 0) {
    return {};
  }
  const mediautil::InputPtr input(opened);
  avformat_find_stream_info(opened, nullptr);
  std::vector<Track> tracks(opened->nb_streams);
  std::vector<FfPtr<AVCodecContext>> decoders;
  for (unsigned int i = 0; i < opened->nb_streams; ++i) {
    Describe(*opened->streams[i]->codecpar, tracks[i]);
    decoders.push_back(OpenDecoder(opened->streams[i]->codecpar));
    if (decoders.back() != nullptr) decoders.back()->pkt_timebase = opened->streams[i]->time_base;
  }
  const FfPtr<AVPacket> packet(av_packet_alloc());
  while (av_read_frame(opened, packet.get()) >= 0) {
    const auto i = static_cast<std::size_t>(packet->stream_index);
    tracks[i].packets.emplace_back(packet->data, packet->data + packet->size);
    tracks[i].times.push_back(av_rescale_q(packet->dts, opened->streams[i]->time_base, {1, 1000000}));
    tracks[i].keys.push_back((packet->flags & AV_PKT_FLAG_KEY) != 0);
    Decode(decoders[i].get(), packet.get(), tracks[i]);
    av_packet_unref(packet.get());
  }
  for (std::size_t i = 0; i < tracks.size(); ++i) Decode(decoders[i].get(), nullptr, tracks[i]);
  return tracks;
}

Clip AsInMp4(Clip clip) {
  const TempDir dir;
  WriteFile(clip, dir.Path("clip.mp4"));
  const Track track = std::move(ReadBack(ReadBytes(dir.Path("clip.mp4"))).at(0));
  clip.extradata = track.extradata;
  for (std::size_t i = 0; i < clip.frames.size(); ++i) clip.frames[i].data = track.packets.at(i);
  return clip;
}

std::vector<FfPtr<AVFrame>> DecodeFrames(const Clip& clip) {
  const FfPtr<AVCodecContext> ctx = OpenDecoder(ParametersOf(clip).get());
  const FfPtr<AVPacket> packet(av_packet_alloc());
  Track track;
  for (const CodedFrame& frame : clip.frames) {
    packet->data = const_cast<std::uint8_t*>(frame.data.data());
    packet->size = static_cast<int>(frame.data.size());
    Decode(ctx.get(), packet.get(), track);
  }
  Decode(ctx.get(), nullptr, track);
  return std::move(track.pictures);
}

std::vector<std::int64_t> FragmentTimes(const Bytes& mp4, unsigned int track) {
  std::vector<std::int64_t> times;
  bool isWanted = false;
  for (std::size_t at = 0; at + 8 <= mp4.size();) {
    const std::uint64_t type = Number(mp4, at + 4, 4);
    const bool isParent = type == MKBETAG('m', 'o', 'o', 'f') || type == MKBETAG('t', 'r', 'a', 'f');
    if (type == MKBETAG('t', 'f', 'h', 'd')) {
      isWanted = Number(mp4, at + 12, 4) == track;
    } else if (type == MKBETAG('t', 'f', 'd', 't') && isWanted) {
      times.push_back(static_cast<std::int64_t>(Number(mp4, at + 12, mp4.at(at + 8) == 1 ? 8 : 4)));
    }
    at += isParent ? 8 : std::max<std::size_t>(8, static_cast<std::size_t>(Number(mp4, at, 4)));
  }
  return times;
}
