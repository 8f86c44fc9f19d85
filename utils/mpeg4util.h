// Media core: logging and FFmpeg lock, video decoder session, conversion and JPEG snapshot, privacy mask and overlay,
// crop, stream formats, audio decoder session.
#pragma once

#include <string>

#include "platform/export.h"
#include "platform/log.h"
#include "platform/sync.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

struct AVCodec;
struct AVCodecContext;
struct AVDictionary;
struct AVFilter;
struct AVFilterContext;
struct AVFilterGraph;
struct AVFormatContext;
struct AVFrame;
struct AVStream;
struct SwsContext;
struct ESFormat;

// ---------------------------------------------------------------------------------------------------------------------
// Logging
// ---------------------------------------------------------------------------------------------------------------------

// Hands one message, arguments unchanged, to the platform's VyVPrintf and returns its result. Callers test the level
// first; sourcePath is the source's path without extension, as "utils/mpeg4util".
VY_API int VyPrintf(LOG_TYPE type, const char* categText, const char* levelText, const char* sourcePath, int line,
                    const char* function, const char* format, ...) __attribute__((format(printf, 7, 8)));

// The text of a category or level, "unknown" for a value without one. Never null, lives until the process ends.
template <typename E>
const char* Enum2String(E value);
template <>
VY_API const char* Enum2String<LOG_CATEG>(LOG_CATEG value);
template <>
VY_API const char* Enum2String<LOG_LEVEL>(LOG_LEVEL value);

// The text of an FFmpeg error code; may be empty.
VY_API std::string GetFfmpegErr(int err);

// ---------------------------------------------------------------------------------------------------------------------
// FFmpeg access lock: one mutex for the process, held only while the wrapped FFmpeg call runs
// ---------------------------------------------------------------------------------------------------------------------

// The mutex itself; the functions below take it.
extern VY_API VyMutex g_FFMpegThreadLock;

// Register codecs and containers, or filters, once for the process.
VY_API void LockAVCodecRegister();
VY_API void LockAVFilterRegister();

// avcodec_open2 and avcodec_close under the lock; return FFmpeg's result.
VY_API int LockAVCodecOpen(AVCodecContext* ctx, const AVCodec* codec, AVDictionary** options);
VY_API int LockAVCodecClose(AVCodecContext* ctx);

// Free a context under the lock and set the pointer to null. A null pointer does nothing and takes no lock.
// Freeing a codec context closes it first.
VY_API void LockAVCodecFreeContext(AVCodecContext*& ctx);
VY_API void LockAVFormatFreeContext(AVFormatContext*& ctx);

// ---------------------------------------------------------------------------------------------------------------------
// Video decoder session
// ---------------------------------------------------------------------------------------------------------------------

// A decoder session. The caller zero-initialises it, uses it from one thread at a time and ends it with DoFFMpegFree.
struct FFmpegAttr {
  const AVCodec* pCodec;      // FFmpeg's, not owned
  AVCodecContext* pCodecCtx;  // the open decoder
  AVFrame* pRawFrame;         // the picture decoded last
  AVFrame* pOutFrame;         // lies over the caller's buffer after DoFFMpegScale
  SwsContext* pSwsCtx;        // null outside DoFFMpegScale
};

// Opens a decoder. vdoType: 1 MJPEG, 2 MPEG-4, 3 and 7 H.264, 5 MxPEG, 6 and 8 HEVC. extradata: codec configuration
// data, copied; null or a size below 1 for none. 0, or -1; call DoFFMpegFree in both cases.
VY_API int DoFFMpegInitVideo(FFmpegAttr& attr, int vdoType, const unsigned char* extradata, int extradataSize);

// Feeds one access unit. 0 when a picture came out into pRawFrame, else -1; the session stays usable after -1.
VY_API int DoFFMpegDecode(FFmpegAttr& attr, const unsigned char* data, int size);

// True when the picture was decoded although a reference picture of it was never seen.
VY_API bool IsDecodeFrameMissRef(const AVFrame* frame);

// Converts the picture decoded last into buffer; its rows lie as pOutFrame says, packed in a new buffer. width and
// height: pixels; when neither is above 0 the picture's own, when one is not it follows from the other; both are
// written back. A buffer that is null or smaller than needed is replaced (av_malloc, av_free) and bufferSize updated;
// the caller releases it with av_free. Returns 0 always. Without a picture, or for an impossible format or size, a
// buffer that is large enough keeps its contents and a new one is all zeros; without memory buffer is null.
VY_API int DoFFMpegScale(FFmpegAttr& attr, unsigned char*& buffer, int& bufferSize, int& width, int& height,
                         AVPixelFormat format);

// Closes and reopens the decoder: parameter sets and references seen in the stream are forgotten, the configuration
// data stays. 0, or -1 when reopening fails.
VY_API int DoFFMpegResetContext(FFmpegAttr& attr);

// Releases all of the session, and buffer (av_free) when it is not null; sets every pointer to null. May run twice.
VY_API void DoFFMpegFree(FFmpegAttr& attr, unsigned char*& buffer);

// Releases a frame made by one of the functions below and sets the pointer to null. Null does nothing.
VY_API void DoFFmpegFrameFree(AVFrame** frame);

// ---------------------------------------------------------------------------------------------------------------------
// Frame conversion and JPEG snapshot
// ---------------------------------------------------------------------------------------------------------------------

// Makes a frame of the same size in another pixel format, rows packed. 0, or -1 with *output null; an input already in
// the target format is refused. The caller releases *output with DoFFmpegFrameFree.
VY_API int DoFFmpegConvertFrameFormat(const AVFrame* input, AVPixelFormat target, AVFrame** output);

