// mediautil mp3: sound as MP3 of a small voice profile.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/soundjob.h"
#include "tools/mediautil/stopsignals.h"
#include "utils/encodermp3.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace {

// Pushes out what the encoder would keep at the end.
constexpr double kTail = 0.4;

int WriteMp3(const SoundArgs& args, SoundJob& job) {
  SoundSource& source = job.source;
  EncoderMP3 encoder;
  if (encoder.OpenOutputAudioCodec(source.Decoder(), true, job.output.Path()) != 0) {
    return Fail(kFailed, args.input + ": cannot encode its sound of " + std::to_string(source.Rate()) +
                             " Hz; convert it to another rate first");
  }
  // The encoder takes all sound for mono.
  PcmConverter mono(source.Rate(), 1);
  bool isEncoded = true;
  int error = 0;
  const auto encode = [&](AVFrame* pcm) {
    errno = 0;
    isEncoded = pcm == nullptr || encoder.EncodeFrame(pcm) == 0;
    error = errno;
    return isEncoded;
  };
  double seconds = 0;
  source.Decode([&](AVFrame& frame) {
    AVFrame* pcm = mono.Convert(frame);
    seconds += pcm == nullptr ? 0 : static_cast<double>(pcm->nb_samples) / source.Rate();
    job.Done(seconds);
    return encode(pcm);
  });
  if (isEncoded && !StopSignals::Seen()) {
    encode(mono.Silence(kTail));
  }
  encoder.Close();
  if (!isEncoded && !StopSignals::Seen() && !job.output.TakeError(error)) {
    return Fail(kFailed, args.input + ": cannot encode its sound; run again with -vv");
  }
  return kDone;
}

int Mp3(const SoundArgs& args) {
  SoundJob job(args);
  return job.Run([&] { return WriteMp3(args, job); });
}

}  // namespace

void AddMp3(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("mp3", "Write sound as MP3 for voice: 32000 Hz, mono, 32 kbit/s.");
  const auto args = std::make_shared<SoundArgs>();
  command->add_option("SRC", args->input, "recording or sound file to read")->required()->type_name("");
  command->add_option("DST", args->output, "MP3 file to write, - for stdout")->required()->type_name("");
  AddProgressOption(*command, args->progress);
  command->footer("Examples:\n  mediautil mp3 gate.mp4 gate.mp3\n  mediautil mp3 talk.wav - | ffplay -");
  command->callback([args, &action] { action = [args] { return Mp3(*args); }; });
}
