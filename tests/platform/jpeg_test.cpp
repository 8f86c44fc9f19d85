#include "platform/jpeg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>

namespace {

using Bytes = std::vector<unsigned char>;

// A smooth picture: red grows to the right, green downwards, blue against red.
Bytes Gradient(int width, int height) {
  Bytes rgb;
  for (int i = 0; i < width * height; ++i) {
    const int red = 255 * (i % width) / width;
    for (const int v : {red, 255 * (i / width) / height, 255 - red}) rgb.push_back(static_cast<unsigned char>(v));
  }
  return rgb;
}

Bytes Encode(int width, int height, int quality = -1) {
  Bytes rgb = Gradient(width, height);
  Bytes out(rgb.size() + 4096);
  int length = 0;
  EXPECT_EQ(EncodeToJpeg(width, height, rgb.data(), out.data(), static_cast<int>(out.size()), length, quality), 0);
  out.resize(static_cast<std::size_t>(length));
  return out;
}

// A JPEG of any kind, for the decoder only: setup is called before compression starts.
Bytes MakeJpeg(
    int width, int height, J_COLOR_SPACE space, Bytes samples,
    const std::function<void(jpeg_compress_struct&)>& setup = [](jpeg_compress_struct&) {}) {
  jpeg_compress_struct info = {};
  jpeg_error_mgr errors = {};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* memory = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &memory, &size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  const std::size_t rowBytes = samples.size() / info.image_height;
  info.input_components = static_cast<int>(rowBytes / info.image_width);
  info.in_color_space = space;
  jpeg_set_defaults(&info);
  setup(info);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = samples.data() + info.next_scanline * rowBytes;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  const std::unique_ptr<unsigned char, void (*)(void*)> owned(memory, std::free);
  jpeg_destroy_compress(&info);
  return Bytes(memory, memory + size);
}

// One grey component in the given number of scans, as far as that can be done without repeating any.
Bytes MakeScans(int scans) {
  std::vector<jpeg_scan_info> script = {{1, {}, 0, 0, 0, 0}};
  for (int k = 1; k < 64; ++k) script.push_back({1, {}, k, k, 0, 1});
  for (int k = 1; k < 64; ++k) script.push_back({1, {}, k, k, 1, 0});
  return MakeJpeg(16, 16, JCS_GRAYSCALE, Bytes(256, 90), [&](jpeg_compress_struct& info) {
    info.scan_info = script.data();
    info.num_scans = scans;
  });
}

struct Decoded {
  int result = 0;
  Bytes pixels;
  int length = -9, width = -9, height = -9;
};

// Also checks the zeros behind the rows, and that a failure leaves the outputs as they were.
Decoded Decode(const Bytes& jpeg, J_COLOR_SPACE space = JCS_RGB, unsigned int scale = 1) {
  unsigned char untouched = 0;
  unsigned char* out = &untouched;
  Decoded decoded;
  // A copy of the exact size: a read past its end is found by the sanitizer.
  const std::unique_ptr<unsigned char[]> copy(new unsigned char[jpeg.size()]);
  std::copy(jpeg.begin(), jpeg.end(), copy.get());
  decoded.result = DecodeJpeg(copy.get(), static_cast<int>(jpeg.size()), &out, decoded.length, space, scale,
                              decoded.width, decoded.height);
  if (decoded.result == 0) {
    const std::unique_ptr<unsigned char, void (*)(void*)> owned(out, std::free);
    decoded.pixels.assign(out, out + decoded.length);
    EXPECT_EQ(Bytes(out + decoded.length, out + decoded.length + 64), Bytes(64, 0));
  } else {
    EXPECT_TRUE(out == &untouched && decoded.length == -9 && decoded.width == -9 && decoded.height == -9);
  }
  return decoded;
}

double MeanDistance(const Bytes& a, const Bytes& b) {
  if (a.size() != b.size()) return 255;
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) sum += std::abs(a[i] - b[i]);
  return sum / static_cast<double>(a.size());
}

