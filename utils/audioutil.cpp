#include "utils/audioutil.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "platform/time.h"
#include "utils/internal/inputfile.h"
#include "utils/internal/log.h"
#include "utils/internal/resampler.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

using mediautil::FfPtr;
using mediautil::FilePtr;
using mediautil::SoundShape;

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr char kStockClips[] = "/var/packages/Korvane/target/DefData/AudioPattern/";

constexpr int kHeaderSize = 44;
constexpr int kStockHeaderSize = 58;
constexpr int kRiffSizeAt = 4;
constexpr int kDataSizeAt = 40;
constexpr unsigned int kMulawTag = 7;

constexpr int kChannels = 2;
constexpr int kRate = 8000;
constexpr int kMaxSamples = 192000;          // of one converted frame, both channels together
constexpr std::size_t kStreamBuffer = 4096;  // bytes; decides what the header of a conversion counts
constexpr int kDefaultChannels = 2;          // of a decoder that does not tell
constexpr int kDefaultRate = 44100;

// --- µ-law -----------------------------------------------------------------------------------------------------------

constexpr int kBias = 33;  // in 14 bits

// Of a 14-bit sample.
constexpr unsigned char EncodeUlaw(int sample) {
  constexpr int kClip = 8159;
  const int mask = sample < 0 ? 0x7F : 0xFF;
  const int magnitude = std::min(sample < 0 ? -sample : sample, kClip) + kBias;
  int segment = 0;
  for (int end = 0x3F; segment < 8 && end < magnitude; end = end << 1 | 1) {
    ++segment;
  }
  const int code = segment < 8 ? segment << 4 | (magnitude >> (segment + 1) & 0x0F) : 0x7F;
  return static_cast<unsigned char>(code ^ mask);
}

using UlawTable = std::array<unsigned char, 1 << 14>;

// By the upper 14 bits of a sample.
constexpr UlawTable MakeUlawTable() {
  UlawTable table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    const int sample = static_cast<int>(i);
    table[i] = EncodeUlaw(sample < 1 << 13 ? sample : sample - (1 << 14));
  }
  return table;
}

constexpr UlawTable kUlawTable = MakeUlawTable();

inline unsigned char ToUlaw(short sample) {
  return kUlawTable[static_cast<unsigned short>(sample) >> 2];
}

// --- files -----------------------------------------------------------------------------------------------------------

void PutLittleEndian(unsigned char* at, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) {
    at[i] = static_cast<unsigned char>(value >> 8 * i & 0xFF);
  }
}

// Unsigned: a header can hold the sum for every size.
std::uint32_t RiffSize(int dataSize) {
  return static_cast<std::uint32_t>(dataSize) + kHeaderSize - 8;
}

// The whole file, at most INT_MAX bytes. 0, or -1.
int ReadContentFromFileToBuf(const std::string& path, mediautil::MallocPtr<unsigned char>& buffer, int& length) {
  const FilePtr file(mediautil::IsPlainFileOrNone(path) ? std::fopen(path.c_str(), "rbe") : nullptr);
  VY_FAIL_IF(file == nullptr, -1, LOG_LEVEL_ERR, "Failed to open file [%s]!\n", path.c_str());
  const off_t end = fseeko(file.get(), 0, SEEK_END) == 0 ? ftello(file.get()) : -1;
  VY_FAIL_IF(end < 0, -1, LOG_LEVEL_ERR, "Failed to call ftell.\n");
  VY_FAIL_IF(end > INT_MAX, -1, LOG_LEVEL_ERR, "File is too large [%s]!\n", path.c_str());
  std::rewind(file.get());
  length = static_cast<int>(end);
  const auto size = static_cast<std::size_t>(end);
  buffer.reset(static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(size, 1))));
  VY_FAIL_IF(buffer == nullptr, -1, LOG_LEVEL_ERR, "Image buffer malloc failed!\n");
  const std::size_t count = std::fread(buffer.get(), 1, size, file.get());
  VY_FAIL_IF(count != size, -1, LOG_LEVEL_ERR, "Failed to read buffer to file [%s]! (readcnt=%zd, len=%zd)\n",
             path.c_str(), static_cast<ssize_t>(count), static_cast<ssize_t>(size));
  return 0;
}

// Writes behind what the stream has taken so far. False when a part of all that did not arrive, or without a stream.
bool WriteAndClose(FilePtr file, const unsigned char* data, std::size_t size) {
  if (file == nullptr) {
    return false;
  }
  const bool isTaken = std::fwrite(data, 1, size, file.get()) == size && std::ferror(file.get()) == 0;
  return std::fclose(file.release()) == 0 && isTaken;
}

