// Names of coded streams for browsers (RFC 6381), and what of codec configuration data they are made from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace mediautil {

// "avc1.64001f", "hvc1.1.6.L93.B0", "mp4v.20.1" from configuration data as it goes into an MP4 header: avcC or hvcC
// boxes, or start-code separated parameter sets. Empty when the data does not tell, or for other codecs.
std::string VideoCodecString(AVCodecID codecId, const std::uint8_t* extradata, std::size_t size);

// "mp4a.40.2"; empty for a codec that MP4 has no name for.
std::string AudioCodecString(AVCodecID codecId);

// True when the configuration data of HEVC holds all three kinds of parameter sets, so that frames need none.
bool HoldsHevcSets(const std::uint8_t* extradata, std::size_t size);

}  // namespace mediautil