// In that many scans, and it claims to be of that size.
Bytes Bomb(int scans, int width, int height) {
  Bytes jpeg = MakeScans(scans);
  const unsigned char frame[] = {0xFF, 0xC2, 0, 11, 8};
  const auto found = std::search(jpeg.begin(), jpeg.end(), std::begin(frame), std::end(frame));
  const int sides[] = {height / 256, height % 256, width / 256, width % 256};
  for (int i = 0; i < 4; ++i) found[5 + i] = static_cast<unsigned char>(sides[i]);
  return jpeg;
}

TEST(JpegEncodeTest, FitsExactlyOrFails) {
  const int sizes[][2] = {{1, 1}, {16, 16}, {321, 181}};
  for (const auto& [width, height] : sizes) {
    Bytes rgb = Gradient(width, height);
    const Bytes jpeg = Encode(width, height);
    for (int missing = 0; missing < 40; ++missing) {
      Bytes out(jpeg.size(), 0xEE);
      const int capacity = static_cast<int>(jpeg.size()) - missing;
      int length = 77;
      EXPECT_EQ(EncodeToJpeg(width, height, rgb.data(), out.data(), capacity, length, -1), missing == 0 ? 0 : -1);
      EXPECT_EQ(length, missing == 0 ? capacity : 0);
      EXPECT_EQ(Bytes(out.begin() + capacity, out.end()), Bytes(static_cast<std::size_t>(missing), 0xEE));
      EXPECT_EQ(out == jpeg, missing == 0);
    }
  }
}

TEST(JpegEncodeTest, HalvedColourQualityAndBadArguments) {
  const Bytes jpeg = Encode(48, 32);
  const unsigned char frame[] = {0xFF, 0xC0, 0, 17, 8, 0, 32, 0, 48, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1};
  EXPECT_NE(std::search(jpeg.begin(), jpeg.end(), std::begin(frame), std::end(frame)), jpeg.end());
  EXPECT_EQ(jpeg, Encode(48, 32, 85));
  EXPECT_LT(Encode(200, 100, 1).size(), Encode(200, 100, 100).size());
  Bytes rgb(48);
  Bytes out(4096);
  const auto fails = [](int width, int height, unsigned char* in, unsigned char* to, int capacity, int quality) {
    int length = 77;
    EXPECT_TRUE(EncodeToJpeg(width, height, in, to, capacity, length, quality) == -1 && length == 0) << quality;
  };
  fails(0, 4, rgb.data(), out.data(), 4096, -1);
  fails(4, 65501, rgb.data(), out.data(), 4096, -1);
  fails(4, 4, nullptr, out.data(), 4096, -1);
  fails(4, 4, rgb.data(), nullptr, 4096, -1);
  fails(4, 4, rgb.data(), out.data(), -5, -1);
  for (const int quality : {-2, 0, 101}) fails(4, 4, rgb.data(), out.data(), 4096, quality);
}

TEST(JpegDecodeTest, ColourSpacesAndScales) {
  const Bytes jpeg = Encode(322, 182);
  const Bytes rgb = Decode(jpeg).pixels;
  Bytes bgra;
  for (std::size_t i = 0; i < rgb.size(); i += 3) bgra.insert(bgra.end(), {rgb[i + 2], rgb[i + 1], rgb[i], 255});
  EXPECT_EQ(Decode(jpeg, JCS_EXT_BGRA).pixels, bgra);
  const std::tuple<unsigned int, int, int> scales[] = {{1, 322, 182}, {2, 161, 91}, {4, 81, 46}, {8, 41, 23}};
  for (const auto& [scale, width, height] : scales) {
    const Decoded decoded = Decode(jpeg, JCS_RGB, scale);
    EXPECT_EQ(std::tie(decoded.width, decoded.height), std::tie(width, height));
    EXPECT_LT(MeanDistance(decoded.pixels, Gradient(width, height)), 8.0) << scale;
  }
  for (const unsigned int scale : {0U, 3U, 16U}) EXPECT_EQ(Decode(jpeg, JCS_RGB, scale).result, -1);
  for (const auto space : {JCS_UNKNOWN, JCS_GRAYSCALE, JCS_CMYK}) EXPECT_EQ(Decode(jpeg, space).result, -1);
  const Bytes grey = MakeJpeg(40, 24, JCS_GRAYSCALE, Bytes(40 * 24, 90));
  EXPECT_LT(MeanDistance(Decode(grey).pixels, Bytes(40 * 24 * 3, 90)), 1.0);
  EXPECT_EQ(Decode(MakeJpeg(40, 24, JCS_CMYK, Bytes(40 * 24 * 4, 90))).result, -1);
}

