#include "tools/mediautil/recording.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tools/mediautil/args.h"

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/common.h>
#include <libavutil/mathematics.h>
}

Recording::~Recording() {
  video.Reset(ES_UNKNOWN);
  audio.Reset(ES_UNKNOWN);
}

int OpenRecording(const std::string& path, Recording& recording) {
  return recording.demux.Open(InputPath(path), recording.video, recording.audio) == 0 ? kDone : FailNotMedia(path);
}

std::string CodecName(const ESFormat& fmt) {
  return avcodec_get_name(static_cast<AVCodecID>(fmt.i_codec_id));
}

std::int64_t ShownAt(const AVPacket& packet) {
  return packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
}

std::int64_t DecodedAt(const AVPacket& packet) {
  return packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
}

std::int64_t ClockTime(std::int64_t ts, const AVStream& st) {
  constexpr std::int64_t kFarthest = 2000000000000000000;
  constexpr AVRational kMicroseconds = {1, kMicro};
  return ts == AV_NOPTS_VALUE ? ts : std::clamp(av_rescale_q(ts, st.time_base, kMicroseconds), -kFarthest, kFarthest);
}

std::int64_t StreamTime(std::int64_t ts, const AVStream& st) {
  const std::int64_t start = st.start_time == AV_NOPTS_VALUE ? 0 : st.start_time;
  return ts == AV_NOPTS_VALUE ? ts : ClockTime(av_sat_sub64(ts, start), st);
}

void SeekBefore(Recording& recording, double seconds) {
  const AVStream* st = recording.demux.GetVdoStream();
  if (st != nullptr) {
    const bool isLate = st->start_time != AV_NOPTS_VALUE;
    const double start = isLate ? static_cast<double>(ClockTime(st->start_time, *st)) / kMicro : 0;
    const double target = std::floor(start + std::min(seconds, kLongestSeconds));
    recording.demux.Seek(static_cast<long long>(std::max(target, 0.0)), AVSEEK_FLAG_BACKWARD);
  }
}

std::string SecondsText(std::int64_t microseconds) {
  return SecondsText(static_cast<double>(microseconds) / kMicro);
}

std::string SecondsText(double seconds) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.3f s", seconds);
  return text;
}
