#include "tools/mediautil/soundjob.h"

#include <algorithm>

#include "tools/mediautil/args.h"
#include "tools/mediautil/recording.h"
#include "tools/mediautil/stopsignals.h"

int OpenSound(const SoundArgs& args, SoundSource& source) {
  if (const int code = CheckInput(args.input); code != kDone) {
    return code;
  }
  const int code = CheckOutput(args.output, args.input, "sound");
  return code == kDone ? source.Open(args.input) : code;
}

int FailSilent(const SoundArgs& args) {
  return Fail(kFailed, args.input + ": nothing of its sound could be decoded; check that it was copied whole, or run " +
                           "again with -vv");
}

void NoteCut(const std::string& name, double done, double whole) {
  constexpr double kAudible = 1;       // second
  constexpr double kInaccuracy = 0.1;  // of the playing time that a recording tells
  if (whole - done > std::max(kAudible, whole * kInaccuracy)) {
    Note(name + ": only " + SecondsText(done) + " of " + SecondsText(whole) + " could be decoded");
  }
}

int SoundJob::Run(const std::function<int()>& convert) {
  if (const int code = OpenSound(m_args, source); code != kDone) {
    return code;
  }
  Progress progress(ChooseProgress(m_args.progress), source.Seconds());
  const StopSignals signals;
  if (const int code = output.Open(); code != kDone) {
    return code;
  }
  m_progress = &progress;
  const int code = convert();
  m_progress = nullptr;
  progress.Hide();
  const int result = Conclude(code);
  if (result == kDone) {
    progress.Finish(m_done);
  }
  return result;
}

void SoundJob::Done(double seconds) {
  m_done = seconds;
  m_progress->Update(seconds);
}

int SoundJob::Conclude(int code) {
  const bool isSilent = m_done <= 0 && !output.IsFailed() && !StopSignals::Seen();
  if (code == kDone && isSilent) {
    return FailSilent(m_args);
  }
  const int result = code == kDone ? output.Commit() : code;
  if (result != kDone) {
    return result;
  }
  NoteCut(m_args.input, m_done, source.Seconds());
  Note(OutputName(m_args.output) + ": " + SecondsText(m_done));
  return kDone;
}
