#include "utils/encodermp3.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>

#include "utils/internal/ffmpegptr.h"
#include "utils/internal/log.h"
#include "utils/internal/soundgatherer.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

using mediautil::FfPtr;
using mediautil::SoundGatherer;
using mediautil::SoundShape;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr int kSampleRate = 32000;
constexpr int kBitRate = 32000;
constexpr AVSampleFormat kSampleFormat = AV_SAMPLE_FMT_S16P;

// Result codes.
constexpr int kFailed = 1;
constexpr int kNoStream = 3;
constexpr int kNoFrame = 4;
constexpr int kNoMemory = 8;

// Sound is taken for mono, whatever it is.
SoundShape MonoShape(int format, int rate) {
  SoundShape shape = {};
  shape.layout = AV_CHANNEL_LAYOUT_MONO;
  shape.format = format >= 0 && format < AV_SAMPLE_FMT_NB ? static_cast<AVSampleFormat>(format) : AV_SAMPLE_FMT_NONE;
  shape.rate = rate;
  return shape;
}

}  // namespace

EncoderMP3::EncoderMP3() = default;

EncoderMP3::~EncoderMP3() {
  Close();
}

// ---------------------------------------------------------------------------------------------------------------------
// Preparation
// ---------------------------------------------------------------------------------------------------------------------

int EncoderMP3::OpenOutputAudioCodec(AVCodecContext* inCtx, bool toFile, const std::string& path) {
  VY_FAIL_IF(AddAudioStream(AV_CODEC_ID_MP3, inCtx, nullptr) != 0, kNoStream, LOG_LEVEL_ERR,
             "Failed to add audio stream...\n");
  if (!toFile) {
    return 0;
  }
  if (path.empty()) {
    m_pFile = stdout;
    VY_LOG(LOG_LEVEL_ERR, "Output of encoderMP3 is stdout.\n");
    return 0;
  }
  m_pFile = std::fopen(path.c_str(), "wb+e");
  const int error = errno;
  VY_FAIL_IF(m_pFile == nullptr, 0, LOG_LEVEL_ERR, "Failed to fopen mp3 file [%s]: errno [%d]\n", path.c_str(), error);
  return 0;
}

int EncoderMP3::AddOutputAudioCodec(AVCodecContext* inCtx, AVCodecContext* encCtx) {
  VY_FAIL_IF(AddAudioStream(AV_CODEC_ID_MP3, inCtx, encCtx) != 0, kNoStream, LOG_LEVEL_ERR,
             "Failed to add audio stream...\n");
  return 0;
}

int EncoderMP3::AddAudioStream(AVCodecID id, AVCodecContext* inCtx, AVCodecContext* encCtx) try {
  if (encCtx != nullptr && encCtx == m_pEncoderCtx) {
    ResetOutputConext();
  }
  Close();
  m_pGatherer = std::make_unique<SoundGatherer>();
  m_pEncoderCtx = encCtx;
  m_hasOwnEncoder = encCtx == nullptr;
  if (m_hasOwnEncoder && OpenCodec(id) != 0) {
    return kFailed;
  }
  VY_FAIL_IF(InitResample(inCtx) != 0, kFailed, LOG_LEVEL_ERR, "Could not init resample.\n");
  VY_FAIL_IF(InitResampleBuffer(inCtx) != 0, kFailed, LOG_LEVEL_ERR, "Could not init resample buffer.\n");
  return 0;
} catch (const std::bad_alloc&) {
  return kFailed;
}

int EncoderMP3::OpenCodec(AVCodecID id) {
  LockAVCodecRegister();
  const AVCodec* codec = avcodec_find_encoder(id);
  VY_FAIL_IF(codec == nullptr, -1, LOG_LEVEL_ERR, "Could not find mp3 codec.\n");
  m_pEncoderCtx = avcodec_alloc_context3(codec);
  if (m_pEncoderCtx == nullptr) {
    return -1;
  }
  m_pEncoderCtx->ch_layout = AV_CHANNEL_LAYOUT_MONO;
  m_pEncoderCtx->sample_fmt = kSampleFormat;
  m_pEncoderCtx->sample_rate = kSampleRate;
  m_pEncoderCtx->bit_rate = kBitRate;
  VY_FAIL_IF(LockAVCodecOpen(m_pEncoderCtx, codec, nullptr) != 0, -1, LOG_LEVEL_ERR, "Could not open codec.\n");
  return 0;
}

int EncoderMP3::InitResample(AVCodecContext* inCtx) {
  const bool isReady = inCtx != nullptr && m_pGatherer->SetUpResampler(MonoShape(inCtx->sample_fmt, inCtx->sample_rate),
                                                                       MonoShape(kSampleFormat, kSampleRate));
  return isReady ? 0 : kFailed;
}

