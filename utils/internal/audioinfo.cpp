#include "utils/internal/audioinfo.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "platform/text.h"
#include "utils/esformat.h"

namespace mediautil {
namespace {

bool EqualsIgnoringCase(const std::string& a, const char* b) {
  return strcasecmp(a.c_str(), b) == 0;
}

struct CodecName {
  const char* name;
  std::uint32_t code;
  bool hasOwnRate;  // the coded sound tells it
};

constexpr CodecName kCodecNames[] = {{"MPA", EsFourCC("mpga"), true},
                                     {"MPA-ROBUST", EsFourCC("mpga"), true},
                                     {"X-MP3-DRAFT-00", EsFourCC("mpga"), true},
                                     {"AC3", EsFourCC("a52 "), true},
                                     {"L16", EsFourCC("twos"), false},
                                     {"L8", EsFourCC("araw"), false},
                                     {"PCM", EsFourCC("s16b"), false},
                                     {"PCMU", EsFourCC("ulaw"), false},
                                     {"PCMA", EsFourCC("alaw"), false},
                                     {"AMR", EsFourCC("samr"), false},
                                     {"AMR-WB", EsFourCC("sawb"), false},
                                     {"MP4A-LATM", EsFourCC("mp4a"), false},
                                     {"MPEG4-GENERIC", EsFourCC("mp4a"), false},
                                     {"SPEEX", EsFourCC("spxr"), false}};

// Compares over the length of the extra text, so that no text at all stands for the first rate.
int G726BitRate(std::string_view extra) {
  const std::string_view start = extra.substr(0, 3);
  constexpr std::string_view kTexts[] = {"40", "32", "24", "16"};
  int bitRate = 40000;
  for (const std::string_view text : kTexts) {
    if (text.substr(0, start.size()) == start) {
      return bitRate;
    }
    bitRate -= 8000;
  }
  return 0;
}

}  // namespace

AudioInfo ParseAudioInfo(const std::string& info) {
  const std::vector<std::string> fields = String2StrVector(info, "|");
  AudioInfo parsed;
  parsed.hasChannels = !fields.empty() && !fields[0].empty();
  parsed.hasRate = parsed.hasChannels && fields.size() > 1 && !fields[1].empty();
  parsed.hasExtra = parsed.hasRate && fields.size() > 2;
  if (parsed.hasChannels) {
    parsed.channels = static_cast<std::uint8_t>(std::strtoll(fields[0].c_str(), nullptr, 10));
  }
  if (parsed.hasRate) {
    const long long rate = std::strtoll(fields[1].c_str(), nullptr, 10);
    parsed.rate = static_cast<std::uint32_t>(std::clamp(rate, 0LL, static_cast<long long>(INT32_MAX)));
  }
  if (parsed.hasExtra) {
    parsed.extra = fields[2];
  }
  return parsed;
}

bool IsAacName(const std::string& codec) {
  return EqualsIgnoringCase(codec, "MP4A-LATM") || EqualsIgnoringCase(codec, "MPEG4-GENERIC");
}

bool IsG726Name(const std::string& codec) {
  return EqualsIgnoringCase(codec.substr(0, 4), "G726");
}

void FillAudioCodec(ESFormat& fmt, const std::string& codec) {
  if (IsG726Name(codec)) {
    const bool hasExtra = fmt.p_extra != nullptr && fmt.i_extra > 0;
    const auto size = static_cast<std::size_t>(hasExtra ? fmt.i_extra : 0);
    fmt.i_codec = EsFourCC("g726");
    fmt.audio.i_rate = 8000;
    fmt.audio.i_channels = 1;
    fmt.i_bitrate = G726BitRate(std::string_view(hasExtra ? reinterpret_cast<const char*>(fmt.p_extra) : "", size));
    return;
  }
  for (const CodecName& known : kCodecNames) {
    if (EqualsIgnoringCase(codec, known.name)) {
      fmt.i_codec = known.code;
      fmt.audio.i_rate = known.hasOwnRate ? 0 : fmt.audio.i_rate;
      return;
    }
  }
}

}  // namespace mediautil
