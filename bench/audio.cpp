// Sound: files converted for loudspeakers, MP3, and talk transcoded for cameras.
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "bench/require.h"
#include "bench/runner.h"
#include "bench/soundfloor.h"
#include "bench/tempfile.h"
#include "utils/audiotranscoder.h"
#include "utils/audioutil.h"
#include "utils/encodermp3.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

using bench::Bytes;
using bench::ReadFile;
using bench::Repeat;
using bench::Require;
using bench::SharedBytes;
using bench::Sink;
using bench::TempFile;
using bench::Workload;
using mediautil::FfPtr;

namespace {

constexpr int kSeconds = 60;
constexpr int kUlawSamples = 1 << 20;
constexpr const char* kMinuteFile = "minute.mp3";
constexpr const char* kMusicFile = "music.mp3";  // ten minutes, for whole programs
constexpr bench::SoundCoding kMusic = {"libmp3lame", AV_SAMPLE_FMT_FLTP, 44100, 1152, 2, 128000, "reservoir=0"};
constexpr int kVoiceRate = 32000;  // and bit rate of EncoderMP3

// 44.1 kHz stereo. Every packet stands for itself, so that they can be repeated.
void WriteMusic(const std::string& path, int seconds) {
  const std::vector<Bytes> packets = bench::EncodeSound(kMusic);
  std::ofstream out(path, std::ios::binary);
  for (std::int64_t i = 0; i < std::int64_t{seconds} * kMusic.rate / kMusic.samples; ++i) {
    const Bytes& packet = bench::At(packets, i);
    out.write(reinterpret_cast<const char*>(packet.data()), static_cast<std::streamsize>(packet.size()));
  }
  out.close();
  Require(out.good(), "writing " + path);
}

void RequireSame(const Bytes& library, const Bytes& floor, std::size_t atLeast) {
  if (library != floor || library.size() < atLeast) {
    throw std::runtime_error("library and floor differ, or gave too little: " + std::to_string(library.size()) +
                             " and " + std::to_string(floor.size()) + " bytes");
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// A file to G.711
// ---------------------------------------------------------------------------------------------------------------------

Workload MakeG711(const std::string& source) {
  struct Files {
    TempFile library;
    TempFile floor;
  };
  const auto files = std::make_shared<Files>();
  const auto library = [source, files] {
    Require(truncate(files->library.Path().c_str(), 0) == 0, "truncate");  // or the library would append
    Require(TranscodeToG711(source, files->library.Path()) == 0, "TranscodeToG711");
  };
  const auto floor = [source, files] { bench::FloorG711(source, files->floor.Path()); };
  const auto check = [library, floor, files] {
    library();
    floor();
    // The library's header counts only what had reached the file.
    const auto samples = [](const Bytes& wav) { return Bytes(wav.begin() + 44, wav.end()); };
    RequireSame(samples(ReadFile(files->library.Path())), samples(ReadFile(files->floor.Path())),
                (kSeconds - 1) * 16000);
  };
  return {"g711/mp3", Repeat(library), Repeat(floor), check};
}

// ---------------------------------------------------------------------------------------------------------------------
// Decoded sound to MP3
// ---------------------------------------------------------------------------------------------------------------------

// Frames of decoded mono music, 44.1 kHz, as a decoder gives them.
std::vector<FfPtr<AVFrame>> MakeFrames() {
  const std::vector<Bytes> sound = bench::EncodeSound({"pcm_s16le_planar", AV_SAMPLE_FMT_S16P, 44100, 1152});
  std::vector<FfPtr<AVFrame>> frames;
  for (const Bytes& samples : sound) {
    frames.emplace_back(av_frame_alloc());
    AVFrame& frame = *frames.back();
    frame.format = AV_SAMPLE_FMT_S16;
    frame.ch_layout = AV_CHANNEL_LAYOUT_MONO;
    frame.sample_rate = 44100;
    frame.nb_samples = static_cast<int>(samples.size() / sizeof(std::int16_t));
    Require(av_frame_get_buffer(&frame, 0) >= 0, "av_frame_get_buffer");
    std::copy(samples.begin(), samples.end(), frame.data[0]);
  }
  return frames;
}

using Frames = std::vector<FfPtr<AVFrame>>;

template <typename Take>
void PlayFrames(const Frames& frames, Take take) {
  for (std::int64_t i = 0; i < std::int64_t{kSeconds} * 44100 / 1152; ++i) {
    take(bench::At(frames, i).get());
  }
}

void LibraryMp3(const Frames& frames, const std::string& path) {
  const FfPtr<AVCodecContext> source(avcodec_alloc_context3(nullptr));
  source->sample_fmt = AV_SAMPLE_FMT_S16;
  source->sample_rate = 44100;
  EncoderMP3 encoder;
  Require(encoder.OpenOutputAudioCodec(source.get(), true, path) == 0, "OpenOutputAudioCodec");
  PlayFrames(frames, [&](AVFrame* frame) { Require(encoder.EncodeFrame(frame) == 0, "EncodeFrame"); });
}

void FloorMp3(const Frames& frames, const std::string& path) {
  std::ofstream out(path, std::ios::binary);
  bench::FloorTranscoder transcoder(AV_CODEC_ID_NONE, 44100,
                                    {"libmp3lame", AV_SAMPLE_FMT_S16P, kVoiceRate, kVoiceRate});
  const auto write = [&out](const AVPacket* packet) {
    out.write(reinterpret_cast<const char*>(packet->data), packet->size);
  };
  PlayFrames(frames, [&](AVFrame* frame) { transcoder.Feed(*frame, write); });
  Require(out.good(), "writing");
}

Workload MakeMp3() {
  const auto frames = std::make_shared<Frames>(MakeFrames());
  const auto file = std::make_shared<TempFile>();
  const auto library = [frames, file] { LibraryMp3(*frames, file->Path()); };
  const auto floor = [frames, file] { FloorMp3(*frames, file->Path()); };
  const auto check = [library, floor, file] {
    library();
    const Bytes mp3 = ReadFile(file->Path());
    floor();
    RequireSame(mp3, ReadFile(file->Path()), (kSeconds - 1) * kVoiceRate / 8);
  };
  return {"mp3/encode", Repeat(library), Repeat(floor), check};
}

// ---------------------------------------------------------------------------------------------------------------------
// Talk for a camera
// ---------------------------------------------------------------------------------------------------------------------

struct Talk {
  std::vector<Bytes> pieces =
      bench::EncodeSound({"pcm_mulaw", AV_SAMPLE_FMT_S16, bench::kMulawRate, bench::kMulawSamples});
  std::vector<SharedBytes> shared = bench::Share(pieces);
};

int TakeOutput(void* sink, unsigned char* data, int size) {
  static_cast<Sink*>(sink)->Take(data, size);
  return size;
}

void LibrarySpeak(const Talk& talk, const CAM_CAP_AUDIO_OUT_FORMAT& destination, Sink& sink) {
  const CAM_CAP_AUDIO_OUT_FORMAT source = {"talk", bench::kMulawRate, 8, 1, "pcm_mulaw", "", ""};
  AudioTranscoder transcoder;
  Require(transcoder.Init(source, destination, &sink, TakeOutput) == 0, "Init");
  for (std::int64_t i = 0; i * bench::kMulawTime < kSeconds * bench::kSecond; ++i) {
    const Bytes& piece = bench::At(talk.pieces, i);
    char* data = reinterpret_cast<char*>(const_cast<std::uint8_t*>(piece.data()));  // only read
    Require(transcoder.DoTranscode(data, static_cast<int>(piece.size())) == 0, "DoTranscode");
  }
}

struct Loudspeaker {
  const char* name;
  bench::FloorCoding coding;
  const char* container;
  const char* sampleFormat;
};

constexpr Loudspeaker kLoudspeakers[] = {
    {"speak/aac", {"aac", AV_SAMPLE_FMT_FLTP, 16000, 32000, 2}, "adts", "fltp"},
    {"speak/mp3", {"libmp3lame", AV_SAMPLE_FMT_S16P, 32000, 128000}, "mp3", "s16p"},
    {"speak/g726", {"g726", AV_SAMPLE_FMT_S16, 8000, 32000, 4}, "g726", "s16"},
    {"speak/g722", {"g722", AV_SAMPLE_FMT_S16, 16000, 64000, 4}, "g722", "s16"},
    {"speak/g711a", {"pcm_alaw", AV_SAMPLE_FMT_S16, 8000, 64000, 8}, "alaw", "s16"},
};

Workload MakeSpeak(const std::shared_ptr<Talk>& talk, const Loudspeaker& loudspeaker) {
  const CAM_CAP_AUDIO_OUT_FORMAT destination = {
      loudspeaker.name,           loudspeaker.coding.rate, loudspeaker.coding.bits, 1,
      loudspeaker.coding.encoder, loudspeaker.container,   loudspeaker.sampleFormat};
  const auto library = [talk, destination](Sink& sink) { LibrarySpeak(*talk, destination, sink); };
  const auto floor = [talk, loudspeaker](Sink& sink) {
    bench::FloorSpeak(talk->shared, kSeconds, loudspeaker.coding, loudspeaker.container, sink);
  };
  const auto check = [library, floor] {
    Bytes found[2];
    Sink sinks[2];
    sinks[0].copy = &found[0];
    sinks[1].copy = &found[1];
    library(sinks[0]);
    floor(sinks[1]);
    RequireSame(found[0], found[1], kSeconds * 1000);
  };
  return {loudspeaker.name, Repeat(library), Repeat(floor), check};
}

// ---------------------------------------------------------------------------------------------------------------------
// G.711 sample by sample: a million at a time, every sample there is among them
// ---------------------------------------------------------------------------------------------------------------------

struct Ulaw {
  Ulaw() : samples(av_frame_alloc()), linear(kUlawSamples) {
    samples->format = AV_SAMPLE_FMT_S16;
    samples->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    samples->sample_rate = 8000;
    samples->nb_samples = kUlawSamples;
    Require(av_frame_get_buffer(samples.get(), 0) >= 0, "av_frame_get_buffer");
    std::uint32_t state = 1;
    for (std::uint32_t i = 0; i < kUlawSamples; ++i) {
      state = state * 1664525 + 1013904223;
      Samples()[i] = static_cast<std::int16_t>(i < 1 << 16 ? i : state >> 16);
    }
    Encode();
  }
  std::int16_t* Samples() const { return reinterpret_cast<std::int16_t*>(samples->data[0]); }

  void Encode() { std::transform(Samples(), Samples() + kUlawSamples, codes.begin(), Linear2Ulaw); }
  void Decode() { std::transform(codes.begin(), codes.end(), linear.begin(), Ulaw2Linear); }

  FfPtr<AVFrame> samples;
  std::vector<Bytes> pieces{Bytes(kUlawSamples)};
  Bytes& codes = pieces[0];
  std::vector<SharedBytes> shared = bench::Share(pieces);
  std::vector<std::int16_t> linear;
  bench::FloorUlaw floor;
};

// FFmpeg rounds to the other side at 512 of the 65536 samples, by one code. What is decoded is the same.
void CheckUlaw(Ulaw& ulaw) {
  const AVPacket& packet = ulaw.floor.Encode(*ulaw.samples);
  int different = 0;
  for (std::size_t i = 0; i < 1 << 16; ++i) {
    different += packet.data[i] == ulaw.codes[i] ? 0 : 1;
    Require(std::abs(packet.data[i] - ulaw.codes[i]) <= 1, "comparing codes");
  }
  Require(packet.size == kUlawSamples && different == 512, "comparing codes");
  ulaw.Decode();
  const auto* decoded = reinterpret_cast<const std::int16_t*>(ulaw.floor.Decode(ulaw.shared[0]).data[0]);
  Require(std::equal(ulaw.linear.begin(), ulaw.linear.end(), decoded), "comparing samples");
}

std::vector<Workload> MakeUlaw() {
  const auto ulaw = std::make_shared<Ulaw>();
  const auto check = [ulaw] { CheckUlaw(*ulaw); };
  return {{"ulaw/encode", Repeat([ulaw] { ulaw->Encode(); }), Repeat([ulaw] { ulaw->floor.Encode(*ulaw->samples); }),
           check},
          {"ulaw/decode", Repeat([ulaw] { ulaw->Decode(); }), Repeat([ulaw] { ulaw->floor.Decode(ulaw->shared[0]); }),
           check}};
}

// ---------------------------------------------------------------------------------------------------------------------

std::vector<Workload> MakeWorkloads(const std::string& folder) {
  static const TempFile minute;
  if (folder.empty()) {
    WriteMusic(minute.Path(), kSeconds);
  }
  std::vector<Workload> workloads = {MakeG711(folder.empty() ? minute.Path() : folder + "/" + kMinuteFile), MakeMp3()};
  const auto talk = std::make_shared<Talk>();
  for (const Loudspeaker& loudspeaker : kLoudspeakers) {
    workloads.push_back(MakeSpeak(talk, loudspeaker));
  }
  for (const Workload& workload : MakeUlaw()) {
    workloads.push_back(workload);
  }
  return workloads;
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBench(argc, argv,
                         {"Sound converted, encoded and transcoded: the library beside the least work that gives the "
                          "same result.",
                          MakeWorkloads, [](const std::string& folder) {
                            WriteMusic(folder + "/" + kMinuteFile, kSeconds);
                            WriteMusic(folder + "/" + kMusicFile, 10 * kSeconds);
                          }});
}
