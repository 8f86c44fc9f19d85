// Key frames of recordings.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

struct AVFrame;
struct ESFormat;
struct PictureArgs;
struct Recording;

struct KeyFrame {
  int videoType = 0;                     // as DoFFMpegInitVideo takes it
  std::vector<unsigned char> extradata;  // codec configuration data
  std::vector<unsigned char> data;       // the coded frame
  std::optional<double> seconds;         // from the start of the stream; none in a stream without times
};

// Opens a recording with video that can be decoded. kDone, or prints the error.
int OpenVideo(const std::string& path, Recording& recording);

// The video type of a stream, as DoFFMpegInitVideo takes it; 0 for a codec that it does not decode.
int VideoType(const ESFormat& video);

// Finds the last key frame at or before a time, counted from the start of the stream; the first one without a time or
// for a time before it. Returns an exit code, and has printed the error when it is not kDone.
int FindKeyFrame(const std::string& path, const std::optional<double>& at, KeyFrame& frame);

// The same for a command that makes a picture, its arguments checked first.
int FindKeyFrame(const PictureArgs& args, KeyFrame& frame);

// " (key frame at 2.000 s)", or nothing when the frame has no time.
std::string KeyFrameText(const KeyFrame& frame);

struct PictureDeleter {
  void operator()(AVFrame* picture) const;
};
using Picture = std::unique_ptr<AVFrame, PictureDeleter>;

// Decodes to RGB24, the longer side at most maxSide pixels when maxSide is above 0. kDone, or prints the error.
int DecodeKeyFrame(const std::string& path, const KeyFrame& frame, int maxSide, Picture& picture);

// Writes an RGB24 picture of args.input as JPEG to args.output; quality and privacyRegion as in DoFFMpegGetJpeg. kDone,
// or prints the error, with advice for a picture that does not fit into a JPEG.
int WriteJpeg(const PictureArgs& args, AVFrame& picture, int quality, const std::string& privacyRegion,
              const std::string& advice = "try a lower quality or a smaller picture");

// "640x360"
std::string SizeText(const AVFrame& picture);
