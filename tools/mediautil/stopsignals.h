// The signals that end the work early.
#pragma once

// While one lives, Ctrl-C and its like are only noted.
class StopSignals {
 public:
  // grace: seconds after the signal until the program ends on its own, with kInterrupted, as it does at once with a
  // second signal; 0: it never does.
  explicit StopSignals(unsigned int grace = 0);
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  static bool Seen();
};
