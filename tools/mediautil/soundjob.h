// What the commands that convert sound share: options, input and output, progress and the end.
#pragma once

#include <functional>
#include <string>

#include "tools/mediautil/outputfile.h"
#include "tools/mediautil/progress.h"
#include "tools/mediautil/soundsource.h"

struct SoundArgs {
  std::string input;
  std::string output;
  std::string progress;  // empty: as fits
};

// The tests before the work, and opens the input. kDone, or prints the error.
int OpenSound(const SoundArgs& args, SoundSource& source);

// Prints that nothing came out of the input's decoder.
int FailSilent(const SoundArgs& args);

// Prints that only a part of a sound was decoded, in seconds, unless what lacks is little.
void NoteCut(const std::string& name, double done, double whole);

// A conversion under way.
class SoundJob {
 public:
  explicit SoundJob(const SoundArgs& args) : output(args.output, "sound"), m_args(args) {}

  // Opens input and output and runs convert, which returns kDone or has printed its error; then puts the output into
  // its place and tells how much sound is in it. Returns the exit code.
  int Run(const std::function<int()>& convert);

  // convert tells as it goes how many seconds of the sound are done, all in all.
  void Done(double seconds);

  SoundSource source;
  OutputFile output;

 private:
  int Conclude(int code);

  const SoundArgs& m_args;
  Progress* m_progress = nullptr;  // while it runs
  double m_done = 0;
};
