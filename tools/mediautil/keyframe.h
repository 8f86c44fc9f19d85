// One key frame of a recording.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct KeyFrame {
  int videoType = 0;                     // as DoFFMpegInitVideo takes it
  std::vector<unsigned char> extradata;  // codec configuration data
  std::vector<unsigned char> data;       // the coded frame
  std::optional<double> seconds;         // from the start of the stream; none in a stream without times
};

// Finds the last key frame at or before a time, counted from the start of the stream; the first one without a time or
// for a time before it. Returns an exit code, and has printed the error when it is not kDone.
int FindKeyFrame(const std::string& path, const std::optional<double>& at, KeyFrame& frame);

// " (key frame at 2.000 s)", or nothing when the frame has no time.
std::string KeyFrameText(const KeyFrame& frame);
