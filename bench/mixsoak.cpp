// A long mix of two live streams with loss and jitter: does memory stay, and does the mix keep step with them?
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <list>
#include <random>

#include "bench/clip.h"
#include "bench/longrun.h"
#include "bench/quietlog.h"
#include "bench/require.h"
#include "bench/usage.h"
#include "utils/audiomixer.h"
#include "utils/internal/ffmpegptr.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

using bench::Require;
using mediautil::FfPtr;

namespace {

constexpr std::int64_t kPacketsPerSecond = bench::kSecond / bench::kMulawTime;
constexpr std::int64_t kWarmUp = 600 * kPacketsPerSecond;
constexpr std::int64_t kAllowedGrowth = 1 << 20;  // bytes
// Half a second for a stream that stopped, and a frame of the encoder that is not full yet.
constexpr double kAllowedLag = 0.5 + 1024.0 / bench::kMulawRate;  // seconds

// The second stream has a signal of 0.1 s in the middle of every ten seconds, which is never lost. It may be heard so
// much too early, for its pauses add up to that, or too late, for which AAC's frames are the reason.
constexpr std::int64_t kSignalInterval = 10 * kPacketsPerSecond;
constexpr std::int64_t kSignalAt = 5 * kPacketsPerSecond;
constexpr std::int64_t kSignalPackets = kPacketsPerSecond / 10;
constexpr float kLoud = 0.2F;
constexpr double kAllowedEarly = 0.5;  // seconds
constexpr double kAllowedLate = 0.02;

// A packet of each every 20 ms, which come in bursts. The first one is whole, and so the measure of the mix; the second
// one loses one packet in twenty, and all of a second in every minute.
struct LiveStream {
  std::int64_t longestBurst;  // packets
  bool isLossy;
};
constexpr LiveStream kStreams[] = {{10, false}, {20, true}};

struct Result {
  std::int64_t packets = 0;
  std::int64_t lost = 0;
  double seconds = 0;
  double lag = 0;   // of the mix behind the first stream, the longest
  double lead = 0;  // before it
  std::int64_t signals = 0;
  std::int64_t heard = 0;
  double early = 0;  // the most
  double late = 0;
  std::int64_t residentEarly = 0;
  std::int64_t residentLate = 0;
};

// Finds the second stream's signals in what was mixed.
class Listener {
 public:
  void Open(const AVCodecContext& encoder) {
    const FfPtr<AVCodecParameters> par(avcodec_parameters_alloc());
    const AVCodec* decoder = avcodec_find_decoder(encoder.codec_id);
    m_decoder.reset(avcodec_alloc_context3(decoder));
    m_frame.reset(av_frame_alloc());
    Require(par != nullptr && m_decoder != nullptr && m_frame != nullptr &&
                avcodec_parameters_from_context(par.get(), &encoder) >= 0 &&
                avcodec_parameters_to_context(m_decoder.get(), par.get()) >= 0 &&
                LockAVCodecOpen(m_decoder.get(), decoder, nullptr) >= 0 && m_decoder->sample_fmt == AV_SAMPLE_FMT_FLTP,
            "opening a decoder");
  }

  void Hear(const AVPacket* packet, Result& result) {
    Require(avcodec_send_packet(m_decoder.get(), packet) >= 0, "decoding");
    while (avcodec_receive_frame(m_decoder.get(), m_frame.get()) >= 0) {
      const auto* samples = reinterpret_cast<const float*>(m_frame->extended_data[0]);
      for (int i = 0; i < m_frame->nb_samples; ++i) {
        if (std::fabs(samples[i]) > kLoud) {
          HearLoud(static_cast<double>(m_frame->pts + i) / bench::kMulawRate, result);
        }
      }
    }
  }

 private:
  void HearLoud(double time, Result& result) {
    constexpr double kInterval = static_cast<double>(kSignalInterval) / kPacketsPerSecond;
    constexpr double kAt = static_cast<double>(kSignalAt) / kPacketsPerSecond;
    if (time - m_loud > 1) {
      const double late = time - kAt - std::round((time - kAt) / kInterval) * kInterval;
      result.late = std::max(result.late, late);
      result.early = std::max(result.early, -late);
      ++result.heard;
    }
    m_loud = time;
  }

  FfPtr<AVCodecContext> m_decoder;
  FfPtr<AVFrame> m_frame;
  double m_loud = -1;  // when it was heard last
};

class Soak {
 public:
  Soak() {
    const FfPtr<AVCodecParameters> par(avcodec_parameters_alloc());
    Require(par != nullptr, "making parameters");
    par->codec_type = AVMEDIA_TYPE_AUDIO;
    par->codec_id = AV_CODEC_ID_PCM_MULAW;
    par->sample_rate = bench::kMulawRate;
    par->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    for (std::size_t i = 0; i < std::size(kStreams); ++i) {
      Require(m_mixer.AddStream(par.get()) >= 0, "AddStream");
    }
    Require(m_mixer.SetOutput("") == 0, "SetOutput");
    m_nextTime = -m_mixer.GetEncoder()->initial_padding;
    m_listener.Open(*m_mixer.GetEncoder());
    for (std::size_t i = 0; i < m_signal.size(); ++i) {
      m_signal[i] = i % 16 < 8 ? 0x90 : 0x10;  // 500 Hz at half of full scale
    }
  }

