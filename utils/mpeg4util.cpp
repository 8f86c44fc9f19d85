#include "utils/mpeg4util.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "platform/jpeg.h"
#include "platform/time.h"
#include "utils/esformat.h"
#include "utils/internal/aacconfig.h"
#include "utils/internal/codectable.h"
#include "utils/internal/ffcompat.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/filterchain.h"
#include "utils/internal/fitsize.h"
#include "utils/internal/log.h"
#include "utils/internal/oneshot.h"
#include "utils/internal/polygonmask.h"
#include "utils/internal/scaler.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

using mediautil::FfPtr;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Logging
// ---------------------------------------------------------------------------------------------------------------------

int VyPrintf(LOG_TYPE type, const char* categText, const char* levelText, const char* sourcePath, int line,
             const char* function, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int ret = VyVPrintf(type, categText, levelText, sourcePath, line, function, format, args);
  va_end(args);
  return ret;
}

namespace {

constexpr const char* kUnknownText = "unknown";

// A message must not fail its caller: a map that cannot be built has no texts, and the next use tries again.
template <typename E>
const char* TextOf(E value) {
  try {
    static const VyEnum2StrMap<E> texts;
    const char* text = texts.Find(value);
    return text == nullptr ? kUnknownText : text;
  } catch (const std::exception&) {
    return kUnknownText;
  }
}

}  // namespace

template <>
const char* Enum2String<LOG_CATEG>(LOG_CATEG value) {
  return TextOf(value);
}

template <>
const char* Enum2String<LOG_LEVEL>(LOG_LEVEL value) {
  return TextOf(value);
}

std::string GetFfmpegErr(int err) {
  char text[256] = {};
  if (av_strerror(err, text, sizeof(text)) < 0) {
    // glibc's variant may return a text of its own; only what it leaves in the buffer counts.
    const int number = static_cast<int>(0U - static_cast<unsigned int>(err));
    [[maybe_unused]] const char* ownText = strerror_r(number, text, sizeof(text));
  }
  return text;
}

namespace {

// Other processes change the record at any time: the count is read once.
bool IsThisProcessListed(const DbgLogCfg& cfg, std::int32_t pidCount) {
  int pid = __atomic_load_n(&g_DbgLogPid, __ATOMIC_RELAXED);
  if (pid == 0) {
    pid = getpid();
    __atomic_store_n(&g_DbgLogPid, pid, __ATOMIC_RELAXED);
  }
  const std::int32_t* end = cfg.pids + std::min(pidCount, DbgLogCfg::kPidCapacity);
  return std::find(cfg.pids, end, pid) != end;
}

// FFmpeg explains at detail levels what the library reports as one failure.
LOG_LEVEL FromAvLogLevel(int level) {
  if (level <= AV_LOG_ERROR) {
    return LOG_LEVEL_INFO;
  }
  return level <= AV_LOG_WARNING ? LOG_LEVEL_DEBUG : LOG_LEVEL_TRACE;
}

void FfmpegLog(void* source, int avLevel, const char* format, va_list args) {
  const LOG_LEVEL level = FromAvLogLevel(avLevel);
  if (avLevel > AV_LOG_INFO || !mediautil::MediaLogEnabled(level)) {
    return;
  }
  thread_local int atLineStart = 1;
  char line[1024];
  av_log_format_line2(source, avLevel, format, args, line, sizeof(line), &atLineStart);
  VY_LOG(level, "%s", line);
}

// Sends FFmpeg's messages to the platform log for as long as the library is loaded.
const struct FfmpegLogRoute {
  FfmpegLogRoute() { av_log_set_callback(FfmpegLog); }
  ~FfmpegLogRoute() { av_log_set_callback(av_log_default_callback); }
} g_ffmpegLogRoute;

}  // namespace

int mediautil::LogThresholdSlow(LOG_CATEG categ) {
  const DbgLogCfg* cfg = __atomic_load_n(&g_pDbgLogCfg, __ATOMIC_ACQUIRE);
  if (cfg == nullptr) {
    ReinitDbgLogCfg();
    cfg = __atomic_load_n(&g_pDbgLogCfg, __ATOMIC_ACQUIRE);
    if (cfg == nullptr) {
      return kDefaultLogThreshold;
    }
  }
  const std::int32_t pidCount = __atomic_load_n(&cfg->pidCount, __ATOMIC_RELAXED);
  if (pidCount > 0 && !IsThisProcessListed(*cfg, pidCount)) {
    return kDefaultLogThreshold;
  }
  return cfg->categLevel[categ];
}

// ---------------------------------------------------------------------------------------------------------------------
// FFmpeg access lock
// ---------------------------------------------------------------------------------------------------------------------