// --- conversion ------------------------------------------------------------------------------------------------------

struct Source {
  mediautil::InputPtr input;
  FfPtr<AVCodecContext> ctx;
  int streamIndex = -1;

  int Open(const std::string& path) {
    AVFormatContext* fmt = nullptr;
    AVCodecContext* codec = nullptr;
    const int ret = GetAVContext(path, fmt, codec, streamIndex);
    input.reset(fmt);
    ctx.reset(codec);
    return ret;
  }
};

// What sound is taken for: only the count of its channels matters.
SoundShape SourceShape(SoundShape shape) {
  av_channel_layout_default(&shape.layout, shape.layout.nb_channels);
  shape.rate = shape.rate < 1 ? kDefaultRate : shape.rate;
  return shape;
}

SoundShape ShapeOfDecoder(const AVCodecContext& ctx) {
  SoundShape shape = mediautil::ShapeOf(ctx);
  shape.layout.nb_channels = shape.layout.nb_channels < 1 ? kDefaultChannels : shape.layout.nb_channels;
  return SourceShape(shape);
}

// Decoded frames to µ-law at the end of a file.
class UlawWriter {
 public:
  explicit UlawWriter(FILE* file)
      : m_file(file),
        m_samples(new (std::nothrow) short[kMaxSamples]),
        m_codes(new (std::nothrow) unsigned char[kMaxSamples]) {}

  bool HasMemory() const { return m_samples != nullptr && m_codes != nullptr; }

  bool SetUp(const SoundShape& in) {
    AVChannelLayout stereo = {};
    av_channel_layout_default(&stereo, kChannels);
    return m_resampler.SetUp(in, {stereo, AV_SAMPLE_FMT_S16, kRate});
  }

  // A frame that cannot be converted, or that would be too long then, is left out. False when the file takes no more.
  bool Write(const AVFrame& frame) {
    const SoundShape in = SourceShape(mediautil::ShapeOf(frame));
    const std::int64_t most = m_resampler.Follow(in) ? m_resampler.MaxOutput(frame.nb_samples) : 0;
    if (most < 1 || most * kChannels > kMaxSamples) {
      return true;
    }
    unsigned char* const planes[] = {reinterpret_cast<unsigned char*>(m_samples.get())};
    const int converted = m_resampler.Convert(planes, static_cast<int>(most), frame);
    const auto count = static_cast<std::size_t>(std::max(converted, 0) * kChannels);
    std::transform(m_samples.get(), m_samples.get() + count, m_codes.get(),
                   [](short sample) { return ToUlaw(sample); });
    return std::fwrite(m_codes.get(), 1, count, m_file) == count;
  }

 private:
  FILE* m_file;
  mediautil::Resampler m_resampler{1};  // the length of what is converted is bounded here
  std::unique_ptr<short[]> m_samples;
  std::unique_ptr<unsigned char[]> m_codes;
};

}  // namespace

unsigned char Linear2Ulaw(short sample) {
  return ToUlaw(sample);
}

short Ulaw2Linear(unsigned char code) {
  constexpr int kBias16 = kBias << 2;
  const int bits = code ^ 0xFF;
  const int magnitude = (((bits & 0x0F) << 3) + kBias16) << ((bits & 0x70) >> 4);
  return static_cast<short>((bits & 0x80) != 0 ? kBias16 - magnitude : magnitude - kBias16);
}

int GetAudioDuration(const std::string& path) {
  AVFormatContext* fmt = nullptr;
  const bool isOpen = mediautil::OpenInput(path, fmt) >= 0;
  const mediautil::InputPtr input(fmt);
  VY_FAIL_IF(!isOpen, -1, LOG_LEVEL_ERR, "Could not open source file %s.\n", path.c_str());
  VY_FAIL_IF(avformat_find_stream_info(fmt, nullptr) < 0, -1, LOG_LEVEL_ERR, "Failed to get stream info.\n");
  const int index = mediautil::FindAudioStream(fmt);
  VY_FAIL_IF(index < 0, -1, LOG_LEVEL_ERR, "Could not find any audio stream in the file.\n");
  const long long time = mediautil::PlayingTime(*fmt->streams[index]);
  return time < 0 ? -1 : static_cast<int>(std::min<long long>(USecToSec(time), INT_MAX));
}

