#include "utils/ffmpegmuxer.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/esformat.h"
#include "utils/internal/audioinfo.h"
#include "utils/internal/callbackio.h"
#include "utils/internal/codecstring.h"
#include "utils/internal/codectable.h"
#include "utils/internal/ffcompat.h"
#include "utils/internal/fragscan.h"
#include "utils/internal/log.h"
#include "utils/internal/streampriv.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
}

using mediautil::FfPtr;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr AVRational kMicroseconds = {1, 1000000};

// The sound that other codecs than AAC are encoded to.
constexpr int kEncodedRate = 32000;
constexpr int kEncodedBitRate = 32000;

// AVFormatContext::opaque of a muxer's context until its header is written: FFmpeg would crash on a packet before that.
constexpr char kNoHeader = 0;

bool HasHeader(const AVFormatContext& oc) {
  return oc.opaque != &kNoHeader;
}

bool IsMp4(FFMPEG_MUXER_FORMAT format) {
  return format != FFMPEG_MUXER_FORMAT_MP3 && format != FFMPEG_MUXER_FORMAT_FLV;
}

const char* ContainerName(FFMPEG_MUXER_FORMAT format) {
  switch (format) {
    case FFMPEG_MUXER_FORMAT_MP3:
      return "mp3";
    case FFMPEG_MUXER_FORMAT_FLV:
      return "flv";
    default:
      return "mp4";
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Policy
// ---------------------------------------------------------------------------------------------------------------------

MuxCtrler::~MuxCtrler() = default;

int MuxCtrler::GetMuxAdoCodec(const ESFormat& src) const {
  return src.i_codec_id == AV_CODEC_ID_AAC ? AV_CODEC_ID_AAC : AV_CODEC_ID_MP3;
}

int MuxCtrler::WritePkt(AVFormatContext* oc, AVPacket* pkt) const {
  return oc == nullptr || !HasHeader(*oc) ? AVERROR(EINVAL) : av_interleaved_write_frame(oc, pkt);
}

int MuxCtrler::AfterWriteVdo(AVFormatContext*) const {
  return 0;
}

int MuxCtrler::AfterWriteAdo(AVFormatContext*) const {
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Muxer
// ---------------------------------------------------------------------------------------------------------------------

// The way of the bytes: FFmpeg, the search for fragments, the caller.
struct FFmpegMuxer::Output {
  Output(bool isMp4, void* callerOpaque, mediautil::WriteCallback callerWrite)
      : hasFragments(isMp4), opaque(callerOpaque), write(callerWrite) {}

  static int OnBytes(void* self, unsigned char* data, int size) {
    auto& output = *static_cast<Output*>(self);
    if (output.hasFragments && size > 0) {
      output.scan.Feed(data, static_cast<std::size_t>(size));
    }
    return output.write == nullptr ? size : output.write(output.opaque, data, size);
  }

  const bool hasFragments;
  void* const opaque;
  const mediautil::WriteCallback write;
  mediautil::FragScan scan;
  mediautil::CallbackIo io{this, OnBytes};
};

FFmpegMuxer::FFmpegMuxer(const MuxCtrler& ctrler) : m_ctrler(ctrler) {
  LockAVCodecRegister();
}

FFmpegMuxer::~FFmpegMuxer() {
  Finalize();
}

int FFmpegMuxer::Init(FFMPEG_MUXER_FORMAT fmt, void* opaque,
                      int (*write)(void* opaque, unsigned char* data, int size)) try {
  constexpr int kBufferSize = 1048575;
  constexpr int kMp3BufferSize = 1023;
  VY_FAIL_IF(m_pOutputCtx != nullptr, -1, LOG_LEVEL_ERR, "Already inited.\n");
  const int ret = avformat_alloc_output_context2(&m_pOutputCtx, nullptr, ContainerName(fmt), nullptr);
  VY_FAIL_IF(ret < 0 || m_pOutputCtx == nullptr, -1, LOG_LEVEL_ERR,
             "Failed to open ouput context, Ret[%d], oc[%p], format[%d].\n", ret,
             static_cast<const void*>(m_pOutputCtx), static_cast<int>(fmt));
  m_pOutputCtx->opaque = const_cast<char*>(&kNoHeader);
  m_format = fmt;
  m_pOutput = std::make_unique<Output>(IsMp4(fmt), opaque, write);
  const int size = fmt == FFMPEG_MUXER_FORMAT_MP3 ? kMp3BufferSize : kBufferSize;
  VY_FAIL_IF(!m_pOutput->io.AllocBuffer(size), -1, LOG_LEVEL_ERR, "Failed to alloc output buffer.\n");
  m_pOutputCtx->pb = m_pOutput->io.Open();
  VY_FAIL_IF(m_pOutputCtx->pb == nullptr, -1, LOG_LEVEL_ERR, "Failed to avio_alloc_context.\n");
  m_pOutputCtx->flags = AVFMT_FLAG_CUSTOM_IO;
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

int FFmpegMuxer::AddVdoStream(const std::string& codec, int width, int height, const unsigned char* extradata,
                              int extLen) try {
  VY_FAIL_IF(width <= 0 || height <= 0, -1, LOG_LEVEL_ERR, "Error params, W[%d], H[%d].\n", width, height);
  VY_FAIL_IF(m_pVdo != nullptr, -1, LOG_LEVEL_ERR, "Already init video.\n");
  auto writer = std::make_unique<VdoStreamPriv>(m_ctrler, m_basePts, width, height);
  if (m_isHeaderWritten || writer->AddStream(codec, m_pOutputCtx, extradata, extLen) != 0) {
    VY_LOG(LOG_LEVEL_ERR, "Failed to add video stream, codec[%s], extLen[%d].\n", codec.c_str(), extLen);
    writer.reset();
    DropFailedStream(m_pAdo.get());
    return -1;
  }
  m_pVdo = std::move(writer);
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

int FFmpegMuxer::AddAdoStream(const std::string& info, const std::string& codec, bool bG726LE) try {
  VY_FAIL_IF(info.empty() || !IsValidCodec(m_format, codec), -1, LOG_LEVEL_ERR,
             "Error params, strInfo[%s], strCodec[%s], Format[%d].\n", info.c_str(), codec.c_str(),
             static_cast<int>(m_format));
  VY_FAIL_IF(m_pAdo != nullptr, -1, LOG_LEVEL_ERR, "Already init audio.\n");

  ESFormat fmt;
  fmt.Reset(ES_AUDIO);
  const mediautil::ScopeExit release([&fmt] { fmt.Reset(ES_UNKNOWN); });
  const mediautil::AudioInfo parsed = mediautil::ParseAudioInfo(info);
  VY_FAIL_IF(!parsed.hasChannels, -1, LOG_LEVEL_ERR, "Failed to get audio channels from info[%s].\n", info.c_str());
  fmt.audio.i_channels = parsed.channels;
  VY_LOG(LOG_LEVEL_DEBUG, "Get audio channels[%d].\n", fmt.audio.i_channels);
  VY_FAIL_IF(!parsed.hasRate, -1, LOG_LEVEL_ERR, "Failed to get audio rate from info[%s].\n", info.c_str());
  fmt.audio.i_rate = parsed.rate;
  VY_LOG(LOG_LEVEL_DEBUG, "Get audio rate[%d].\n", static_cast<int>(fmt.audio.i_rate));
  if (parsed.hasExtra) {
    VY_LOG(LOG_LEVEL_DEBUG, "Get audio extra[%s].\n", parsed.extra.c_str());
    const std::size_t size = parsed.extra.size();
    fmt.p_extra = static_cast<unsigned char*>(std::malloc(size + 1));
    VY_FAIL_IF(fmt.p_extra == nullptr, -1, LOG_LEVEL_ERR, "Failed to malloc, size[%d], info[%s].\n",
               static_cast<int>(size), info.c_str());
    std::memcpy(fmt.p_extra, parsed.extra.c_str(), size + 1);
    fmt.i_extra = static_cast<std::int32_t>(size);
  }
  if (mediautil::IsG726Name(codec) && fmt.i_extra < 1) {
    VY_LOG(LOG_LEVEL_ERR, "Size of p_extra is 0\n");
  }
  mediautil::FillAudioCodec(fmt, codec);
  FillAdoFmtIDByCodec(fmt, bG726LE);

  auto writer = std::make_unique<AdoStreamPriv>(m_ctrler, m_basePts);
  if (m_isHeaderWritten || writer->AddStream(m_pOutputCtx, fmt) != 0) {
    VY_LOG(LOG_LEVEL_ERR, "Failed to add audio stream, info[%s], codec[%s], G726LE[%d], extra[%d].\n", info.c_str(),
           codec.c_str(), bG726LE ? 1 : 0, fmt.i_extra);
    writer.reset();
    DropFailedStream(m_pVdo.get());
    return -1;
  }
  m_pAdo = std::move(writer);
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

// FFmpeg has no call that takes a stream out of a context, and one that a failed writer leaves would spoil the header
// for the other: the context is made anew.
void FFmpegMuxer::DropFailedStream(StreamPriv* other) {
  if (m_pOutputCtx == nullptr || m_pOutputCtx->nb_streams == (other == nullptr ? 0U : 1U) || m_isHeaderWritten) {
    return;
  }
  AVFormatContext* fresh = nullptr;
  if (avformat_alloc_output_context2(&fresh, m_pOutputCtx->oformat, nullptr, nullptr) < 0) {
    return;
  }
  fresh->pb = m_pOutputCtx->pb;
  fresh->flags = m_pOutputCtx->flags;
  fresh->opaque = m_pOutputCtx->opaque;
  if (other == nullptr || other->MoveTo(fresh)) {
    std::swap(fresh, m_pOutputCtx);
  }
  LockAVFormatFreeContext(fresh);
}

int FFmpegMuxer::WriteHeader() {
  VY_FAIL_IF(m_isHeaderWritten, -1, LOG_LEVEL_ERR, "Already write header.\n");
  AVDictionary* options = nullptr;
  if (IsMp4(m_format)) {
    av_dict_set(&options, "movflags", "faststart+frag_keyframe+empty_moov+default_base_moof+skip_trailer", 0);
  }
  const bool isOpen = m_pOutputCtx != nullptr && m_pOutputCtx->pb != nullptr;
  const int ret = isOpen ? avformat_write_header(m_pOutputCtx, &options) : AVERROR(EINVAL);
  av_dict_free(&options);
  VY_FAIL_IF(ret < 0, -1, LOG_LEVEL_ERR, "Error occurred when write header.\n");
  m_pOutputCtx->opaque = nullptr;
  // The streams have their time bases now; frames that were refused until here do not count.
  m_basePts = 0;
  if (m_pVdo != nullptr) {
    m_pVdo->RestartTimeLine();
  }
  if (m_pAdo != nullptr) {
    m_pAdo->RestartTimeLine();
  }
  m_isHeaderWritten = true;
  return 0;
}

int FFmpegMuxer::WriteVdoFrame(unsigned char* buf, int size, long long ptsUs, bool key) {
  VY_FAIL_IF(m_pVdo == nullptr, -1, LOG_LEVEL_ERR, "Uninited video stream.\n");
  return m_pVdo->Write(m_pOutputCtx, buf, size, ptsUs, key);
}

int FFmpegMuxer::WriteAdoFrame(unsigned char* buf, int size, long long ptsUs) {
  VY_FAIL_IF(m_pAdo == nullptr, -1, LOG_LEVEL_ERR, "Uninited audio stream.\n");
  return m_pAdo->Write(m_pOutputCtx, buf, size, ptsUs, false);
}

void FFmpegMuxer::Finalize() {
  if (m_isHeaderWritten && m_pOutputCtx != nullptr) {
    av_write_trailer(m_pOutputCtx);
  }
  m_isHeaderWritten = false;
  m_basePts = 0;
  m_pVdo.reset();
  m_pAdo.reset();
  if (m_pOutputCtx != nullptr) {
    if (m_pOutput != nullptr) {
      m_pOutput->io.Close();
    }
    m_pOutputCtx->pb = nullptr;
    LockAVFormatFreeContext(m_pOutputCtx);
  }
  m_pOutput.reset();
}

std::string FFmpegMuxer::GetAudioFmt() const {
  switch (m_pAdo == nullptr ? AV_CODEC_ID_NONE : m_pAdo->CodecId()) {
    case AV_CODEC_ID_MP3:
      return "MP3";
    case AV_CODEC_ID_AAC:
      return "MPEG4-GENERIC";
    default:
      return "";
  }
}

bool FFmpegMuxer::IsValidCodec(FFMPEG_MUXER_FORMAT fmt, const std::string& codec) {
  if (codec.empty()) {
    return false;
  }
  if (mediautil::IsAacName(codec)) {
    return fmt != FFMPEG_MUXER_FORMAT_MP3;
  }
  const AVCodecID video = mediautil::VideoCodecIdByName(codec);
  return video == AV_CODEC_ID_NONE || avcodec_find_decoder(video) != nullptr;
}

long long FFmpegMuxer::GetMovVdoTrackNextFragStart() {
  if (m_pOutputCtx == nullptr || m_pOutput == nullptr || m_pOutputCtx->nb_streams < 1) {
    return 0;
  }
  const AVRational timeBase = m_pOutputCtx->streams[0]->time_base;
  return timeBase.den == 0 ? 0 : av_rescale_q(m_pOutput->scan.NextStart(), timeBase, kMicroseconds);
}

std::string GetMimeCodecs(const ESFormat& video, const ESFormat& audio, const MuxCtrler& ctrler) try {
  std::string codecs;
  const bool hasVideo = video.i_cat == ES_VIDEO;
  if (hasVideo) {
    const AVCodecID codecId = video.i_codec_id > 0 ? static_cast<AVCodecID>(video.i_codec_id)
                                                   : mediautil::VideoCodecIdByName(video.str_codec);
    const auto size = static_cast<std::size_t>(std::max(video.i_extra, 0));
    codecs = mediautil::VideoCodecString(codecId, video.p_extra, size);
    if (codecs.empty()) {
      return "";
    }
  }
  if (audio.i_cat == ES_AUDIO) {
    const bool isCopied = audio.i_codec_id == AV_CODEC_ID_AAC || mediautil::IsAacName(audio.str_codec);
    const int codecId = isCopied ? AV_CODEC_ID_AAC : ctrler.GetMuxAdoCodec(audio);
    const std::string sound = mediautil::AudioCodecString(static_cast<AVCodecID>(codecId));
    if (sound.empty()) {
      return "";
    }
    codecs += (hasVideo ? ", " : "") + sound;
  }
  return codecs.empty() ? "" : (hasVideo ? "video" : "audio") + ("/mp4; codecs=\"" + codecs + "\"");
} catch (const std::bad_alloc&) {
  return "";
}

// ---------------------------------------------------------------------------------------------------------------------
// Streams and their time line
// ---------------------------------------------------------------------------------------------------------------------

AVStream* StreamPriv::AddStream(AVFormatContext* oc, const AVCodec* codec) {
  VY_FAIL_IF(oc == nullptr, nullptr, LOG_LEVEL_ERR, "Error param, oc[%p].\n", static_cast<const void*>(oc));
  VY_FAIL_IF(m_pStream != nullptr, nullptr, LOG_LEVEL_ERR, "Already init stream, codec[%d].\n", CodecId());
  m_codecCtx.reset(avcodec_alloc_context3(codec));
  AVStream* st = m_codecCtx == nullptr ? nullptr : avformat_new_stream(oc, codec);
  VY_FAIL_IF(st == nullptr, nullptr, LOG_LEVEL_ERR, "Failed to add stream.\n");
  st->id = static_cast<int>(oc->nb_streams) - 1;
  st->codecpar->codec_id = codec == nullptr ? AV_CODEC_ID_NONE : codec->id;
  m_codecCtx->thread_count = 1;
  if ((oc->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
    m_codecCtx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  }
  m_pStream = st;
  return st;
}

long long StreamPriv::EstimatePts(const AVStream* st, long long ptsUs) {
  if (m_basePts <= 0) {
    m_basePts = ptsUs;
    m_lastPts = -1;
  }
  const long long minimum = m_lastPts == LLONG_MAX ? LLONG_MAX : m_lastPts + 1;
  long long offset = 0;
  if (__builtin_sub_overflow(ptsUs, m_basePts, &offset)) {
    offset = ptsUs < 0 ? LLONG_MIN : LLONG_MAX;
  }
  m_lastPts = std::max<long long>(av_rescale_q(offset, kMicroseconds, st->time_base), minimum);
  return m_lastPts;
}

bool StreamPriv::MoveTo(AVFormatContext* oc) {
  AVStream* st = avformat_new_stream(oc, nullptr);
  if (st == nullptr || avcodec_parameters_copy(st->codecpar, m_pStream->codecpar) < 0) {
    return false;
  }
  st->id = static_cast<int>(oc->nb_streams) - 1;
  st->time_base = m_pStream->time_base;
  m_pStream = st;
  return true;
}

int StreamPriv::CodecId() const {
  return m_pStream == nullptr ? AV_CODEC_ID_NONE : m_pStream->codecpar->codec_id;
}

// ---------------------------------------------------------------------------------------------------------------------
// Video stream
// ---------------------------------------------------------------------------------------------------------------------

int VdoStreamPriv::AddStream(const std::string& codec, AVFormatContext* oc, const unsigned char* extradata,
                             int extLen) {
  // Nothing is decoded: the decoder describes the stream, and opening it tells whether the description is possible.
  const AVCodec* decoder = avcodec_find_decoder(mediautil::VideoCodecIdByName(codec));
  VY_FAIL_IF(decoder == nullptr, -1, LOG_LEVEL_ERR, "Failed to found codec[%s].\n", codec.c_str());
  AVStream* st = StreamPriv::AddStream(oc, decoder);
  VY_FAIL_IF(st == nullptr, -1, LOG_LEVEL_ERR, "Failed to add stream, codec[%s].\n", codec.c_str());
  FillCodecInfo(st, decoder);
  VY_FAIL_IF(LockAVCodecOpen(m_codecCtx.get(), decoder, nullptr) < 0 ||
                 avcodec_parameters_from_context(st->codecpar, m_codecCtx.get()) < 0,
             -1, LOG_LEVEL_ERR, "Could not open codec[%d].\n", static_cast<int>(decoder->id));
  return SetExtra(oc, st, extradata, extLen);
}

void VdoStreamPriv::FillCodecInfo(AVStream* st, const AVCodec* codec) {
  m_codecCtx->codec_id = codec->id;
  m_codecCtx->width = m_width;
  m_codecCtx->height = m_height;
  m_codecCtx->time_base = kMicroseconds;
  m_codecCtx->pix_fmt = AV_PIX_FMT_YUV420P;
  m_codecCtx->bit_rate = 0;  // not known; the file would tell a decoder's default as the stream's
  st->time_base = kMicroseconds;
}

int VdoStreamPriv::SetExtra(AVFormatContext* oc, AVStream* st, const unsigned char* extradata, int extLen) {
  VY_FAIL_IF(st == nullptr, -1, LOG_LEVEL_ERR, "Error param, st[%p].\n", static_cast<const void*>(st));
  VY_FAIL_IF(extradata == nullptr || extLen < 1, 0, LOG_LEVEL_ERR, "No extra, pExt[%p], Len[%d].\n",
             static_cast<const void*>(extradata), extLen);
  st->codecpar->extradata = mediautil::CopyPadded(extradata, extLen);
  VY_FAIL_IF(st->codecpar->extradata == nullptr, -1, LOG_LEVEL_ERR, "Failed to realloc extradata, len[%d].\n", extLen);
  st->codecpar->extradata_size = extLen;
  // Some players open HEVC under this name only. It promises that all parameter sets stand in the header.
  constexpr unsigned int kTag = MKTAG('h', 'v', 'c', '1');
  if (st->codecpar->codec_id == AV_CODEC_ID_HEVC && av_codec_get_id(oc->oformat->codec_tag, kTag) == AV_CODEC_ID_HEVC &&
      mediautil::HoldsHevcSets(extradata, static_cast<std::size_t>(extLen))) {
    st->codecpar->codec_tag = kTag;
  }
  return 0;
}

int VdoStreamPriv::Write(AVFormatContext* oc, unsigned char* buf, int size, long long ptsUs, bool key) {
  VY_FAIL_IF(m_pStream == nullptr || oc == nullptr, -1, LOG_LEVEL_ERR, "Error params, st[%p], oc[%p].\n",
             static_cast<const void*>(m_pStream), static_cast<const void*>(oc));
  const FfPtr<AVPacket> packet(av_packet_alloc());
  VY_FAIL_IF(packet == nullptr || buf == nullptr || size < 1, -1, LOG_LEVEL_ERR, "Error while writing video frame\n");
  packet->stream_index = m_pStream->index;
  packet->data = buf;
  packet->size = size;
  packet->pts = EstimatePts(m_pStream, ptsUs);
  packet->dts = packet->pts;
  packet->flags |= key ? AV_PKT_FLAG_KEY : 0;
  VY_FAIL_IF(m_ctrler.WritePkt(oc, packet.get()) < 0, -1, LOG_LEVEL_ERR, "Error while writing video frame\n");
  m_ctrler.AfterWriteVdo(oc);
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Audio stream
// ---------------------------------------------------------------------------------------------------------------------

AdoStreamPriv::~AdoStreamPriv() {
  FreeAacHandler();
  FreeEncodeHandler();
  unsigned char* noBuffer = nullptr;
  DoFFMpegFree(m_decoder, noBuffer);
}

int AdoStreamPriv::AddStream(AVFormatContext* oc, const ESFormat& fmt) {
  m_isEncoded = fmt.i_codec_id != AV_CODEC_ID_AAC;
  return m_isEncoded ? AddEncoded(oc, fmt) : AddCopied(oc, fmt);
}

int AdoStreamPriv::AddCopied(AVFormatContext* oc, const ESFormat& fmt) {
  AVStream* st = StreamPriv::AddStream(oc, nullptr);
  VY_FAIL_IF(st == nullptr, -1, LOG_LEVEL_ERR, "Failed to add stream, codec[%d].\n", fmt.i_codec_id);
  VY_FAIL_IF(FillAACRemuxInfo(st, fmt) != 0, -1, LOG_LEVEL_ERR, "Failed to fill remux info, codec[%d].\n",
             fmt.i_codec_id);
  return InitAacHandler();
}

int AdoStreamPriv::AddEncoded(AVFormatContext* oc, const ESFormat& fmt) {
  const int codecId = m_ctrler.GetMuxAdoCodec(fmt);
  const AVCodec* encoder = avcodec_find_encoder(static_cast<AVCodecID>(codecId));
  VY_FAIL_IF(encoder == nullptr || encoder->type != AVMEDIA_TYPE_AUDIO, -1, LOG_LEVEL_ERR,
             "Failed to found codec[%d].\n", codecId);
  VY_FAIL_IF(DoFFMpegInitAudio(m_decoder, fmt) != 0, -1, LOG_LEVEL_ERR, "Failed to init FFmpeg audio dec, codec[%d].\n",
             fmt.i_codec_id);
  AVStream* st = StreamPriv::AddStream(oc, encoder);
  VY_FAIL_IF(st == nullptr, -1, LOG_LEVEL_ERR, "Failed to add stream, codec[%d].\n", codecId);
  FillCodecInfo(st, encoder);
  VY_FAIL_IF(LockAVCodecOpen(m_codecCtx.get(), encoder, nullptr) < 0 ||
                 avcodec_parameters_from_context(st->codecpar, m_codecCtx.get()) < 0,
             -1, LOG_LEVEL_ERR, "Could not open codec[%d].\n", codecId);
  return InitEncodeHandler(st);
}

void AdoStreamPriv::FillCodecInfo(AVStream* st, const AVCodec* codec) {
  m_codecCtx->bit_rate = kEncodedBitRate;
  m_codecCtx->ch_layout = AV_CHANNEL_LAYOUT_MONO;
  m_codecCtx->sample_rate = kEncodedRate;
  m_codecCtx->sample_fmt = mediautil::ChooseSampleFormat(codec, AV_SAMPLE_FMT_S16P);
  st->time_base = {1, kEncodedRate};
}

int AdoStreamPriv::InitAacHandler() {
  AVBSFContext* filter = nullptr;
  const AVBitStreamFilter* kind = av_bsf_get_by_name("aac_adtstoasc");
  const bool isAllocated = kind != nullptr && av_bsf_alloc(kind, &filter) >= 0;
  m_aacFilter.reset(filter);
  VY_FAIL_IF(
      !isAllocated || avcodec_parameters_copy(filter->par_in, m_pStream->codecpar) < 0 || av_bsf_init(filter) < 0, -1,
      LOG_LEVEL_ERR, "Failed to init aac bitstream_filter\n");
  return 0;
}

void AdoStreamPriv::FreeAacHandler() {
  m_aacFilter.reset();
}

int AdoStreamPriv::InitEncodeHandler(AVStream* st) {
  const AVCodecContext* decoder = m_decoder.pCodecCtx;
  VY_FAIL_IF(st == nullptr || m_codecCtx == nullptr || decoder == nullptr, -1, LOG_LEVEL_ERR,
             "Error params, st[%p], Contex[%p].\n", static_cast<const void*>(st),
             static_cast<const void*>(m_codecCtx.get()));
  const AVCodecContext& enc = *m_codecCtx;
  VY_FAIL_IF(!m_gatherer.SetUpResampler(mediautil::ShapeOf(*decoder), mediautil::ShapeOf(enc)), -1, LOG_LEVEL_ERR,
             "Failed to init SwrContext[%p].\n", static_cast<const void*>(m_gatherer.Context()));
  const bool areBuffersReady = m_gatherer.SetUpBuffers(enc);
  m_gatherer.SetCapacity(std::int64_t{m_gatherer.FrameBytes()} * enc.sample_rate / decoder->sample_rate);
  VY_FAIL_IF(!areBuffersReady, -1, LOG_LEVEL_ERR, "Failed to malloc out buffer, size[%d].\n", m_gatherer.Capacity());
  return 0;
}

void AdoStreamPriv::FreeEncodeHandler() {
  m_gatherer.Free();
}

int AdoStreamPriv::Write(AVFormatContext* oc, unsigned char* buf, int size, long long ptsUs, bool) {
  VY_FAIL_IF(m_pStream == nullptr || m_codecCtx == nullptr || oc == nullptr, -1, LOG_LEVEL_ERR,
             "Error params, st[%p], Contex[%p].\n", static_cast<const void*>(m_pStream),
             static_cast<const void*>(m_codecCtx.get()));
  return m_isEncoded ? WriteAdoViaEncode(oc, m_pStream, buf, size, ptsUs)
                     : WriteAacViaCopy(oc, m_pStream, buf, size, ptsUs);
}

int AdoStreamPriv::WriteAacViaCopy(AVFormatContext* oc, AVStream* st, unsigned char* buf, int size, long long ptsUs) {
  const FfPtr<AVPacket> packet(av_packet_alloc());
  // A packet without data would end the filter's stream for good.
  VY_FAIL_IF(packet == nullptr || buf == nullptr || size < 1, -1, LOG_LEVEL_ERR,
             "Failed to filter bitstream_filter.\n");
  packet->data = buf;
  packet->size = size;
  int ret = av_bsf_send_packet(m_aacFilter.get(), packet.get());
  ret = ret < 0 ? ret : av_bsf_receive_packet(m_aacFilter.get(), packet.get());
  VY_FAIL_IF(ret < 0 && ret != AVERROR(EAGAIN), -1, LOG_LEVEL_ERR, "Failed to filter bitstream_filter.\n");
  VY_FAIL_IF(packet->data == nullptr || packet->size < 1, 0, LOG_LEVEL_DEBUG,
             "av_bitstream_filter_filter special case, ignore it.\n");
  packet->flags |= AV_PKT_FLAG_KEY;
  packet->stream_index = st->index;
  if (ptsUs > 0) {
    packet->pts = EstimatePts(st, ptsUs);
    packet->dts = packet->pts;
  }
  VY_FAIL_IF(m_ctrler.WritePkt(oc, packet.get()) < 0, -1, LOG_LEVEL_ERR, "Error while writing audio frame.\n");
  m_ctrler.AfterWriteAdo(oc);
  return 0;
}

// The packets carry no time: the container derives it from their durations.
int AdoStreamPriv::WriteAdoViaEncode(AVFormatContext* oc, AVStream* st, unsigned char* buf, int size, long long) {
  VY_FAIL_IF(DoFFMpegDecodeAudio(m_decoder, buf, size) != 0, -1, LOG_LEVEL_ERR,
             "Failed to decode audio, pBuf[%p], Size[%d].\n", static_cast<const void*>(buf), size);
  const FfPtr<AVFrame> frame(av_frame_alloc());
  if (frame == nullptr || !InitEncodeFrame(frame.get(), m_codecCtx.get(), m_decoder.pRawFrame)) {
    return -1;
  }
  return DoEncode(oc, st, frame.get());
}

bool AdoStreamPriv::InitEncodeFrame(AVFrame* out, const AVCodecContext* enc, const AVFrame* in) {
  using Outcome = mediautil::SoundGatherer::Outcome;
  const Outcome outcome = m_gatherer.Convert(mediautil::ShapeOf(*in), *in, *enc, *out);
  VY_FAIL_IF(outcome == Outcome::kNoResampler, false, LOG_LEVEL_ERR, "Failed to init SwrContext[%p].\n",
             static_cast<const void*>(m_gatherer.Context()));
  VY_FAIL_IF(outcome == Outcome::kNoMemory, false, LOG_LEVEL_ERR, "Failed to malloc out buffer, size[%d].\n",
             m_gatherer.Capacity());
  return true;
}

int AdoStreamPriv::DoEncode(AVFormatContext* oc, AVStream* st, AVFrame* frame) {
  if (frame->nb_samples < 1) {
    return 0;
  }
  VY_FAIL_IF(!m_gatherer.Append(*frame), -1, LOG_LEVEL_ERR, "Failed to malloc out merge buffer, size[%d].\n",
             m_gatherer.Capacity() * 2);
  bool gotPacket = false;
  bool isWritten = true;
  const int ret = m_gatherer.Encode(m_codecCtx.get(), frame, st, gotPacket, [&](AVPacket* packet) {
    isWritten = WriteEncoded(oc, packet);
    return isWritten;
  });
  VY_FAIL_IF(ret < 0, -1, LOG_LEVEL_ERR, "Failed to encode data, GotPacket[%d].\n", gotPacket ? 1 : 0);
  return isWritten ? 0 : -1;
}

bool AdoStreamPriv::WriteEncoded(AVFormatContext* oc, AVPacket* packet) {
  VY_FAIL_IF(m_ctrler.WritePkt(oc, packet) < 0, false, LOG_LEVEL_ERR, "Error while writing audio frame.\n");
  m_ctrler.AfterWriteAdo(oc);
  return true;
}
