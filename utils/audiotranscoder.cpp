#include "utils/audiotranscoder.h"

#include <cstdint>
#include <new>

#include "utils/internal/callbackio.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/log.h"
#include "utils/internal/soundgatherer.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

using mediautil::FfPtr;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr int kMp3BitRate = 128000;

bool IsSameFormat(const CAM_CAP_AUDIO_OUT_FORMAT& a, const CAM_CAP_AUDIO_OUT_FORMAT& b) {
  return a.strFormat == b.strFormat && a.sampleRate == b.sampleRate && a.bitsPerSample == b.bitsPerSample;
}

// Negative for a product that has no sense.
std::int64_t PlainBitRate(const CAM_CAP_AUDIO_OUT_FORMAT& format) {
  std::int64_t bitRate = std::int64_t{format.channels} * format.bitsPerSample;
  return __builtin_mul_overflow(bitRate, format.sampleRate, &bitRate) ? -1 : bitRate;
}

}  // namespace

// What stands between the decoder and the caller's callback.
struct AudioTranscoder::Encoding {
  Encoding(void* opaque, mediautil::WriteCallback write) : io(opaque, write) {}

  mediautil::CallbackIo io;
  mediautil::SoundGatherer gatherer;
};

AudioTranscoder::AudioTranscoder() = default;

AudioTranscoder::~AudioTranscoder() {
  Close();
}

// ---------------------------------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------------------------------

int AudioTranscoder::Init(const CAM_CAP_AUDIO_OUT_FORMAT& src, const CAM_CAP_AUDIO_OUT_FORMAT& dst, void* opaque,
                          int (*write)(void* opaque, unsigned char* data, int size)) try {
  LockAVCodecRegister();
  if (m_pOutputCtx == nullptr) {
    m_src = src;
    m_dst = dst;
    m_pOpaque = opaque;
    m_pWrite = write;
  }
  VY_FAIL_IF(FFMpegInitAudio() != 0, -1, LOG_LEVEL_ERR, "Failed to init FFmpeg audio decoder.\n");
  const AVCodec* encoder = nullptr;
  m_pStream = AddAudioStream(&encoder);
  if (m_pStream == nullptr || OpenAudio(encoder, m_pStream) != 0) {
    return -1;
  }
  // FFmpeg leaves it at that when the callback refuses the header.
  VY_FAIL_IF(avformat_write_header(m_pOutputCtx, nullptr) < 0 || m_pOutputCtx->pb->error < 0, -1, LOG_LEVEL_ERR,
             "Error of writing header\n");
  m_isHeaderWritten = true;
  return 0;
} catch (const std::bad_alloc&) {
  VY_LOG(LOG_LEVEL_ERR, "Failed to init FFmpeg audio decoder.\n");
  return -1;
}

int AudioTranscoder::InitOutputContext() {
  const int size = m_dst.ffCodecName == "libmp3lame" ? 2304 : 2048;
  VY_FAIL_IF(m_pOutputCtx != nullptr, -1, LOG_LEVEL_ERR, "Duplicately use audioTranscoder\n");
  const int ret = avformat_alloc_output_context2(&m_pOutputCtx, nullptr, m_dst.ffMuxerName.c_str(), nullptr);
  VY_FAIL_IF(ret < 0, -1, LOG_LEVEL_ERR, "Failed to open output context, AVRet[%d]\n", ret);
  m_pEncoding.reset(new (std::nothrow) Encoding(m_pOpaque, m_pWrite));
  VY_FAIL_IF(m_pEncoding == nullptr || !m_pEncoding->io.AllocBuffer(size), -1, LOG_LEVEL_ERR,
             "Failed to alloc output context or buffer, oc[%p], buf[%p]\n", static_cast<const void*>(m_pOutputCtx),
             static_cast<const void*>(nullptr));
  m_pOutputCtx->pb = m_pEncoding->io.Open();
  VY_FAIL_IF(m_pOutputCtx->pb == nullptr, -1, LOG_LEVEL_ERR, "Failed to avio_alloc_context.\n");
  m_pOutputCtx->flags = AVFMT_FLAG_CUSTOM_IO;
  return 0;
}

