#include "utils/jpegextractor.h"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "utils/internal/ffmpegptr.h"
#include "utils/internal/inputfile.h"
#include "utils/internal/log.h"
#include "utils/mpeg4util.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/common.h>
}

using mediautil::FfPtr;

namespace {

constexpr int kMaxForeignPackets = 1000;  // that may stand before a frame
constexpr int kMsPerSecond = 1000;

// A shared lock on a file for as long as the object lives; none on what cannot be opened or is no regular file.
class SharedFileLock {
 public:
  explicit SharedFileLock(const std::string& path)
      : m_file(mediautil::IsPlainFileOrNone(path) ? std::fopen(path.c_str(), "rbe") : nullptr) {
    while (m_file != nullptr && flock(fileno(m_file.get()), LOCK_SH) != 0 && errno == EINTR) {
    }
  }
  ~SharedFileLock() {
    if (m_file != nullptr) {
      flock(fileno(m_file.get()), LOCK_UN);  // a child process may hold the same open file
    }
  }
  SharedFileLock(const SharedFileLock&) = delete;
  SharedFileLock& operator=(const SharedFileLock&) = delete;

 private:
  mediautil::FilePtr m_file;
};

// The first Motion JPEG stream, or -1.
int FindJpegStream(const AVFormatContext& input) {
  for (unsigned int i = 0; i < std::min<unsigned int>(input.nb_streams, INT16_MAX); ++i) {
    if (input.streams[i]->codecpar->codec_id == AV_CODEC_ID_MJPEG) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

std::uint16_t ClampSide(int pixels) {
  return static_cast<std::uint16_t>(std::clamp(pixels, 0, UINT16_MAX));
}

// The integer part of a value that int can hold, else the nearest int.
int Truncated(double value) {
  return static_cast<int>(std::clamp<double>(value, INT_MIN, INT_MAX));
}

}  // namespace

JpegExtractor::~JpegExtractor() {
  Finish();
}

int JpegExtractor::Init(const std::string& path) {
  Finish();
  if (ProbeFrames(path) != 0) {
    VyPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, mediautil::kSourcePath.data(), __LINE__, __func__,
             "Failed to init Jpeg data.\n");
    return 1;
  }
  m_isOpened = true;
  return 0;
}

int JpegExtractor::Finish() {
  const bool wasOpened = m_isOpened;
  avformat_close_input(&m_pInputCtx);
  m_isOpened = false;
  m_streamIdx = -1;
  m_nextFrame = 0;
  m_start = 0;
  m_step = 1;
  m_info = {};
  return wasOpened ? 0 : 1;
}

// 0, or an error of FFmpeg.
int JpegExtractor::ProbeFrames(const std::string& path) {
  const SharedFileLock lock(path);
  if (const int ret = mediautil::OpenInput(path, m_pInputCtx); ret < 0) {
    return ret;
  }
  const int probed = avformat_find_stream_info(m_pInputCtx, nullptr);
  const int streamIndex = probed < 0 ? -1 : FindJpegStream(*m_pInputCtx);
  if (streamIndex < 0) {
    avformat_close_input(&m_pInputCtx);
    return std::min(probed, 0);
  }
  Describe(streamIndex);
  return 0;
}

void JpegExtractor::Describe(int streamIndex) {
  for (unsigned int i = 0; i < m_pInputCtx->nb_streams; ++i) {
    // AVI answers a seek with the packets of all streams from there on.
    m_pInputCtx->streams[i]->discard = static_cast<int>(i) == streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
  }
  m_streamIdx = static_cast<std::int16_t>(streamIndex);
  AVStream& stream = *m_pInputCtx->streams[streamIndex];
  m_info.width = ClampSide(stream.codecpar->width);
  m_info.height = ClampSide(stream.codecpar->height);
  m_info.frameCount = static_cast<std::uint32_t>(std::max(avformat_index_get_entries_count(&stream), 0));
  const AVIndexEntry* first = avformat_index_get_entry(&stream, 0);  // AVI tells another start than it seeks by
  m_start = first == nullptr || first->timestamp == AV_NOPTS_VALUE ? 0 : first->timestamp;
  const AVRational rate = stream.avg_frame_rate;
  const AVRational base = stream.time_base;
  if (rate.den > 0 && rate.num > 0 && base.num > 0) {
    const std::int64_t step = (std::int64_t{rate.den} * base.den) / (std::int64_t{base.num} * rate.num);
    m_step = static_cast<std::int32_t>(std::clamp<std::int64_t>(step, 1, INT32_MAX));
    m_info.frameRate = static_cast<float>(av_q2d(rate));
  } else if (base.num > 0) {
    m_info.frameRate = static_cast<float>(av_q2d(av_inv_q(base)));
  }
}

int JpegExtractor::GetFrameInfo(__tag_JPEG_FRAME_INFO& info) {
  if (!m_isOpened) {
    return 1;
  }
  info = m_info;
  return 0;
}

int JpegExtractor::ReadFrame(unsigned int index, unsigned char* buffer, unsigned int& size) {
  if (index >= m_info.frameCount || buffer == nullptr || size == 0) {
    return 1;
  }
  const std::int64_t time = av_sat_add64(m_start, std::int64_t{index} * m_step);
  if (av_seek_frame(m_pInputCtx, m_streamIdx, time, AVSEEK_FLAG_ANY) < 0) {
    return 1;
  }
  const FfPtr<AVPacket> packet(av_packet_alloc());
  if (packet == nullptr) {
    return 1;
  }
  int ret = av_read_frame(m_pInputCtx, packet.get());
  for (int i = 0; ret >= 0 && packet->stream_index != m_streamIdx; ++i) {
    av_packet_unref(packet.get());
    ret = i < kMaxForeignPackets ? av_read_frame(m_pInputCtx, packet.get()) : AVERROR_INVALIDDATA;
  }
  if (ret < 0) {
    return 1;
  }
  const auto length = static_cast<unsigned int>(packet->size);
  if (length > size) {
    size = 0;
    return 1;
  }
  std::copy_n(packet->data, length, buffer);
  size = length;
  m_nextFrame = index + 1;
  return 0;
}

int JpegExtractor::GetFrameIdx(int timeMs) {
  return timeMs < 0 ? -1 : Truncated(timeMs * static_cast<double>(m_info.frameRate) / kMsPerSecond);
}

int JpegExtractor::GetTimeMS(int index) {
  if (index < 0 || m_info.frameRate <= 0) {
    return -1;
  }
  const auto product = static_cast<std::int32_t>(static_cast<std::uint32_t>(index) * kMsPerSecond);
  return Truncated(product / static_cast<double>(m_info.frameRate));
}