void WriteWavHeader(FILE* file, int dataSize) {
  VY_FAIL_IF(file == nullptr, , LOG_LEVEL_ERR, "Failed to append wav header cause null file pointer.\n");
  std::array<unsigned char, kHeaderSize> header{};
  std::memcpy(&header[0], "RIFF", 4);
  PutLittleEndian(&header[kRiffSizeAt], RiffSize(dataSize), 4);
  std::memcpy(&header[8], "WAVEfmt ", 8);
  PutLittleEndian(&header[16], 16, 4);  // size of the format chunk
  PutLittleEndian(&header[20], kMulawTag, 2);
  PutLittleEndian(&header[22], kChannels, 2);
  PutLittleEndian(&header[24], kRate, 4);
  PutLittleEndian(&header[28], kRate * kChannels, 4);  // bytes per second
  PutLittleEndian(&header[32], kChannels, 2);          // bytes per sample of all channels
  PutLittleEndian(&header[34], 8, 2);                  // bits per sample
  std::memcpy(&header[36], "data", 4);
  PutLittleEndian(&header[kDataSizeAt], static_cast<std::uint32_t>(dataSize), 4);
  std::fwrite(header.data(), 1, header.size(), file);
}

void UpdateWavMetaSize(FILE* file, int dataSize) {
  VY_FAIL_IF(file == nullptr, , LOG_LEVEL_ERR, "Failed to update wav header cause null file pointer.\n");
  const std::pair<int, std::uint32_t> sizes[] = {{kRiffSizeAt, RiffSize(dataSize)},
                                                 {kDataSizeAt, static_cast<std::uint32_t>(dataSize)}};
  for (const auto& [position, size] : sizes) {
    if (std::fseek(file, position, SEEK_SET) != 0) {
      VY_LOG(LOG_LEVEL_ERR, "Failed to seek file\n");
    }
    std::array<unsigned char, 4> bytes{};
    PutLittleEndian(bytes.data(), size, 4);
    std::fwrite(bytes.data(), 1, bytes.size(), file);
  }
}

int AppendWavHeader(const std::string& path) {
  mediautil::MallocPtr<unsigned char> content;
  int length = 0;
  VY_FAIL_IF(ReadContentFromFileToBuf(path, content, length) != 0, -1, LOG_LEVEL_ERR, "Failed to read file[%s]!\n",
             path.c_str());
  FilePtr file(std::fopen(path.c_str(), "wbe"));
  VY_FAIL_IF(file == nullptr, -1, LOG_LEVEL_ERR, "Open file failed. [%s]\n", path.c_str());
  WriteWavHeader(file.get(), length);
  const auto size = static_cast<std::size_t>(length);
  if (WriteAndClose(std::move(file), content.get(), size)) {
    return 0;
  }
  VY_LOG(LOG_LEVEL_ERR, "Failed to write file[%s]!\n", path.c_str());
  WriteAndClose(FilePtr(std::fopen(path.c_str(), "wbe")), content.get(), size);
  return -1;
}

int GetWavAudioFileDataStartPos(const std::string& path) {
  return path.find(kStockClips) == std::string::npos ? kHeaderSize : kStockHeaderSize;
}

