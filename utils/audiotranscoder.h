// Sound for a camera's loudspeaker: buffers of one audio format into another, packed in a container, to a callback.
#pragma once

#include <memory>
#include <string>

#include "platform/export.h"
#include "utils/mpeg4util.h"

struct AVPacket;

// One audio format of a camera's audio output. Names are FFmpeg's; the last two are only read of a destination.
struct CAM_CAP_AUDIO_OUT_FORMAT {
  std::string strFormat;    // label: formats with equal labels, rates and sample sizes are the same
  int sampleRate = 0;       // Hz
  int bitsPerSample = 0;    // of the coded sound; G.726: 2 to 5
  int channels = 0;         // a destination must have as many as its source; MP3: 2 for 2, else 1
  std::string ffCodecName;  // of the decoder or the encoder, "pcm_mulaw", "libmp3lame"
  std::string ffMuxerName;  // "mp3", "adts", "g726"
  std::string ffSampleFmt;  // one that the encoder takes, "s16p"
};

// One stream, from one thread at a time. What is too little for a whole encoder frame waits for the next buffer.
class VY_API AudioTranscoder {
 public:
  AudioTranscoder();
  ~AudioTranscoder();
  AudioTranscoder(const AudioTranscoder&) = delete;
  AudioTranscoder& operator=(const AudioTranscoder&) = delete;

  // Opens decoder, encoder and container and writes the container's header. 0, or -1: then only Close makes sense.
  // A second Init without a Close is refused and changes nothing.
  //
  // write gets opaque and size bytes of output, to be copied during the call, from within Init, DoTranscode and Close:
  // at most 2304 bytes at a time for libmp3lame, else 2048. A negative result fails Init; later it loses these bytes
  // and what was to follow of the same encoded packet. Null drops the output.
  int Init(const CAM_CAP_AUDIO_OUT_FORMAT& src, const CAM_CAP_AUDIO_OUT_FORMAT& dst, void* opaque,
           int (*write)(void* opaque, unsigned char* data, int size));

  // One buffer of coded sound, len bytes, only read; of several coded frames in it the first is taken. Between equal
  // formats it goes to the callback as it is, in one call. 0, or 1 on failure: the buffer is dropped and the next one
  // is welcome. A buffer of so few samples that the resampler keeps them all gives 1, too, and its sound comes later. A
  // callback's refusal is logged and no failure.
  int DoTranscode(char* buf, int len);

  // Writes the container's end and releases everything; sound that still waits is dropped. May run twice, and Init may
  // follow. The destructor calls it.
  void Close();

 private:
  struct Encoding;

  int InitOutputContext();
  int FFMpegInitAudio();
  AVStream* AddAudioStream(const AVCodec** encoder);
  int OpenAudio(const AVCodec* encoder, AVStream* stream);
  int EncodeFrame(AVFrame* decoded);
  void InitEncodeFrame(AVFrame* decoded, AVCodecContext* encoderCtx, AVFrame* out);
  int DoEncode(AVFormatContext* oc, AVStream* stream, AVFrame* frame);
  static bool WritePacket(AVFormatContext* oc, AVPacket* packet);

  CAM_CAP_AUDIO_OUT_FORMAT m_src;
  CAM_CAP_AUDIO_OUT_FORMAT m_dst;
  AVCodecContext* m_pEncoderCtx = nullptr;
  AVFormatContext* m_pOutputCtx = nullptr;
  AVStream* m_pStream = nullptr;  // the output context's
  std::unique_ptr<Encoding> m_pEncoding;
  FFmpegAttr m_decoder = {};
  void* m_pOpaque = nullptr;
  int (*m_pWrite)(void* opaque, unsigned char* data, int size) = nullptr;
  bool m_isHeaderWritten = false;
};
