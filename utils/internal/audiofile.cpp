#include "utils/internal/audiofile.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace mediautil {

bool IsPlainFileOrNone(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::file_status status = std::filesystem::status(path, ignored);
  return !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
}

bool OpenInput(const std::string& path, AVFormatContext*& fmt) {
  LockAVCodecRegister();
  if (!IsPlainFileOrNone(path)) {
    LockAVFormatFreeContext(fmt);
    return false;
  }
  return avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) >= 0;
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
