// Plays an audio file at the pace at which it would be heard.
#pragma once

#include <string>

#include "platform/export.h"
#include "utils/esformat.h"

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;

// Takes the decoded sound; the calling side implements it.
class VY_API AudioDataHandler {
 public:
  virtual ~AudioDataHandler() = default;

  // One decoded frame in the decoder's own sample format, lent for the call (av_frame_ref to keep it). 0 to go on,
  // anything else stops the playing.
  virtual int OnAudioFrame(AVFrame* frame) = 0;
};

// One playing of one file: Open, then Demux. One thread uses an instance.
class VY_API DemuxMp3 {
 public:
  DemuxMp3();
  ~DemuxMp3();
  DemuxMp3(const DemuxMp3&) = delete;
  DemuxMp3& operator=(const DemuxMp3&) = delete;

  // Opens a file's best audio stream and describes it as GetAdoFmt does (audioutil.h); fmt's old p_extra is freed. The
  // file should hold sound only: the packets of all its streams go to the decoder. 0; or -1 with fmt unchanged and
  // nothing open. What GetAVFormat refuses is refused. A file that was open is closed first.
  int Open(std::string path, ESFormat& fmt);

  // Decodes the file and hands every frame to Process, blocking for the playing time; without a handler decodes only.
  // Packets that cannot be decoded are logged and skipped. 0 at the end of the file, or when none is open; -1 without
  // memory or when the handler stopped it.
  int Demux(AudioDataHandler* handler);

  // Waits until the next frame is due, then delivers it. The handler's answer; 1 for a null handler.
  int Process(AudioDataHandler* handler, AVFrame* frame);

  // Sleeps for one frame, less half of what earlier frames came late.
  void DoFramePtsSleep();

  // Playing time of the stream in microseconds, truncated; 0 when it is not known.
  long long GetTotalTime() const { return m_totalTime; }

  // Frames a second: 1 before Open, infinite for sound without a fixed frame size (WAV, FLAC), which is not paced.
  double GetFPS() const { return m_frameRate; }

 private:
  void Close();

  long long m_totalTime = 0;     // microseconds
  long long m_lastDelivery = 0;  // microseconds of the monotonic clock, 0: none yet
  long long m_correction = 0;    // microseconds by which a sleep is shortened
  double m_frameRate = 1.0;
  AVFormatContext* m_pInputCtx = nullptr;
  AVCodecContext* m_pCodecCtx = nullptr;
};