int AudioTranscoder::FFMpegInitAudio() {
  if (InitOutputContext() != 0) {
    return -1;
  }
  m_decoder.pCodec = avcodec_find_decoder_by_name(m_src.ffCodecName.c_str());
  VY_FAIL_IF(m_decoder.pCodec == nullptr || m_decoder.pCodec->type != AVMEDIA_TYPE_AUDIO, -1, LOG_LEVEL_ERR,
             "Failed to find decoder. CodecId: [%s]\n", m_src.ffCodecName.c_str());
  m_decoder.pCodecCtx = avcodec_alloc_context3(m_decoder.pCodec);
  VY_FAIL_IF(m_decoder.pCodecCtx == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc context.\n");
  AVCodecContext& ctx = *m_decoder.pCodecCtx;
  ctx.bits_per_coded_sample = m_src.bitsPerSample;
  ctx.sample_rate = m_src.sampleRate;
  av_channel_layout_default(&ctx.ch_layout, m_src.channels);
  const int ret = LockAVCodecOpen(&ctx, m_decoder.pCodec, nullptr);
  VY_FAIL_IF(ret != 0, -1, LOG_LEVEL_ERR, "Failed to open codec PCMU with Ret [%d] and err [%s].\n", ret,
             GetFfmpegErr(ret).c_str());
  m_decoder.pRawFrame = av_frame_alloc();
  VY_FAIL_IF(m_decoder.pRawFrame == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc frame.\n");
  return 0;
}

AVStream* AudioTranscoder::AddAudioStream(const AVCodec** encoder) {
  *encoder = avcodec_find_encoder_by_name(m_dst.ffCodecName.c_str());
  VY_FAIL_IF(*encoder == nullptr || (*encoder)->type != AVMEDIA_TYPE_AUDIO, nullptr, LOG_LEVEL_ERR,
             "codec not found. id:[%s]\n", m_dst.ffCodecName.c_str());
  AVStream* stream = avformat_new_stream(m_pOutputCtx, *encoder);
  m_pEncoderCtx = avcodec_alloc_context3(*encoder);
  VY_FAIL_IF(stream == nullptr || m_pEncoderCtx == nullptr, nullptr, LOG_LEVEL_ERR, "Could not alloc stream\n");
  stream->id = static_cast<int>(m_pOutputCtx->nb_streams) - 1;
  stream->time_base = {1, m_dst.sampleRate};

  const AVChannelLayout& source = m_decoder.pCodecCtx->ch_layout;
  const bool isMp3 = (*encoder)->id == AV_CODEC_ID_MP3;
  AVCodecContext& ctx = *m_pEncoderCtx;
  ctx.sample_rate = m_dst.sampleRate;
  ctx.sample_fmt = av_get_sample_fmt(m_dst.ffSampleFmt.c_str());
  ctx.thread_count = 1;
  if (isMp3) {
    av_channel_layout_default(&ctx.ch_layout, source.nb_channels == 2 ? 2 : 1);
    ctx.bit_rate = kMp3BitRate;
  } else {
    ctx.bits_per_coded_sample = m_dst.bitsPerSample;
    ctx.bit_rate = PlainBitRate(m_dst);
    VY_FAIL_IF(av_channel_layout_copy(&ctx.ch_layout, &source) < 0, nullptr, LOG_LEVEL_ERR, "Could not alloc stream\n");
  }
  if ((m_pOutputCtx->oformat->flags & AVFMT_GLOBALHEADER) != 0 || isMp3) {
    ctx.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  }
  return stream;
}

int AudioTranscoder::OpenAudio(const AVCodec* encoder, AVStream* stream) {
  AVCodecContext& enc = *m_pEncoderCtx;
  const AVCodecContext& decoder = *m_decoder.pCodecCtx;
  // Between equal formats nothing will be encoded: their channel counts do not matter.
  const bool isPossible = m_dst.channels == enc.ch_layout.nb_channels || IsSameFormat(m_src, m_dst);
  VY_FAIL_IF(!isPossible || enc.bit_rate < 0 || LockAVCodecOpen(&enc, encoder, nullptr) != 0 ||
                 avcodec_parameters_from_context(stream->codecpar, &enc) < 0,
             -1, LOG_LEVEL_ERR, "Could not open codec\n");
  mediautil::SoundGatherer& gatherer = m_pEncoding->gatherer;
  VY_FAIL_IF(!gatherer.SetUpResampler(mediautil::ShapeOf(decoder), mediautil::ShapeOf(enc)), -1, LOG_LEVEL_ERR,
             "Swr error.\n");
  VY_FAIL_IF(!gatherer.SetUpBuffers(enc), -1, LOG_LEVEL_ERR, "Could not alloc out buffer.\n");
  // 0 for a lower rate; the buffers grow as needed.
  gatherer.SetCapacity(std::int64_t{enc.sample_rate / decoder.sample_rate} * gatherer.FrameBytes());
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Transcoding
// ---------------------------------------------------------------------------------------------------------------------

int AudioTranscoder::DoTranscode(char* buf, int len) {
  VY_FAIL_IF(buf == nullptr || len < 1, 1, LOG_LEVEL_ERR, "No buf or buf is invalid.\n");
  auto* data = reinterpret_cast<unsigned char*>(buf);
  if (m_isHeaderWritten && IsSameFormat(m_src, m_dst)) {
    if (m_pWrite != nullptr) {
      m_pWrite(m_pOpaque, data, len);
    }
    return 0;
  }
  VY_FAIL_IF(!m_isHeaderWritten || DoFFMpegDecodeAudio(m_decoder, data, len) != 0, 1, LOG_LEVEL_ERR,
             "Failed to decode audio, pBuf[%p], Length[%d].\n", static_cast<const void*>(buf), len);
  return EncodeFrame(m_decoder.pRawFrame);
}

int AudioTranscoder::EncodeFrame(AVFrame* decoded) {
  const FfPtr<AVFrame> frame(av_frame_alloc());
  VY_FAIL_IF(frame == nullptr, 1, LOG_LEVEL_ERR, "Failed to alloc frame.\n");
  InitEncodeFrame(decoded, m_pEncoderCtx, frame.get());
  return DoEncode(m_pOutputCtx, m_pStream, frame.get());
}

void AudioTranscoder::InitEncodeFrame(AVFrame* decoded, AVCodecContext* encoderCtx, AVFrame* out) {
  using Outcome = mediautil::SoundGatherer::Outcome;
  const Outcome outcome = m_pEncoding->gatherer.Convert(mediautil::ShapeOf(*decoded), *decoded, *encoderCtx, *out);
  if (outcome == Outcome::kNoMemory) {
    VY_LOG(LOG_LEVEL_ERR, "Could not alloc out buffer.\n");
  } else if (outcome != Outcome::kOk) {
    VY_LOG(LOG_LEVEL_ERR, "Failed to swr_convert.\n");
  }
}

int AudioTranscoder::DoEncode(AVFormatContext* oc, AVStream* stream, AVFrame* frame) {
  if (oc == nullptr || stream == nullptr || frame == nullptr || frame->nb_samples < 1) {
    return 1;
  }
  mediautil::SoundGatherer& gatherer = m_pEncoding->gatherer;
  VY_FAIL_IF(!gatherer.Append(*frame), 1, LOG_LEVEL_ERR, "Could not alloc out merge buffer.\n");
  bool gotPacket = false;
  int refused = 0;
  const int ret = gatherer.Encode(m_pEncoderCtx, frame, stream, gotPacket, [&](AVPacket* packet) {
    refused += WritePacket(oc, packet) ? 0 : 1;
    return true;
  });
  for (; refused > 0; --refused) {
    VY_LOG(LOG_LEVEL_ERR, "Error while writing audio frame\n");
  }
  VY_FAIL_IF(ret < 0, 1, LOG_LEVEL_ERR, "Failed to encode data, Packet = %d.\n", gotPacket ? 1 : 0);
  return 0;
}

bool AudioTranscoder::WritePacket(AVFormatContext* oc, AVPacket* packet) {
  const bool isWritten = av_write_frame(oc, packet) >= 0 && av_write_frame(oc, nullptr) >= 0;
  oc->pb->error = 0;  // or FFmpeg would not call the callback again
  return isWritten;
}

// ---------------------------------------------------------------------------------------------------------------------
// End
// ---------------------------------------------------------------------------------------------------------------------

void AudioTranscoder::Close() {
  LockAVCodecFreeContext(m_pEncoderCtx);
  if (m_pOutputCtx != nullptr) {
    if (m_isHeaderWritten) {
      m_pOutputCtx->pb->error = 0;
      av_write_trailer(m_pOutputCtx);
    }
    if (m_pEncoding != nullptr) {
      m_pEncoding->io.Close();
    }
    m_pOutputCtx->pb = nullptr;
    LockAVFormatFreeContext(m_pOutputCtx);
  }
  m_isHeaderWritten = false;
  m_pStream = nullptr;
  m_pEncoding.reset();
  m_pOpaque = nullptr;
  m_pWrite = nullptr;
  unsigned char* noBuffer = nullptr;
  DoFFMpegFree(m_decoder, noBuffer);
}
