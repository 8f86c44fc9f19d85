// mediautil export: a recording as MP4, FLV or MP3.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

#include "tools/mediautil/args.h"
#include "tools/mediautil/exporter.h"
#include "tools/mediautil/keyframe.h"
#include "tools/mediautil/stopsignals.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace {

struct ExportArgs {
  std::string input;
  std::string output;
  std::string format;    // empty: by the name of the output
  std::string audio;     // empty: as fits
  std::string progress;  // empty: as fits
  std::optional<double> from;
  std::optional<double> to;
  bool codecs = false;
};

constexpr const char* kFormats[] = {"mp4", "mp3", "flv"};  // in the order of FFMPEG_MUXER_FORMAT

// ---------------------------------------------------------------------------------------------------------------------
// What goes into the output
// ---------------------------------------------------------------------------------------------------------------------

int ChooseFormat(const ExportArgs& args, FFMPEG_MUXER_FORMAT& format) {
  std::string name = args.format;
  if (name.empty()) {
    const std::size_t dot = args.output.rfind('.');
    name = args.output == "-" || args.codecs ? "mp4" : dot == std::string::npos ? "" : args.output.substr(dot + 1);
  }
  for (int i = 0; i < 3; ++i) {
    if (LowerCase(name) == kFormats[i]) {
      format = static_cast<FFMPEG_MUXER_FORMAT>(i);
      return kDone;
    }
  }
  return Fail(kUsage, args.output + ": cannot tell the container from the name; add --format mp4, flv or mp3");
}

int ChooseVideo(const Recording& recording, ExportPlan& plan) {
  const ESFormat& video = recording.video;
  plan.hasVideo = recording.HasVideo() && plan.format != FFMPEG_MUXER_FORMAT_MP3;
  if (!plan.hasVideo) {
    return kDone;
  }
  if (VideoCodec(video).name.empty()) {
    return Fail(kFailed, plan.input + ": cannot take " + CodecName(video) + " video: only H.264, HEVC, MPEG-4 and " +
                             "MJPEG are; convert the recording first, or write an .mp3 of its sound");
  }
  const bool needsSets = video.i_codec_id == AV_CODEC_ID_H264 || video.i_codec_id == AV_CODEC_ID_HEVC;
  if (needsSets && video.i_extra < 1) {
    return Fail(kFailed, plan.input +
                             ": cannot take the video: no parameter sets found at its start, without which no " +
                             "player opens it; check that the recording is whole");
  }
  return kDone;
}

int ChooseAudio(const std::string& wanted, const Recording& recording, ExportPlan& plan) {
  const ESFormat& audio = recording.audio;
  const bool isAac = audio.i_codec_id == AV_CODEC_ID_AAC;
  const bool isMp3 = plan.format == FFMPEG_MUXER_FORMAT_MP3;
  plan.soundCodec = wanted == "aac" ? AV_CODEC_ID_AAC : AV_CODEC_ID_MP3;
  plan.hasAudio = false;
  if (isMp3 && (wanted == "none" || wanted == "aac")) {
    return Fail(kUsage, "an MP3 holds MP3 sound and nothing else; leave --audio " + wanted + " out or write an .mp4");
  }
  if (!recording.HasAudio() || wanted == "none") {
    return plan.hasVideo
               ? kDone
               : Fail(kFailed, plan.input + ": nothing to export: " + (wanted == "none" ? "no video" : "no sound") +
                                   "; mediautil probe shows what it holds");
  }
  if (wanted == "copy" && !isAac) {
    return Fail(kFailed, plan.input + ": cannot copy " + CodecName(audio) + " sound, only AAC; use --audio mp3 or " +
                             "--audio aac to encode it");
  }
  if (SoundCodec(audio).name.empty()) {
    const std::string text = plan.input + ": cannot take this " + CodecName(audio) + " sound";
    if (!wanted.empty() || !plan.hasVideo) {
      return Fail(kFailed, text + ": only AAC-LC, G.711, G.726 of 8000 Hz, AMR and big-endian 16-bit PCM are; " +
                               (plan.hasVideo ? "leave --audio out for the picture alone" : "convert it first"));
    }
    Note(text + "; the output is silent");
    return kDone;
  }
  if (isMp3 && isAac) {
    return Fail(kFailed, plan.input + ": AAC sound is copied, and an MP3 cannot hold it; write an .mp4 instead");
  }
  if (isAac && wanted == "mp3") {
    Note(plan.input + ": AAC sound is copied, not encoded to MP3");
  }
  plan.hasAudio = true;
  return kDone;
}

