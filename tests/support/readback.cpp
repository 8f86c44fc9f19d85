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
  if (codec == nullptr || avcodec_open2(ctx.get(), codec, nullptr) < 0) {
    return nullptr;
  }
  return ctx;
}

void Decode(AVCodecContext* ctx, const AVPacket* packet, Track& track) {
  if (ctx == nullptr || avcodec_send_packet(ctx, packet) < 0) {
    ++track.errors;
    return;
  }
  for (;;) {
    FfPtr<AVFrame> frame(av_frame_alloc());
    if (avcodec_receive_frame(ctx, frame.get()) < 0) {
      return;
    }
    if (ctx->codec_type == AVMEDIA_TYPE_VIDEO) {
      track.pictures.push_back(std::move(frame));
    } else {
      AppendSamples(frame.get(), track.sound);
      if (frame->ch_layout.nb_channels > 1) {
        AppendSamples(frame.get(), track.right, 1);
      }
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
  for (std::size_t i = 0; i < size; ++i) {
    number = number << 8 | bytes.at(at + i);
  }
  return number;
}

struct Box {
  std::string type;
  std::size_t begin;  // of the body
  std::size_t end;
};

std::vector<Box> BoxesIn(const Bytes& bytes, std::size_t begin, std::size_t end) {
  std::vector<Box> boxes;
  while (begin + 8 <= end) {
    const auto size = static_cast<std::size_t>(Number(bytes, begin, 4));
    const auto type = bytes.begin() + static_cast<std::ptrdiff_t>(begin) + 4;
    boxes.push_back({std::string(type, type + 4), begin + 8, begin + size});
    begin += std::max<std::size_t>(size, 8);
  }
  return boxes;
}

std::int64_t RunDuration(const Bytes& bytes, const Box& run, std::uint64_t defaultDuration) {
  const std::uint64_t flags = Number(bytes, run.begin, 4);
  const std::uint64_t count = Number(bytes, run.begin + 4, 4);
  std::size_t at = run.begin + 8 + (flags & 1 ? 4 : 0) + (flags & 4 ? 4 : 0);
  std::uint64_t sum = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    sum += flags & 0x100 ? Number(bytes, at, 4) : defaultDuration;
    at += 4 * static_cast<std::size_t>(__builtin_popcountll(flags & 0xF00));
  }
  return static_cast<std::int64_t>(sum);
}

}  // namespace

bool Track::TimesRise() const {
  return std::adjacent_find(times.begin(), times.end(), [](auto a, auto b) { return a >= b; }) == times.end();
}

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
    if (decoders.back() != nullptr) {
      decoders.back()->pkt_timebase = opened->streams[i]->time_base;
    }
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
  for (std::size_t i = 0; i < tracks.size(); ++i) {
    Decode(decoders[i].get(), nullptr, tracks[i]);
  }
  return tracks;
}

std::vector<FfPtr<AVFrame>> DecodeFrames(const Clip& clip) {
  const FfPtr<AVCodecParameters> par(avcodec_parameters_alloc());
  par->codec_type = AVMEDIA_TYPE_VIDEO;
  par->codec_id = clip.codecId;
  par->extradata = mediautil::CopyPadded(clip.extradata.data(), static_cast<int>(clip.extradata.size()));
  par->extradata_size = static_cast<int>(clip.extradata.size());
  const FfPtr<AVCodecContext> ctx = OpenDecoder(par.get());
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
  std::int64_t end = 0;
  for (const Box& moof : BoxesIn(mp4, 0, mp4.size())) {
    if (moof.type != "moof") {
      continue;
    }
    for (const Box& traf : BoxesIn(mp4, moof.begin, moof.end)) {
      std::uint64_t id = 0;
      std::uint64_t duration = 0;
      for (const Box& box : traf.type == "traf" ? BoxesIn(mp4, traf.begin, traf.end) : std::vector<Box>()) {
        if (box.type == "tfhd") {
          const std::uint64_t flags = Number(mp4, box.begin, 4);
          id = Number(mp4, box.begin + 4, 4);
          const std::size_t at = box.begin + 8 + (flags & 1 ? 8 : 0) + (flags & 2 ? 4 : 0);
          duration = flags & 8 ? Number(mp4, at, 4) : 0;
        } else if (box.type == "tfdt" && id == track) {
          const bool isLong = mp4.at(box.begin) == 1;
          times.push_back(static_cast<std::int64_t>(Number(mp4, box.begin + 4, isLong ? 8 : 4)));
          end = times.back();
        } else if (box.type == "trun" && id == track) {
          end += RunDuration(mp4, box, duration);
        }
      }
    }
  }
  if (!times.empty()) {
    times.push_back(end);
  }
  return times;
}
