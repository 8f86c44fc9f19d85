// Scaling and pixel-format conversion that cannot abort the process, and packed pictures to convert into.
#pragma once

#include "utils/internal/ffmpegptr.h"

namespace mediautil {

// The most pixels of a picture that a one-shot decode takes, or a resize or a GIF makes: twice an 8K picture.
constexpr int kMaxPixels = 1 << 26;

// Bytes that a scaler may touch behind a packed picture.
constexpr int kPictureSlack = 64;

// A scaler, or null for an unsupported format or an impossible size. Full-range JPEG formats are given as their plain
// twins with the range set, which is the same conversion without libswscale's complaint.
FfPtr<SwsContext> MakeScaler(int srcWidth, int srcHeight, AVPixelFormat srcFormat, int dstWidth, int dstHeight,
                             AVPixelFormat dstFormat, int flags);

// Where a scaler writes to.
struct Target {
  unsigned char* const* data;
  const int* stride;
  AVPixelFormat format;
  int width;
  int height;
};

// Scales a whole picture. Where libswscale would need room behind the rows of the target, or leave the last columns of
// an odd width unwritten, the picture goes through a buffer of its own. False when nothing was written.
bool RunScaler(SwsContext* scaler, const unsigned char* const source[], const int sourceStride[], int sourceHeight,
               const Target& target);

// Gives an empty frame a reference-counted picture with packed rows. False for an impossible size or without memory.
bool AllocPackedPicture(AVFrame* frame, int width, int height, AVPixelFormat format);

// A packed copy of a frame's picture in its own format, or null.
FfPtr<AVFrame> CopyPacked(const AVFrame* frame);

// True when the frame holds a picture of one plane whose rows follow each other without padding.
bool IsPackedPicture(const AVFrame* frame);

// Bytes of a packed picture; negative for an impossible size or format.
int PackedSize(AVPixelFormat format, int width, int height);

// Lays the frame's planes over a packed picture of the given geometry in buffer.
void LayOver(AVFrame* frame, unsigned char* buffer, AVPixelFormat format, int width, int height);

// True when the frame's planes already lie over buffer and hold a picture of that geometry within bufferSize bytes.
bool LiesOver(const AVFrame* frame, const unsigned char* buffer, int bufferSize, AVPixelFormat format, int width,
              int height);

}  // namespace mediautil
