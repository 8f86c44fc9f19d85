#include "utils/internal/inputfile.h"

#include <sys/stat.h>

#include <algorithm>
#include <new>

extern "C" {
#include <libavutil/avstring.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

namespace mediautil {
namespace {

// A playlist may wait for the next piece for ever, or name itself; others open files that lie beside them; game music
// and tone scripts may have no end.
constexpr char kRefusedFormats[] = "concat,dash,hls,imf,libgme,mlv,sbg,vobsub";

// The format of a file's content, or an error. Reading a header would be too late to look.
int ProbeFormat(const std::string& url, const AVInputFormat*& format) {
  AVIOContext* io = nullptr;
  int ret = avio_open(&io, url.c_str(), AVIO_FLAG_READ);
  ret = ret < 0 ? ret : av_probe_input_buffer2(io, &format, url.c_str(), nullptr, 0, 0);
  if (ret >= 0 && format != nullptr && av_match_name(format->name, "image2") != 0) {
    // Taken by the name, which may be a pattern for other files ("cam%d.jpg"). The content counts.
    format = nullptr;
    ret = av_probe_input_buffer2(io, &format, "", nullptr, 0, 0);
  }
  avio_closep(&io);
  const bool isRefused = format == nullptr || av_match_name(format->name, kRefusedFormats) != 0;
  return ret >= 0 && isRefused ? AVERROR_INVALIDDATA : std::min(ret, 0);
}

}  // namespace

FileId FileOf(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? FileId(info.st_dev, info.st_ino) : FileId();
}

bool IsPlainFileOrNone(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) != 0 || S_ISREG(info.st_mode);
}

int OpenInput(const std::string& path, AVFormatContext*& fmt) try {
  LockAVCodecRegister();
  const std::string url = "file:" + path;
  const AVInputFormat* format = nullptr;
  if (const int ret = IsPlainFileOrNone(path) ? ProbeFormat(url, format) : AVERROR_INVALIDDATA; ret < 0) {
    LockAVFormatFreeContext(fmt);
    return ret;
  }
  AVDictionary* options = nullptr;
  av_dict_set(&options, "protocol_whitelist", "file", 0);
  const int ret = avformat_open_input(&fmt, url.c_str(), format, &options);
  av_dict_free(&options);
  return ret;
} catch (const std::bad_alloc&) {
  LockAVFormatFreeContext(fmt);
  return AVERROR(ENOMEM);
}

int FindAudioStream(AVFormatContext* fmt) {
  return av_find_best_stream(fmt, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
}

FfPtr<AVCodecContext> NewDecoderContext(const AVStream& stream) {
  FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(nullptr));
  if (ctx == nullptr || avcodec_parameters_to_context(ctx.get(), stream.codecpar) < 0) {
    return nullptr;
  }
  ctx->pkt_timebase = stream.time_base;  // to skip the samples that precede the sound
  return ctx;
}

long long PlayingTime(const AVStream& stream) {
  constexpr AVRational kMicroseconds = {1, 1000000};
  // A duration that is missing is the lowest number there is.
  return std::max<long long>(av_rescale_q_rnd(stream.duration, stream.time_base, kMicroseconds, AV_ROUND_ZERO), -1);
}

}  // namespace mediautil
