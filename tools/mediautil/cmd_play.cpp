// mediautil play: sound as raw samples at the pace of hearing.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>

#include "tools/mediautil/args.h"
#include "tools/mediautil/recording.h"
#include "tools/mediautil/soundjob.h"
#include "utils/mp3demuxer.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace {

// Writes each frame when the library hands it over.
class Player : public AudioDataHandler {
 public:
  Player(OutputFile& output, Progress& progress, int rate, int channels, bool keepsPace)
      : m_output(output), m_progress(progress), m_pcm(rate, channels), m_rate(rate), m_keepsPace(keepsPace) {}

  int OnAudioFrame(AVFrame* frame) override {
    const AVFrame* pcm = m_pcm.Convert(*frame);
    if (pcm == nullptr) {
      return 0;
    }
    if (m_keepsPace) {
      std::this_thread::sleep_until(m_begin + std::chrono::microseconds(Played()));
    }
    OutputFile::Write(&m_output, PcmData(*pcm), PcmSize(*pcm));
    m_samples += m_output.IsFailed() ? 0 : pcm->nb_samples;
    m_progress.Update(static_cast<double>(Played()) / kMicro);
    return m_output.IsFailed() ? 1 : 0;
  }

  std::int64_t Played() const { return m_samples * kMicro / m_rate; }  // microseconds

 private:
  using Clock = std::chrono::steady_clock;

  OutputFile& m_output;
  Progress& m_progress;
  PcmConverter m_pcm;
  int m_rate;
  bool m_keepsPace;
  std::int64_t m_samples = 0;
  Clock::time_point m_begin = Clock::now();
};

int Play(const SoundArgs& args) {
  SoundSource source;
  if (const int code = OpenSound(args, source); code != kDone) {
    return code;
  }
  if (!source.IsAlone()) {
    return Fail(kFailed, args.input + ": cannot play it: it holds other streams beside its sound; take the sound " +
                             "out first, as with mediautil mp3");
  }
  DemuxMp3 demux;
  ESFormat format;
  if (demux.Open(InputPath(args.input), format) != 0) {
    return Fail(kBadInput, args.input + ": cannot play its sound; run again with -vv");
  }
  const int channels = std::clamp<int>(source.Channels(), 1, 2);
  Note(args.input + ": samples for aplay -q -t raw -f S16_LE -r " + std::to_string(source.Rate()) + " -c " +
       std::to_string(channels));
  Progress progress(ChooseProgress(args.progress), source.Seconds());
  OutputFile output(args.output, "sound");
  if (const int code = output.Open(); code != kDone) {
    return code;
  }
  // The library paces by the frames of a codec; sound without such is paced here.
  Player player(output, progress, source.Rate(), channels, !std::isfinite(demux.GetFPS()));
  demux.Demux(&player);
  progress.Hide();
  const std::string played = SecondsText(player.Played());
  if (output.Error() == EPIPE) {
    Note("stdout: the reader has left after " + played);
    return kDone;
  }
  if (!output.IsFailed() && player.Played() == 0) {
    return FailSilent(args);
  }
  const int result = output.Commit();
  if (result == kDone) {
    Note(args.input + ": " + played);
    progress.Finish(static_cast<double>(player.Played()) / kMicro);
  }
  return result;
}

}  // namespace

void AddPlay(CLI::App& app, Action& action) {
  CLI::App* command =
      app.add_subcommand("play", "Write sound to stdout as raw 16-bit samples, at the pace of hearing.");
  const auto args = std::make_shared<SoundArgs>();
  args->output = "-";
  command->add_option("SRC", args->input, "sound file to read")->required()->type_name("");
  AddProgressOption(*command, args->progress);
  command->footer(
      "Examples:\n  mediautil play siren.mp3 | aplay -q -t raw -f S16_LE -r 44100 -c 2\n"
      "  mediautil play siren.mp3 | nc camera 5000");
  command->callback([args, &action] { action = [args] { return Play(*args); }; });
}
