// mediautil probe: what a recording holds.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/recording.h"
#include "utils/mpeg4util.h"

namespace {

constexpr int kSchema = 1;

struct ProbeArgs {
  std::string input;
  bool json = false;
};

// The four characters of a code, "?" for what cannot be shown; empty for no code.
std::string FourCCText(std::uint32_t code) {
  std::string text;
  for (unsigned int shift = 32; code != 0 && shift > 0;) {
    shift -= 8;
    const unsigned int c = code >> shift & 0xFFU;
    text += c > 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
  }
  return text;
}

// What video and sound have in common comes last in the text and in the object.
std::string StreamText(const ESFormat& fmt, const std::string& details) {
  const std::string fourcc = FourCCText(fmt.i_codec);
  return CodecName(fmt) + (fourcc.empty() ? "" : " (" + fourcc + ")") + ", " + details +
         (fmt.i_bitrate > 0 ? ", " + std::to_string(fmt.i_bitrate) + " bit/s" : "") + ", " +
         std::to_string(fmt.i_extra) + " bytes extradata\n";
}

std::string Text(const std::string& path, unsigned int duration, const Recording& recording) {
  std::string text = "file:      " + path + "\nduration:  " + std::to_string(duration) + " s\n";
  if (recording.HasVideo()) {
    const auto& video = recording.video.video;
    text += "video:     " +
            StreamText(recording.video, std::to_string(video.i_width) + "x" + std::to_string(video.i_height));
  }
  if (recording.HasAudio()) {
    const auto& audio = recording.audio.audio;
    text += "audio:     " +
            StreamText(recording.audio, std::to_string(audio.i_rate) + " Hz, " + std::to_string(audio.i_channels) +
                                            (audio.i_channels == 1 ? " channel" : " channels"));
  }
  return text;
}

void AddCommonFields(Json::Value& stream, const ESFormat& fmt) {
  const std::string fourcc = FourCCText(fmt.i_codec);
  stream["codec"] = CodecName(fmt);
  stream["fourcc"] = fourcc.empty() ? Json::Value() : Json::Value(fourcc);
  stream["bit_rate"] = fmt.i_bitrate > 0 ? Json::Value(fmt.i_bitrate) : Json::Value();
  stream["extradata_bytes"] = fmt.i_extra;
}

std::string JsonText(const std::string& path, unsigned int duration, const Recording& recording) {
  Json::Value root;
  root["schema"] = kSchema;
  root["file"] = path;
  root["duration"] = duration;
  root["video"] = Json::Value();
  root["audio"] = Json::Value();
  if (recording.HasVideo()) {
    AddCommonFields(root["video"], recording.video);
    root["video"]["width"] = recording.video.video.i_width;
    root["video"]["height"] = recording.video.video.i_height;
  }
  if (recording.HasAudio()) {
    AddCommonFields(root["audio"], recording.audio);
    root["audio"]["rate"] = recording.audio.audio.i_rate;
    root["audio"]["channels"] = recording.audio.audio.i_channels;
  }
  return JsonLine(root);
}

int Probe(const ProbeArgs& args) {
  if (const int code = CheckInput(args.input); code != kDone) {
    return code;
  }
  Recording recording;
  if (const int code = OpenRecording(args.input, recording); code != kDone) {
    return code;
  }
  if (!recording.HasVideo() && !recording.HasAudio()) {
    return Fail(kBadInput,
                args.input + ": cannot find a stream: neither video nor sound; check that it is a recording");
  }
  const unsigned int duration = DoFFMpegGetDuration(InputPath(args.input));
  return PrintResult(args.json ? JsonText(args.input, duration, recording) : Text(args.input, duration, recording));
}

}  // namespace

void AddProbe(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("probe", "Show the streams and the playing time of a recording.");
  const auto args = std::make_shared<ProbeArgs>();
  command->add_option("FILE", args->input, "recording to read")->required()->type_name("");
  command->add_flag("--json", args->json, "print one JSON object instead of text");
  command->footer("Examples:\n  mediautil probe gate.mp4\n  mediautil probe --json gate.mp4 | jq .video.width");
  command->callback([args, &action] { action = [args] { return Probe(*args); }; });
}
