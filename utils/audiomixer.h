// Mixes sound of files and live streams into one encoded output.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"

struct AVCodecContext;
struct AVCodecParameters;
struct AVFilterContext;
struct AVFilterGraph;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
namespace mediautil {
struct MixerInput;
struct SoundFormat;
class WholeFile;
}  // namespace mediautil

// Two or more inputs, each at its own level, into a file or into packets. Add the inputs, SetOutput, then
//   files:   WriteToFile, or ProcessInput until IsFinished;
//   streams: PushPkt and PopMixed (or ProcessInput when the output is a file) in turn, for as long as it lasts.
// The output ends with the longest input. An input of another shape than it was announced with, or that changes in
// mid-stream, is converted. A stream more than 0.5 s behind the furthest one gets silence; files keep step with it. One
// thread uses an instance. int results: 0 or what is stated, and negative (an FFmpeg error code, or -1) on failure.
class AudioMixer {
 public:
  // One input, or the output.
  struct FmtCodecCtx {
    AVCodecContext* codecCtx = nullptr;  // open
    AVFormatContext* fmtCtx = nullptr;   // null for a stream
    AVFilterContext* srcCtx = nullptr;   // where its sound enters the graph; null before SetOutput
    std::list<AVPacket*> pktQueue;       // pushed and not yet decoded, null marks the end; encoded, of an output
    int samples = 0;                     // of each channel fed so far, silence included; starts over after many hours
    std::int64_t lastPts = kNoPts;       // of the frame fed last
    bool padded = false;                 // got silence since its last packet

    static constexpr std::int64_t kNoPts = INT64_MIN;  // AV_NOPTS_VALUE

    // Frees everything and sets the pointers to null. May run twice.
    VY_API void Free();
  };

  VY_API AudioMixer();
  VY_API ~AudioMixer();
  AudioMixer(const AudioMixer&) = delete;
  AudioMixer& operator=(const AudioMixer&) = delete;

  // --- inputs, before SetOutput ---

  // Opens a file with exactly one audio stream; other kinds of streams are skipped. Returns the input's index. The path
  // is never taken for a URL; playlists, and what is no regular file, are refused.
  VY_API int AddInput(const std::string& path);

  // A stream whose packets the caller pushes; par is copied. Returns the input's index.
  VY_API int AddStream(const AVCodecParameters* par);

  // --- output ---

  // What the name ends with says what is written: .mp3, .wav (16 bit), .aac, .m4a or .mp4. Rate and channels are the
  // highest of the inputs, within what the format has and two channels. An empty path: AAC packets for PopMixed. The
  // path is an FFmpeg URL of a file: a:b.wav is file:a:b.wav. A file with content that stands there, also behind a
  // symbolic link, is replaced when the new one is whole, and its owner and permissions stay as far as may be; one that
  // cannot be replaced is overwritten. A file that is not completed is removed. An input, and what is no regular file,
  // is refused and stays as it is. After a failed SetOutput it may be called again.
  VY_API int SetOutput(const std::string& path);

  // Whether a file of that name can be an output.
  VY_API static bool IsOutputName(const std::string& path);

  // The open encoder, null before SetOutput: rate, channels, configuration data, frame size. Popped packets are raw AAC
  // with times in its time_base, beginning at -initial_padding.
  const AVCodecContext* GetEncoder() const { return m_out.codecCtx; }

  // --- mixing ---

  // Queues a packet of a stream, null for its end. 0: the packet is the mixer's. -1: it stays the caller's, because
  // there is no such input, it is a file, or there is no memory. Its data has FFmpeg's padding behind it
  // (av_new_packet). At most 1500 entries and 16 MiB wait for the next pass, the oldest are dropped. What is pushed
  // behind the end is dropped, too.
  VY_API int PushPkt(unsigned idx, AVPacket* pkt);

  // Says that a stream stays away for now: what was pushed is read as in a pass, then the other streams get silence,
  // and files are read on, up to 0.1 s beyond it, so that what it still has in the mixer is heard. No silence for a
  // stream of which more waits, and none when no sound of this one came in since the last time.
  VY_API void FlushStream(unsigned idx);

