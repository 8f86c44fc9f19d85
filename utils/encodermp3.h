// Decoded sound to MP3: 32000 Hz, mono, 32000 bit/s; to a file, to standard output, or into a container.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "platform/export.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;

namespace mediautil {
class SoundGatherer;
}

// One of the two preparations, then frames, then Close; from one thread at a time. What is too little for a whole MP3
// frame waits for the next call; at Close it is dropped, and the encoder keeps its last packets.
//
// Mono sound of 1000 to 768000 Hz in any sample format; later frames may change both. Of planar sound with more
// channels the first one is taken; interleaved sound with more channels must be mixed down before, it is read as if it
// were mono.
class VY_API EncoderMP3 {
 public:
  EncoderMP3();
  ~EncoderMP3();
  EncoderMP3(const EncoderMP3&) = delete;
  EncoderMP3& operator=(const EncoderMP3&) = delete;

  // Opens an encoder for the sound that inCtx decodes; only its rate and sample format are read. With toFile the
  // packets of EncodeFrame go to the file at path, which is replaced, or to standard output when path is empty; without
  // it only EncodeToOc may be used. 0, or 3. A file that cannot be opened is logged, and the frames fail with 1.
  int OpenOutputAudioCodec(AVCodecContext* inCtx, bool toFile, const std::string& path);

  // The same for EncodeToOc with the caller's encoder, opened, which should have the format above: it is handed mono
  // samples of 32000 Hz, planar 16 bit, whatever it wants. 0, or 3. In both cases Close frees encCtx unless
  // ResetOutputConext comes first.
  int AddOutputAudioCodec(AVCodecContext* inCtx, AVCodecContext* encCtx);

  // Encodes one decoded frame, which is only read, and writes the packets, each flushed at once. 0; 1 when resampling,
  // encoding or writing failed; 4 for null; 8 without memory. Later frames are welcome after each.
  int EncodeFrame(AVFrame* frame);

  // The same with the packets, without times, going to a stream of oc, whose header has been written. The container
  // takes the times from the packets' durations: MP3, MP4 and MOV do.
  int EncodeToOc(AVFrame* frame, AVFormatContext* oc, AVStream* stream);

  // Closes the file, not standard output, and releases everything. May run twice, and a preparation may follow. A
  // second preparation and the destructor call it.
  void Close();

  // Forgets the caller's encoder, which stays with its owner, and frees one that was opened here; no frame can be
  // encoded then.
  void ResetOutputConext();

 private:
  int OpenCodec(AVCodecID id);
  int AddAudioStream(AVCodecID id, AVCodecContext* inCtx, AVCodecContext* encCtx);
  int InitResample(AVCodecContext* inCtx);
  int InitResampleBuffer(AVCodecContext* inCtx);
  int Encode(AVFrame* in, AVFrame& work, AVFormatContext* oc, AVStream* stream);
  int InitAVFrame(AVFrame& out, AVFrame* in);
  int DoEncode(AVFrame* frame, AVFormatContext* oc, AVStream* stream);
  static bool WriteToOc(AVPacket* packet, AVFormatContext* oc);
  bool WriteToFile(const AVPacket* packet);

  std::unique_ptr<mediautil::SoundGatherer> m_pGatherer;
  AVCodecContext* m_pEncoderCtx = nullptr;
  bool m_hasOwnEncoder = false;
  std::FILE* m_pFile = nullptr;
};
