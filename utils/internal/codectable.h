// The callers' codec numbers and codes, and what FFmpeg calls them.
#pragma once

#include <cstdint>
#include <string>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace mediautil {

// The decoder of a video type, 1 to 8; AV_CODEC_ID_NONE for a type without one.
AVCodecID VideoCodecId(int vdoType);

// The codec of a video name in session-description spelling, case and all; AV_CODEC_ID_NONE for any other text.
AVCodecID VideoCodecIdByName(const std::string& name);

// AV_CODEC_ID_NONE for a code that is no audio code of ours.
AVCodecID AudioCodecId(std::uint32_t code, bool g726LittleEndian);

// Bits per coded sample; 0 for codes that need none. G.726 follows its bit rate, 8 for a rate that it does not have.
int BitsPerCodedSample(std::uint32_t code, int bitRate);

// The four characters of a codec code.
std::string CodeText(std::uint32_t code);

}  // namespace mediautil
