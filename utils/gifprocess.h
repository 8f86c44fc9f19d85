// Pictures to an animated GIF.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "platform/export.h"

struct AVCodecContext;
struct AVFilterContext;
struct AVFilterGraph;
struct AVFormatContext;
struct AVFrame;

namespace mediautil {
struct Size;
class WholeFile;
}  // namespace mediautil

// Collects pictures and writes them as one GIF, which repeats for ever. From one thread at a time.
//
// The first picture fixes the size: its own, or fitted into 640 x 640 with the fractions of a pixel dropped, at least
// 1; later ones are stretched to it. A picture takes width x height x 4 bytes until the object ends, and about twice
// that while Process runs, which chooses one table of 256 colours for all of them; more with millions of colours.
class VY_API GifProcess {
 public:
  GifProcess();
  virtual ~GifProcess();
  GifProcess(const GifProcess&) = delete;
  GifProcess& operator=(const GifProcess&) = delete;

  // Where Process writes to.
  void SetGifPath(const std::string& path);

  // Milliseconds that each picture is shown, 1000 at first; kept as hundredths of a second, the rest dropped. Less than
  // 10 gives 0, which players take for 100; more than 655350 is written as that.
  void SetGifDelay(int ms);

  // Each adds one picture of at most 64 megapixels; one that cannot be added changes nothing.
  // One coded video frame; codecId is a video type as in DoFFMpegInitVideo, and extradata as there. 0, or -1.
  int AddFrame(unsigned char* data, int size, unsigned char* extradata, int extLen, int codecId);
  // 0, or -1.
  int AddFrameFromJpeg(unsigned char* jpeg, int size);
  // Takes the frame in any case and releases it as DoFFmpegFrameFree does: its picture is reference counted, or one
  // block of av_malloc. -1 for null, otherwise 0, also for a frame that cannot be converted, which is left out.
  int AddFrame(AVFrame* frame);

  // Writes the GIF: a file at the path, or what FFmpeg opens for writing, such as "pipe:1". Without any picture it has
  // a header and an end, 14 bytes. A file with content that stood there, also behind a symbolic link, is replaced
  // when the new one is whole, and its owner and permissions stay as far as may be; one that cannot be replaced is
  // overwritten. 0, or -1; a file that could not be finished is removed. May be called again, after more pictures or a
  // failure.
  int Process();

 private:
  int InitMuxer();
  int InitFilter();
  int PushFrame();
  int Mux();
  int MuxFrame(AVFrame* frame);
  int ScaleFrame(const AVFrame* in, AVFrame** out);

  mediautil::Size GifSize(const AVFrame* picture) const;
  bool Add(AVFrame* frame);
  void Append(AVFrame* frame);
  bool OpenEncoder();
  bool OpenOutput();
  bool CloseOutput(bool isWhole);
  void Free();

  std::string m_path;
  std::unique_ptr<mediautil::WholeFile> m_file;  // null before Process
  std::list<AVFrame*> m_frames;                  // BGRA, all of the GIF's size, reference counted
  int m_width = 0;
  int m_height = 0;
  int m_delay = 0;  // hundredths of a second
  AVFormatContext* m_pOutputCtx = nullptr;
  AVCodecContext* m_pEncoderCtx = nullptr;
  AVFilterGraph* m_pFilterGraph = nullptr;
  AVFilterContext* m_pSource = nullptr;
  AVFilterContext* m_pSink = nullptr;
};
