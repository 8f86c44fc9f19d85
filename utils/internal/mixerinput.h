// What the mixer knows of one input beyond its public record, and the steps that need no message.
#pragma once

#include "utils/audiomixer.h"
#include "utils/internal/inputfile.h"
#include "utils/internal/resampler.h"

namespace mediautil {

// The next packet of a file's first audio stream; none for a packet of another one, and on failure.
int ReadSoundPacket(AVFormatContext* file, FfPtr<AVPacket>& packet);

// The first packet of a queue, which must not be empty.
FfPtr<AVPacket> TakeFirst(std::list<AVPacket*>& queue);

struct MixerInput : AudioMixer::FmtCodecCtx {
  SoundShape shape = {};      // of its source
  Resampler resampler;        // for frames of another shape
  FfPtr<AVFrame> rest;        // of a decoded frame that is too much for one pass
  FileId file;                // zeros for a stream
  bool hasNewSound = false;   // since the last flush
  bool isOverrun = false;     // packets were dropped since the queue was empty
  bool isEndQueued = false;   // nothing counts behind the end marker
  bool isBacklogged = false;  // what waited was too much for one pass: the rest is no gap
  bool isAtEnd = false;       // nothing more is to be read
  bool isEnded = false;       // the source got its null frame

  bool IsStream() const { return fmtCtx == nullptr; }
  // Of a stream: sound was pushed that is not yet in the graph.
  bool HasWaiting() const { return IsStream() && (!pktQueue.empty() || rest != nullptr); }
  double Seconds() const { return static_cast<double>(samples) / shape.rate; }
  bool IsBeyond(const MixerInput& other) const;

  // Whether the graph needs more of it.
  bool IsAsked() const;

  // With how many samples it would be so far behind the leader.
  std::int64_t SamplesBehind(const MixerInput& leader, int milliseconds) const;

  // How many samples of a rate one pass takes: 10 s, or 64 MiB in the shape of the source.
  int PassSamples(int passRate) const;

  // Takes a packet, or null for the end; at most 1500 and 16 MiB wait. False when old ones had to go for the first time
  // since the queue was empty. Throws std::bad_alloc with nothing changed.
  bool Queue(AVPacket* packet);

  // Brings a frame into the shape of the source and feeds it. What is too much for one pass becomes the rest. Wild
  // samples become silence. A frame without samples left is no error.
  int Feed(AVFrame* frame);
};

}  // namespace mediautil
