// A recording, or a part of it, into another container.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "tools/mediautil/outputfile.h"
#include "tools/mediautil/progress.h"
#include "tools/mediautil/recording.h"
#include "tools/mediautil/timeline.h"
#include "utils/ffmpegmuxer.h"

// How the library calls a codec.
struct TrackCodec {
  std::string name;           // in session-description spelling, empty: the library does not take it
  std::string extra;          // third field of the sound's description
  bool isLittleG726 = false;  // the little-endian kind
};
TrackCodec VideoCodec(const ESFormat& video);
TrackCodec SoundCodec(const ESFormat& audio);

// Chooses the codec of sound that is encoded.
class SoundPolicy : public MuxCtrler {
 public:
  explicit SoundPolicy(int codecId) : m_codecId(codecId) {}
  int GetMuxAdoCodec(const ESFormat& src) const override;

 private:
  int m_codecId;
};

constexpr std::int64_t kFromStart = std::numeric_limits<std::int64_t>::min();

struct ExportPlan {
  std::string input;
  FFMPEG_MUXER_FORMAT format = FFMPEG_MUXER_FORMAT_MP4;
  bool hasVideo = false;
  bool hasAudio = false;
  int soundCodec = 0;  // AVCodecID of sound that is encoded
  // What is taken of the recording, microseconds from its start; from is the time of a key frame when there is video.
  std::int64_t from = kFromStart;
  std::int64_t to = std::numeric_limits<std::int64_t>::max();
};

// One run. All that is passed in is the caller's and outlives it.
class Exporter {
 public:
  Exporter(const ExportPlan& plan, Recording& recording, OutputFile& output, Progress& progress);

  // Writes the output, which the caller then commits. kDone, or prints the error; an output that failed is left to the
  // commit to tell.
  int Run();

  // "250 frames, 10.000 s" of what was written.
  std::string Text() const;

 private:
  static FETCH_CONN Fetch(void* self, ESFormat& fmt, AVPacket& pkt, AVStream* st);
  FETCH_CONN Pass(Track track, std::int64_t time);
  void TakeVideo(const AVPacket& pkt, const AVStream& st, std::int64_t time);
  void TakeAudio(const AVPacket& pkt, const AVStream& st, std::int64_t time);
  bool IsAacAsTold(const AVPacket& pkt);
  std::int64_t FromStart(const AVPacket& pkt, const AVStream& st);

  int AddStreams();
  int FailHeader() const;
  int Conclude();
  void Count(int written, std::int64_t& frames);
  void WatchOrder(std::int64_t shown);
  void SayJump(std::int64_t from, std::int64_t to);
  void Say(const std::string& text);

  const ExportPlan& m_plan;
  Recording& m_recording;
  OutputFile& m_output;
  Progress& m_progress;
  SoundPolicy m_policy;
  FFmpegMuxer m_muxer;
  Timeline m_timeline;

  std::optional<std::int64_t> m_start;  // of the recording on its own clock
  std::int64_t m_latestShown = 0;       // time of the picture before
  bool m_hasReordered = false;
  bool m_isPassed[2] = {};  // tracks that are past the end
  std::int64_t m_videoFrames = 0;
  std::int64_t m_audioFrames = 0;
  std::int64_t m_refused = 0;      // frames that the library refused
  std::int64_t m_skipped = 0;      // pictures before the first key frame
  bool m_isAacSeen = false;        // a header of the sound
  bool m_isOtherAac = false;       // which says other than its description
  std::int64_t m_soundEnd = 0;     // where the sound ends in the output, by its times
  std::int64_t m_soundLength = 0;  // and by what there is of it
  int m_jumps = 0;
};