int PrintCodecs(const Recording& recording, const ExportPlan& plan) {
  const ESFormat none;
  const std::string codecs = GetMimeCodecs(plan.hasVideo ? recording.video : none,
                                           plan.hasAudio ? recording.audio : none, SoundPolicy(plan.soundCodec));
  return codecs.empty() ? Fail(kFailed, plan.input + ": cannot name the codecs: the video does not tell its profile; " +
                                            "let the browser play the exported file by its address")
                        : PrintResult(codecs + "\n");
}

// ---------------------------------------------------------------------------------------------------------------------
// Part of a recording
// ---------------------------------------------------------------------------------------------------------------------

std::int64_t Microseconds(double seconds) {
  return std::llround(std::min(seconds, kLongestSeconds) * static_cast<double>(kMicro));
}

// A video begins with the key frame at or before the time.
int ChoosePart(const ExportArgs& args, ExportPlan& plan) {
  if (args.to) {
    plan.to = Microseconds(*args.to);
  }
  if (!args.from) {
    return kDone;
  }
  plan.from = Microseconds(*args.from);
  if (plan.hasVideo) {
    KeyFrame key;
    if (const int code = FindKeyFrame(args.input, args.from, key); code != kDone) {
      return code;
    }
    const std::int64_t wanted = plan.from;
    plan.from = Microseconds(key.seconds.value_or(0));
    Note(args.input + ": begins at " + SecondsText(plan.from) +
         (plan.from > wanted ? ", the first key frame" : ", the key frame at or before " + SecondsText(wanted)));
  }
  return kDone;
}

// A seek may land behind the time; then the recording is read from its start.
bool LandsBefore(Recording& recording, std::int64_t from) {
  const std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(av_packet_alloc(),
                                                              [](AVPacket* p) { av_packet_free(&p); });
  AVStream* st = nullptr;
  while (packet != nullptr && recording.demux.ReadFrame(st, *packet) >= 0) {
    if (st == recording.demux.GetVdoStream()) {
      const std::int64_t shown = ShownAt(*packet);
      return shown != AV_NOPTS_VALUE && StreamTime(shown, *st) <= from;
    }
  }
  return false;
}

int GoTo(const ExportPlan& plan, std::unique_ptr<Recording>& recording) {
  if (plan.from < kMicro || !plan.hasVideo) {
    return kDone;
  }
  const double seconds = static_cast<double>(plan.from) / kMicro;
  SeekBefore(*recording, seconds);
  if (LandsBefore(*recording, plan.from)) {
    SeekBefore(*recording, seconds);
    return kDone;
  }
  recording = std::make_unique<Recording>();
  return OpenRecording(plan.input, *recording);
}

// ---------------------------------------------------------------------------------------------------------------------

double PlayingTime(const ExportPlan& plan) {
  const double duration = DoFFMpegGetDuration(InputPath(plan.input));
  const double end = std::min(duration, static_cast<double>(plan.to) / kMicro);
  return std::max(end - (plan.from == kFromStart ? 0 : static_cast<double>(plan.from) / kMicro), 0.0);
}

