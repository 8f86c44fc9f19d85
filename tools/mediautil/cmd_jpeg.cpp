// mediautil jpeg: single pictures of a Motion JPEG recording, as they are stored.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/mediautil/args.h"
#include "utils/jpegextractor.h"
#include "utils/mpeg4util.h"

namespace {

constexpr int kSchema = 1;
constexpr std::size_t kUsualSize = 1 << 20;  // bytes of a JPEG
constexpr std::size_t kLargestSize = 1 << 29;

struct JpegArgs {
  std::string input;
  std::string output;
  std::optional<unsigned int> index;
  std::optional<int> at;  // milliseconds
  bool info = false;
  bool json = false;
};

// What the index of a recording lists, beside its playing time.
struct Listing {
  __tag_JPEG_FRAME_INFO info = {};
  double seconds = 0;
  unsigned int duration = 0;  // whole seconds of the recording

  // Shorter than the recording by more than the rounding of its playing time and an uneven end of its streams.
  bool IsShort() const { return info.frameCount == 0 || seconds + 1 < duration; }
};

std::string Fixed(double value) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.3f", value);
  return text;
}

std::string ListedText(const Listing& listing) {
  const unsigned int count = listing.info.frameCount;
  return count == 0 ? "its index lists no frames, as with cover pictures and raw JPEG streams; of the latter, the file "
                      "of mediautil export lists all"
                    : "its index lists " + std::to_string(count) + (count == 1 ? " frame, " : " frames, ") +
                          Fixed(listing.seconds) + " s of " + std::to_string(listing.duration) +
                          " s; the file of mediautil export lists all";
}

int Open(const std::string& path, JpegExtractor& file, Listing& listing) {
  if (file.Init(InputPath(path)) != 0 || file.GetFrameInfo(listing.info) != 0) {
    return FailNotMedia(path);
  }
  if (listing.info.frameRate <= 0) {
    return Fail(kFailed,
                path + ": cannot find stored JPEGs: no Motion JPEG video; mediautil snapshot takes pictures of others");
  }
  listing.seconds = listing.info.frameCount / static_cast<double>(listing.info.frameRate);
  listing.duration = DoFFMpegGetDuration(InputPath(path));
  return kDone;
}

std::string InfoText(const std::string& path, const Listing& listing) {
  const __tag_JPEG_FRAME_INFO& info = listing.info;
  return "file:      " + path + "\nsize:      " + std::to_string(info.width) + "x" + std::to_string(info.height) +
         "\nframes:    " + std::to_string(info.frameCount) + "\nrate:      " + Fixed(info.frameRate) +
         " frames/s\nduration:  " + Fixed(listing.seconds) + " s\n";
}

std::string InfoJson(const std::string& path, const Listing& listing) {
  Json::Value root;
  root["schema"] = kSchema;
  root["file"] = path;
  root["width"] = listing.info.width;
  root["height"] = listing.info.height;
  root["frames"] = listing.info.frameCount;
  root["rate"] = listing.info.frameRate;
  root["duration"] = listing.seconds;
  root["recording_duration"] = listing.duration;
  return JsonLine(root);
}

int ShowInfo(const JpegArgs& args, const Listing& listing) {
  const int code = PrintResult(args.json ? InfoJson(args.input, listing) : InfoText(args.input, listing));
  if (code == kDone && listing.IsShort()) {
    Note(args.input + ": " + ListedText(listing));
  }
  return code;
}

// The stored bytes of a frame in the index; empty when it cannot be read.
std::vector<unsigned char> Read(JpegExtractor& file, unsigned int index) {
  for (std::size_t capacity = kUsualSize; capacity <= kLargestSize; capacity *= 8) {
    std::vector<unsigned char> jpeg(capacity);
    auto size = static_cast<unsigned int>(capacity);
    if (file.ReadFrame(index, jpeg.data(), size) == 0) {
      jpeg.resize(size);
      return jpeg;
    }
    if (size != 0) {
      break;  // for another reason than the buffer
    }
  }
  return {};
}

