// Coded frames into a container whose bytes go to a callback: fragmented MP4, FLV or MP3.
#pragma once

#include <memory>
#include <string>

#include "platform/export.h"

struct AVFormatContext;
struct AVPacket;
struct ESFormat;
class AdoStreamPriv;
class StreamPriv;
class VdoStreamPriv;

// Any other value stands for MP4.
enum FFMPEG_MUXER_FORMAT : int {
  FFMPEG_MUXER_FORMAT_MP4 = 0,
  FFMPEG_MUXER_FORMAT_MP3 = 1,
  FFMPEG_MUXER_FORMAT_FLV = 2
};

// The caller's policy: which sound goes into the container, and what happens to a packet. Its hooks run on the thread
// that uses the muxer, inside the muxer's calls. Slots: destructor, then in this order.
class VY_API MuxCtrler {
 public:
  virtual ~MuxCtrler();

  // The codec (AVCodecID) that sound other than AAC is encoded to; AAC is always copied. Default: MP3, and AAC for AAC.
  virtual int GetMuxAdoCodec(const ESFormat& src) const;

  // Writes a packet; its data is valid during the call only. Negative: the frame counts as failed. The default writes
  // to oc, interleaved by time, and refuses a packet before the header. Frames reach an override before the header too:
  // one that writes to oc itself must not do so then, FFmpeg does not check.
  virtual int WritePkt(AVFormatContext* oc, AVPacket* pkt) const;

  // After each written packet. The results are ignored.
  virtual int AfterWriteVdo(AVFormatContext* oc) const;
  virtual int AfterWriteAdo(AVFormatContext* oc) const;
};

// One output of one video stream and at most one audio stream. Init, then add the streams, WriteHeader, frames in any
// interleaving, Finalize; then it may start over. All int results: 0, or -1 on failure. One thread uses an instance.
//
// Times are microseconds, the first above 0. The first frame of either stream is the zero of both; in each stream
// they always rise: a time that does not is put one tick behind the one before. As long as a first time is 0 or less,
// the zero moves to that of the next frame.
class VY_API FFmpegMuxer {
 public:
  // The policy must outlive the muxer.
  explicit FFmpegMuxer(const MuxCtrler& ctrler);
  ~FFmpegMuxer();
  FFmpegMuxer(const FFmpegMuxer&) = delete;
  FFmpegMuxer& operator=(const FFmpegMuxer&) = delete;

  // write gets opaque and size bytes of output, to be copied during the call, from within WriteHeader, the frame writes
  // and Finalize. Any result from 0 on counts as all taken; a negative one fails this write and all later ones without
  // another call, except that WriteHeader may still succeed. Null drops the output. A failed Init needs a Finalize
  // before the next one.
  int Init(FFMPEG_MUXER_FORMAT fmt, void* opaque, int (*write)(void* opaque, unsigned char* data, int size));

  // codec: "H264", "AVC1", "H265", "MP4V-ES" or "JPEG". extradata: codec configuration data, copied; for H.264 and
  // H.265 either parameter sets with start codes, for frames with start codes, or what an avcC or hvcC box holds, for
  // frames with length prefixes. Without it the stream is accepted, but players cannot open H.264 or H.265.
  int AddVdoStream(const std::string& codec, int width, int height, const unsigned char* extradata, int extLen);

  // info: "channels|rate" or "channels|rate|extra"; the extra of G.726 is its kbit/s: 40, 32, 24 or 16, none counts as
  // 40. codec: a name in session-description spelling, in any case; for MPA, AC3, L8 and SPEEX there is no decoder.
  // bG726LE chooses the little-endian G.726. AAC-LC (ADTS, or raw) is copied, other sound is encoded to the policy's
  // codec: 32000 Hz, mono, 32000 bit/s. A stream that failed to be added leaves the other one usable.
  int AddAdoStream(const std::string& info, const std::string& codec, bool bG726LE);

  // No stream can be added afterwards. After a failure Finalize and start over.
  int WriteHeader();

  // One frame in decoding order; streams with reordered frames (B-frames) are not supported. MP4: a fragment leaves
  // with the key frame behind it.
  int WriteVdoFrame(unsigned char* buf, int size, long long ptsUs, bool key);

  // One buffer of coded sound. Copied sound without a time (0 or less) follows the sound before; encoded sound always
  // does, whatever its time.
  int WriteAdoFrame(unsigned char* buf, int size, long long ptsUs);

  // Ends the output and releases everything. May run twice; the destructor calls it.
  void Finalize();

  // "MP3" or "MPEG4-GENERIC" after the sound in the container; empty without sound or for another codec.
  std::string GetAudioFmt() const;

  // False for no codec, for AAC in MP3, and for a video codec that FFmpeg cannot decode. Other names are not checked.
  static bool IsValidCodec(FFMPEG_MUXER_FORMAT fmt, const std::string& codec);

  // MP4: where the fragment after the last one written begins on the time line of the stream added first, in
  // microseconds. 0 before the first fragment and for other containers.
  long long GetMovVdoTrackNextFragStart();

 private:
  struct Output;

  void DropFailedStream(StreamPriv* other);

  const MuxCtrler& m_ctrler;
  long long m_basePts = 0;  // the zero of both streams' time lines, 0: not set yet
  FFMPEG_MUXER_FORMAT m_format = FFMPEG_MUXER_FORMAT_MP4;
  AVFormatContext* m_pOutputCtx = nullptr;
  std::unique_ptr<Output> m_pOutput;  // the I/O context and its buffer
  std::unique_ptr<VdoStreamPriv> m_pVdo;
  std::unique_ptr<AdoStreamPriv> m_pAdo;
  bool m_isHeaderWritten = false;
};

// What a browser wants to know before the first byte of the MP4 that a muxer makes of these streams, as
// video/mp4; codecs="avc1.64001f, mp4a.40.2". Streams are described as FFmpegDemux does, by i_cat, i_codec_id or
// str_codec, and p_extra; an i_cat other than video or audio stands for no such stream. Empty when there is no stream
// or one of them cannot be named.
VY_API std::string GetMimeCodecs(const ESFormat& video, const ESFormat& audio, const MuxCtrler& ctrler);
