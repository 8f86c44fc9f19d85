#include "utils/internal/audiofile.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

extern "C" {
#include <libavutil/avstring.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

namespace mediautil {
namespace {

// A playlist may wait for the next piece for ever, or name itself; game music may have no end.
constexpr char kRefusedFormats[] = "concat,dash,hls,imf,libgme,vobsub";

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

bool IsPlainFileOrNone(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::file_status status = std::filesystem::status(path, ignored);
  return !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
}

int OpenInput(const std::string& path, AVFormatContext*& fmt) {
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
