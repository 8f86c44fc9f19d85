// mediautil speak: sound as a camera's loudspeaker takes it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

#include "tools/mediautil/args.h"
#include "tools/mediautil/soundjob.h"
#include "tools/mediautil/stopsignals.h"
#include "utils/audiotranscoder.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace {

// What cameras take; the first rate is the one without --rate.
struct SpeakerCodec {
  const char* name;
  const char* encoder;
  const char* muxer;
  const char* sampleFormat;
  std::vector<int> rates;
  int minBits;  // of a coded sample; 0: the codec has its own bit rate
  int maxBits;
  int bits;
  int maxChannels;
};

const std::vector<int> kAnyRate = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};
const SpeakerCodec kCodecs[] = {
    {"aac", "aac", "adts", "fltp", {16000, 8000, 11025, 12000, 22050, 24000, 32000, 44100, 48000}, 1, 16, 4, 2},
    {"g711u", "pcm_mulaw", "mulaw", "s16", kAnyRate, 8, 8, 8, 2},
    {"g711a", "pcm_alaw", "alaw", "s16", kAnyRate, 8, 8, 8, 2},
    {"g726", "g726", "g726", "s16", {8000}, 2, 5, 4, 1},
    {"mp3", "libmp3lame", "mp3", "s16p", {32000, 8000, 11025, 12000, 16000, 22050, 24000, 44100, 48000}, 0, 0, 0, 2},
    {"g722", "g722", "g722", "s16", {16000}, 4, 4, 4, 1},
};

struct SpeakArgs : SoundArgs {
  std::string codec;
  std::optional<int> rate;
  std::optional<int> bits;
  int channels = 1;
};

// Pushes out what waits for a whole encoder frame, up to 4096 samples, and what the encoder would keep at the end.
constexpr double kTail = 0.6;

// The sound in buffers of 20 ms, as they arrive when somebody talks, through the transcoder.
class Talk {
 public:
  Talk(const SoundSource& source, int channels, OutputFile& output)
      : m_output(output),
        m_pcm(source.Rate(), channels),
        m_bufferSize(static_cast<std::size_t>(std::max(source.Rate() / 50, 1)) * 2 *
                     static_cast<std::size_t>(channels)),
        m_rate(source.Rate()),
        m_channels(channels) {}

  bool Open(const CAM_CAP_AUDIO_OUT_FORMAT& destination) {
    const CAM_CAP_AUDIO_OUT_FORMAT source = {"PCM", m_rate, 16, m_channels, "pcm_s16le", "", ""};
    return m_transcoder.Init(source, destination, &m_output, OutputFile::Write) == 0;
  }

  // False when the output takes no more.
  bool Take(AVFrame& frame) {
    const AVFrame* pcm = m_pcm.Convert(frame);
    m_seconds += pcm == nullptr ? 0 : static_cast<double>(pcm->nb_samples) / m_rate;
    return Send(pcm);
  }

  void Close() {
    Send(m_pcm.Silence(kTail));
    m_transcoder.Close();
  }

  double Seconds() const { return m_seconds; }
  // Whether most of the sound was refused. A few samples at the start may come later and count as refused, too.
  bool IsRefused() const { return m_refused > m_sent / 2; }

 private:
  bool Send(const AVFrame* pcm) {
    if (pcm == nullptr) {
      return true;
    }
    m_waiting.insert(m_waiting.end(), PcmData(*pcm), PcmData(*pcm) + PcmSize(*pcm));
    std::size_t at = 0;
    for (; m_waiting.size() - at >= m_bufferSize && !m_output.IsFailed(); at += m_bufferSize) {
      char* buffer = reinterpret_cast<char*>(&m_waiting[at]);
      m_refused += m_transcoder.DoTranscode(buffer, static_cast<int>(m_bufferSize)) == 0 ? 0 : 1;
      ++m_sent;
    }
    m_waiting.erase(m_waiting.begin(), m_waiting.begin() + static_cast<std::ptrdiff_t>(at));
    return !m_output.IsFailed();
  }

  OutputFile& m_output;
  PcmConverter m_pcm;
  AudioTranscoder m_transcoder;
  std::vector<unsigned char> m_waiting;
  std::size_t m_bufferSize;
  int m_rate;
  int m_channels;
  double m_seconds = 0;
  long long m_sent = 0;
  long long m_refused = 0;
};

