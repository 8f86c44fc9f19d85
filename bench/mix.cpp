// Mixing three files of five minutes.
#include <memory>
#include <string>
#include <vector>

#include "bench/clip.h"
#include "bench/mixfloor.h"
#include "bench/quietlog.h"
#include "bench/require.h"
#include "bench/runner.h"
#include "bench/tempfile.h"
#include "utils/audiomixer.h"
#include "utils/internal/ffmpegptr.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
}

using bench::Require;
using bench::TempFolder;
using mediautil::FfPtr;

namespace {

constexpr int kRate = 44100;
constexpr int kSeconds = 300;
constexpr std::size_t kWavSecond = std::size_t{kRate} * 4;  // bytes

// ---------------------------------------------------------------------------------------------------------------------
// The inputs
// ---------------------------------------------------------------------------------------------------------------------

struct InputKind {
  const char* name;
  AVCodecID codec;
  bench::SoundCoding coding;
};

// MP3 frames stand for themselves, so that they can be repeated.
constexpr bench::SoundCoding kAac = {"aac", AV_SAMPLE_FMT_FLTP, kRate, 1024, 2, 128000};
constexpr bench::SoundCoding kMp3 = {"libmp3lame", AV_SAMPLE_FMT_FLTP, kRate, 1152, 2, 128000, "reservoir=0"};
constexpr InputKind kKinds[] = {
    {"mix1.m4a", AV_CODEC_ID_AAC, kAac}, {"mix2.mp3", AV_CODEC_ID_MP3, kMp3}, {"mix3.m4a", AV_CODEC_ID_AAC, kAac}};
constexpr std::uint8_t kAacConfiguration[] = {0x12, 0x10};  // LC, 44.1 kHz, two channels

void Describe(const InputKind& kind, AVCodecParameters& par) {
  par.codec_type = AVMEDIA_TYPE_AUDIO;
  par.codec_id = kind.codec;
  par.sample_rate = kRate;
  par.frame_size = kind.coding.samples;
  par.ch_layout = AV_CHANNEL_LAYOUT_STEREO;
  if (kind.codec == AV_CODEC_ID_AAC) {
    par.extradata = static_cast<std::uint8_t*>(av_mallocz(sizeof(kAacConfiguration) + AV_INPUT_BUFFER_PADDING_SIZE));
    Require(par.extradata != nullptr, "allocating a configuration");
    std::copy(std::begin(kAacConfiguration), std::end(kAacConfiguration), par.extradata);
    par.extradata_size = sizeof(kAacConfiguration);
  }
}

void MakeInput(const InputKind& kind, const std::string& folder) {
  const std::string path = folder + "/" + kind.name;
  const std::vector<bench::Bytes> sound = bench::EncodeSound(kind.coding);
  AVFormatContext* file = nullptr;
  Require(avformat_alloc_output_context2(&file, nullptr, nullptr, path.c_str()) >= 0, "describing " + path);
  const mediautil::ScopeExit release([file] {
    avio_closep(&file->pb);
    avformat_free_context(file);
  });
  const AVStream* st = avformat_new_stream(file, nullptr);
  Require(st != nullptr, "describing " + path);
  Describe(kind, *st->codecpar);
  Require(avio_open(&file->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(file, nullptr) >= 0,
          "beginning " + path);
  const FfPtr<AVPacket> packet(av_packet_alloc());
  for (std::int64_t i = 0; i < std::int64_t{kSeconds} * kRate / kind.coding.samples; ++i) {
    const bench::Bytes& frame = bench::At(sound, i);
    Require(av_new_packet(packet.get(), static_cast<int>(frame.size())) >= 0, "repeating");
    std::copy(frame.begin(), frame.end(), packet->data);
    packet->pts = packet->dts = i * kind.coding.samples;
    packet->duration = kind.coding.samples;
    av_packet_rescale_ts(packet.get(), {1, kRate}, st->time_base);
    Require(av_write_frame(file, packet.get()) >= 0, "writing " + path);
    av_packet_unref(packet.get());
  }
  Require(av_write_trailer(file) == 0, "completing " + path);
}

void MakeInputs(const std::string& folder) {
  for (const InputKind& kind : kKinds) {
    MakeInput(kind, folder);
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// The workload
// ---------------------------------------------------------------------------------------------------------------------

void Mix(const std::vector<std::string>& inputs, const std::string& output) {
  AudioMixer mixer;
  for (const std::string& input : inputs) {
    Require(mixer.AddInput(input) >= 0, "AddInput");
  }
  Require(mixer.SetOutput(output) == 0, "SetOutput");
  Require(mixer.WriteToFile() == 0, "WriteToFile");
}

std::vector<bench::Workload> MakeWorkloads(const std::string& given) {
  const auto temporary = std::make_shared<TempFolder>();
  const std::string folder = given.empty() ? temporary->Path() : given;
  if (given.empty()) {
    MakeInputs(folder);
  }
  std::vector<std::string> inputs;
  for (const InputKind& kind : kKinds) {
    inputs.push_back(folder + "/" + kind.name);
  }
  const std::string output = temporary->Path() + "/mix.wav";
  const auto repeat = [temporary, inputs, output](auto mix) {
    return bench::Repeat([temporary, inputs, output, mix] { mix(inputs, output); });
  };
  const auto check = [inputs, output] {
    Mix(inputs, output);
    const bench::Bytes library = bench::ReadFile(output);
    bench::FloorMix(inputs, output);
    Require(library == bench::ReadFile(output), "comparing the mixes of library and floor");
    Require(library.size() > kWavSecond * (kSeconds - 1) && library.size() < kWavSecond * (kSeconds + 1),
            "looking for five minutes of sound");
  };
  return {{"mix/pcm", repeat(Mix), repeat(bench::FloorMix), check}};
}

}  // namespace

int main(int argc, char** argv) {
  bench::SilenceLog();
  return bench::RunBench(argc, argv,
                         {"Three files of five minutes as one: the library beside the least work that gives the same "
                          "result.",
                          MakeWorkloads, MakeInputs});
}
