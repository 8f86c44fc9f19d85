// mediautil feed: a recording as a camera's live stream.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>

#include "platform/livestream.h"
#include "platform/time.h"
#include "tools/mediautil/args.h"
#include "tools/mediautil/camerainfo.h"
#include "tools/mediautil/recording.h"
#include "tools/mediautil/stopsignals.h"
#include "tools/mediautil/timeline.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace {

constexpr int kMaxInt = std::numeric_limits<int>::max();

struct FeedArgs {
  std::string input;
  int camera = 0;
  std::optional<int> stream;  // without one: that of the camera's live profile
  bool loop = false;
};

// Publishes the video packets when their time has come.
class Feeder {
 public:
  explicit Feeder(LiveStreamWriter& writer) : m_writer(writer) {}

  // The recording from its start to its end, behind what was fed before. False when it ended early or held nothing.
  bool Feed(Recording& recording) {
    Timeline timeline([](std::int64_t, std::int64_t) {});
    m_timeline = &timeline;
    const long long before = m_frames;
    m_writer.SetExtra(recording.video.p_extra, recording.video.i_extra);
    const bool stopped = recording.demux.Demux(recording.video, recording.audio, this, Fetch) != 0;
    m_begin += timeline.Length();
    return !stopped && m_frames > before;
  }

  long long Frames() const { return m_frames; }
  long long KeyFrames() const { return m_keyFrames; }
  long long Oversized() const { return m_oversized; }

 private:
  static FETCH_CONN Fetch(void* opaque, ESFormat& fmt, AVPacket& pkt, AVStream* st) {
    return fmt.i_cat == ES_VIDEO && pkt.size > 0 ? static_cast<Feeder*>(opaque)->Publish(pkt, *st) : FETCH_CONN_NEXT;
  }

  // Frames are stored, and sent by cameras, in decoding order.
  FETCH_CONN Publish(const AVPacket& pkt, const AVStream& st) {
    const std::int64_t time = ClockTime(DecodedAt(pkt), st);
    const std::int64_t duration = std::max<std::int64_t>(ClockTime(pkt.duration, st), 0);
    WaitUntil(m_begin + m_timeline->Place(Track::kVideo, time, duration));
    if (StopSignals::Seen()) {
      return FETCH_CONN_STOP;
    }
    if (pkt.size > LiveStreamWriter::kMaxFrame) {
      ++m_oversized;
      return FETCH_CONN_NEXT;
    }
    const bool isKey = (pkt.flags & AV_PKT_FLAG_KEY) != 0;
    m_writer.Write(pkt.data, pkt.size, isKey);
    ++m_frames;
    m_keyFrames += isKey ? 1 : 0;
    return FETCH_CONN_NEXT;
  }

  // A signal ends the wait.
  static void WaitUntil(std::int64_t time) {
    constexpr std::int64_t kLongest = 500000;
    for (std::int64_t left = time - GetMonotonicTimestamp(); left > 0 && !StopSignals::Seen();
         left = time - GetMonotonicTimestamp()) {
      usleep(static_cast<useconds_t>(std::min(left, kLongest)));
    }
  }

  LiveStreamWriter& m_writer;
  Timeline* m_timeline = nullptr;
  std::int64_t m_begin = GetMonotonicTimestamp();
  long long m_frames = 0;
  long long m_keyFrames = 0;
  long long m_oversized = 0;
};

std::string FrameRateText(const AVRational& rate) {
  char text[32] = "";
  if (rate.num > 0 && rate.den > 0) {
    std::snprintf(text, sizeof(text), ", %.4g fps", av_q2d(rate));
  }
  return text;
}

// Tests whether the camera may send this video. kDone, or prints why not.
int CheckVideo(const FeedArgs& args, const Camera& camera, Recording& recording) {
  if (recording.demux.GetVdoStream() == nullptr) {
    return Fail(kFailed, args.input + ": cannot feed it: no video stream; mediautil probe shows what it holds");
  }
  const std::string codec = CodecName(recording.video);
  if (VideoTypeOf(codec) == 0) {
    return Fail(kFailed, args.input + ": cannot feed " + codec + " video: cameras send MJPEG, MPEG-4, H.264, HEVC " +
                             "or MxPEG; convert the recording first");
  }
  if (codec != VideoTypeName(camera.videoType)) {
    const std::string id = std::to_string(args.camera);
    return Fail(kFailed, args.input + ": its video is " + codec + ", that of camera " + id + " is " +
                             VideoTypeText(camera.videoType) + "; change it with mediautil camera add " + id +
                             " --codec " + codec + " and its other options");
  }
  if (recording.video.i_extra > LiveStreamWriter::kMaxExtra) {
    return Fail(kFailed, args.input + ": cannot feed it: " + std::to_string(recording.video.i_extra) +
                             " bytes of codec configuration, live streams have at most " +
                             std::to_string(LiveStreamWriter::kMaxExtra) + "; convert the recording first");
  }
  return kDone;
}