  // One pass: reads a frame of the files whose sound is wanted and what was pushed, of each stream about 10 s or
  // 64 MiB of sound, mixes it, encodes and writes what every input has reached. What cannot be read or decoded of an
  // input is logged and left out. Negative without an output; and when encoding or writing failed: the output is
  // finished then, and every later call returns the same.
  VY_API int ProcessInput();

  // One pass as ProcessInput, then moves all packets that wait to the end of out; the caller frees them with
  // av_packet_free. A pass that fails moves nothing. With a file as output there are none. A pass begins with dropping
  // all but the latest 1500 that nobody popped.
  VY_API int PopMixed(std::list<AVPacket*>& out);

  // Mixes up to the end and completes the file. Streams end with what has been pushed.
  VY_API int WriteToFile();

  // Nothing more will come: the output is complete, or it failed.
  bool IsFinished() const { return m_isFinished; }

  // Seconds of output so far.
  VY_API double MixedSeconds() const;

  // --- the steps of SetOutput and of a pass, for callers that arrange them otherwise ---

  // Builds the graph for the inputs so far; of outCtx it reads sample format, layout and rate. SetOutput calls it.
  // Alone it gives no output, and none can be set afterwards.
  VY_API int InitFilter(AVCodecContext* outCtx);

  // The next decoded frame, when gotFrame is 1. finished: the input has no more.
  VY_API int ReadDecodeFrame(AVFrame* frame, FmtCodecCtx& in, int& gotFrame, bool& finished);

  // Feeds one frame of a file, all that waits of a stream, up to what one pass takes. finished: the input has no more.
  VY_API int PushFilterSource(unsigned idx, bool& finished);

  // Silence in the shape of an input's sound, freed with av_frame_free. Null when it cannot be had.
  VY_API AVFrame* CreateSilentFrame(unsigned idx, int ms);

  // Lets an input that is further behind than tolerated catch up, by ten minutes at most: a stream with silence, a file
  // with its own sound.
  VY_API void AutoBalanceInput(unsigned idx, double expectSec, double toleranceSec);

  // The same for all inputs, with the furthest stream, or file where there is no stream: 0.5 s for streams, none for
  // files. Streams that had too much for one pass are left out.
  VY_API void DoAutoBalance();

  // Encodes and writes all that is mixed. finished: the inputs have no more.
  VY_API int PullFilterSink(bool& finished);

  // A null frame empties the encoder. Packets go to out's file, or into its queue without one.
  VY_API int EncodeWriteFrame(AVFrame* frame, FmtCodecCtx& out);

 private:
  using Input = mediautil::MixerInput;

  // Inputs and graph.
  int BuildGraph(const AVCodecContext& outCtx);
  int AddSource(unsigned idx);
  int AddSink(const AVCodecContext& outCtx);
  int LinkFilters(const AVCodecContext& outCtx);
  void FreeGraph();
  void LogFed(unsigned idx, int samples) const;
  const Input* Furthest() const;
  void AutoBalanceInput(unsigned idx, const Input& leader, int toleranceMs);
  void AutoBalanceInput(unsigned idx, double expectSec, double toleranceSec, std::int64_t needed);
  void KeepCountsSmall();

  // Output.
  int OpenEncoder(const mediautil::SoundFormat& format);
  int OpenFile(const mediautil::SoundFormat& format, const std::string& path);
  int CheckFile(const std::string& name) const;
  void CloseOutput();
  void DropFile();
  int Finish(bool isAtEnd);
  void KeepLatestPackets();
  void ReadInputs();
  void ReadInput(unsigned idx);
  int WritePacket(AVPacket* packet, FmtCodecCtx& out);
  int CompleteOutput();

  std::vector<Input> m_inputs;
  AVFilterGraph* m_pGraph = nullptr;  // owns the filters
  AVFilterContext* m_pMix = nullptr;
  AVFilterContext* m_pVolume = nullptr;
  AVFilterContext* m_pSink = nullptr;
  AVFrame* m_pFrame = nullptr;  // the work frame

  FmtCodecCtx m_out;                             // fmtCtx is null when packets are kept for PopMixed
  std::unique_ptr<mediautil::WholeFile> m_file;  // null when packets are kept
  std::int64_t m_mixedSamples = 0;
  bool m_isOverrun = false;  // packets were dropped since the last were popped
  bool m_isFinished = false;
  int m_error = 0;  // of the output
};