int GetAVFormat(const std::string& path, AVFormatContext*& fmt) {
  fmt = avformat_alloc_context();
  VY_FAIL_IF(fmt == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc avcontext\n");
  VY_FAIL_IF(mediautil::OpenInput(path, fmt) < 0, -1, LOG_LEVEL_ERR, "Could not open source file %s.\n", path.c_str());
  VY_FAIL_IF(avformat_find_stream_info(fmt, nullptr) < 0, -1, LOG_LEVEL_ERR, "Failed to get stream info.\n");
  return 0;
}

int GetAVCodec(AVFormatContext*& fmt, AVCodecContext*& ctx, int& streamIndex) {
  ctx = nullptr;
  VY_FAIL_IF(fmt == nullptr, -1, LOG_LEVEL_ERR, "pFormat is null.\n");
  const int index = mediautil::FindAudioStream(fmt);
  VY_FAIL_IF(index < 0, -1, LOG_LEVEL_ERR, "Could not find any audio stream in the file.\n");
  ctx = mediautil::NewDecoderContext(*fmt->streams[index]).release();
  VY_FAIL_IF(ctx == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc codec context.\n");
  streamIndex = index;
  return 0;
}

int GetAVContext(const std::string& path, AVFormatContext*& fmt, AVCodecContext*& ctx, int& streamIndex) {
  ctx = nullptr;
  VY_FAIL_IF(GetAVFormat(path, fmt) != 0, -1, LOG_LEVEL_ERR, "Get AVFormatContext failed.\n");
  VY_FAIL_IF(GetAVCodec(fmt, ctx, streamIndex) != 0, -1, LOG_LEVEL_ERR, "Get AVCodecContext failed.\n");
  return 0;
}

bool IsFileNeedToTranscode(const std::string& path) {
  Source source;
  VY_FAIL_IF(source.Open(path) != 0, false, LOG_LEVEL_ERR, "Get AV Format/Codec Context failed.\n");
  const std::int64_t samples = std::int64_t{source.ctx->sample_rate} * source.ctx->ch_layout.nb_channels;
  return samples != std::int64_t{kRate} * kChannels || source.ctx->sample_fmt != AV_SAMPLE_FMT_S16;
}

int TranscodeToG711(const std::string& srcPath, const std::string& dstPath) {
  // It would read what it writes.
  const mediautil::FileId srcFile = mediautil::FileOf(srcPath);
  VY_FAIL_IF(srcFile.second != 0 && srcFile == mediautil::FileOf(dstPath), -1, LOG_LEVEL_ERR,
             "Source and destination are the same file [%s]\n", dstPath.c_str());
  std::array<char, kStreamBuffer> streamBuffer;  // the C library ignores a size without one
  FilePtr file(mediautil::IsPlainFileOrNone(dstPath) ? std::fopen(dstPath.c_str(), "a+e") : nullptr);
  VY_FAIL_IF(file == nullptr, -1, LOG_LEVEL_ERR, "Failed to open file [%s]\n", dstPath.c_str());
  std::setvbuf(file.get(), streamBuffer.data(), _IOFBF, streamBuffer.size());
  UlawWriter writer(file.get());
  VY_FAIL_IF(!writer.HasMemory(), -1, LOG_LEVEL_ERR, "Allocate memory failed.\n");

  Source source;
  VY_FAIL_IF(source.Open(srcPath) != 0, -1, LOG_LEVEL_ERR, "Get AV Format/Codec Context failed.\n");
  const AVCodec* decoder = avcodec_find_decoder(source.ctx->codec_id);
  VY_FAIL_IF(decoder == nullptr, -1, LOG_LEVEL_ERR, "Failed to find decoder with codec %d.\n",
             static_cast<int>(source.ctx->codec_id));
  VY_FAIL_IF(LockAVCodecOpen(source.ctx.get(), decoder, nullptr) < 0, -1, LOG_LEVEL_ERR, "Failed to open codec.\n");
  const FfPtr<AVFrame> frame(av_frame_alloc());
  const FfPtr<AVPacket> packet(av_packet_alloc());
  VY_FAIL_IF(frame == nullptr || packet == nullptr, -1, LOG_LEVEL_ERR, "Failed to alloc frame.\n");
  const SoundShape in = ShapeOfDecoder(*source.ctx);
  VY_FAIL_IF(!writer.SetUp(in), -1, LOG_LEVEL_ERR,
             "Failed to get resample context. Src channel[%d], rate[%d], fmt[%d].\n", in.layout.nb_channels, in.rate,
             static_cast<int>(in.format));

  bool isWritten = true;
  const auto write = [&writer, &isWritten](const AVFrame& decoded) { return isWritten = writer.Write(decoded); };
  while (isWritten && av_read_frame(source.input.get(), packet.get()) >= 0) {
    if (packet->stream_index == source.streamIndex) {
      mediautil::DecodePacket(source.ctx.get(), *packet, frame.get(), write);
    }
    av_packet_unref(packet.get());
  }
  VY_FAIL_IF(!isWritten, -1, LOG_LEVEL_ERR, "Failed to write file[%s]!\n", dstPath.c_str());
  // With the last samples still in the stream: they go behind what the header counts.
  VY_FAIL_IF(AppendWavHeader(dstPath) != 0, -1, LOG_LEVEL_ERR, "Failed to append wav header.\n");
  VY_FAIL_IF(std::fclose(file.release()) != 0, -1, LOG_LEVEL_ERR, "Failed to write file[%s]!\n", dstPath.c_str());
  return 0;
}

ESFormat GetAdoFmt(AVCodecContext*& ctx) {
  ESFormat fmt;
  fmt.i_codec_id = AV_CODEC_ID_MP3;
  if (ctx != nullptr) {
    fmt.audio.i_channels = static_cast<std::uint8_t>(std::clamp(ctx->ch_layout.nb_channels, 0, UINT8_MAX));
    fmt.audio.i_rate = static_cast<std::uint32_t>(std::max(ctx->sample_rate, 0));
    fmt.i_bitrate = static_cast<std::int32_t>(std::clamp<std::int64_t>(ctx->bit_rate, 0, INT_MAX));
  }
  return fmt;
}
