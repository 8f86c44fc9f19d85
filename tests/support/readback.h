// What a container that was just made really holds, as FFmpeg reads and decodes it.
#pragma once

#include <vector>

#include "tests/support/sound.h"

struct Track {
  AVCodecID codecId = AV_CODEC_ID_NONE;
  std::string tag;  // the stream's name in the container, "hvc1"
  int width = 0;
  int height = 0;
  int rate = 0;
  int channels = 0;
  Bytes extradata;
  std::vector<Bytes> packets;
  std::vector<std::int64_t> times;  // decoding times of the packets, microseconds
  std::vector<bool> keys;
  std::vector<mediautil::FfPtr<AVFrame>> pictures;
  Samples sound;
  Samples right;   // the second channel of sound that has one
  int errors = 0;  // packets that the decoder refused
};

// Reads and decodes all streams; none when the bytes cannot be opened. Bytes that do not tell what they are need the
// name of their format and its options, "sample_rate=8000:code_size=4".
std::vector<Track> ReadBack(const Bytes& container, const char* format = nullptr, const char* options = "");

// The clip's frames and configuration data as an MP4 file stores them: length-prefixed, avcC or hvcC.
Clip AsInMp4(Clip clip);

// The pictures of a clip's frames without any container around them.
std::vector<mediautil::FfPtr<AVFrame>> DecodeFrames(const Clip& clip);

// The decoding times of the fragments of one track of an MP4, in ticks of the track.
std::vector<std::int64_t> FragmentTimes(const Bytes& mp4, unsigned int track);
