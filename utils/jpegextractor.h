// Single pictures of a recorded Motion JPEG file, as they are stored.
#pragma once

#include <cstdint>
#include <string>

#include "platform/export.h"

struct AVFormatContext;

// What a file holds.
struct __tag_JPEG_FRAME_INFO {  // NOLINT(bugprone-reserved-identifier): the name that callers know
  float frameRate;              // frames per second; 0 in a file without Motion JPEG
  std::uint16_t width;          // pixels
  std::uint16_t height;         // pixels
  std::uint32_t frameCount;     // frames in the file's index
};

// One recorded file. Frames are addressed by the file's index, which FFmpeg reads whole from AVI, MOV and MP4; of a
// Matroska file it knows a single frame, of a raw JPEG stream none. One thread uses an instance.
class VY_API JpegExtractor {
 public:
  JpegExtractor() = default;
  virtual ~JpegExtractor();
  JpegExtractor(const JpegExtractor&) = delete;
  JpegExtractor& operator=(const JpegExtractor&) = delete;

  // Opens a file, which is never taken for a URL; what is no regular file, or a list of other files, is refused. While
  // the index is read the file is locked (shared flock): a writer that holds it exclusively is waited for. A file that
  // was open is closed in any case. 0, or 1; a file without Motion JPEG opens with 0 frames.
  int Init(const std::string& path);

  // Closes the file. 0, or 1 when none was open.
  int Finish();

  // 0, or 1 when no file is open.
  int GetFrameInfo(__tag_JPEG_FRAME_INFO& info);

  // Copies the JPEG of frame index into buffer. size: bytes that fit into it, then bytes of the JPEG. 0, or 1: with
  // size 0 when the JPEG does not fit, with size as it was for an index beyond the end or a file that cannot be read.
  // The frame is sought at index times the whole ticks of one frame: where the file's ticks do not divide a frame's
  // time, an earlier frame comes, by the dropped fraction of index.
  int ReadFrame(unsigned int index, unsigned char* buffer, unsigned int& size);

  // The frame shown at a time, in milliseconds; may be beyond the last one. -1 for a negative time.
  int GetFrameIdx(int timeMs);

  // The time of a frame in milliseconds; -1 for a negative index and without a frame rate. Above index 2147483 it wraps
  // to negative and small times.
  int GetTimeMS(int index);

 private:
  int ProbeFrames(const std::string& path);
  void Describe(int streamIndex);

  bool m_isOpened = false;
  std::int16_t m_streamIdx = -1;
  std::uint32_t m_nextFrame = 0;  // the one after the frame read last
  std::int64_t m_start = 0;       // of the first frame, in ticks of the stream
  std::int32_t m_step = 1;        // from frame to frame, in such ticks, at least 1
  __tag_JPEG_FRAME_INFO m_info = {};
  AVFormatContext* m_pInputCtx = nullptr;
};