// Whether an end marker stands behind the picture's last scan; one in the segments before may be that of a preview.
bool HasEnd(const std::vector<unsigned char>& jpeg) {
  constexpr unsigned char kScan[] = {0xFF, 0xDA};
  constexpr unsigned char kEnd[] = {0xFF, 0xD9};
  std::size_t at = 2;
  while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF && jpeg[at + 1] != kScan[1]) {
    const auto length = static_cast<std::size_t>(jpeg[at + 2] * 256 + jpeg[at + 3]);
    at += jpeg[at + 1] == 0xFF ? 1 : 2 + length;  // fill bytes, or a segment
  }
  const auto scans = jpeg.begin() + static_cast<std::ptrdiff_t>(std::min(at, jpeg.size()));
  const auto lastScan = std::find_end(scans, jpeg.end(), std::begin(kScan), std::end(kScan));
  return std::search(lastScan, jpeg.end(), std::begin(kEnd), std::end(kEnd)) != jpeg.end();
}

int WriteFrame(const JpegArgs& args, JpegExtractor& file, const Listing& listing) {
  const unsigned int index = args.index ? *args.index : static_cast<unsigned int>(file.GetFrameIdx(*args.at));
  const std::string frame =
      "frame " + std::to_string(index) + (args.at ? " (at " + std::to_string(*args.at) + " ms)" : "");
  const std::string failure = args.input + ": cannot read " + frame + ": ";
  if (index >= listing.info.frameCount) {
    return Fail(kFailed,
                failure + (listing.IsShort() ? ListedText(listing)
                                             : "the last index is " + std::to_string(listing.info.frameCount - 1)));
  }
  const std::vector<unsigned char> jpeg = Read(file, index);
  if (jpeg.empty()) {
    return Fail(kFailed, failure + "the file is damaged there; try another one");
  }
  const int code = WritePicture(args.output, jpeg.data(), static_cast<unsigned int>(jpeg.size()));
  if (code == kDone) {
    Note(OutputName(args.output) + ": " + frame + ", " + std::to_string(jpeg.size()) + " bytes" +
         (HasEnd(jpeg) ? "" : "; it lacks its end: the recording may be cut off"));
  }
  return code;
}

int Jpeg(const JpegArgs& args) {
  if (!args.info && !args.index && !args.at) {
    return Fail(kUsage, "jpeg: --index, --at or --info is missing; see mediautil jpeg --help");
  }
  if (const int code = CheckInput(args.input); code != kDone) {
    return code;
  }
  if (const int code = args.info ? kDone : CheckOutput(args.output, args.input, "picture"); code != kDone) {
    return code;
  }
  JpegExtractor file;
  Listing listing;
  if (const int code = Open(args.input, file, listing); code != kDone) {
    return code;
  }
  return args.info ? ShowInfo(args, listing) : WriteFrame(args, file, listing);
}

}  // namespace

void AddJpeg(CLI::App& app, Action& action) {
  CLI::App* command =
      app.add_subcommand("jpeg", "Write a frame of a Motion JPEG recording, or show what frames it has.");
  const auto args = std::make_shared<JpegArgs>();
  command->add_option("FILE", args->input, "recording to read")->required()->type_name("");
  CLI::Option* output =
      command->add_option("-o,--output", args->output, "JPEG file to write, - for stdout")->type_name("OUT");
  CLI::Option* index = command->add_option("--index", args->index, "number of the frame, from 0")->type_name("I");
  CLI::Option* at = command->add_option("--at", args->at, "time from the start, in milliseconds")
                        ->type_name("MS")
                        ->check(CLI::Range(0, std::numeric_limits<int>::max()).description(""));
  CLI::Option* info = command->add_flag("--info", args->info, "print size, number of frames, rate and duration");
  index->needs(output)->excludes(at)->excludes(info);
  at->needs(output)->excludes(info);
  info->excludes(output);
  command->add_flag("--json", args->json, "with --info: print one JSON object instead of text")->needs(info);
  command->footer("Examples:\n  mediautil jpeg gate.avi --at 12500 -o gate.jpg\n  mediautil jpeg gate.avi --info");
  command->callback([args, &action] { action = [args] { return Jpeg(*args); }; });
}
