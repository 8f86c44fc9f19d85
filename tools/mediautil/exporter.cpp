#include "tools/mediautil/exporter.h"

#include <algorithm>
#include <iterator>

#include "tools/mediautil/args.h"
#include "tools/mediautil/stopsignals.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace {

constexpr std::int64_t kLongestWait = 5 * kMicro;       // for the rest of the other track when one is past the end
constexpr std::int64_t kAudibleHole = kMicro * 3 / 10;  // of all holes in encoded sound together
constexpr int kMostJumps = 20;                          // that are told one by one

bool IsAacRate(unsigned int rateIndex, unsigned int rate) {
  constexpr unsigned int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};
  return rateIndex < std::size(kRates) && kRates[rateIndex] == rate;
}

// AAC-LC of the stream's rate. The configuration of HE-AAC may begin alike, but with the rate of its core.
bool IsLowComplexityAac(const ESFormat& audio) {
  constexpr unsigned int kLowComplexity = 2;
  if (audio.i_extra < 2) {
    return audio.i_extra < 1;
  }
  const unsigned int begin = static_cast<unsigned int>(audio.p_extra[0]) << 8 | audio.p_extra[1];
  return begin >> 11 == kLowComplexity && IsAacRate(begin >> 7 & 0x0F, audio.audio.i_rate);
}

bool HasAdtsHeader(const AVPacket& pkt) {
  return pkt.size >= 7 && pkt.data[0] == 0xFF && (pkt.data[1] & 0xF6) == 0xF0;
}

std::string G726Extra(const ESFormat& audio) {
  constexpr unsigned int kRate = 8000;  // the muxer knows no other
  const int kilobits = audio.audio.i_rate == kRate ? audio.i_bitrate / 1000 : 0;
  return kilobits == 16 || kilobits == 24 || kilobits == 32 || kilobits == 40 ? std::to_string(kilobits) : "";
}

Track TrackOf(const ESFormat& fmt) {
  return fmt.i_cat == ES_VIDEO ? Track::kVideo : Track::kAudio;
}

std::int64_t Duration(const AVPacket& pkt, const AVStream& st) {
  constexpr std::int64_t kLongestFrame = 3600 * kMicro;
  return std::min(ClockTime(std::max<std::int64_t>(pkt.duration, 0), st), kLongestFrame);
}

}  // namespace

TrackCodec VideoCodec(const ESFormat& video) {
  switch (video.i_codec_id) {
    case AV_CODEC_ID_H264:
      return {"H264", "", false};
    case AV_CODEC_ID_HEVC:
      return {"H265", "", false};
    case AV_CODEC_ID_MPEG4:
      return {"MP4V-ES", "", false};
    case AV_CODEC_ID_MJPEG:
      return {"JPEG", "", false};
    default:
      return {};
  }
}

TrackCodec SoundCodec(const ESFormat& audio) {
  switch (audio.i_codec_id) {
    case AV_CODEC_ID_AAC:
      return {IsLowComplexityAac(audio) ? "MPEG4-GENERIC" : "", "", false};
    case AV_CODEC_ID_PCM_MULAW:
      return {"PCMU", "", false};
    case AV_CODEC_ID_PCM_ALAW:
      return {"PCMA", "", false};
    case AV_CODEC_ID_PCM_S16BE:
      return {"PCM", "", false};
    case AV_CODEC_ID_AMR_NB:
      return {"AMR", "", false};
    case AV_CODEC_ID_AMR_WB:
      return {"AMR-WB", "", false};
    case AV_CODEC_ID_ADPCM_G726:
    case AV_CODEC_ID_ADPCM_G726LE: {
      const std::string extra = G726Extra(audio);
      return {extra.empty() ? "" : "G726", extra, audio.i_codec_id == AV_CODEC_ID_ADPCM_G726LE};
    }
    default:
      return {};
  }
}

int SoundPolicy::GetMuxAdoCodec(const ESFormat& src) const {
  return src.i_codec_id == AV_CODEC_ID_AAC ? AV_CODEC_ID_AAC : m_codecId;
}

Exporter::Exporter(const ExportPlan& plan, Recording& recording, OutputFile& output, Progress& progress)
    : m_plan(plan),
      m_recording(recording),
      m_output(output),
      m_progress(progress),
      m_policy(plan.soundCodec),
      m_muxer(m_policy),
      m_timeline([this](std::int64_t from, std::int64_t to) { SayJump(from, to); }) {}

int Exporter::Run() {
  if (const int code = AddStreams(); code != kDone) {
    return code;
  }
  if (m_muxer.WriteHeader() != 0) {
    return m_output.IsFailed() ? kDone : FailHeader();
  }
  m_recording.demux.Demux(m_recording.video, m_recording.audio, this, Fetch);
  m_muxer.Finalize();
  return Conclude();
}

