#include "platform/jpeg.h"

#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <jerror.h>

namespace {

constexpr int kDefaultQuality = 85;
constexpr int kMaxSide = JPEG_MAX_DIMENSION;
constexpr std::uint64_t kMaxPixels = std::uint64_t{1} << 26;
constexpr std::size_t kSpareBytes = 64;

enum Result { kDone = 0, kFailed = -1, kTooCostly = -2 };

// Every scan of a progressive JPEG costs a pass over the whole picture however short it is, so a small file could keep
// the decoder busy for minutes. Encoders write about 10 scans.
constexpr int kMaxScans = 100;
constexpr std::uint64_t kMaxScannedPixels = std::uint64_t{1} << 30;

// libjpeg's way out of an error: back to the setjmp of the running call. That function and those it calls hold no
// object with a destructor.
struct ErrorTrap {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
};

[[noreturn]] void Abandon(j_common_ptr info) {
  std::longjmp(static_cast<ErrorTrap*>(info->client_data)->jump, 1);
}

void ArmTrap(ErrorTrap& trap, j_common_ptr info, void (*onMessage)(j_common_ptr, int)) {
  info->err = jpeg_std_error(&trap.manager);
  info->client_data = &trap;
  trap.manager.error_exit = Abandon;
  trap.manager.emit_message = onMessage;  // the default writes to stderr
}

// ---------------------------------------------------------------------------------------------------------------------
// Encoding
// ---------------------------------------------------------------------------------------------------------------------

struct Encoder : ErrorTrap {
  jpeg_compress_struct info;
  jpeg_destination_mgr destination;
  bool full;
  // libjpeg asks for the next buffer as soon as one is full, so also behind a JPEG that fits exactly. It gets this one;
  // the first byte in it makes it ask again.
  JOCTET overflow[1];
};

void StartOutput(j_compress_ptr) {}

boolean SwitchToOverflow(j_compress_ptr info) {
  auto& encoder = *static_cast<Encoder*>(static_cast<ErrorTrap*>(info->client_data));
  if (encoder.full) ERREXIT(info, JERR_FILE_WRITE);
  encoder.full = true;
  encoder.destination.next_output_byte = encoder.overflow;
  encoder.destination.free_in_buffer = sizeof(encoder.overflow);
  return TRUE;
}

void EndOutput(j_compress_ptr) {}

void IgnoreMessage(j_common_ptr, int) {}

Result Compress(Encoder& encoder, int width, int height, unsigned char* rgb, int quality) {
  jpeg_compress_struct& info = encoder.info;
  if (setjmp(encoder.jump) != 0) return kFailed;
  jpeg_create_compress(&info);
  info.dest = &encoder.destination;
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = rgb + std::size_t{info.next_scanline} * info.image_width * 3;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  return kDone;
}

// ---------------------------------------------------------------------------------------------------------------------
// Decoding
// ---------------------------------------------------------------------------------------------------------------------

struct Decoder : ErrorTrap {
  jpeg_decompress_struct info;
  bool ranOut;  // libjpeg had to make up an end marker
  unsigned char* pixels;
  std::size_t length;
};

// libjpeg fills up what is missing with grey and only warns.
void OnDecoderMessage(j_common_ptr common, int level) {
  if (level >= 0) return;
  auto& decoder = *static_cast<Decoder*>(static_cast<ErrorTrap*>(common->client_data));
  const int code = common->err->msg_code;
  if (code == JWRN_HIT_MARKER) Abandon(common);
  if (code != JWRN_JPEG_EOF) return;
  decoder.ranOut = true;
  // Arithmetic decoding reads zeros past the end without a word; Huffman decoding gives JWRN_HIT_MARKER.
  const jpeg_decompress_struct& info = decoder.info;
  if (info.arith_code && info.input_iMCU_row + 1 < info.total_iMCU_rows) Abandon(common);
}

// Counts the scans as libjpeg would meet them: to the end marker, skipping over the contents of other segments.
int CountScans(const unsigned char* jpeg, std::size_t size) {
  int scans = 0;
  std::size_t pos = 0;
  while (pos + 1 < size) {
    const void* found = std::memchr(jpeg + pos, 0xFF, size - 1 - pos);
    if (found == nullptr) break;
    pos = static_cast<std::size_t>(static_cast<const unsigned char*>(found) - jpeg);
    const unsigned char marker = jpeg[pos + 1];
    if (marker == 0xFF) {  // fill byte
      ++pos;
      continue;
    }
    pos += 2;
    if (marker == 0xD9) break;
    const bool hasLength = marker >= 0xC0 && (marker < 0xD0 || marker > 0xD8);
    if (!hasLength) continue;
    if (marker == 0xDA) ++scans;
    if (pos + 1 < size) pos += std::size_t{jpeg[pos]} * 256 + jpeg[pos + 1];
  }
  return scans;
}

bool IsTooCostly(const jpeg_decompress_struct& info, int scans) {
  const std::uint64_t pixels = std::uint64_t{info.image_width} * info.image_height;
  return pixels > kMaxPixels || scans > kMaxScans || pixels * static_cast<std::uint64_t>(scans) > kMaxScannedPixels;
}

// Whether every component came and, when the data ran out in a progressive JPEG, came with all its bits.
bool IsWhole(const Decoder& decoder) {
  const jpeg_decompress_struct& info = decoder.info;
  for (int component = 0; component < info.num_components; ++component) {
    if (info.comp_info[component].quant_table == nullptr) return false;  // set by its first scan
    if (!decoder.ranOut || info.coef_bits == nullptr) continue;
    for (const int missingBits : info.coef_bits[component]) {
      if (missingBits != 0) return false;
    }
  }
  return true;
}

Result Decompress(Decoder& decoder, const unsigned char* jpeg, std::size_t size, J_COLOR_SPACE space,
                  unsigned int scale) {
  jpeg_decompress_struct& info = decoder.info;
  if (setjmp(decoder.jump) != 0) return kFailed;
  jpeg_create_decompress(&info);
  jpeg_mem_src(&info, jpeg, static_cast<unsigned long>(size));
  jpeg_read_header(&info, TRUE);
  if (IsTooCostly(info, CountScans(jpeg, size))) return kTooCostly;
  info.out_color_space = space;
  info.scale_num = 1;
  info.scale_denom = scale;
  jpeg_start_decompress(&info);

  const std::size_t rowBytes = std::size_t{info.output_width} * static_cast<std::size_t>(info.output_components);
  decoder.length = rowBytes * info.output_height;
  decoder.pixels = static_cast<unsigned char*>(std::malloc(decoder.length + kSpareBytes));
  if (decoder.pixels == nullptr) return kFailed;
  std::memset(decoder.pixels + decoder.length, 0, kSpareBytes);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = decoder.pixels + info.output_scanline * rowBytes;
    if (jpeg_read_scanlines(&info, &row, 1) != 1) return kFailed;
  }
  return IsWhole(decoder) ? kDone : kFailed;
}

}  // namespace