// Decodes one coded frame to RGB24, its longer side at most maxSide pixels when maxSide is at least 1; never enlarges.
// 0, or -1 with *output null. The caller releases *output with DoFFmpegFrameFree.
VY_API int DoFFMpegGetScaledFrame(int vdoType, const unsigned char* extradata, int extradataSize,
                                  const unsigned char* data, int size, AVFrame** output, int maxSide);

// Compresses an RGB24 frame to JPEG, the privacy regions painted black when privacyRegion is not empty. quality 1 to
// 100, -1 for the default. 0, and the caller frees *jpeg with free(); or -1 with *jpeg null: a picture whose regions
// cannot be painted is not handed out. The JPEG may take a fifth of the picture's bytes, at least 24576, at most
// 4194304; a picture that needs more fails.
VY_API int DoFFMpegGetJpeg(AVFrame* frame, unsigned char** jpeg, int* jpegSize, int quality, std::string privacyRegion);

// One coded frame to JPEG: the two calls above in one, without regions and with the default quality.
VY_API int DoFFMpegGetJpeg(int vdoType, const unsigned char* extradata, int extradataSize, const unsigned char* data,
                           int size, unsigned char** jpeg, int* jpegSize, int maxSide);

// The playing time of a media file in whole seconds; 0 when it has none or cannot be read.
VY_API unsigned int DoFFMpegGetDuration(const std::string& path);

// ---------------------------------------------------------------------------------------------------------------------
// Privacy mask and overlay
// ---------------------------------------------------------------------------------------------------------------------

// Makes an RGBA mask of width x height pixels: opaque black inside the regions, transparent elsewhere. Regions are
// polygons separated by ';', 8 characters a corner: 4 digits x, 4 digits y, in 1/10000 of the picture. 0, or -1.
// Throws std::invalid_argument when a coordinate is not a number, with *output null. The caller releases *output with
// DoFFmpegFrameFree.
VY_API int GetPrivacyRegionFrame(AVFrame** output, const std::string& privacyRegion, int width, int height);

// Lays top over base, both RGBA and of one size, blended by top's alpha, and converts the result to format, which must
// not be RGBA. The inputs stay unchanged. 0, or -1 with *output null. The caller releases *output with av_frame_free.
VY_API int DoFFMpegOverlayTwoImage(AVFrame* base, AVFrame* top, AVFrame** output, AVPixelFormat format);

// ---------------------------------------------------------------------------------------------------------------------
// Crop: cuts the same rectangle out of every picture of a stream
// ---------------------------------------------------------------------------------------------------------------------

// The caller zero-initialises it, uses it from one thread at a time and ends it with DoFFMpegReleaseFilter.
struct CropAttr {
  const AVFilter* pSrcFilter;   // "buffer"
  AVFilterContext* pSrcCtx;     // "in"
  const AVFilter* pSinkFilter;  // "buffersink"
  AVFilterContext* pSinkCtx;    // "out"
  const AVFilter* pCropFilter;  // "crop"
  AVFilterContext* pCropCtx;    // the rectangle
  AVFilterGraph* pGraph;        // owns the three contexts
};

// Prepares for YUV 4:2:0 pictures of width x height pixels; a record that was prepared before is replaced. Sizes and
// offsets are rounded down to even numbers (100x51 at 11,7 gives 100x50 at 10,6), and a rectangle that reaches out of
// the picture is moved into it. One that is larger than the picture, or nothing after rounding, fails. 0, or -1; call
// DoFFMpegReleaseFilter in both cases.
VY_API int DoFFMpegInitFilter(CropAttr& attr, int width, int height, int cropWidth, int cropHeight, int x, int y);

// Cuts the rectangle out of input, which stays unchanged, and replaces what output held. The result mostly refers to
// input's pixels; the caller ends it with av_frame_unref. 0, or -1; a picture of another size or pixel format is
// refused and leaves output as it was.
VY_API int DoFFMpegCrop(CropAttr& attr, AVFrame* input, AVFrame* output);

// Releases all of the record and sets its pointers to null. May run twice.
VY_API void DoFFMpegReleaseFilter(CropAttr& attr);

// ---------------------------------------------------------------------------------------------------------------------
// Stream formats
// ---------------------------------------------------------------------------------------------------------------------

// Sets i_codec_id from the audio codec code i_codec; bG726LE chooses the little-endian G.726. Code 0 changes nothing,
// an unknown one is logged and changes nothing either.
VY_API void FillAdoFmtIDByCodec(ESFormat& fmt, bool bG726LE);

// ---------------------------------------------------------------------------------------------------------------------
// Audio decoder session
// ---------------------------------------------------------------------------------------------------------------------

// Opens a decoder for fmt.i_codec_id from rate, channels, bit rate and p_extra, which is copied; p_extra is real codec
// configuration data here. A session that was open is replaced. 0, or -1; call DoFFMpegFree in both cases.
VY_API int DoFFMpegInitAudio(FFmpegAttr& attr, const ESFormat& fmt);

// Decodes one buffer. 0 when samples came out into pRawFrame, else -1; the session stays usable after -1. Of a buffer
// with several coded frames the first one comes out, the others are decoded and dropped. The buffer is only read.
VY_API int DoFFMpegDecodeAudio(FFmpegAttr& attr, unsigned char* data, int size);

// Describes an AAC stream that is copied into a container: time base, parameters and configuration data, derived from
// rate and channel count; a count that AAC cannot name counts as 1. 0, or -1 for no AAC, or for a rate that AAC does
// not have.
VY_API int FillAACRemuxInfo(AVStream* stream, const ESFormat& fmt);
