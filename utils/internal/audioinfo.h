// How callers name the sound of a stream: "channels|rate|extra", and a codec name in session-description spelling.
#pragma once

#include <cstdint>
#include <string>

struct ESFormat;

namespace mediautil {

// The fields of the text; the first missing one and those behind it are not there. Numbers are decimal, text that is no
// number counts as 0.
struct AudioInfo {
  bool hasChannels = false;
  bool hasRate = false;
  bool hasExtra = false;
  std::uint8_t channels = 0;  // the low 8 bits of the number
  std::uint32_t rate = 0;     // Hz
  std::string extra;
};
AudioInfo ParseAudioInfo(const std::string& info);

// Sets i_codec from a codec name in any case, and what the codec fixes of rate, channels and, for G.726, bit rate: the
// extra text in p_extra names it. Leaves the record as it is for an unknown name.
void FillAudioCodec(ESFormat& fmt, const std::string& codec);

bool IsAacName(const std::string& codec);
bool IsG726Name(const std::string& codec);

}  // namespace mediautil
