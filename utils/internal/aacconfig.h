// The configuration data of AAC (LC) from sampling rate and channel count.
#pragma once

#include <array>
#include <cstdint>

struct AVCodecParameters;

namespace mediautil {

// Index of a sampling rate; -1 for a rate that AAC does not have.
int AacRateIndex(std::uint32_t rate);

// Channel configuration of a channel count; 0 for a count without one.
int AacChannelConfig(int channels);

// AudioSpecificConfig from the two above.
std::array<std::uint8_t, 2> AacSpecificConfig(int rateIndex, int channelConfig);

// Describes AAC of a rate and channel count that it has, configuration data included. False without memory.
bool FillAacParameters(AVCodecParameters& par, int rate, int channels, std::int64_t bitRate);

}  // namespace mediautil
