// Mixes a sound file with a live stream into an FLV, as for announcements over a camera's sound:
// mix_live FILE LIVE OUT.flv
//
// The recording LIVE takes the camera's part: its packets are pushed into the mixer one by one, as they would arrive.
// What is mixed comes back as AAC packets, and the muxer's write callback puts the container's bytes wherever they are
// to go: here into a file.
#include <cstdio>
#include <iostream>
#include <list>
#include <memory>
#include <string>

#include "platform/log.h"
#include "utils/audiomixer.h"
#include "utils/ffmpegdemuxer.h"
#include "utils/ffmpegmuxer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace {

// The bytes are valid during the call only. A negative result ends the output.
int OnBytes(void* file, unsigned char* data, int size) {
  const auto bytes = static_cast<std::size_t>(size);
  return std::fwrite(data, 1, bytes, static_cast<std::FILE*>(file)) == bytes ? size : -1;
}

class LiveMix {
 public:
  LiveMix(const std::string& background, std::FILE* out) : m_background(background), m_out(out) {}
  ~LiveMix() {
    for (AVPacket* packet : m_mixed) {
      av_packet_free(&packet);
    }
  }
  LiveMix(const LiveMix&) = delete;
  LiveMix& operator=(const LiveMix&) = delete;

  static FETCH_CONN OnPacket(void* self, ESFormat& fmt, AVPacket& pkt, AVStream* st) {
    auto& mix = *static_cast<LiveMix*>(self);
    if (fmt.i_cat != ES_AUDIO) {
      return FETCH_CONN_NEXT;
    }
    mix.m_isGood = (mix.m_isStarted || mix.Start(*st->codecpar)) && mix.Push(av_packet_clone(&pkt)) && mix.Pop();
    return mix.m_isGood ? FETCH_CONN_NEXT : FETCH_CONN_STOP;
  }

  // The stream has ended; the file plays on to its end.
  bool Finish() {
    m_isGood = m_isGood && m_isStarted && m_mixer.PushPkt(m_stream, nullptr) == 0;
    while (m_isGood && !m_mixer.IsFinished()) {
      m_isGood = Pop();
    }
    m_muxer.Finalize();
    return m_isGood;
  }

  bool IsStarted() const { return m_isStarted; }
  double Seconds() const { return m_mixer.MixedSeconds(); }

 private:
  // All inputs must be known before the output is set.
  bool Start(const AVCodecParameters& par) {
    const int stream = m_mixer.AddStream(&par);
    if (stream < 0 || m_mixer.AddInput(m_background) < 0 || m_mixer.SetOutput("") != 0) {
      return false;
    }
    m_stream = static_cast<unsigned int>(stream);
    const AVCodecContext* encoder = m_mixer.GetEncoder();
    const std::string info =
        std::to_string(encoder->ch_layout.nb_channels) + "|" + std::to_string(encoder->sample_rate);
    m_isStarted = m_muxer.Init(FFMPEG_MUXER_FORMAT_FLV, m_out, OnBytes) == 0 &&
                  m_muxer.AddAdoStream(info, "MPEG4-GENERIC", false) == 0 && m_muxer.WriteHeader() == 0;
    return m_isStarted;
  }

  // The mixer owns a packet that it took, and frees it.
  bool Push(AVPacket* packet) {
    if (packet == nullptr || m_mixer.PushPkt(m_stream, packet) != 0) {
      av_packet_free(&packet);
      return false;
    }
    return true;
  }

  bool Pop() {
    bool isWritten = m_mixer.PopMixed(m_mixed) == 0;
    const AVCodecContext& encoder = *m_mixer.GetEncoder();
    for (; isWritten && !m_mixed.empty(); m_mixed.pop_front()) {
      AVPacket* packet = m_mixed.front();
      // From the encoder's priming on, and 1 at first: to the muxer a 0 is no time.
      const long long samples = packet->pts + encoder.initial_padding;
      const long long time = samples * 1000000 / encoder.sample_rate + 1;
      isWritten = m_muxer.WriteAdoFrame(packet->data, packet->size, time) == 0;
      av_packet_free(&packet);
    }
    return isWritten;
  }

  const std::string m_background;
  std::FILE* const m_out;
  const MuxCtrler m_policy;
  AudioMixer m_mixer;
  FFmpegMuxer m_muxer{m_policy};
  std::list<AVPacket*> m_mixed;
  unsigned int m_stream = 0;
  bool m_isStarted = false;
  bool m_isGood = true;
};

int Run(const char* background, const char* live, const char* output) {
  FFmpegDemux camera;
  ESFormat video;
  ESFormat audio;
  const int opened = camera.Open(live, video, audio);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(opened == 0 ? std::fopen(output, "wb") : nullptr,
                                                             std::fclose);
  bool isDone = false;
  if (opened != 0) {
    std::cerr << "mix_live: " << live << ": cannot open it\n";
  } else if (file == nullptr) {
    std::cerr << "mix_live: " << output << ": cannot write it\n";
  } else {
    LiveMix mix(background, file.get());
    // 0 also where the stream cannot be read on: what came until then is mixed.
    camera.Demux(video, audio, &mix, LiveMix::OnPacket);
    isDone = mix.Finish() && std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0;
    if (isDone) {
      std::printf("%s: %.3f s\n", output, mix.Seconds());
    } else if (mix.IsStarted()) {
      std::cerr << "mix_live: " << output << ": cannot write it\n";
    } else {
      std::cerr << "mix_live: cannot mix " << background << " and " << live << ": each needs one sound track\n";
    }
  }
  video.Reset(ES_UNKNOWN);
  audio.Reset(ES_UNKNOWN);
  return isDone ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: mix_live FILE LIVE OUT.flv\n";
    return 2;
  }
  // The mixer tells the log of every frame, as an error; here nobody reads it.
  static DbgLogCfg silent = {};
  g_pDbgLogCfg = &silent;
  return Run(argv[1], argv[2], argv[3]);
}
