#include "utils/gifprocess.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "platform/jpeg.h"
#include "utils/internal/ffcompat.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/filterchain.h"
#include "utils/internal/fitsize.h"
#include "utils/internal/log.h"
#include "utils/internal/oneshot.h"
#include "utils/internal/scaler.h"
#include "utils/internal/wholefile.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/buffer.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

using mediautil::FfPtr;
using mediautil::Size;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr AVPixelFormat kPixels = AV_PIX_FMT_BGRA;
constexpr int kMaxSide = 640;     // pixels
constexpr int kMaxDelay = 65535;  // hundredths of a second
constexpr int kDefaultDelayMs = 1000;
constexpr const char* kColours = "split[o1][o2];[o1]palettegen[p];[o2][p]paletteuse";

// A whole GIF of no size and no frames; FFmpeg writes nothing at all without one.
constexpr unsigned char kEmptyGif[] = {'G', 'I', 'F', '8', '9', 'a', 0, 0, 0, 0, 0, 0, 0, 0x3B};

// A frame whose picture may be its own block.
struct FrameFree {
  void operator()(AVFrame* frame) const { DoFFmpegFrameFree(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

struct InOutFree {
  void operator()(AVFilterInOut* p) const { avfilter_inout_free(&p); }
};
using InOutPtr = std::unique_ptr<AVFilterInOut, InOutFree>;

// False for frames that libswscale and the filters would fall over.
bool HoldsPicture(const AVFrame* frame) {
  const auto format = static_cast<AVPixelFormat>(frame->format);
  const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(format);
  if (description == nullptr || frame->data[0] == nullptr || frame->width < 1 || frame->height < 1 ||
      static_cast<std::int64_t>(frame->width) * frame->height > mediautil::kMaxPixels) {
    return false;
  }
  const bool lacksPalette = (description->flags & AV_PIX_FMT_FLAG_PAL) != 0 && frame->data[1] == nullptr;
  // Rows that go upwards begin at the end of a buffer, which a block of its own cannot.
  const auto reach = [isBlock = frame->buf[0] == nullptr](std::int64_t stride) {
    return isBlock ? stride : std::abs(stride);
  };
  int needed[4] = {};
  return !lacksPalette && av_image_fill_linesizes(needed, format, frame->width) >= 0 &&
         std::equal(std::begin(needed), std::end(needed), frame->linesize,
                    [&reach](int least, int stride) { return least <= reach(stride); });
}

bool Share(AVFrame* frame, unsigned char* pixels, std::size_t size, void (*release)(void*, std::uint8_t*)) {
  frame->buf[0] = av_buffer_create(pixels, size, release, nullptr, 0);
  return frame->buf[0] != nullptr;
}

void FreePixels(void*, std::uint8_t* pixels) {
  std::free(pixels);
}

// A filter's free end, for the parser of a description.
InOutPtr OpenEnd(const char* name, AVFilterContext* filter) {
  InOutPtr end(avfilter_inout_alloc());
  if (end != nullptr) {
    end->name = av_strdup(name);
    end->filter_ctx = filter;
  }
  return end;
}

int Link(AVFilterGraph* graph, AVFilterContext* source, AVFilterContext* sink) {
  InOutPtr outputs = OpenEnd("in", source);
  InOutPtr inputs = OpenEnd("out", sink);
  if (outputs == nullptr || inputs == nullptr) {
    return AVERROR(ENOMEM);
  }
  AVFilterInOut* in = inputs.release();
  AVFilterInOut* out = outputs.release();
  const int ret = avfilter_graph_parse_ptr(graph, kColours, &in, &out, nullptr);
  inputs.reset(in);
  outputs.reset(out);
  return ret;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Settings
// ---------------------------------------------------------------------------------------------------------------------

GifProcess::GifProcess() {
  SetGifDelay(kDefaultDelayMs);
}

GifProcess::~GifProcess() {
  Free();
  for (AVFrame* frame : m_frames) {
    av_frame_free(&frame);
  }
}

void GifProcess::SetGifPath(const std::string& path) {
  m_path = path;
}

void GifProcess::SetGifDelay(int ms) {
  m_delay = std::max(ms / 10, 0);
}

// ---------------------------------------------------------------------------------------------------------------------
// Pictures
// ---------------------------------------------------------------------------------------------------------------------

int GifProcess::AddFrame(unsigned char* data, int size, unsigned char* extradata, int extLen, int codecId) try {
  mediautil::OneShotSession session;
  FFmpegAttr& attr = session.attr;
  VY_FAIL_IF(DoFFMpegInitVideo(attr, codecId, extradata, extLen) != 0, -1, LOG_LEVEL_ERR, "Init fail\n");
  session.TakeAnyPicture();
  VY_FAIL_IF(DoFFMpegDecode(attr, data, size) != 0 && !mediautil::DrainPicture(attr.pCodecCtx, attr.pRawFrame), -1,
             LOG_LEVEL_ERR, "Decode fail\n");
  Size wanted = GifSize(attr.pRawFrame);
  const int ret = DoFFMpegScale(attr, session.buffer, session.bufferSize, wanted.width, wanted.height, kPixels);
  // The result is 0 in any case; a size tells of a picture.
  VY_FAIL_IF(ret != 0 || attr.pOutFrame->width < 1, -1, LOG_LEVEL_ERR, "Fail scale\n");
  if (!Share(attr.pOutFrame, session.buffer, static_cast<std::size_t>(session.bufferSize), nullptr)) {
    return -1;
  }
  session.buffer = nullptr;
  Append(attr.pOutFrame);
  attr.pOutFrame = nullptr;
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

int GifProcess::AddFrameFromJpeg(unsigned char* jpeg, int size) try {
  unsigned char* decoded = nullptr;
  int length = 0;
  int width = 0;
  int height = 0;
  if (DecodeJpeg(jpeg, size, &decoded, length, JCS_EXT_BGRA, 1, width, height) != 0) {
    return -1;
  }
  mediautil::MallocPtr<unsigned char> pixels(decoded);
  FramePtr frame(av_frame_alloc());
  if (frame == nullptr ||
      av_image_fill_arrays(frame->data, frame->linesize, pixels.get(), kPixels, width, height, 1) < 0 ||
      !Share(frame.get(), pixels.get(), static_cast<std::size_t>(length), FreePixels)) {
    return -1;
  }
  static_cast<void>(pixels.release());
  frame->width = width;
  frame->height = height;
  frame->format = kPixels;
  return Add(frame.release()) ? 0 : -1;
} catch (const std::bad_alloc&) {
  return -1;
}

int GifProcess::AddFrame(AVFrame* frame) try {
  if (frame == nullptr) {
    return -1;
  }
  Add(frame);
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

// Takes the frame in any case.
bool GifProcess::Add(AVFrame* frame) {
  FramePtr given(frame);
  if (!HoldsPicture(frame)) {
    return false;
  }
  const Size size = GifSize(frame);
  if (frame->format != kPixels || frame->width != size.width || frame->height != size.height) {
    AVFrame* scaled = nullptr;
    if (ScaleFrame(frame, &scaled) != 0) {
      return false;
    }
    given.reset(scaled);
  } else if (frame->buf[0] == nullptr &&
             // The filters would copy it otherwise.
             !Share(frame, frame->data[0],
                    static_cast<std::size_t>(frame->linesize[0]) * static_cast<std::size_t>(frame->height), nullptr)) {
    return false;
  }
  Append(given.get());
  static_cast<void>(given.release());
  return true;
}

// Throws std::bad_alloc, and the frame stays the caller's then.
void GifProcess::Append(AVFrame* frame) {
  m_frames.push_back(frame);
  m_width = frame->width;
  m_height = frame->height;
}

Size GifProcess::GifSize(const AVFrame* picture) const {
  return m_frames.empty() ? mediautil::FitSquare({picture->width, picture->height}, kMaxSide) : Size{m_width, m_height};
}

int GifProcess::ScaleFrame(const AVFrame* in, AVFrame** out) {
  const Size size = GifSize(in);
  const FfPtr<SwsContext> scaler = mediautil::MakeScaler(in->width, in->height, static_cast<AVPixelFormat>(in->format),
                                                         size.width, size.height, kPixels, SWS_BICUBIC);
  FfPtr<AVFrame> frame(av_frame_alloc());
  if (scaler == nullptr || frame == nullptr ||
      !mediautil::AllocPackedPicture(frame.get(), size.width, size.height, kPixels) ||
      !mediautil::RunScaler(scaler.get(), in->data, in->linesize, in->height,
                            {frame->data, frame->linesize, kPixels, size.width, size.height})) {
    return -1;
  }
  *out = frame.release();
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// The GIF
// ---------------------------------------------------------------------------------------------------------------------

int GifProcess::Process() try {
  LockAVCodecRegister();
  LockAVFilterRegister();
  const mediautil::ScopeExit end([this] { Free(); });
  VY_FAIL_IF(InitMuxer() < 0, -1, LOG_LEVEL_ERR, "could not init muxer\n");
  if (m_frames.empty()) {
    return Mux();
  }
  VY_FAIL_IF(InitFilter() < 0, -1, LOG_LEVEL_ERR, "could not init filters\n");
  return PushFrame() < 0 ? -1 : Mux();
} catch (const std::bad_alloc&) {
  return -1;
}

int GifProcess::InitMuxer() {
  Free();
  const AVOutputFormat* format = av_guess_format("gif", m_path.c_str(), "video/gif");
  VY_FAIL_IF(avcodec_find_encoder(AV_CODEC_ID_GIF) == nullptr, -1, LOG_LEVEL_ERR, "Fail to find gif encoder\n");
  VY_FAIL_IF(avformat_alloc_output_context2(&m_pOutputCtx, format, nullptr, m_path.c_str()) < 0, -1, LOG_LEVEL_ERR,
             "Fail allocate output format\n");
  // Without frames there is no size, and nothing to encode.
  VY_FAIL_IF(!m_frames.empty() && !OpenEncoder(), -1, LOG_LEVEL_ERR, "Fail open output pCodec\n");
  VY_FAIL_IF(!OpenOutput(), -1, LOG_LEVEL_ERR, "Fail avio open error\n");
  return 0;
}

bool GifProcess::OpenEncoder() {
  const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_GIF);
  const AVStream* stream = avformat_new_stream(m_pOutputCtx, encoder);
  m_pEncoderCtx = avcodec_alloc_context3(encoder);
  if (stream == nullptr || m_pEncoderCtx == nullptr) {
    return false;
  }
  AVCodecParameters& parameters = *stream->codecpar;
  parameters.codec_type = AVMEDIA_TYPE_VIDEO;
  parameters.codec_id = encoder->id;
  parameters.codec_tag = 0;
  parameters.width = m_width;
  parameters.height = m_height;
  parameters.format = AV_PIX_FMT_PAL8;
  if (avcodec_parameters_to_context(m_pEncoderCtx, &parameters) < 0) {
    return false;
  }
  m_pEncoderCtx->time_base = {1, 1};
  m_pEncoderCtx->thread_count = 1;
  if ((m_pOutputCtx->oformat->flags & AVFMT_GLOBALHEADER) != 0) {
    m_pEncoderCtx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  }
  return LockAVCodecOpen(m_pEncoderCtx, encoder, nullptr) >= 0;
}

bool GifProcess::OpenOutput() {
  m_file = std::make_unique<mediautil::WholeFile>();
  return m_file->Open(m_pOutputCtx, m_path) >= 0;
}

// False when the GIF is not there as a whole.
bool GifProcess::CloseOutput(bool isWhole) {
  return m_file->Close(m_pOutputCtx, isWhole) >= 0 && isWhole;
}

int GifProcess::InitFilter() {
  m_pFilterGraph = mediautil::MakeGraph().release();
  if (m_pFilterGraph != nullptr) {
    m_pFilterGraph->thread_type = 0;
    char arguments[128];
    std::snprintf(arguments, sizeof(arguments), "video_size=%dx%d:pix_fmt=%d:time_base=1/1:pixel_aspect=1/1", m_width,
                  m_height, static_cast<int>(kPixels));
    m_pSource = mediautil::AddFilter(m_pFilterGraph, "buffer", "in", arguments);
  }
  VY_FAIL_IF(m_pSource == nullptr, -1, LOG_LEVEL_ERR, "Cannot create buffer source\n");
  m_pSink = mediautil::AddFilter(m_pFilterGraph, "buffersink", "out", nullptr);
  VY_FAIL_IF(m_pSink == nullptr, -1, LOG_LEVEL_ERR, "Cannot create buffer sink\n");
  VY_FAIL_IF(mediautil::RestrictSink(m_pSink, AV_PIX_FMT_PAL8) < 0, -1, LOG_LEVEL_ERR,
             "Can not set output pixel format\n");
  VY_FAIL_IF(Link(m_pFilterGraph, m_pSource, m_pSink) < 0, -1, LOG_LEVEL_ERR, "parse filter graph error\n");
  VY_FAIL_IF(avfilter_graph_config(m_pFilterGraph, nullptr) < 0, -1, LOG_LEVEL_ERR, "config graph error\n");
  return 0;
}

int GifProcess::PushFrame() {
  int index = 0;
  for (AVFrame* frame : m_frames) {
    frame->pts = std::int64_t{m_delay} * index;
    VY_FAIL_IF(av_buffersrc_add_frame_flags(m_pSource, frame, AV_BUFFERSRC_FLAG_KEEP_REF) < 0, -1, LOG_LEVEL_ERR,
               "Fail to add pFrame[%d] to buffer source\n", index);
    ++index;
  }
  VY_FAIL_IF(av_buffersrc_add_frame_flags(m_pSource, nullptr, 0) < 0, -1, LOG_LEVEL_ERR,
             "Fail to add ending to buffer source\n");
  return 0;
}

int GifProcess::Mux() {
  if (m_frames.empty()) {
    avio_write(m_pOutputCtx->pb, kEmptyGif, sizeof(kEmptyGif));
    VY_FAIL_IF(!CloseOutput(true), -1, LOG_LEVEL_ERR, "write gif header fail\n");
    return 0;
  }
  // What the last picture's delay is without it depends on FFmpeg's version.
  av_opt_set_int(m_pOutputCtx->priv_data, "final_delay", std::min(m_delay, kMaxDelay), 0);
  VY_FAIL_IF(avformat_write_header(m_pOutputCtx, nullptr) < 0, -1, LOG_LEVEL_ERR, "write gif header fail\n");
  const FfPtr<AVFrame> frame(av_frame_alloc());
  int ret = frame == nullptr ? AVERROR(ENOMEM) : 0;
  while (ret >= 0 && (ret = av_buffersink_get_frame(m_pSink, frame.get())) >= 0) {
    ret = MuxFrame(frame.get());
    av_frame_unref(frame.get());
  }
  const bool isEnded = av_write_trailer(m_pOutputCtx) >= 0 && ret == AVERROR_EOF;
  VY_FAIL_IF(!CloseOutput(isEnded), -1, LOG_LEVEL_ERR, "Write gif tail fail\n");
  return 0;
}

int GifProcess::MuxFrame(AVFrame* frame) {
  const FfPtr<AVPacket> packet(av_packet_alloc());
  if (packet == nullptr) {
    return -1;
  }
  bool gotPacket = false;
  bool isWritten = true;
  const int ret = mediautil::EncodeFrame(m_pEncoderCtx, frame, packet.get(), gotPacket, [&](AVPacket* encoded) {
    isWritten = av_write_frame(m_pOutputCtx, encoded) >= 0;
    return isWritten;
  });
  return ret >= 0 && isWritten ? 0 : -1;
}

void GifProcess::Free() {
  if (m_pOutputCtx != nullptr && m_pOutputCtx->pb != nullptr) {
    CloseOutput(false);
  }
  avfilter_graph_free(&m_pFilterGraph);
  m_pSource = nullptr;
  m_pSink = nullptr;
  LockAVCodecFreeContext(m_pEncoderCtx);
  LockAVFormatFreeContext(m_pOutputCtx);
}