int Exporter::AddStreams() {
  const ESFormat& video = m_recording.video;
  const ESFormat& audio = m_recording.audio;
  if (m_muxer.Init(m_plan.format, &m_output, OutputFile::Write) != 0) {
    return Fail(kFailed, m_plan.input + ": cannot set up the container; run again with -vv");
  }
  if (m_plan.hasVideo &&
      m_muxer.AddVdoStream(VideoCodec(video).name, static_cast<int>(video.video.i_width),
                           static_cast<int>(video.video.i_height), video.p_extra, video.i_extra) != 0) {
    return Fail(kFailed, m_plan.input + ": cannot take the video: its description is damaged; run again with -vv");
  }
  const TrackCodec sound = SoundCodec(audio);
  const std::string info = std::to_string(audio.audio.i_channels) + "|" + std::to_string(audio.audio.i_rate) +
                           (sound.extra.empty() ? "" : "|" + sound.extra);
  if (m_plan.hasAudio && m_muxer.AddAdoStream(info, sound.name, sound.isLittleG726) != 0) {
    return Fail(kFailed, m_plan.input + ": cannot take the sound (" + std::to_string(audio.audio.i_rate) + " Hz, " +
                             std::to_string(audio.audio.i_channels) + " channels); leave it out with --audio none");
  }
  return kDone;
}

int Exporter::FailHeader() const {
  const std::string name = CodecName(m_recording.video);
  if (m_plan.format == FFMPEG_MUXER_FORMAT_FLV && m_plan.hasVideo && name != "h264") {
    return Fail(kFailed, m_plan.input + ": FLV cannot hold " + name + " video; write an .mp4 instead");
  }
  if (m_plan.format == FFMPEG_MUXER_FORMAT_FLV && m_plan.hasAudio && m_plan.soundCodec == AV_CODEC_ID_MP3) {
    return Fail(kFailed, m_plan.input + ": FLV cannot hold MP3 of 32000 Hz, as sound is encoded; add --audio aac or " +
                             "--audio none, or write an .mp4");
  }
  return Fail(kFailed, m_plan.input + ": the container refuses these streams; try another one, or --audio none");
}

FETCH_CONN Exporter::Fetch(void* self, ESFormat& fmt, AVPacket& pkt, AVStream* st) {
  auto& exporter = *static_cast<Exporter*>(self);
  if (StopSignals::Seen() || exporter.m_output.IsFailed()) {
    return FETCH_CONN_STOP;
  }
  const Track track = TrackOf(fmt);
  const bool wanted = track == Track::kVideo ? exporter.m_plan.hasVideo : exporter.m_plan.hasAudio;
  if (!wanted || pkt.size < 1) {
    return FETCH_CONN_NEXT;
  }
  const std::int64_t time = exporter.FromStart(pkt, *st);
  if (time != AV_NOPTS_VALUE && time > exporter.m_plan.to) {
    return exporter.Pass(track, time);
  }
  if (track == Track::kAudio && !exporter.IsAacAsTold(pkt)) {
    return FETCH_CONN_STOP;
  }
  if (track == Track::kVideo) {
    exporter.TakeVideo(pkt, *st, time);
  } else {
    exporter.TakeAudio(pkt, *st, time);
  }
  exporter.m_progress.Update(static_cast<double>(exporter.m_timeline.Length()) / kMicro);
  return FETCH_CONN_NEXT;
}

// The first ADTS header of HE-AAC tells the rate of its core.
bool Exporter::IsAacAsTold(const AVPacket& pkt) {
  const ESFormat& audio = m_recording.audio;
  if (audio.i_codec_id == AV_CODEC_ID_AAC && audio.i_extra < 1 && !m_isAacSeen && HasAdtsHeader(pkt)) {
    m_isAacSeen = true;
    m_isOtherAac = !IsAacRate(pkt.data[2] >> 2 & 0x0FU, audio.audio.i_rate);
  }
  return !m_isOtherAac;
}

// Microseconds from the start of the recording, in decoding times: those rise.
std::int64_t Exporter::FromStart(const AVPacket& pkt, const AVStream& st) {
  const std::int64_t time = ClockTime(DecodedAt(pkt), st);
  if (!m_start) {
    const AVStream* video = m_plan.hasVideo ? m_recording.demux.GetVdoStream() : nullptr;
    const AVStream& leader = video == nullptr ? st : *video;
    m_start = leader.start_time == AV_NOPTS_VALUE ? 0 : ClockTime(leader.start_time, leader);
  }
  return time == AV_NOPTS_VALUE ? time : time - *m_start;
}

// The end comes when both tracks are past it, or one so far that nothing can be missing of the other.
FETCH_CONN Exporter::Pass(Track track, std::int64_t time) {
  m_isPassed[static_cast<std::size_t>(track)] = true;
  const bool isOver = (m_isPassed[0] || !m_plan.hasVideo) && (m_isPassed[1] || !m_plan.hasAudio);
  return isOver || time - m_plan.to > kLongestWait ? FETCH_CONN_STOP : FETCH_CONN_NEXT;
}