int EncoderMP3::InitResampleBuffer(AVCodecContext* inCtx) {
  VY_FAIL_IF(!m_pGatherer->SetUpBuffers(*m_pEncoderCtx), kNoMemory, LOG_LEVEL_ERR, "Could not alloc out buffer.\n");
  m_pGatherer->SetCapacity(std::int64_t{m_pGatherer->FrameBytes()} * kSampleRate / inCtx->sample_rate);
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Encoding
// ---------------------------------------------------------------------------------------------------------------------

int EncoderMP3::EncodeFrame(AVFrame* frame) {
  VY_FAIL_IF(frame == nullptr, kNoFrame, LOG_LEVEL_ERR, "Audio frame is nullptr.\n");
  const FfPtr<AVFrame> work(av_frame_alloc());
  VY_FAIL_IF(work == nullptr, kNoMemory, LOG_LEVEL_ERR, "Failed to alloc AVFrame.\n");
  return Encode(frame, *work, nullptr, nullptr);
}

int EncoderMP3::EncodeToOc(AVFrame* frame, AVFormatContext* oc, AVStream* stream) {
  VY_FAIL_IF(frame == nullptr, kNoFrame, LOG_LEVEL_ERR, "Audio frame is nullptr.\n");
  const FfPtr<AVFrame> work(av_frame_alloc());
  VY_FAIL_IF(work == nullptr, kNoMemory, LOG_LEVEL_ERR, "Failed to alloc AVFrame.\n");
  return Encode(frame, *work, oc, stream);
}

int EncoderMP3::Encode(AVFrame* in, AVFrame& work, AVFormatContext* oc, AVStream* stream) {
  const bool hasOutput = (oc != nullptr && stream != nullptr) || m_pFile != nullptr;
  VY_FAIL_IF(m_pEncoderCtx == nullptr || !hasOutput, kFailed, LOG_LEVEL_ERR, "No encoder[%p] or no output.\n",
             static_cast<const void*>(m_pEncoderCtx));
  const int ret = InitAVFrame(work, in);
  return ret < 0 ? -ret : DoEncode(&work, oc, stream);
}

// The converted bytes, or a negative result code.
int EncoderMP3::InitAVFrame(AVFrame& out, AVFrame* in) {
  using Outcome = SoundGatherer::Outcome;
  const AVCodecContext& enc = *m_pEncoderCtx;
  const Outcome outcome = m_pGatherer->Convert(MonoShape(in->format, in->sample_rate), *in, enc, out);
  VY_FAIL_IF(outcome == Outcome::kNoMemory, -kNoMemory, LOG_LEVEL_ERR, "Could not alloc out buffer.\n");
  VY_FAIL_IF(outcome != Outcome::kOk, -kFailed, LOG_LEVEL_ERR, "Failed to swr_convert.\n");
  return std::max(0, av_samples_get_buffer_size(nullptr, enc.ch_layout.nb_channels, out.nb_samples, enc.sample_fmt, 1));
}

int EncoderMP3::DoEncode(AVFrame* frame, AVFormatContext* oc, AVStream* stream) {
  VY_FAIL_IF(!m_pGatherer->Append(*frame), kNoMemory, LOG_LEVEL_ERR, "Could not alloc out merge buffer.\n");
  bool gotPacket = false;
  bool isWritten = true;
  const int ret = m_pGatherer->Encode(m_pEncoderCtx, frame, stream, gotPacket, [&](AVPacket* packet) {
    isWritten = oc != nullptr && stream != nullptr ? WriteToOc(packet, oc) : WriteToFile(packet);
    return isWritten;
  });
  VY_FAIL_IF(ret < 0, kFailed, LOG_LEVEL_ERR, "Failed to encode data, Packet = %d.\n", gotPacket ? 1 : 0);
  return isWritten ? 0 : kFailed;
}

bool EncoderMP3::WriteToOc(AVPacket* packet, AVFormatContext* oc) {
  VY_FAIL_IF(av_write_frame(oc, packet) < 0 || av_write_frame(oc, nullptr) < 0, false, LOG_LEVEL_ERR,
             "Error while writing audio frame\n");
  return true;
}

bool EncoderMP3::WriteToFile(const AVPacket* packet) {
  const auto size = static_cast<std::size_t>(packet->size);
  const bool isWritten = std::fwrite(packet->data, 1, size, m_pFile) == size && std::fflush(m_pFile) == 0;
  const int error = errno;
  VY_FAIL_IF(!isWritten, false, LOG_LEVEL_ERR, "Failed to write mp3 data: errno [%d]\n", error);
  return true;
}

// ---------------------------------------------------------------------------------------------------------------------
// End
// ---------------------------------------------------------------------------------------------------------------------

void EncoderMP3::Close() {
  if (m_pFile != nullptr && m_pFile != stdout) {
    std::fclose(m_pFile);
  }
  m_pFile = nullptr;
  LockAVCodecFreeContext(m_pEncoderCtx);
  m_pGatherer.reset();
}

void EncoderMP3::ResetOutputConext() {
  if (m_hasOwnEncoder) {
    LockAVCodecFreeContext(m_pEncoderCtx);
  }
  m_pEncoderCtx = nullptr;
}