const SpeakerCodec& CodecOf(const SpeakArgs& args) {
  return *std::find_if(std::begin(kCodecs), std::end(kCodecs),
                       [&args](const SpeakerCodec& codec) { return args.codec == codec.name; });
}

std::string Joined(const std::vector<int>& numbers) {
  std::ostringstream text;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    text << (i == 0 ? "" : ", ") << numbers[i];
  }
  return text.str();
}

int CheckFormat(const SpeakArgs& args, const SpeakerCodec& codec) {
  const std::string name = std::string("speak: ") + codec.name;
  if (args.rate && std::find(codec.rates.begin(), codec.rates.end(), *args.rate) == codec.rates.end()) {
    return Fail(kUsage,
                name + " does not have " + std::to_string(*args.rate) + " Hz; choose --rate of " + Joined(codec.rates));
  }
  if (args.bits && (*args.bits < codec.minBits || *args.bits > codec.maxBits)) {
    return Fail(kUsage, name + " does not have " + std::to_string(*args.bits) + " bits a sample; " +
                            (codec.minBits == codec.maxBits ? "leave --bits out"
                                                            : "choose --bits from " + std::to_string(codec.minBits) +
                                                                  " to " + std::to_string(codec.maxBits)));
  }
  return args.channels > codec.maxChannels ? Fail(kUsage, name + " is mono; leave --channels out") : kDone;
}

int WriteTalk(const SpeakArgs& args, SoundJob& job) {
  const SpeakerCodec& codec = CodecOf(args);
  const CAM_CAP_AUDIO_OUT_FORMAT destination = {codec.name,
                                                args.rate.value_or(codec.rates.front()),
                                                args.bits.value_or(codec.bits),
                                                args.channels,
                                                codec.encoder,
                                                codec.muxer,
                                                codec.sampleFormat};
  Talk talk(job.source, args.channels, job.output);
  if (!talk.Open(destination)) {
    return Fail(kFailed, args.input + ": cannot turn its sound of " + std::to_string(job.source.Rate()) + " Hz into " +
                             codec.name + " of " + std::to_string(destination.sampleRate) +
                             " Hz; try another --rate or --codec, or convert it first");
  }
  job.source.Decode([&](AVFrame& frame) {
    const bool goOn = talk.Take(frame);
    job.Done(talk.Seconds());
    return goOn;
  });
  talk.Close();
  if (talk.IsRefused() && !job.output.IsFailed() && !StopSignals::Seen()) {
    return Fail(kFailed, args.input + ": cannot encode its sound; run again with -vv");
  }
  return kDone;
}

int Speak(const SpeakArgs& args) {
  if (const int code = CheckFormat(args, CodecOf(args)); code != kDone) {
    return code;
  }
  SoundJob job(args);
  return job.Run([&] { return WriteTalk(args, job); });
}

}  // namespace

void AddSpeak(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("speak", "Write sound as a camera's loudspeaker takes it.");
  const auto args = std::make_shared<SpeakArgs>();
  std::vector<std::string> names;
  std::transform(std::begin(kCodecs), std::end(kCodecs), std::back_inserter(names),
                 [](const SpeakerCodec& codec) { return codec.name; });
  command->add_option("SRC", args->input, "recording or sound file to read")->required()->type_name("");
  command->add_option("-o,--output", args->output, "file to write, - for stdout")->required()->type_name("OUT");
  command->add_option("--codec", args->codec, "aac, g711u, g711a, g726, mp3 or g722")
      ->required()
      ->type_name("C")
      ->check(CLI::IsMember(names).description(""));
  command->add_option("--rate", args->rate, "Hz; else 8000, aac and g722 16000, mp3 32000")->type_name("N");
  command->add_option("--bits", args->bits, "of a coded sample: g726 2 to 5, aac 1 to 16; else 4")->type_name("N");
  command->add_option("--channels", args->channels, "1 or 2; else 1")
      ->type_name("N")
      ->check(CLI::Range(1, 2).description(""));
  AddProgressOption(*command, args->progress);
  command->footer(
      "Examples:\n  mediautil speak siren.mp3 --codec g711u -o siren.ul\n"
      "  mediautil speak hello.wav --codec aac --rate 8000 -o - | curl -T - http://camera/talk");
  command->callback([args, &action] { action = [args] { return Speak(*args); }; });
}