VyMutex g_FFMpegThreadLock;

namespace {

void RegisterOnce(std::atomic<bool>& registered, void (*registerAll)()) {
  if (registered.load(std::memory_order_acquire)) {
    return;
  }
  const VyMutexGuard guard(g_FFMpegThreadLock);
  if (!registered.load(std::memory_order_relaxed)) {
    registerAll();
    registered.store(true, std::memory_order_release);
  }
}

std::atomic<bool> g_codecsRegistered{false};
std::atomic<bool> g_filtersRegistered{false};

}  // namespace

void LockAVCodecRegister() {
  RegisterOnce(g_codecsRegistered, mediautil::RegisterCodecs);
}

void LockAVFilterRegister() {
  RegisterOnce(g_filtersRegistered, mediautil::RegisterFilters);
}

int LockAVCodecOpen(AVCodecContext* ctx, const AVCodec* codec, AVDictionary** options) {
  const VyMutexGuard guard(g_FFMpegThreadLock);
  return avcodec_open2(ctx, codec, options);
}

int LockAVCodecClose(AVCodecContext* ctx) {
  const VyMutexGuard guard(g_FFMpegThreadLock);
  return mediautil::CloseCodec(ctx);
}

void LockAVCodecFreeContext(AVCodecContext*& ctx) {
  if (ctx == nullptr) {
    return;
  }
  const VyMutexGuard guard(g_FFMpegThreadLock);
  avcodec_free_context(&ctx);
}

void LockAVFormatFreeContext(AVFormatContext*& ctx) {
  if (ctx == nullptr) {
    return;
  }
  const VyMutexGuard guard(g_FFMpegThreadLock);
  avformat_free_context(ctx);
  ctx = nullptr;
}

// ---------------------------------------------------------------------------------------------------------------------
// Video decoder session
// ---------------------------------------------------------------------------------------------------------------------

namespace {

void ReleaseSession(FFmpegAttr& attr) {
  LockAVCodecFreeContext(attr.pCodecCtx);  // with its configuration data
  sws_freeContext(attr.pSwsCtx);
  attr.pSwsCtx = nullptr;
  av_frame_free(&attr.pRawFrame);
  av_frame_free(&attr.pOutFrame);
  attr.pCodec = nullptr;
}

bool IsSizeKnown(const AVCodecContext& ctx) {
  return ctx.width >= 1 && ctx.height >= 1;
}

// The size and format of the picture decoded last. The context describes the newest parameter sets, which may belong to
// a picture that is yet to come; it only speaks for a session without a picture.
struct Geometry {
  mediautil::Size size;
  AVPixelFormat format;
};

Geometry PictureGeometry(const FFmpegAttr& attr) {
  if (attr.pRawFrame != nullptr && attr.pRawFrame->data[0] != nullptr) {
    return {{attr.pRawFrame->width, attr.pRawFrame->height}, static_cast<AVPixelFormat>(attr.pRawFrame->format)};
  }
  if (attr.pCodecCtx != nullptr) {
    return {{attr.pCodecCtx->width, attr.pCodecCtx->height}, attr.pCodecCtx->pix_fmt};
  }
  return {{0, 0}, AV_PIX_FMT_NONE};
}

// Gives the picture a buffer of at least needed bytes. True when it is a new one.
bool ReplaceSmallBuffer(unsigned char*& buffer, int& bufferSize, int needed) {
  if (buffer != nullptr && bufferSize >= needed) {
    return false;
  }
  av_free(buffer);
  buffer = static_cast<unsigned char*>(av_malloc(static_cast<std::size_t>(needed) + mediautil::kPictureSlack));
  bufferSize = buffer == nullptr ? 0 : needed;
  if (buffer != nullptr) {
    std::memset(buffer + needed, 0, mediautil::kPictureSlack);
  }
  return true;
}

bool ScaleInto(FFmpegAttr& attr, const Geometry& picture, const mediautil::Size& out, AVPixelFormat format) {
  const AVFrame* frame = attr.pRawFrame;
  if (frame == nullptr || frame->data[0] == nullptr) {
    return false;
  }
  attr.pSwsCtx = mediautil::MakeScaler(picture.size.width, picture.size.height, picture.format, out.width, out.height,
                                       format, SWS_BICUBIC)
                     .release();
  if (attr.pSwsCtx == nullptr) {
    return false;
  }
  const bool written =
      mediautil::RunScaler(attr.pSwsCtx, frame->data, frame->linesize, picture.size.height,
                           {attr.pOutFrame->data, attr.pOutFrame->linesize, format, out.width, out.height});
  sws_freeContext(attr.pSwsCtx);
  attr.pSwsCtx = nullptr;
  return written;
}

}  // namespace