  Result Run(int hours) {
    const std::int64_t count = std::int64_t{hours} * 3600 * kPacketsPerSecond;
    for (std::int64_t now = 0; now < count; ++now) {
      for (unsigned int i = 0; i < std::size(kStreams); ++i) {
        Receive(i, now);
      }
      Pop();
      m_result.residentEarly = now == kWarmUp ? bench::ResidentBytes() : m_result.residentEarly;
    }
    m_result.residentLate = bench::ResidentBytes();  // with everything still open
    return m_result;
  }

 private:
  void Receive(unsigned int stream, std::int64_t now) {
    std::int64_t& sent = m_sent[stream];
    if (m_random() % 5 != 0 && now - sent < kStreams[stream].longestBurst) {
      return;
    }
    for (; sent <= now; ++sent) {
      const std::int64_t signal = sent % kSignalInterval - kSignalAt;
      const bool isSignal = kStreams[stream].isLossy && signal >= 0 && signal < kSignalPackets;
      const bool isLost =
          kStreams[stream].isLossy && (m_random() % 20 == 0 || sent % (60 * kPacketsPerSecond) < kPacketsPerSecond);
      if (isLost && !isSignal) {
        ++m_result.lost;
      } else {
        Push(stream, isSignal ? m_signal : m_silence);
      }
      m_result.signals += isSignal && signal == 0 ? 1 : 0;
    }
  }

  void Push(unsigned int stream, const bench::Bytes& data) {
    FfPtr<AVPacket> packet(av_packet_alloc());
    Require(packet != nullptr && av_new_packet(packet.get(), static_cast<int>(data.size())) >= 0, "making a packet");
    std::copy(data.begin(), data.end(), packet->data);
    Require(m_mixer.PushPkt(stream, packet.get()) == 0, "PushPkt");
    packet.release();
  }

  void Pop() {
    std::list<AVPacket*> mixed;
    Require(m_mixer.PopMixed(mixed) == 0, "PopMixed");
    bool isGapless = true;
    for (AVPacket* packet : mixed) {
      isGapless = isGapless && packet->pts == m_nextTime;
      m_nextTime += m_mixer.GetEncoder()->frame_size;
      ++m_result.packets;
      m_listener.Hear(packet, m_result);
      av_packet_free(&packet);
    }
    Require(isGapless, "looking for a packet's successor");
    m_result.seconds = m_mixer.MixedSeconds();
    const double live = static_cast<double>(m_sent[0]) / kPacketsPerSecond;
    m_result.lag = std::max(m_result.lag, live - m_result.seconds);
    m_result.lead = std::max(m_result.lead, m_result.seconds - live);
  }

  const bench::Bytes m_silence = bench::Bytes(bench::kMulawSamples, 0xFF);
  bench::Bytes m_signal = m_silence;
  AudioMixer m_mixer;
  Listener m_listener;
  std::mt19937 m_random{1};
  std::int64_t m_sent[std::size(kStreams)] = {};  // packets, lost ones as well
  std::int64_t m_nextTime = 0;
  Result m_result;
};

int Report(const Result& result) {
  std::printf("%.0f s mixed, %lld packets; %lld packets of the second stream were lost\n", result.seconds,
              static_cast<long long>(result.packets), static_cast<long long>(result.lost));
  std::printf("at most %.3f s behind the first stream (%.3f), %.3f s before it (0)\n", result.lag, kAllowedLag,
              result.lead);
  std::printf("%lld of %lld signals of the second stream heard, at most %.3f s early (%.3f) and %.3f s late (%.3f)\n",
              static_cast<long long>(result.heard), static_cast<long long>(result.signals), result.early, kAllowedEarly,
              result.late, kAllowedLate);
  const bool hasStayed = bench::HasStayed(result.residentEarly, result.residentLate, kAllowedGrowth);
  const bool isInStep = result.heard == result.signals && result.early <= kAllowedEarly && result.late <= kAllowedLate;
  return !hasStayed || result.lag > kAllowedLag || result.lead > 0 || !isInStep ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  bench::SilenceLog();
  return bench::RunHours(
      argc, argv,
      "Mixes two live streams of that many hours. Exit codes: 0 memory stayed and the streams kept step, 1 one of them "
      "did not, 2 it did not work.",
      "length of the mix", 1, [](int hours) { return Report(Soak().Run(hours)); });
}
