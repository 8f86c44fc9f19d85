// Which sound a file of a name holds, and what its encoder takes.
#pragma once

#include <string>

#include "utils/internal/ffmpegptr.h"

namespace mediautil {

struct SoundFormat {
  const char* extension;
  const char* container;
  AVCodecID codec;
  AVSampleFormat sampleFormat;
};

// Raw AAC, without a container.
constexpr SoundFormat kRawAac = {"", nullptr, AV_CODEC_ID_AAC, AV_SAMPLE_FMT_FLTP};

// The format that a file name ends with, in any case: .mp3, .wav, .aac, .m4a or .mp4. Null for any other.
const SoundFormat* FindSoundFormat(const std::string& path);

// An encoder for it, not opened; its rate is the lowest that keeps all sound of the given one, else its highest. Null
// without such an encoder.
FfPtr<AVCodecContext> MakeEncoder(const SoundFormat& format, int rate, int channels);

// A container with one stream of what the encoder gives, and a name that nothing was written to yet. Negative with
// oc null on failure.
int MakeSoundFile(const SoundFormat& format, const AVCodecContext& encoder, const std::string& path,
                  AVFormatContext*& oc);

// Damaged sound can decode to floats out of all bounds, or to no numbers: integers of them are clicks, and encoders of
// floats give up on them. They become silence.
void SilenceWildSamples(AVFrame* frame);

}  // namespace mediautil