int DoFFMpegInitVideo(FFmpegAttr& attr, int vdoType, const unsigned char* extradata, int extradataSize) {
  const AVCodecID codecId = mediautil::VideoCodecId(vdoType);
  VY_FAIL_IF(codecId == AV_CODEC_ID_NONE, -1, LOG_LEVEL_ERR, "Wrong video type. [%d]\n", vdoType);
  ReleaseSession(attr);

  LockAVCodecRegister();
  attr.pCodec = avcodec_find_decoder(codecId);
  VY_FAIL_IF(attr.pCodec == nullptr, -1, LOG_LEVEL_NOTE, "Failed to find decoder[%d].\n", static_cast<int>(codecId));
  attr.pCodecCtx = avcodec_alloc_context3(attr.pCodec);
  VY_FAIL_IF(attr.pCodecCtx == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc context.\n");
  attr.pCodecCtx->extradata = mediautil::CopyPadded(extradata, extradataSize);
  attr.pCodecCtx->extradata_size = attr.pCodecCtx->extradata == nullptr ? 0 : extradataSize;

  const int ret = LockAVCodecOpen(attr.pCodecCtx, attr.pCodec, nullptr);
  VY_FAIL_IF(ret != 0, -1, LOG_LEVEL_ERR, "Failed to open codec[%d], VdoType[%d], Ret[%d].\n",
             static_cast<int>(codecId), vdoType, ret);
  attr.pRawFrame = av_frame_alloc();
  VY_FAIL_IF(attr.pRawFrame == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc frame.\n");
  attr.pOutFrame = av_frame_alloc();
  VY_FAIL_IF(attr.pOutFrame == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc rgb frame.\n");
  return 0;
}

int DoFFMpegDecode(FFmpegAttr& attr, const unsigned char* data, int size) {
  const FfPtr<AVPacket> packet(av_packet_alloc());
  if (attr.pCodecCtx == nullptr || attr.pRawFrame == nullptr || data == nullptr || packet == nullptr) {
    return -1;
  }
  packet->data = const_cast<unsigned char*>(data);
  packet->size = size;

  int gotPicture = 0;
  bool sizeUnknown = attr.pCodecCtx->width == 0 || attr.pCodecCtx->height == 0;
  while (packet->size >= 1) {
    int used = mediautil::DecodeOnce(attr.pCodecCtx, attr.pRawFrame, packet.get(), &gotPicture);
    if (sizeUnknown && gotPicture == 0 && IsSizeKnown(*attr.pCodecCtx)) {
      // This buffer only taught the decoder its size: the same bytes again give the picture.
      sizeUnknown = false;
      used = mediautil::DecodeOnce(attr.pCodecCtx, attr.pRawFrame, packet.get(), &gotPicture);
    }
    if (used < 1) {
      break;
    }
    packet->data += used;
    packet->size -= used;
    if (gotPicture != 0) {
      break;
    }
  }
  return gotPicture != 0 ? 0 : -1;
}

bool IsDecodeFrameMissRef(const AVFrame* frame) {
  return frame != nullptr && frame->decode_error_flags == FF_DECODE_ERROR_MISSING_REFERENCE;
}

int DoFFMpegScale(FFmpegAttr& attr, unsigned char*& buffer, int& bufferSize, int& width, int& height,
                  AVPixelFormat format) {
  const Geometry picture = PictureGeometry(attr);
  const mediautil::Size out = mediautil::CompleteSize(picture.size, {width, height});
  width = out.width;
  height = out.height;
  const int needed = mediautil::PackedSize(format, width, height);
  if (needed < 1 || attr.pOutFrame == nullptr) {
    return 0;
  }
  const bool isNew = ReplaceSmallBuffer(buffer, bufferSize, needed);
  if (buffer == nullptr) {
    av_frame_unref(attr.pOutFrame);  // the buffer that it lay over is gone
    return 0;
  }
  if (isNew || !mediautil::LiesOver(attr.pOutFrame, buffer, bufferSize, format, width, height)) {
    mediautil::LayOver(attr.pOutFrame, buffer, format, width, height);
    attr.pOutFrame->width = attr.pOutFrame->height = 0;  // until a picture stands there
    attr.pOutFrame->format = AV_PIX_FMT_NONE;
  }
  if (!ScaleInto(attr, picture, out, format)) {
    if (isNew) {
      std::memset(buffer, 0, static_cast<std::size_t>(bufferSize));
    }
    return 0;
  }
  attr.pOutFrame->width = width;
  attr.pOutFrame->height = height;
  attr.pOutFrame->format = format;
  return 0;
}

int DoFFMpegResetContext(FFmpegAttr& attr) {
  if (attr.pCodecCtx == nullptr) {
    return 0;
  }
  LockAVCodecClose(attr.pCodecCtx);
  if (attr.pCodec == nullptr) {
    return 0;
  }
  return LockAVCodecOpen(attr.pCodecCtx, attr.pCodec, nullptr) != 0 ? -1 : 0;
}

void DoFFMpegFree(FFmpegAttr& attr, unsigned char*& buffer) {
  ReleaseSession(attr);
  av_freep(&buffer);
}

void DoFFmpegFrameFree(AVFrame** frame) {
  if (frame == nullptr || *frame == nullptr) {
    return;
  }
  // A scaled picture owns its buffer through the first plane alone; the others are reference counted.
  if ((*frame)->buf[0] == nullptr) {
    av_freep(&(*frame)->data[0]);
  }
  av_frame_free(frame);
}

// ---------------------------------------------------------------------------------------------------------------------
// Frame conversion and JPEG snapshot
// ---------------------------------------------------------------------------------------------------------------------

namespace {

constexpr int kMinJpegCapacity = 24576;
constexpr int kMaxJpegCapacity = 4194304;

FfPtr<AVFrame> Converted(const AVFrame* input, AVPixelFormat target) {
  AVFrame* output = nullptr;
  DoFFmpegConvertFrameFormat(input, target, &output);
  return FfPtr<AVFrame>(output);
}

// A picture of the snapshot with the regions painted black, or null. RGB is painted as it is: the way over RGBA would
// give the same bytes.
FfPtr<AVFrame> MaskedSnapshot(const AVFrame* frame, const std::string& privacyRegion) {
  const bool isRgb = frame->format == AV_PIX_FMT_RGB24;
  FfPtr<AVFrame> picture = isRgb ? mediautil::CopyPacked(frame) : Converted(frame, AV_PIX_FMT_RGBA);
  VY_FAIL_IF(picture == nullptr, nullptr, LOG_LEVEL_ERR, "DoFFMpegGetJpeg, fail to convert frame format.\n");
  const mediautil::Canvas canvas = {picture->data[0], picture->linesize[0], picture->width, picture->height,
                                    isRgb ? 3 : 4};
  VY_FAIL_IF(!mediautil::TryPaintRegions(privacyRegion, canvas), nullptr, LOG_LEVEL_ERR,
             "DoFFMpegGetJpeg, fail to get privacy region frame.\n");
  if (isRgb) {
    return picture;
  }
  FfPtr<AVFrame> rgb = Converted(picture.get(), AV_PIX_FMT_RGB24);
  VY_FAIL_IF(rgb == nullptr, nullptr, LOG_LEVEL_ERR, "DoFFMpegGetJpeg, fail to overlay two image.\n");
  return rgb;
}

// Compresses a packed RGB24 picture into a new buffer; *jpeg is null on failure.
int CompressPicture(const AVFrame* picture, unsigned char** jpeg, int* jpegSize, int quality) {
  const int rawSize =
      mediautil::PackedSize(static_cast<AVPixelFormat>(picture->format), picture->width, picture->height);
  const int capacity = std::clamp(rawSize / 5, kMinJpegCapacity, kMaxJpegCapacity);
  *jpeg = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(capacity)));
  const bool isRgb = picture->format == AV_PIX_FMT_RGB24 && mediautil::IsPackedPicture(picture);
  if (!isRgb || EncodeToJpeg(picture->width, picture->height, picture->data[0], *jpeg, capacity, *jpegSize, quality)) {
    VY_LOG(LOG_LEVEL_ERR, "Compress to jpeg failed.\n");
    std::free(*jpeg);
    *jpeg = nullptr;
    *jpegSize = 0;
    return -1;
  }
  return 0;
}

}  // namespace

int DoFFmpegConvertFrameFormat(const AVFrame* input, AVPixelFormat target, AVFrame** output) {
  VY_FAIL_IF(input == nullptr || output == nullptr, -1, LOG_LEVEL_ERR,
             "DoFFmpegConvertFrameFormat, pInputFrame %p or ppOutputFrame %p is nullptr\n",
             static_cast<const void*>(input), static_cast<void*>(output));
  *output = nullptr;
  const auto source = static_cast<AVPixelFormat>(input->format);
  VY_FAIL_IF(source == target, -1, LOG_LEVEL_ERR,
             "DoFFmpegConvertFrameFormat, TargetFormat %d is same as pInputFrame->format\n", static_cast<int>(target));
  const FfPtr<SwsContext> scaler =
      mediautil::MakeScaler(input->width, input->height, source, input->width, input->height, target, SWS_BILINEAR);
  VY_FAIL_IF(scaler == nullptr, -1, LOG_LEVEL_ERR, "DoFFmpegConvertFrameFormat, sws_getContext failed\n");
  FfPtr<AVFrame> frame(av_frame_alloc());
  VY_FAIL_IF(frame == nullptr, -1, LOG_LEVEL_ERR, "DoFFmpegConvertFrameFormat, av_frame_alloc failed\n");
  VY_FAIL_IF(!mediautil::AllocPackedPicture(frame.get(), input->width, input->height, target), -1, LOG_LEVEL_ERR,
             "DoFFmpegConvertFrameFormat, av_image_alloc failed\n");
  VY_FAIL_IF(!mediautil::RunScaler(scaler.get(), input->data, input->linesize, input->height,
                                   {frame->data, frame->linesize, target, frame->width, frame->height}),
             -1, LOG_LEVEL_ERR, "DoFFmpegConvertFrameFormat, sws_scale failed\n");
  *output = frame.release();
  return 0;
}

int DoFFMpegGetScaledFrame(int vdoType, const unsigned char* extradata, int extradataSize, const unsigned char* data,
                           int size, AVFrame** output, int maxSide) {
  if (output == nullptr) {
    return -1;
  }
  *output = nullptr;
  mediautil::OneShotSession session;
  FFmpegAttr& attr = session.attr;
  VY_FAIL_IF(DoFFMpegInitVideo(attr, vdoType, extradata, extradataSize) != 0, -1, LOG_LEVEL_NOTE,
             "FFmpeg init failed.\n");
  session.TakeAnyPicture();
  const AVFrame& picture = *attr.pRawFrame;
  VY_FAIL_IF(DoFFMpegDecode(attr, data, size) != 0 && !mediautil::DrainPicture(attr.pCodecCtx, attr.pRawFrame), -1,
             LOG_LEVEL_NOTE, "FFmpeg decode failed.\n");

  mediautil::Size wanted = mediautil::FitLongestSide({picture.width, picture.height}, maxSide);
  VY_FAIL_IF(wanted.width < 1 && wanted.height < 1, -1, LOG_LEVEL_NOTE, "FFmpeg convert failed.\n");
  const int ret =
      DoFFMpegScale(attr, session.buffer, session.bufferSize, wanted.width, wanted.height, AV_PIX_FMT_RGB24);
  VY_FAIL_IF(ret != 0 || attr.pOutFrame->width < 1, -1, LOG_LEVEL_NOTE, "FFmpeg convert failed.\n");
  VY_LOG(LOG_LEVEL_NOTE, "Scale from [%dx%d] to [%dx%d]\n", picture.width, picture.height, wanted.width, wanted.height);
  *output = attr.pOutFrame;
  attr.pOutFrame = nullptr;
  session.buffer = nullptr;
  return 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is fixed
int DoFFMpegGetJpeg(AVFrame* frame, unsigned char** jpeg, int* jpegSize, int quality, std::string privacyRegion) {
  if (frame == nullptr || jpeg == nullptr || jpegSize == nullptr) {
    return -1;
  }
  *jpeg = nullptr;
  *jpegSize = 0;
  if (!privacyRegion.empty()) {
    const FfPtr<AVFrame> masked = MaskedSnapshot(frame, privacyRegion);
    return masked == nullptr ? -1 : CompressPicture(masked.get(), jpeg, jpegSize, quality);
  }
  const bool isPadded = frame->format == AV_PIX_FMT_RGB24 && !mediautil::IsPackedPicture(frame);
  const FfPtr<AVFrame> packed = isPadded ? mediautil::CopyPacked(frame) : nullptr;
  return CompressPicture(packed == nullptr ? frame : packed.get(), jpeg, jpegSize, quality);
}

int DoFFMpegGetJpeg(int vdoType, const unsigned char* extradata, int extradataSize, const unsigned char* data, int size,
                    unsigned char** jpeg, int* jpegSize, int maxSide) {
  if (jpeg == nullptr || jpegSize == nullptr) {
    return -1;
  }
  *jpeg = nullptr;
  *jpegSize = 0;
  AVFrame* frame = nullptr;
  VY_FAIL_IF(DoFFMpegGetScaledFrame(vdoType, extradata, extradataSize, data, size, &frame, maxSide) != 0, -1,
             LOG_LEVEL_ERR, "Fail to get scaled rgb frame\n");
  const int ret = DoFFMpegGetJpeg(frame, jpeg, jpegSize, -1, std::string());
  DoFFmpegFrameFree(&frame);
  return ret == 0 ? 0 : -1;
}

unsigned int DoFFMpegGetDuration(const std::string& path) {
  LockAVCodecRegister();
  AVFormatContext* opened = nullptr;
  VY_FAIL_IF(avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0, 0, LOG_LEVEL_ERR,
             "Failed to open input file[%s].\n", path.c_str());
  const mediautil::InputPtr input(opened);
  VY_FAIL_IF(avformat_find_stream_info(opened, nullptr) < 0, 0, LOG_LEVEL_ERR,
             "Failed to find stream info from event file[%s].\n", path.c_str());
  return input->duration > 0 ? static_cast<unsigned int>(USecToSec(input->duration)) : 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Privacy mask and overlay
// ---------------------------------------------------------------------------------------------------------------------

int GetPrivacyRegionFrame(AVFrame** output, const std::string& privacyRegion, int width, int height) try {
  VY_FAIL_IF(output == nullptr, -1, LOG_LEVEL_ERR, "GetPrivacyRegionFrame, ppOutputFrame is nullptr.\n");
  *output = nullptr;
  FfPtr<AVFrame> mask(av_frame_alloc());
  VY_FAIL_IF(mask == nullptr, -1, LOG_LEVEL_ERR, "GetPrivacyRegionFrame, failed to allocate AVFrame.\n");
  mask->format = AV_PIX_FMT_RGBA;
  mask->width = width;
  mask->height = height;
  VY_FAIL_IF(av_frame_get_buffer(mask.get(), 1) < 0, -1, LOG_LEVEL_ERR,
             "GetPrivacyRegionFrame, failed to allocate buffer for AVFrame.\n");
  VY_FAIL_IF(av_frame_make_writable(mask.get()) < 0, -1, LOG_LEVEL_ERR,
             "GetPrivacyRegionFrame, failed to make AVFrame writable.\n");
  std::memset(mask->buf[0]->data, 0, mask->buf[0]->size);
  mediautil::PaintRegions(privacyRegion, {mask->data[0], mask->linesize[0], width, height, 4});
  *output = mask.release();
  return 0;
} catch (const std::bad_alloc&) {
  VY_LOG(LOG_LEVEL_ERR, "GetPrivacyRegionFrame, failed to allocate buffer for AVFrame.\n");
  return -1;
}

int DoFFMpegOverlayTwoImage(AVFrame* base, AVFrame* top, AVFrame** output, AVPixelFormat format) {
  VY_FAIL_IF(base == nullptr || top == nullptr || output == nullptr, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, nullptr params.\n");
  *output = nullptr;
  VY_FAIL_IF(base->width != top->width || base->height != top->height, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, frame1 and frame2 width or height is not same.\n");
  VY_FAIL_IF(base->format != AV_PIX_FMT_RGBA || top->format != AV_PIX_FMT_RGBA, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, frame1 or frame2 format is not AV_PIX_FMT_RGBA, (%d, %d).\n", base->format,
             top->format);

  LockAVFilterRegister();
  const FfPtr<AVFilterGraph> graph = mediautil::MakeGraph();
  VY_FAIL_IF(graph == nullptr, -1, LOG_LEVEL_ERR, "DoFFMpegOverlayTwoImage, avfilter_graph_alloc failed\n");
  char source[512];
  std::snprintf(source, sizeof(source), "video_size=%dx%d:pix_fmt=%d:time_base=1/1:pixel_aspect=1/1", base->width,
                base->height, base->format);
  AVFilterContext* in1 = mediautil::AddFilter(graph.get(), "buffer", "in1", source);
  VY_FAIL_IF(in1 == nullptr, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_graph_create_filter pBufferSrcCtx1 failed\n");
  AVFilterContext* in2 = mediautil::AddFilter(graph.get(), "buffer", "in2", source);
  VY_FAIL_IF(in2 == nullptr, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_graph_create_filter pBufferSrcCtx2 failed\n");
  AVFilterContext* out = mediautil::AddFilter(graph.get(), "buffersink", "out", nullptr);
  VY_FAIL_IF(out == nullptr, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_graph_create_filter pBufferSinkCtx failed\n");
  VY_FAIL_IF(mediautil::RestrictSink(out, AV_PIX_FMT_RGBA) < 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, av_opt_set_int_list failed\n");
  AVFilterContext* overlay = mediautil::AddFilter(graph.get(), "overlay", "overlay", "x=0:y=0:format=rgb");
  VY_FAIL_IF(overlay == nullptr, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_graph_create_filter pOverlayCtx failed\n");

  VY_FAIL_IF(avfilter_link(in1, 0, overlay, 0) != 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_link pBufferSrcCtx1 failed\n");
  VY_FAIL_IF(avfilter_link(in2, 0, overlay, 1) != 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_link pBufferSrcCtx2 failed\n");
  VY_FAIL_IF(avfilter_link(overlay, 0, out, 0) != 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_link pOverlayCtx failed\n");
  VY_FAIL_IF(avfilter_graph_config(graph.get(), nullptr) < 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, avfilter_graph_config failed\n");

  VY_FAIL_IF(mediautil::FeedOnly(in1, base) < 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, av_buffersrc_add_frame_flags pBufferSrcCtx1 failed\n");
  VY_FAIL_IF(mediautil::FeedOnly(in2, top) < 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, av_buffersrc_add_frame_flags pBufferSrcCtx2 failed\n");
  const FfPtr<AVFrame> filtered(av_frame_alloc());
  VY_FAIL_IF(filtered == nullptr, -1, LOG_LEVEL_ERR, "DoFFMpegOverlayTwoImage, av_frame_alloc failed\n");
  VY_FAIL_IF(av_buffersink_get_frame(out, filtered.get()) < 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, av_buffersink_get_frame failed\n");
  VY_FAIL_IF(DoFFmpegConvertFrameFormat(filtered.get(), format, output) != 0, -1, LOG_LEVEL_ERR,
             "DoFFMpegOverlayTwoImage, DoFFmpegConvertFrameFormat failed\n");
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Crop
// ---------------------------------------------------------------------------------------------------------------------

int DoFFMpegInitFilter(CropAttr& attr, int width, int height, int cropWidth, int cropHeight, int x, int y) {
  DoFFMpegReleaseFilter(attr);
  LockAVFilterRegister();
  char source[512];
  std::snprintf(source, sizeof(source), "video_size=%dx%d:pix_fmt=%d:time_base=1/25:pixel_aspect=1/1", width, height,
                static_cast<int>(AV_PIX_FMT_YUV420P));
  char rectangle[128];
  std::snprintf(rectangle, sizeof(rectangle), "out_w=%d:out_h=%d:x=%d:y=%d", cropWidth, cropHeight, x, y);

  attr.pGraph = mediautil::MakeGraph().release();
  VY_FAIL_IF(attr.pGraph == nullptr, -1, LOG_LEVEL_ERR, "Fail to create filter graph!\n");
  attr.pSrcFilter = avfilter_get_by_name("buffer");
  attr.pSrcCtx = mediautil::AddFilter(attr.pGraph, "buffer", "in", source);
  VY_FAIL_IF(attr.pSrcCtx == nullptr, -1, LOG_LEVEL_ERR, "Fail to create filter bufferSrc\n");
  attr.pSinkFilter = avfilter_get_by_name("buffersink");
  attr.pSinkCtx = mediautil::AddFilter(attr.pGraph, "buffersink", "out", nullptr);
  VY_FAIL_IF(attr.pSinkCtx == nullptr, -1, LOG_LEVEL_ERR, "Fail to create filter sink filter\n");
  attr.pCropFilter = avfilter_get_by_name("crop");
  attr.pCropCtx = mediautil::AddFilter(attr.pGraph, "crop", "crop", rectangle);
  VY_FAIL_IF(attr.pCropCtx == nullptr, -1, LOG_LEVEL_ERR, "Fail to create crop filter\n");

  VY_FAIL_IF(
      avfilter_link(attr.pSrcCtx, 0, attr.pCropCtx, 0) != 0 || avfilter_link(attr.pCropCtx, 0, attr.pSinkCtx, 0) != 0,
      -1, LOG_LEVEL_ERR, "Fail to link src filter and split filter\n");
  VY_FAIL_IF(avfilter_graph_config(attr.pGraph, nullptr) < 0, -1, LOG_LEVEL_ERR, "Fail in filter graph\n");
  return 0;
}

namespace {

// True for a picture of the size and format that the graph was built for; FFmpeg would take any and cut outside of it.
bool IsPictureFor(const CropAttr& attr, const AVFrame* frame) {
  if (attr.pSinkCtx == nullptr || attr.pSinkCtx->inputs[0] == nullptr || attr.pSinkCtx->inputs[0]->w < 1) {
    return false;  // the graph was not built to its end
  }
  const AVFilterLink& link = *attr.pSrcCtx->outputs[0];
  return frame != nullptr && frame->data[0] != nullptr && frame->width == link.w && frame->height == link.h &&
         frame->format == link.format;
}

}  // namespace

int DoFFMpegCrop(CropAttr& attr, AVFrame* input, AVFrame* output) {
  VY_FAIL_IF(!IsPictureFor(attr, input) || output == nullptr ||
                 av_buffersrc_add_frame_flags(attr.pSrcCtx, input, AV_BUFFERSRC_FLAG_KEEP_REF) < 0,
             -1, LOG_LEVEL_ERR, "Error while feeding the filtergraph\n");
  av_frame_unref(output);
  VY_FAIL_IF(av_buffersink_get_frame(attr.pSinkCtx, output) < 0, -1, LOG_LEVEL_ERR,
             "Error while get frame from filtergraph\n");
  return 0;
}

void DoFFMpegReleaseFilter(CropAttr& attr) {
  avfilter_graph_free(&attr.pGraph);
  attr = {};
}

// ---------------------------------------------------------------------------------------------------------------------
// Stream formats
// ---------------------------------------------------------------------------------------------------------------------

void FillAdoFmtIDByCodec(ESFormat& fmt, bool bG726LE) {
  if (fmt.i_codec == 0) {
    return;
  }
  const AVCodecID codecId = mediautil::AudioCodecId(fmt.i_codec, bG726LE);
  if (codecId == AV_CODEC_ID_NONE) {
    VY_LOG(LOG_LEVEL_WARN, "UnSupport EsFmt.i_codec [%d]\n", static_cast<int>(fmt.i_codec));
    return;
  }
  fmt.i_codec_id = codecId;
}

// ---------------------------------------------------------------------------------------------------------------------
// Audio decoder session
// ---------------------------------------------------------------------------------------------------------------------

int DoFFMpegInitAudio(FFmpegAttr& attr, const ESFormat& fmt) try {
  ReleaseSession(attr);
  LockAVCodecRegister();
  attr.pCodec = avcodec_find_decoder(static_cast<AVCodecID>(fmt.i_codec_id));
  VY_FAIL_IF(attr.pCodec == nullptr, -1, LOG_LEVEL_ERR, "Failed to find decoder. CodecId: [%d]\n", fmt.i_codec_id);
  attr.pCodecCtx = avcodec_alloc_context3(attr.pCodec);
  VY_FAIL_IF(attr.pCodecCtx == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc context.\n");
  AVCodecContext& ctx = *attr.pCodecCtx;
  av_channel_layout_default(&ctx.ch_layout, fmt.audio.i_channels);
  ctx.sample_rate = static_cast<int>(fmt.audio.i_rate);
  ctx.bit_rate = fmt.i_bitrate;
  ctx.bits_per_coded_sample = mediautil::BitsPerCodedSample(fmt.i_codec, fmt.i_bitrate);
  ctx.extradata = mediautil::CopyPadded(fmt.p_extra, fmt.i_extra);
  ctx.extradata_size = ctx.extradata == nullptr ? 0 : fmt.i_extra;

  const int ret = LockAVCodecOpen(attr.pCodecCtx, attr.pCodec, nullptr);
  VY_FAIL_IF(ret != 0, -1, LOG_LEVEL_ERR, "Failed to open codec [%s] with Ret [%d] and err [%s].\n",
             mediautil::CodeText(fmt.i_codec).c_str(), ret, GetFfmpegErr(ret).c_str());
  attr.pRawFrame = av_frame_alloc();
  VY_FAIL_IF(attr.pRawFrame == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc frame.\n");
  return 0;
} catch (const std::bad_alloc&) {
  return -1;
}

int DoFFMpegDecodeAudio(FFmpegAttr& attr, unsigned char* data, int size) {
  VY_FAIL_IF(attr.pCodecCtx == nullptr || attr.pRawFrame == nullptr || data == nullptr, -1, LOG_LEVEL_WARN,
             "Error params.\n");
  return size >= 1 && mediautil::DecodeSound(attr.pCodecCtx, attr.pRawFrame, data, size) ? 0 : -1;
}

int FillAACRemuxInfo(AVStream* stream, const ESFormat& fmt) {
  VY_FAIL_IF(stream == nullptr || fmt.i_codec_id != AV_CODEC_ID_AAC, -1, LOG_LEVEL_ERR, "Invalid params, codec[%d].\n",
             fmt.i_codec_id);
  const int rateIndex = mediautil::AacRateIndex(fmt.audio.i_rate);
  VY_FAIL_IF(rateIndex < 0, -1, LOG_LEVEL_ERR, "Unsupported sample rate %d\n", static_cast<int>(fmt.audio.i_rate));
  int channels = fmt.audio.i_channels;
  if (mediautil::AacChannelConfig(channels) == 0) {
    VY_LOG(LOG_LEVEL_ERR, "Unsupported channels %d.\n", channels);
    VY_LOG(LOG_LEVEL_ERR, "Unsupported aac channels, patch to 1.\n");
    channels = 1;
  }
  const auto rate = static_cast<int>(fmt.audio.i_rate);
  VY_FAIL_IF(!mediautil::FillAacParameters(*stream->codecpar, rate, channels, fmt.i_bitrate), -1, LOG_LEVEL_ERR,
             "Failed to malloc extradata\n");
  stream->time_base = {1, rate};
  return 0;
}
