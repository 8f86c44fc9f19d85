#include "tools/mediautil/soundsource.h"

#include <algorithm>
#include <cstdint>

#include "tools/mediautil/args.h"
#include "tools/mediautil/stopsignals.h"
#include "utils/audioutil.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

SoundSource::~SoundSource() {
  LockAVCodecFreeContext(m_decoder);
  avformat_close_input(&m_input);
}

int SoundSource::Open(const std::string& path) {
  if (GetAVFormat(InputPath(path), m_input) != 0) {
    return FailNotMedia(path);
  }
  if (GetAVCodec(m_input, m_decoder, m_streamIndex) != 0) {
    return Fail(kBadInput, path + ": cannot find sound in it; mediautil probe shows what it holds");
  }
  const AVCodec* codec = avcodec_find_decoder(m_decoder->codec_id);
  if (codec == nullptr || LockAVCodecOpen(m_decoder, codec, nullptr) != 0 || Rate() < 1) {
    return Fail(kFailed, path + ": cannot decode its " + avcodec_get_name(m_decoder->codec_id) +
                             " sound: no decoder takes it as it is described; convert the recording first");
  }
  return kDone;
}

int SoundSource::Rate() const {
  return m_decoder->sample_rate;
}

int SoundSource::Channels() const {
  return m_decoder->ch_layout.nb_channels;
}

double SoundSource::Seconds() const {
  const AVStream& stream = *m_input->streams[m_streamIndex];
  const double seconds = stream.duration == AV_NOPTS_VALUE
                             ? static_cast<double>(m_input->duration) / AV_TIME_BASE
                             : static_cast<double>(stream.duration) * av_q2d(stream.time_base);
  return std::max(seconds, 0.0);
}

bool SoundSource::IsAlone() const {
  int streams = 0;
  for (unsigned int i = 0; i < m_input->nb_streams; ++i) {
    const AVStream& stream = *m_input->streams[i];
    const bool hasPackets = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0 && stream.discard < AVDISCARD_ALL &&
                            stream.codecpar->codec_type != AVMEDIA_TYPE_ATTACHMENT;
    streams += hasPackets ? 1 : 0;
  }
  return streams == 1;
}

void SoundSource::Decode(const std::function<bool(AVFrame&)>& take) {
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  bool goOn = packet != nullptr && frame != nullptr;
  for (bool isEnd = false; goOn && !isEnd && !StopSignals::Seen();) {
    isEnd = av_read_frame(m_input, packet) < 0;
    if (isEnd || (packet->stream_index == m_streamIndex && packet->size > 0)) {
      avcodec_send_packet(m_decoder, isEnd ? nullptr : packet);
    }
    av_packet_unref(packet);
    while (goOn && avcodec_receive_frame(m_decoder, frame) >= 0) {
      goOn = take(*frame);
    }
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
}

PcmConverter::PcmConverter(int rate, int channels)
    : m_rate(rate), m_channels(channels), m_swr(swr_alloc()), m_pcm(av_frame_alloc()) {}

PcmConverter::~PcmConverter() {
  av_frame_free(&m_pcm);
  swr_free(&m_swr);
}

bool PcmConverter::Describe(int samples) {
  if (m_swr == nullptr || m_pcm == nullptr) {
    return false;
  }
  av_frame_unref(m_pcm);
  m_pcm->format = AV_SAMPLE_FMT_S16;
  m_pcm->sample_rate = m_rate;
  m_pcm->nb_samples = samples;
  av_channel_layout_default(&m_pcm->ch_layout, m_channels);
  return true;
}

AVFrame* PcmConverter::Convert(AVFrame& frame) {
  constexpr std::int64_t kMostSamples = 1 << 24;
  frame.sample_rate = frame.sample_rate < 1 ? m_rate : frame.sample_rate;
  const std::int64_t samples = std::int64_t{frame.nb_samples} * m_rate / frame.sample_rate;
  if (frame.nb_samples < 1 || samples > kMostSamples || !Describe(0)) {
    return nullptr;
  }
  if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
    av_channel_layout_default(&frame.ch_layout, frame.ch_layout.nb_channels);
  }
  int ret = swr_convert_frame(m_swr, m_pcm, &frame);
  if (ret == AVERROR_INPUT_CHANGED) {
    swr_close(m_swr);
    ret = swr_convert_frame(m_swr, m_pcm, &frame);
  }
  return ret < 0 || m_pcm->nb_samples < 1 ? nullptr : m_pcm;
}

AVFrame* PcmConverter::Silence(double seconds) {
  if (!Describe(std::max(static_cast<int>(seconds * m_rate), 1)) || av_frame_get_buffer(m_pcm, 0) < 0) {
    return nullptr;
  }
  av_samples_set_silence(m_pcm->data, 0, m_pcm->nb_samples, m_channels, AV_SAMPLE_FMT_S16);
  return m_pcm;
}

unsigned char* PcmData(const AVFrame& pcm) {
  return pcm.data[0];
}

int PcmSize(const AVFrame& pcm) {
  return av_samples_get_buffer_size(nullptr, pcm.ch_layout.nb_channels, pcm.nb_samples, AV_SAMPLE_FMT_S16, 1);
}
