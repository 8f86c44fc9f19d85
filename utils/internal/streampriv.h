// The muxer's writers, one for each stream (utils/ffmpegmuxer.cpp).
#pragma once

#include <string>

#include "utils/internal/ffmpegptr.h"
#include "utils/internal/soundgatherer.h"

struct ESFormat;
class MuxCtrler;

// Makes the stream and keeps its time line. Results: 0, or -1 on failure. The output context owns the stream and
// lives through every call; the codec context that stands beside it is the writer's.
class StreamPriv {
 public:
  // basePts: the zero of the time line that both streams share, microseconds, 0 when not set.
  StreamPriv(const MuxCtrler& ctrler, long long& basePts) : m_ctrler(ctrler), m_basePts(basePts) {}
  virtual ~StreamPriv() = default;
  StreamPriv(const StreamPriv&) = delete;
  StreamPriv& operator=(const StreamPriv&) = delete;

  virtual int Write(AVFormatContext* oc, unsigned char* buf, int size, long long ptsUs, bool key) = 0;

  // Makes the stream and its codec context; codec may be null. Null on failure.
  AVStream* AddStream(AVFormatContext* oc, const AVCodec* codec);

  // The time of the next packet in st's time base, above the one before.
  long long EstimatePts(const AVStream* st, long long ptsUs);

  // Forgets the packets so far.
  void RestartTimeLine() { m_lastPts = 0; }

  // Makes the same stream in another output context. False without memory: it stays where it is.
  bool MoveTo(AVFormatContext* oc);

  // The codec in the container.
  int CodecId() const;

 protected:
  const MuxCtrler& m_ctrler;
  long long& m_basePts;
  long long m_lastPts = 0;  // of the packet before, in the stream's time base
  AVStream* m_pStream = nullptr;
  mediautil::FfPtr<AVCodecContext> m_codecCtx;
};

class VdoStreamPriv : public StreamPriv {
 public:
  VdoStreamPriv(const MuxCtrler& ctrler, long long& basePts, int width, int height)
      : StreamPriv(ctrler, basePts), m_width(width), m_height(height) {}

  int AddStream(const std::string& codec, AVFormatContext* oc, const unsigned char* extradata, int extLen);
  int Write(AVFormatContext* oc, unsigned char* buf, int size, long long ptsUs, bool key) override;

 private:
  void FillCodecInfo(AVStream* st, const AVCodec* codec);
  int SetExtra(AVFormatContext* oc, AVStream* st, const unsigned char* extradata, int extLen);

  int m_width;  // pixels
  int m_height;
};

class AdoStreamPriv : public StreamPriv {
 public:
  using StreamPriv::StreamPriv;
  ~AdoStreamPriv() override;

  int AddStream(AVFormatContext* oc, const ESFormat& fmt);
  // key has no meaning.
  int Write(AVFormatContext* oc, unsigned char* buf, int size, long long ptsUs, bool key) override;

 private:
  int AddCopied(AVFormatContext* oc, const ESFormat& fmt);
  int AddEncoded(AVFormatContext* oc, const ESFormat& fmt);
  void FillCodecInfo(AVStream* st, const AVCodec* codec);
  int InitAacHandler();
  void FreeAacHandler();
  int InitEncodeHandler(AVStream* st);
  void FreeEncodeHandler();
  int WriteAacViaCopy(AVFormatContext* oc, AVStream* st, unsigned char* buf, int size, long long ptsUs);
  int WriteAdoViaEncode(AVFormatContext* oc, AVStream* st, unsigned char* buf, int size, long long ptsUs);
  bool InitEncodeFrame(AVFrame* out, const AVCodecContext* enc, const AVFrame* in);
  int DoEncode(AVFormatContext* oc, AVStream* st, AVFrame* frame);
  bool WriteEncoded(AVFormatContext* oc, AVPacket* packet);

  FFmpegAttr m_decoder = {};
  mediautil::FfPtr<AVBSFContext> m_aacFilter;  // ADTS to raw
  mediautil::SoundGatherer m_gatherer;
  bool m_isEncoded = true;  // false: copied
};
