// mediautil mix: the sounds of several recordings as one.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/outputfile.h"
#include "tools/mediautil/progress.h"
#include "tools/mediautil/recording.h"
#include "tools/mediautil/soundjob.h"
#include "tools/mediautil/soundsource.h"
#include "tools/mediautil/stopsignals.h"
#include "utils/audiomixer.h"

namespace {

struct MixArgs {
  std::vector<std::string> inputs;
  std::string output;
  std::string progress;  // empty: as fits
};

int CheckArgs(const MixArgs& args) {
  if (args.inputs.size() < 2) {
    return Fail(kUsage, "mix: one recording is nothing to mix; name two or more");
  }
  if (args.output == "-") {
    return Fail(kUsage, "mix: OUT is a file that may be completed at its beginning, it cannot be stdout; name a file");
  }
  if (!AudioMixer::IsOutputName(args.output)) {
    return Fail(kUsage,
                args.output + ": cannot tell the kind of sound from the name; use .mp3, .wav, .aac, .m4a or .mp4");
  }
  for (const std::string& input : args.inputs) {
    if (const int code = CheckInput(input); code != kDone) {
      return code;
    }
    if (const int code = CheckOutput(args.output, input, "mix"); code != kDone) {
      return code;
    }
  }
  return kDone;
}

// The recording that goes on when all others have ended.
struct Longest {
  std::string name;
  double seconds = 0;  // 0 when not known
};

int AddInput(const std::string& input, AudioMixer& mixer, Longest& longest) {
  SoundSource source;
  if (const int code = source.Open(input); code != kDone) {
    return code;
  }
  if (mixer.AddInput(InputPath(input)) < 0) {
    return Fail(kBadInput, input +
                               ": cannot mix the recording: it has more than one sound track, or one of an unusual " +
                               "kind; run again with -v");
  }
  if (source.Seconds() > longest.seconds) {
    longest = {input, source.Seconds()};
  }
  return kDone;
}

// errno of a result of the mixer; 0 for its -1 and for FFmpeg's own codes, which tell of none.
int ErrorOf(int result) {
  constexpr int kLargestErrno = 4095;
  return result >= -1 || result < -kLargestErrno ? 0 : -result;
}

int WriteMix(const MixArgs& args, AudioMixer& mixer, OutputFile& output, Progress& progress) {
  int result = mixer.SetOutput(InputPath(output.Path()));
  while (result >= 0 && !mixer.IsFinished() && !StopSignals::Seen()) {
    result = mixer.ProcessInput();
    progress.Update(mixer.MixedSeconds());
  }
  progress.Hide();
  const int error = ErrorOf(result);
  if (result < 0 && !StopSignals::Seen() && (error == 0 || !output.TakeError(error))) {
    const std::string why = error == 0 ? "" : std::string(": ") + std::strerror(error);
    return Fail(kFailed, args.output + ": cannot mix the sounds" + why + "; run again with -v");
  }
  if (result >= 0 && mixer.IsFinished() && mixer.MixedSeconds() <= 0) {
    return Fail(kFailed, args.output + ": nothing of the recordings' sound could be decoded; check that they were " +
                             "copied whole, or run again with -v");
  }
  return output.Commit();
}

int Mix(const MixArgs& args) {
  if (const int code = CheckArgs(args); code != kDone) {
    return code;
  }
  AudioMixer mixer;
  Longest longest;
  for (const std::string& input : args.inputs) {
    if (const int code = AddInput(input, mixer, longest); code != kDone) {
      return code;
    }
  }
  Progress progress(ChooseProgress(args.progress), longest.seconds);
  const StopSignals signals;
  OutputFile output(args.output, "mix", args.output.substr(args.output.rfind('.')));
  int code = output.Open();
  code = code == kDone ? WriteMix(args, mixer, output, progress) : code;
  if (code != kDone) {
    return code;
  }
  const double mixed = mixer.MixedSeconds();
  NoteCut(longest.name, mixed, longest.seconds);
  Note(args.output + ": " + std::to_string(args.inputs.size()) + " sounds, " + SecondsText(mixed));
  progress.Finish(mixed);
  return kDone;
}

}  // namespace

void AddMix(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("mix", "Mix the sounds of recordings, each at its own level.");
  const auto args = std::make_shared<MixArgs>();
  command->add_option("FILE", args->inputs, "recordings, with one sound track each")->required()->type_name("");
  command->add_option("-o,--output", args->output, "file to write: .mp3, .wav, .aac, .m4a or .mp4")
      ->required()
      ->type_name("OUT");
  AddProgressOption(*command, args->progress);
  command->footer(
      "Examples:\n  mediautil mix hall.mp4 gate.mp4 -o both.mp3\n"
      "  mediautil mix intercom.wav street.mkv music.mp3 -o evening.m4a");
  command->callback([args, &action] { action = [args] { return Mix(*args); }; });
}
