// Media made by the tests: coded video frames and files, and pictures to compare.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "utils/internal/ffmpegptr.h"

using Bytes = std::vector<std::uint8_t>;

struct CodedFrame {
  Bytes data;
  std::int64_t pts;  // frames
  bool key;
};

struct Clip {
  AVCodecID codecId = AV_CODEC_ID_NONE;
  int width = 0;
  int height = 0;
  Bytes extradata;
  std::vector<CodedFrame> frames;
};

struct ClipWish {
  const char* encoder;  // "libx264", "libx265", "mpeg4", "mjpeg"
  int width = 320;
  int height = 240;
  int frames = 3;
  int bFrames = 0;
  bool globalHeader = false;  // parameter sets in the configuration data instead of in band
  int gop = 250;
  const char* params = "";  // x264-params or x265-params
};

// Frame n of the test picture: smooth gradients with a bright square that moves with n.
mediautil::FfPtr<AVFrame> TestPicture(AVPixelFormat format, int width, int height, int n = 0);

// A picture of one colour, RGB24 with rows alignment bytes apart.
mediautil::FfPtr<AVFrame> SolidRgb(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                                   int alignment = 1);

// Encodes the test picture, 25 frames a second.
Clip EncodeClip(const ClipWish& wish);

mediautil::FfPtr<AVCodecParameters> NewParameters(AVMediaType type, AVCodecID id, const Bytes& extradata);
mediautil::FfPtr<AVCodecParameters> ParametersOf(const Clip& clip);

// A packet of those bytes, which the caller frees.
AVPacket* MakePacket(const Bytes& data);

// A baseline JPEG of the test picture as an MxPEG key frame, with the changed-blocks mask of such cameras.
Bytes MxpegKeyFrame(int width, int height);

// Writes a clip into a file of the container that its name asks for. audioRate above 0 adds a silent sound track.
void WriteFile(const Clip& clip, const std::string& path, int audioRate = 0);

// Mean absolute difference of two pictures, of one size, as RGB24; 255 when sizes differ.
double MeanDifference(const AVFrame* a, const AVFrame* b);

// Colour of one pixel, 0xRRGGBB, of packed RGB rows.
unsigned int PixelAt(const std::uint8_t* rgb, int stride, int x, int y);

// Throws where a test's own material cannot be made.
void Require(bool ok, const std::string& step);

void SaveBytes(const std::string& path, const void* data, std::size_t size);

// The bytes of a file; none when it cannot be read.
Bytes ReadBytes(const std::string& path);

// The bytes of a number, the most significant one first.
Bytes BigEndian(std::uint64_t value, int size);

// The pieces as one.
Bytes Joined(const std::vector<Bytes>& pieces);

// Some bytes, the same in every run of a test.
Bytes RandomBytes(std::size_t size, unsigned int below = 256);
