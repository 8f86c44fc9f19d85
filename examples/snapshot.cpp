// Takes a picture from a recording, as large as a phone shows it: snapshot RECORDING OUT.jpg [PRIVACY]
//
// PRIVACY hides parts of the picture: corners of 8 digits, 4 across and 4 down in 1/10000 of it, polygons separated by
// ";". 00000000500000005000500000005000 is the upper left quarter.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "utils/ffmpegdemuxer.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {

constexpr int kLongerSide = 640;  // pixels

// What the library calls a stream's video; 0 for video that it does not decode.
int VideoType(std::int32_t codecId) {
  switch (codecId) {
    case AV_CODEC_ID_MJPEG:
      return 1;
    case AV_CODEC_ID_MPEG4:
      return 2;
    case AV_CODEC_ID_H264:
      return 3;
    case AV_CODEC_ID_HEVC:
      return 6;
    default:
      return 0;
  }
}

// The demuxer's callback: a packet is only lent, so the picture is decoded here. Stops at the first key frame.
FETCH_CONN DecodeKeyFrame(void* opaque, ESFormat& fmt, AVPacket& pkt, AVStream*) {
  auto& picture = *static_cast<AVFrame**>(opaque);
  if (fmt.i_cat != ES_VIDEO || (pkt.flags & AV_PKT_FLAG_KEY) == 0) {
    return FETCH_CONN_NEXT;
  }
  DoFFMpegGetScaledFrame(VideoType(fmt.i_codec_id), fmt.p_extra, fmt.i_extra, pkt.data, pkt.size, &picture,
                         kLongerSide);
  return FETCH_CONN_STOP;
}

AVFrame* FirstPicture(const std::string& recording) {
  FFmpegDemux demux;
  ESFormat video;
  ESFormat sound;
  AVFrame* picture = nullptr;
  if (demux.Open(recording, video, sound) == 0) {
    demux.Demux(video, sound, &picture, DecodeKeyFrame);
  }
  video.Reset(ES_UNKNOWN);
  sound.Reset(ES_UNKNOWN);
  return picture;
}

bool Write(const char* path, const unsigned char* data, int size) {
  std::FILE* file = std::fopen(path, "wb");
  const bool isWritten = file != nullptr && std::fwrite(data, 1, static_cast<std::size_t>(size), file) > 0;
  return file != nullptr && std::fclose(file) == 0 && isWritten;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: snapshot RECORDING OUT.jpg [PRIVACY]\n";
    return 2;
  }
  AVFrame* picture = FirstPicture(argv[1]);
  unsigned char* jpeg = nullptr;
  int size = 0;
  const int made = picture == nullptr ? -1 : DoFFMpegGetJpeg(picture, &jpeg, &size, -1, argc == 4 ? argv[3] : "");
  const std::unique_ptr<unsigned char, void (*)(void*)> owner(jpeg, std::free);
  DoFFmpegFrameFree(&picture);
  if (made != 0) {
    std::cerr << "snapshot: " << argv[1] << ": no picture; the log says why\n";
    return 1;
  }
  if (!Write(argv[2], jpeg, size)) {
    std::cerr << "snapshot: " << argv[2] << ": cannot write it\n";
    return 1;
  }
  return 0;
}