// Every kind of JPEG, whole, without its end marker, and cut: what lacks picture rows or scans fails.
TEST(JpegDecodeTest, KindsAndTruncation) {
  const Bytes colour = Gradient(96, 80);
  static const jpeg_scan_info separate[] = {{1, {0}, 0, 63, 0, 0}, {1, {1}, 0, 63, 0, 0}, {1, {2}, 0, 63, 0, 0}};
  // progressive, arithmetic, one component a scan
  const int kinds[][3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, {0, 0, 1}};
  for (const auto& kind : kinds) {
    const Bytes jpeg = MakeJpeg(96, 80, JCS_RGB, colour, [&kind](jpeg_compress_struct& info) {
      if (kind[0] != 0) jpeg_simple_progression(&info);
      info.arith_code = kind[1];
      if (kind[2] != 0) info.scan_info = separate;
      if (kind[2] != 0) info.num_scans = 3;
    });
    const auto start = [&jpeg](std::size_t size) { return Decode(Bytes(jpeg.data(), jpeg.data() + size)); };
    for (const std::size_t cut : {0U, 1U, 2U}) {
      EXPECT_LT(MeanDistance(start(jpeg.size() - cut).pixels, colour), 4.0) << &kind - kinds;
    }
    // The last row of blocks is a fifth of this picture: without the last third of the data some of it is missing.
    for (std::size_t size = 1; size <= jpeg.size() * 2 / 3; ++size) {
      ASSERT_EQ(start(size).result, -1) << &kind - kinds << ": " << size << " of " << jpeg.size();
    }
  }
}

TEST(JpegDecodeTest, CostIsBoundedBeforeMemoryIsTaken) {
  // 16 scans of 64 megapixels are allowed, but here the rows are missing.
  const int bombs[][4] = {
      {1, 8192, 8193, -2}, {17, 8192, 8192, -2}, {16, 8192, 8192, -1}, {101, 16, 16, -2}, {100, 16, 16, 0}};
  for (const auto& c : bombs) EXPECT_EQ(Decode(Bomb(c[0], c[1], c[2])).result, c[3]) << c[0];
}

TEST(JpegDecodeTest, HostileInputFailsQuietly) {
  testing::internal::CaptureStderr();
  const Bytes jpeg = Encode(64, 64);
  const Bytes hostile[] = {{'n', 'o', 'n', 'e'}, {0xFF, 0xD8, 0xFF, 0xD9}, {0xFF}, Bomb(1, 0, 16), {}};
  for (const Bytes& bytes : hostile) EXPECT_EQ(Decode(bytes).result, -1);
  unsigned char* out = nullptr;
  int length = 0, width = 0, height = 0;
  EXPECT_EQ(DecodeJpeg(nullptr, 9, &out, length, JCS_RGB, 1, width, height), -1);
  EXPECT_EQ(DecodeJpeg(jpeg.data(), -1, &out, length, JCS_RGB, 1, width, height), -1);
  EXPECT_EQ(DecodeJpeg(jpeg.data(), 9, nullptr, length, JCS_RGB, 1, width, height), -1);
  unsigned int state = 1;  // any result will do as long as the sanitizers are content
  for (int round = 0; round < 3000; ++round) {
    Bytes damaged = round % 2 == 0 ? jpeg : MakeScans(6);
    for (int i = 0; i < 4; ++i) {
      state = state * 1664525U + 1013904223U;
      damaged[(state >> 8) % damaged.size()] = static_cast<unsigned char>(state >> 24);
    }
    Decode(damaged, JCS_RGB, 8);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
