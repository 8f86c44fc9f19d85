#include "tools/mediautil/keyframe.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/camerainfo.h"
#include "tools/mediautil/recording.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

namespace {

// Walks over the packets and keeps the best key frame so far. Times are microseconds from the start of the stream;
// AV_NOPTS_VALUE stands for none.
struct Search {
  std::int64_t wanted = AV_NOPTS_VALUE;
  bool takeFirst = false;  // the first key frame will do when it is later than wanted
  bool unmarked = false;   // any frame counts as a key frame
  bool found = false;
  std::int64_t time = AV_NOPTS_VALUE;
  std::vector<unsigned char> data;

  static FETCH_CONN Fetch(void* opaque, ESFormat& fmt, AVPacket& pkt, AVStream* st) {
    return fmt.i_cat == ES_VIDEO ? static_cast<Search*>(opaque)->Look(pkt, *st) : FETCH_CONN_NEXT;
  }

 private:
  bool Fits(std::int64_t keyTime) const { return keyTime != AV_NOPTS_VALUE && keyTime <= wanted; }

  FETCH_CONN Look(const AVPacket& pkt, const AVStream& st) {
    // Frames are shown in another order than they are stored, but never before their decoding time: what is read after
    // a packet whose decoding time is past cannot be at or before the wanted time.
    const std::int64_t decodeTime = StreamTime(DecodedAt(pkt), st);
    const bool past = decodeTime != AV_NOPTS_VALUE && decodeTime > wanted;
    if (past && (found || !takeFirst)) {
      return FETCH_CONN_STOP;
    }
    const std::int64_t keyTime = StreamTime(ShownAt(pkt), st);
    const bool key = (unmarked || (pkt.flags & AV_PKT_FLAG_KEY) != 0) && pkt.size > 0;
    if (key && (Fits(keyTime) || (takeFirst && !found))) {
      found = true;
      time = keyTime;
      data.assign(pkt.data, pkt.data + pkt.size);
    }
    return found && wanted == AV_NOPTS_VALUE ? FETCH_CONN_STOP : FETCH_CONN_NEXT;
  }
};

}  // namespace

int VideoType(const ESFormat& video) {
  return VideoTypeOf(CodecName(video));
}

int OpenVideo(const std::string& path, Recording& recording) {
  if (const int code = OpenRecording(path, recording); code != kDone) {
    return code;
  }
  if (recording.demux.GetVdoStream() == nullptr) {
    return Fail(kFailed, path + ": cannot find a key frame: no video stream; mediautil probe shows what it holds");
  }
  if (VideoType(recording.video) == 0) {
    return Fail(kFailed, path + ": cannot decode " + CodecName(recording.video) +
                             " video: only MJPEG, MPEG-4, H.264, HEVC and MxPEG are; convert the recording first");
  }
  return kDone;
}

int FindKeyFrame(const std::string& path, const std::optional<double>& at, KeyFrame& frame) {
  auto recording = std::make_unique<Recording>();
  if (const int code = OpenVideo(path, *recording); code != kDone) {
    return code;
  }
  Search search;
  if (at) {
    search.wanted = std::llround(std::clamp(*at, -kLongestSeconds, kLongestSeconds) * kMicro);
  }
  // A seek may fail unseen or land anywhere. What it leads to only counts when it is early enough; otherwise the
  // recording is read from its start.
  if (at && *at >= 1) {
    SeekBefore(*recording, *at);
    recording->demux.Demux(recording->video, recording->audio, &search, Search::Fetch);
    if (!search.found) {
      recording = std::make_unique<Recording>();
      if (const int code = OpenVideo(path, *recording); code != kDone) {
        return code;
      }
    }
  }
  if (!search.found) {
    search.takeFirst = true;
    recording->demux.Demux(recording->video, recording->audio, &search, Search::Fetch);
  }
  if (!search.found) {
    // A damaged recording may have lost its marks, but it begins with a key frame all the same.
    recording = std::make_unique<Recording>();
    if (const int code = OpenVideo(path, *recording); code != kDone) {
      return code;
    }
    search.unmarked = true;
    search.wanted = AV_NOPTS_VALUE;
    recording->demux.Demux(recording->video, recording->audio, &search, Search::Fetch);
  }
  if (!search.found) {
    return Fail(kFailed, path + ": cannot find a key frame: the video stream holds none; the recording may be cut off");
  }
  if (at && search.time == AV_NOPTS_VALUE) {
    return Fail(kFailed, path + ": cannot find the time: its video carries no times; leave --at out");
  }
  frame.videoType = VideoType(recording->video);
  frame.extradata.assign(recording->video.p_extra, recording->video.p_extra + recording->video.i_extra);
  frame.data = std::move(search.data);
  if (search.time != AV_NOPTS_VALUE) {
    frame.seconds = static_cast<double>(search.time) / kMicro;
  }
  return kDone;
}

int FindKeyFrame(const PictureArgs& args, KeyFrame& frame) {
  const int code = CheckPictureArgs(args);
  return code == kDone ? FindKeyFrame(args.input, args.at, frame) : code;
}

std::string KeyFrameText(const KeyFrame& frame) {
  return frame.seconds ? " (key frame at " + SecondsText(*frame.seconds) + ")" : "";
}

void PictureDeleter::operator()(AVFrame* picture) const {
  DoFFmpegFrameFree(&picture);
}

int DecodeKeyFrame(const std::string& path, const KeyFrame& frame, int maxSide, Picture& picture) {
  AVFrame* decoded = nullptr;
  const int ret =
      DoFFMpegGetScaledFrame(frame.videoType, frame.extradata.data(), static_cast<int>(frame.extradata.size()),
                             frame.data.data(), static_cast<int>(frame.data.size()), &decoded, maxSide);
  picture.reset(decoded);
  return ret == 0
             ? kDone
             : Fail(kFailed, path + ": cannot decode the key frame" + KeyFrameText(frame) + ": it is damaged" +
                                 (maxSide > 0 ? ", or --max-side leaves nothing of it" : "") + "; try another --at");
}

int WriteJpeg(const PictureArgs& args, AVFrame& picture, int quality, const std::string& privacyRegion,
              const std::string& advice) {
  unsigned char* jpeg = nullptr;
  int size = 0;
  if (DoFFMpegGetJpeg(&picture, &jpeg, &size, quality, privacyRegion) != 0) {
    return Fail(kFailed, args.input + ": cannot make the JPEG" +
                             (privacyRegion.empty() ? "" : " or paint the privacy regions") + ": too many details; " +
                             advice);
  }
  const int code = WritePicture(args.output, jpeg, static_cast<unsigned int>(size));
  std::free(jpeg);
  return code;
}

std::string SizeText(const AVFrame& picture) {
  return std::to_string(picture.width) + "x" + std::to_string(picture.height);
}