int EncodeToJpeg(int width, int height, unsigned char* rgb, unsigned char* out, int outCapacity, int& outLength,
                 int quality) {
  outLength = 0;
  if (quality == -1) quality = kDefaultQuality;
  if (rgb == nullptr || out == nullptr || outCapacity < 1 || quality < 1 || quality > 100) return kFailed;
  if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide) return kFailed;

  Encoder encoder = {};
  ArmTrap(encoder, reinterpret_cast<j_common_ptr>(&encoder.info), IgnoreMessage);
  jpeg_destination_mgr& destination = encoder.destination;
  destination.init_destination = StartOutput;
  destination.empty_output_buffer = SwitchToOverflow;
  destination.term_destination = EndOutput;
  destination.next_output_byte = out;
  destination.free_in_buffer = static_cast<std::size_t>(outCapacity);

  const Result result = Compress(encoder, width, height, rgb, quality);
  jpeg_destroy_compress(&encoder.info);
  if (result != kDone) return kFailed;
  outLength = encoder.full ? outCapacity : outCapacity - static_cast<int>(destination.free_in_buffer);
  return kDone;
}

int DecodeJpeg(const unsigned char* jpeg, int size, unsigned char** out, int& outLength, J_COLOR_SPACE space,
               unsigned int scale, int& width, int& height) {
  if (jpeg == nullptr || size < 1 || out == nullptr) return kFailed;
  if (space != JCS_RGB && space != JCS_EXT_BGRA) return kFailed;
  if (scale != 1 && scale != 2 && scale != 4 && scale != 8) return kFailed;

  Decoder decoder = {};
  ArmTrap(decoder, reinterpret_cast<j_common_ptr>(&decoder.info), OnDecoderMessage);
  const Result result = Decompress(decoder, jpeg, static_cast<std::size_t>(size), space, scale);
  jpeg_destroy_decompress(&decoder.info);
  if (result != kDone) {
    std::free(decoder.pixels);
    return result;
  }
  *out = decoder.pixels;
  outLength = static_cast<int>(decoder.length);
  width = static_cast<int>(decoder.info.output_width);
  height = static_cast<int>(decoder.info.output_height);
  return kDone;
}