int WriteExport(const ExportArgs& args, const ExportPlan& plan, Recording& recording) {
  const ProgressForm form = ChooseProgress(args.progress);
  Progress progress(form, form == ProgressForm::kNone ? 0 : PlayingTime(plan));
  const StopSignals signals;
  OutputFile output(args.output, "recording");
  if (const int code = output.Open(); code != kDone) {
    return code;
  }
  Exporter exporter(plan, recording, output, progress);
  const int code = exporter.Run();
  progress.Hide();
  const int result = code == kDone ? output.Commit() : code;
  if (result == kDone) {
    Note(OutputName(args.output) + ": " + exporter.Text());
  }
  return result;
}

int Export(const ExportArgs& args) {
  if (args.from && args.to && *args.from >= *args.to) {
    return Fail(kUsage, "--to is not behind --from; nothing lies between them");
  }
  ExportPlan plan;
  plan.input = args.input;
  if (const int code = CheckInput(args.input); code != kDone) {
    return code;
  }
  if (const int code = ChooseFormat(args, plan.format); code != kDone) {
    return code;
  }
  if (const int code = args.codecs ? kDone : CheckOutput(args.output, args.input, "export"); code != kDone) {
    return code;
  }
  auto recording = std::make_unique<Recording>();
  if (const int code = OpenRecording(args.input, *recording); code != kDone) {
    return code;
  }
  if (const int code = ChooseVideo(*recording, plan); code != kDone) {
    return code;
  }
  if (const int code = ChooseAudio(args.audio, *recording, plan); code != kDone) {
    return code;
  }
  if (args.codecs) {
    return PrintCodecs(*recording, plan);
  }
  if (const int code = ChoosePart(args, plan); code != kDone) {
    return code;
  }
  if (const int code = GoTo(plan, recording); code != kDone) {
    return code;
  }
  return WriteExport(args, plan, *recording);
}

std::string CheckTime(const std::string& text) {
  double seconds = 0;
  const bool isNumber = CLI::detail::lexical_cast(text, seconds);
  return isNumber && (!std::isfinite(seconds) || seconds < 0) ? "not a time: " + text : "";
}

}  // namespace

void AddExport(CLI::App& app, Action& action) {
  CLI::App* command =
      app.add_subcommand("export", "Write a recording as fragmented MP4, FLV or MP3, without decoding video.");
  const auto args = std::make_shared<ExportArgs>();
  command->add_option("FILE", args->input, "recording to read")->required()->type_name("");
  const CLI::Option* output =
      command->add_option("-o,--output", args->output, "file to write, - for stdout")->type_name("OUT");
  command->add_option("--format", args->format, "mp4, flv or mp3; else by the name of OUT, mp4 on stdout")
      ->type_name("F")
      ->check(CLI::IsMember({"mp4", "flv", "mp3"}).description(""));
  command->add_option("--from", args->from, "begin with the key frame at or before this time")
      ->type_name("SECONDS")
      ->check(CheckTime);
  command->add_option("--to", args->to, "end with this time")->type_name("SECONDS")->check(CheckTime);
  command->add_option("--audio", args->audio, "copy, mp3, aac or none; else copy for AAC, mp3 for others")
      ->type_name("A")
      ->check(CLI::IsMember({"copy", "mp3", "aac", "none"}).description(""));
  AddProgressOption(*command, args->progress);
  command->add_flag("--codecs", args->codecs, "print the MIME type for a browser, write nothing");
  command->footer(
      "Examples:\n  mediautil export gate.mkv -o gate.mp4 --from 60 --to 90\n"
      "  mediautil export gate.ts -o - --audio none | ffplay -");
  command->callback([args, output, &action] {
    if (output->count() == 0 && !args->codecs) {
      throw CLI::RequiredError("--output");
    }
    if (output->count() > 0 && args->codecs) {
      throw CLI::ExcludesError("--codecs", "--output");
    }
    if (args->codecs && !args->format.empty() && args->format != "mp4") {
      throw CLI::ExcludesError("--codecs", "--format " + args->format);
    }
    action = [args] { return Export(*args); };
  });
}