void Exporter::TakeVideo(const AVPacket& pkt, const AVStream& st, std::int64_t time) {
  const bool isKey = (pkt.flags & AV_PKT_FLAG_KEY) != 0;
  const std::int64_t shown = StreamTime(ShownAt(pkt), st);
  if (m_videoFrames == 0 && (!isKey || (shown != AV_NOPTS_VALUE && shown < m_plan.from))) {
    m_skipped += m_plan.from == kFromStart ? 1 : 0;
    return;
  }
  WatchOrder(shown);
  // Pictures that belong before the first sound are needed by later ones.
  const std::int64_t placed = std::max(m_timeline.Place(Track::kVideo, time, Duration(pkt, st)), Timeline::kFirst);
  Count(m_muxer.WriteVdoFrame(pkt.data, pkt.size, placed, isKey), m_videoFrames);
}

void Exporter::TakeAudio(const AVPacket& pkt, const AVStream& st, std::int64_t time) {
  if (time != AV_NOPTS_VALUE && time < m_plan.from) {
    return;
  }
  const std::int64_t duration = Duration(pkt, st);
  const std::int64_t placed = m_timeline.Place(Track::kAudio, time, duration);
  if (placed < Timeline::kFirst) {
    return;
  }
  m_soundEnd = placed + duration;
  m_soundLength += duration;
  Count(m_muxer.WriteAdoFrame(pkt.data, pkt.size, placed), m_audioFrames);
}

void Exporter::Count(int written, std::int64_t& frames) {
  ++(written == 0 ? frames : m_refused);
}

void Exporter::WatchOrder(std::int64_t shown) {
  if (shown == AV_NOPTS_VALUE || m_hasReordered) {
    return;
  }
  // A clock that was set back is no reordering.
  constexpr std::int64_t kLongestReorder = kMicro;
  if (shown < m_latestShown && m_latestShown - shown < kLongestReorder) {
    m_hasReordered = true;
    Say("the video has B-frames, which come out in decoding order: the picture may judder; encode it without B-frames "
        "for a smooth one");
  }
  m_latestShown = shown;
}

int Exporter::Conclude() {
  if (StopSignals::Seen() || m_output.IsFailed()) {
    return kDone;
  }
  if (m_isOtherAac) {
    return Fail(kFailed, m_plan.input +
                             ": cannot take this aac sound: only AAC-LC can be copied, and it is HE-AAC or " +
                             "not what the recording says; " +
                             (m_plan.hasVideo ? "leave it out with --audio none" : "convert it first"));
  }
  if (m_plan.hasVideo && m_videoFrames == 0) {
    return Fail(kFailed, m_plan.input +
                             ": nothing to export: no key frame in what was asked for; try another --from or " +
                             "--to, or check the recording");
  }
  if (!m_plan.hasVideo && m_audioFrames == 0) {
    return Fail(kFailed,
                m_plan.input + ": nothing to export: no sound in what was asked for; try another --from or --to");
  }
  if (m_refused > m_videoFrames + m_audioFrames) {
    return Fail(kFailed, m_plan.input + ": cannot write " + std::to_string(m_refused) +
                             " frames: damaged, or not what the recording says they are; run again with -vv");
  }
  if (m_skipped > 0) {
    Say(std::to_string(m_skipped) + " frames before the first key frame were left out");
  }
  if (m_refused > 0) {
    Say(std::to_string(m_refused) + " damaged frames were left out");
  }
  const bool isEncoded = m_plan.hasAudio && m_recording.audio.i_codec_id != AV_CODEC_ID_AAC;
  if (isEncoded && m_soundLength > 0 && m_soundEnd - m_soundLength > kAudibleHole) {
    Say("the sound plays up to " + SecondsText(m_soundEnd - m_soundLength) +
        " early: it has holes in the recording, and encoded sound carries no times");
  }
  m_progress.Finish(static_cast<double>(m_timeline.Length()) / kMicro);
  return kDone;
}

std::string Exporter::Text() const {
  return (m_plan.hasVideo ? std::to_string(m_videoFrames) + " frames, " : "") + SecondsText(m_timeline.Length());
}

void Exporter::SayJump(std::int64_t from, std::int64_t to) {
  ++m_jumps;
  if (m_jumps <= kMostJumps) {
    Say("the clock jumps from " + SecondsText(from) + " to " + SecondsText(to) + "; closed up");
  }
  if (m_jumps == kMostJumps) {
    Say("further jumps are closed up without a word");
  }
}

void Exporter::Say(const std::string& text) {
  m_progress.Hide();
  Note(m_plan.input + ": " + text);
}
