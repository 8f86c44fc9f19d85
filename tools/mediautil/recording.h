// An opened recording, and times in it.
#pragma once

#include <cstdint>
#include <string>

#include "utils/ffmpegdemuxer.h"

struct AVPacket;

constexpr std::int64_t kMicro = 1000000;
// Far beyond the length of any recording.
constexpr double kLongestSeconds = 1e9;

// A recording with the records of its streams.
struct Recording {
  FFmpegDemux demux;
  ESFormat video;
  ESFormat audio;

  Recording() = default;
  ~Recording();
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  bool HasVideo() const { return video.i_cat == ES_VIDEO; }
  bool HasAudio() const { return audio.i_cat == ES_AUDIO; }
};

// kDone, or prints the error.
int OpenRecording(const std::string& path, Recording& recording);

// The name of a stream's codec, such as "h264".
std::string CodecName(const ESFormat& fmt);

// The time that a packet is shown or decoded at, the other where it has none. In the stream's time base.
std::int64_t ShownAt(const AVPacket& packet);
std::int64_t DecodedAt(const AVPacket& packet);

// A time on the stream's own time line, and the same from the start of the stream: microseconds, at most 2e18 of either
// sign, so that sums of a few do not overflow. AV_NOPTS_VALUE stays.
std::int64_t ClockTime(std::int64_t ts, const AVStream& st);
std::int64_t StreamTime(std::int64_t ts, const AVStream& st);

// Seeks to the whole second at or before a time, counted from the start of the video. May fail unseen or land anywhere.
void SeekBefore(Recording& recording, double seconds);

// "12.345 s"
std::string SecondsText(std::int64_t microseconds);
std::string SecondsText(double seconds);
