// Reads recorded files packet by packet.
#pragma once

#include <string>

#include "platform/export.h"
#include "utils/esformat.h"

struct AVCodecContext;
struct AVFormatContext;
struct AVPacket;
struct AVRational;
struct AVStream;

// What a Demux callback wants: anything but FETCH_CONN_NEXT stops.
enum FETCH_CONN : int { FETCH_CONN_NEXT = 0, FETCH_CONN_STOP = 1 };

// One recorded file. One thread uses an instance.
class VY_API FFmpegDemux {
 public:
  FFmpegDemux();
  ~FFmpegDemux();
  FFmpegDemux(const FFmpegDemux&) = delete;
  FFmpegDemux& operator=(const FFmpegDemux&) = delete;

  // Opens a file and describes its last video and its last audio stream; a record without a stream stays as it was.
  // 0; 2 when the file cannot be opened; 3 when its streams cannot be analysed or the video decoder cannot be opened.
  // The caller owns vfmt.p_extra and afmt.p_extra (free).
  int Open(const std::string& path, ESFormat& vfmt, ESFormat& afmt);

  // Opens the decoder of the current video stream and describes it.
  bool InitVideoFormat(ESFormat& vfmt);

  // Reads on and lends every packet of the two streams to fetch with the record of its stream; times are in the
  // stream's time base. 1 when fetch stopped the loop, 0 when reading ended.
  int Demux(ESFormat& vfmt, ESFormat& afmt, void* opaque,
            FETCH_CONN (*fetch)(void* opaque, ESFormat& fmt, AVPacket& pkt, AVStream* st));

  // Unreferences pkt and reads the next packet of any stream into it. av_read_frame's result.
  int ReadFrame(AVStream*& st, AVPacket& pkt);

  // Seeks on the video stream. ts: seconds from the start of the stream's time line, in whole multiples of its time
  // base's numerator; flags: AVSEEK_FLAG_...
  void Seek(long long ts, int flags);

  // Null without a video stream.
  AVStream* GetVdoStream();

 private:
  void Close();

  AVFormatContext* m_pInputCtx = nullptr;
  AVCodecContext* m_pVdoCodecCtx = nullptr;
  int m_vdoStreamIdx = -1;
  int m_adoStreamIdx = -1;
};

// A time in the time base tb as microseconds, truncated. A missing time (AV_NOPTS_VALUE) gives 0: test for it first.
VY_API long long AvPacketPtsToRealPts(long long pts, AVRational& tb);