// kDone, or prints the error.
int OpenVideo(const FeedArgs& args, const Camera& camera, std::unique_ptr<Recording>& recording) {
  recording = std::make_unique<Recording>();
  const int code = OpenRecording(args.input, *recording);
  return code == kDone ? CheckVideo(args, camera, *recording) : code;
}

// Why a stream cannot be opened, and what helps.
std::string OpenError(int error) {
  if (error == EBUSY) {
    return "another program feeds it; end that one, or give another --stream";
  }
  const bool isMemory = error == EINVAL || error == ENOSPC || error == ENOMEM;
  return std::string(std::strerror(error)) + "; check the directory that MEDIAUTIL_STATE_DIR names" +
         (isMemory ? ", or the limits of shared memory (kernel.shmmax, shmall, shmmni): a stream takes 48 MiB" : "");
}

int OpenStream(const FeedArgs& args, int streamNo, Recording& recording, LiveStreamWriter& writer) {
  if (writer.Open(args.camera, streamNo) != 0) {
    return Fail(kFailed, StreamName(args.camera, streamNo) + ": cannot feed it: " + OpenError(errno));
  }
  Note(args.input + ": feeds " + StreamName(args.camera, streamNo) + ": " + CodecName(recording.video) + ", " +
       std::to_string(recording.video.video.i_width) + "x" + std::to_string(recording.video.video.i_height) +
       FrameRateText(recording.demux.GetVdoStream()->avg_frame_rate));
  return kDone;
}

// After a feed that nobody stopped.
int FailEmpty(const FeedArgs& args, const Feeder& feeder) {
  return Fail(kFailed, args.input + ": cannot feed it: " +
                           (feeder.Oversized() > 0
                                ? "all its frames have more than " + std::to_string(LiveStreamWriter::kMaxFrame) +
                                      " bytes; convert the recording first"
                                : "the video stream holds no frames; the recording may be cut off"));
}

int FinishFeed(const FeedArgs& args, const Feeder& feeder) {
  if (feeder.Frames() == 0 && !StopSignals::Seen()) {
    return FailEmpty(args, feeder);
  }
  const std::string frames = args.input + ": " + std::to_string(feeder.Frames()) + " frames fed";
  if (feeder.Oversized() > 0) {
    Note(args.input + ": " + std::to_string(feeder.Oversized()) + " frames of more than " +
         std::to_string(LiveStreamWriter::kMaxFrame) + " bytes were left out");
  }
  if (StopSignals::Seen() && !args.loop) {
    return Fail(kInterrupted, frames + ", then interrupted");
  }
  Note(frames + (feeder.KeyFrames() == 0 ? ", no key frame among them: live pictures need one" : ""));
  return kDone;
}

int Feed(const FeedArgs& args) {
  if (const int code = CheckInput(args.input); code != kDone) {
    return code;
  }
  Camera camera;
  if (const int code = LoadCamera(args.camera, camera); code != kDone) {
    return code;
  }
  const int streamNo = args.stream.value_or(camera.GetUiStreamNo(camera.GetLiveProfile()));
  if (streamNo < 0) {
    return FailNoStream(args.camera, "", "--stream");
  }
  std::unique_ptr<Recording> recording;
  if (const int code = OpenVideo(args, camera, recording); code != kDone) {
    return code;
  }
  const StopSignals signals;  // from before the note that it feeds
  LiveStreamWriter writer;
  if (const int code = OpenStream(args, streamNo, *recording, writer); code != kDone) {
    return code;
  }
  Feeder feeder(writer);
  while (feeder.Feed(*recording) && args.loop) {
    if (const int code = OpenVideo(args, camera, recording); code != kDone) {
      return code;
    }
  }
  return FinishFeed(args, feeder);
}

}  // namespace

void AddFeed(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("feed", "Show a recording's video as a camera's live stream, at its pace.");
  const auto args = std::make_shared<FeedArgs>();
  command->add_option("FILE", args->input, "recording to read")->required()->type_name("");
  command->add_option("--camera", args->camera, "number of a registered camera")
      ->required()
      ->type_name("N")
      ->check(CLI::Range(1, kMaxInt).description(""));
  command->add_option("--stream", args->stream, "number of its stream; that of its live profile without it")
      ->type_name("M")
      ->check(CLI::Range(0, kMaxInt).description(""));
  command->add_flag("--loop", args->loop, "begin again at the end, until Ctrl-C");
  command->footer(
      "Examples:\n  mediautil feed gate.mp4 --camera 12 --loop\n  mediautil feed gate.mp4 --camera 12 --stream 1");
  command->callback([args, &action] { action = [args] { return Feed(*args); }; });
}
