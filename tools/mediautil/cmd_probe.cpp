// mediautil probe: what a recording holds.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>

#include "tools/mediautil/args.h"
#include "utils/esformat.h"
#include "utils/ffmpegdemuxer.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

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

std::string CodecName(const ESFormat& fmt) {
  return avcodec_get_name(static_cast<AVCodecID>(fmt.i_codec_id));
}

// What video and sound have in common comes last in the text and in the object.
std::string StreamText(const ESFormat& fmt, const std::string& details) {
  const std::string fourcc = FourCCText(fmt.i_codec);
  return CodecName(fmt) + (fourcc.empty() ? "" : " (" + fourcc + ")") + ", " + details +
         (fmt.i_bitrate > 0 ? ", " + std::to_string(fmt.i_bitrate) + " bit/s" : "") + ", " +
         std::to_string(fmt.i_extra) + " bytes extradata\n";
}

std::string Text(const std::string& path, unsigned int duration, const ESFormat& video, const ESFormat& audio) {
  std::string text = "file:      " + path + "\nduration:  " + std::to_string(duration) + " s\n";
  if (video.i_cat == ES_VIDEO) {
    text += "video:     " +
            StreamText(video, std::to_string(video.video.i_width) + "x" + std::to_string(video.video.i_height));
  }
  if (audio.i_cat == ES_AUDIO) {
    const int channels = audio.audio.i_channels;
    text += "audio:     " + StreamText(audio, std::to_string(audio.audio.i_rate) + " Hz, " + std::to_string(channels) +
                                                  (channels == 1 ? " channel" : " channels"));
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

std::string JsonText(const std::string& path, unsigned int duration, const ESFormat& video, const ESFormat& audio) {
  Json::Value root;
  root["schema"] = kSchema;
  root["file"] = path;
  root["duration"] = duration;
  root["video"] = Json::Value();
  root["audio"] = Json::Value();
  if (video.i_cat == ES_VIDEO) {
    AddCommonFields(root["video"], video);
    root["video"]["width"] = video.video.i_width;
    root["video"]["height"] = video.video.i_height;
  }
  if (audio.i_cat == ES_AUDIO) {
    AddCommonFields(root["audio"], audio);
    root["audio"]["rate"] = audio.audio.i_rate;
    root["audio"]["channels"] = audio.audio.i_channels;
  }
  return JsonLine(root);
}

int Probe(const ProbeArgs& args) {
  if (const int code = CheckInput(args.input); code != kDone) {
    return code;
  }
  const std::string path = InputPath(args.input);
  ESFormat video;
  ESFormat audio;
  const int opened = FFmpegDemux().Open(path, video, audio);
  std::string result;
  if (opened == 0 && (video.i_cat == ES_VIDEO || audio.i_cat == ES_AUDIO)) {
    const unsigned int duration = DoFFMpegGetDuration(path);
    result = args.json ? JsonText(args.input, duration, video, audio) : Text(args.input, duration, video, audio);
  }
  video.Reset(ES_UNKNOWN);
  audio.Reset(ES_UNKNOWN);
  if (opened != 0) {
    return Fail(kBadInput,
                args.input + ": cannot open the recording: not media, or damaged; check that it was copied whole");
  }
  if (result.empty()) {
    return Fail(kBadInput,
                args.input + ": cannot find a stream: neither video nor sound; check that it is a recording");
  }
  return PrintResult(result);
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
