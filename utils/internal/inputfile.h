// An input file on its way to decoded frames.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>

#include "utils/internal/ffmpegptr.h"

namespace mediautil {

// What tells one file from another, whatever its names are.
using FileId = std::pair<dev_t, ino_t>;

// Zeros when there is none.
FileId FileOf(const std::string& path);

// False for what reading or writing might never end on: FIFOs, devices, directories. A path that names no file passes.
bool IsPlainFileOrNone(const std::string& path);

// Opens a plain file into fmt, a context from avformat_alloc_context or null; path is never taken for a URL. Formats
// that open further files or may have no end are refused. 0, or an error of FFmpeg with fmt freed and null.
int OpenInput(const std::string& path, AVFormatContext*& fmt);

// The index of the best audio stream, or a negative error.
int FindAudioStream(AVFormatContext* fmt);

// A decoder context for a stream, not opened. Null without memory.
FfPtr<AVCodecContext> NewDecoderContext(const AVStream& stream);

// Microseconds, truncated; -1 when the container does not tell.
long long PlayingTime(const AVStream& stream);

// Decodes one packet and hands every frame that came out to take(frame); once it returns false, the packet's other
// frames are dropped. A negative error of the decoder, else 0. A packet without data is skipped: it would end the
// decoder's stream.
template <typename Take>
int DecodePacket(AVCodecContext* ctx, const AVPacket& packet, AVFrame* frame, Take take) {
  int ret = packet.size < 1 ? AVERROR(EAGAIN) : avcodec_send_packet(ctx, &packet);
  bool goOn = true;
  while (ret >= 0 && (ret = avcodec_receive_frame(ctx, frame)) >= 0) {
    goOn = goOn && (frame->nb_samples < 1 || take(*frame));  // the decoder takes no packet before all are out
  }
  return ret == AVERROR(EAGAIN) ? 0 : ret;
}

}  // namespace mediautil
