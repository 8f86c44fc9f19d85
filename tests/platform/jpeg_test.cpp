#include "platform/jpeg.h"

#include <gtest/gtest.h>
#include <jerror.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// A smooth picture: red grows to the right, green downwards, blue against red.
Bytes Gradient(int width, int height) {
  Bytes rgb;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const auto red = static_cast<unsigned char>(255 * x / width);
      rgb.push_back(red);
      rgb.push_back(static_cast<unsigned char>(255 * y / height));
      rgb.push_back(static_cast<unsigned char>(255 - red));
    }
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
Bytes MakeJpeg(int width, int height, int components, J_COLOR_SPACE space, const Bytes& samples,
               const std::function<void(jpeg_compress_struct&)>& setup) {
  jpeg_compress_struct info = {};
  jpeg_error_mgr errors = {};
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* memory = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &memory, &size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = components;
  info.in_color_space = space;
  jpeg_set_defaults(&info);
  setup(info);
  jpeg_start_compress(&info, TRUE);
  const std::size_t rowBytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(components);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(samples.data() + info.next_scanline * rowBytes);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  Bytes jpeg(memory, memory + size);
  std::free(memory);
  jpeg_destroy_compress(&info);
  return jpeg;
}

// One grey component in the given number of scans, as far as that can be done without repeating any.
Bytes MakeScans(int width, int height, int scans) {
  std::vector<jpeg_scan_info> script = {{1, {0, 0, 0, 0}, 0, 0, 0, 0}};
  for (int k = 1; k < 64; ++k) script.push_back({1, {0, 0, 0, 0}, k, k, 0, 1});
  for (int k = 1; k < 64; ++k) script.push_back({1, {0, 0, 0, 0}, k, k, 1, 0});
  script.resize(static_cast<std::size_t>(scans));
  const auto setup = [&](jpeg_compress_struct& info) {
    info.scan_info = script.data();
    info.num_scans = scans;
  };
  return MakeJpeg(width, height, 1, JCS_GRAYSCALE, Bytes(static_cast<std::size_t>(width * height), 90), setup);
}

struct Decoded {
  int result = 0;
  Bytes pixels;  // with the 64 spare bytes
  int length = 0, width = 0, height = 0;
};

// Also checks that a failure leaves the outputs as they were.
Decoded Decode(const Bytes& jpeg, J_COLOR_SPACE space = JCS_RGB, unsigned int scale = 1) {
  unsigned char untouched = 0;
  unsigned char* out = &untouched;
  Decoded decoded;
  decoded.length = decoded.width = decoded.height = -9;
  // A copy of the exact size: a read past its end is found by the sanitizer.
  const std::unique_ptr<unsigned char[]> copy(new unsigned char[jpeg.size()]);
  std::copy(jpeg.begin(), jpeg.end(), copy.get());
  decoded.result = DecodeJpeg(copy.get(), static_cast<int>(jpeg.size()), &out, decoded.length, space, scale,
                              decoded.width, decoded.height);
  if (decoded.result == 0) {
    decoded.pixels.assign(out, out + decoded.length + 64);
    std::free(out);
  } else {
    EXPECT_EQ(out, &untouched);
    EXPECT_TRUE(decoded.length == -9 && decoded.width == -9 && decoded.height == -9);
  }
  return decoded;
}

double MeanDistance(const Bytes& a, const Bytes& b, std::size_t count) {
  double sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum += std::abs(a[i] - b[i]);
  return sum / static_cast<double>(count);
}

Bytes Patched(Bytes jpeg, int width, int height) {
  for (std::size_t i = 0; i + 9 < jpeg.size(); ++i) {
    if (jpeg[i] != 0xFF || (jpeg[i + 1] != 0xC0 && jpeg[i + 1] != 0xC2)) continue;
    jpeg[i + 5] = static_cast<unsigned char>(height / 256);
    jpeg[i + 6] = static_cast<unsigned char>(height % 256);
    jpeg[i + 7] = static_cast<unsigned char>(width / 256);
    jpeg[i + 8] = static_cast<unsigned char>(width % 256);
    break;
  }
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
      const int result = EncodeToJpeg(width, height, rgb.data(), out.data(), capacity, length, -1);
      EXPECT_EQ(result == 0, missing == 0);
      EXPECT_EQ(length, missing == 0 ? capacity : 0);
      for (int i = capacity; i < capacity + missing; ++i) ASSERT_EQ(out[static_cast<std::size_t>(i)], 0xEE);
      EXPECT_EQ(out == jpeg, missing == 0);
    }
  }
}

TEST(JpegEncodeTest, BaselineWithHalvedColourAndQuality) {
  const Bytes jpeg = Encode(48, 32);
  const unsigned char frame[] = {0xFF, 0xC0, 0, 17, 8, 0, 32, 0, 48, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1};
  EXPECT_NE(std::search(jpeg.begin(), jpeg.end(), std::begin(frame), std::end(frame)), jpeg.end());
  EXPECT_EQ(jpeg, Encode(48, 32, 85));
  EXPECT_LT(Encode(200, 100, 1).size(), Encode(200, 100, 50).size());
  EXPECT_LT(Encode(200, 100, 50).size(), Encode(200, 100, 100).size());
}

TEST(JpegEncodeTest, BadArguments) {
  Bytes rgb(48);
  Bytes out(4096);
  const struct {
    int width, height;
    bool rgb, out;
    int capacity, quality;
  } cases[] = {
      {0, 4, true, true, 4096, -1},     {4, -1, true, true, 4096, -1}, {65501, 1, true, true, 4096, -1},
      {1, 65501, true, true, 4096, -1}, {4, 4, false, true, 4096, -1}, {4, 4, true, false, 4096, -1},
      {4, 4, true, true, 0, -1},        {4, 4, true, true, -5, -1},    {4, 4, true, true, 4096, 0},
      {4, 4, true, true, 4096, 101},    {4, 4, true, true, 4096, -2},
  };
  for (const auto& c : cases) {
    int length = 77;
    EXPECT_NE(EncodeToJpeg(c.width, c.height, c.rgb ? rgb.data() : nullptr, c.out ? out.data() : nullptr, c.capacity,
                           length, c.quality),
              0);
    EXPECT_EQ(length, 0);
  }
}

TEST(JpegDecodeTest, ColourSpacesAndScales) {
  const Bytes jpeg = Encode(322, 182);
  const Bytes source = Gradient(322, 182);
  const Decoded rgb = Decode(jpeg);
  ASSERT_EQ(rgb.result, 0);
  EXPECT_EQ(rgb.length, 322 * 182 * 3);
  EXPECT_LT(MeanDistance(rgb.pixels, source, source.size()), 2.0);
  EXPECT_EQ(Bytes(rgb.pixels.end() - 64, rgb.pixels.end()), Bytes(64, 0));

  const Decoded bgra = Decode(jpeg, JCS_EXT_BGRA);
  ASSERT_EQ(bgra.result, 0);
  ASSERT_EQ(bgra.length, 322 * 182 * 4);
  for (std::size_t pixel = 0; pixel < 322 * 182; ++pixel) {
    const unsigned char* out = &bgra.pixels[4 * pixel];
    const unsigned char* expected = &rgb.pixels[3 * pixel];
    ASSERT_TRUE(out[0] == expected[2] && out[1] == expected[1] && out[2] == expected[0] && out[3] == 255) << pixel;
  }
  for (const unsigned int scale : {2U, 4U, 8U}) {
    const Decoded small = Decode(jpeg, JCS_RGB, scale);
    const int divisor = static_cast<int>(scale);
    ASSERT_EQ(small.result, 0);
    EXPECT_EQ(small.width, (322 + divisor - 1) / divisor);
    EXPECT_EQ(small.height, (182 + divisor - 1) / divisor);
    const auto step = static_cast<std::size_t>(scale);
    const auto width = static_cast<std::size_t>(small.width);
    for (std::size_t i = 0; i < 322 / step * (182 / step); ++i) {
      const std::size_t x = i % (322 / step), y = i / (322 / step);
      const std::size_t middle = (y * step + step / 2) * 322 + x * step + step / 2;
      ASSERT_NEAR(small.pixels[3 * (y * width + x)], source[3 * middle], 8) << x << ' ' << y;
      ASSERT_NEAR(small.pixels[3 * (y * width + x) + 1], source[3 * middle + 1], 8) << x << ' ' << y;
    }
  }
  for (const unsigned int scale : {0U, 3U, 16U}) EXPECT_NE(Decode(jpeg, JCS_RGB, scale).result, 0);
  for (const auto space : {JCS_UNKNOWN, JCS_GRAYSCALE, JCS_CMYK, JCS_EXT_RGBA})
    EXPECT_NE(Decode(jpeg, space).result, 0);
}

// Every kind of JPEG, whole, without its end marker, and cut: what lacks picture rows or scans fails.
TEST(JpegDecodeTest, KindsAndTruncation) {
  const Bytes colour = Gradient(96, 80);
  static const jpeg_scan_info separate[] = {
      {1, {0, 0, 0, 0}, 0, 63, 0, 0}, {1, {1, 0, 0, 0}, 0, 63, 0, 0}, {1, {2, 0, 0, 0}, 0, 63, 0, 0}};
  const struct {
    const char* name;
    bool progressive, arithmetic, separate;
    int restartRows;
  } cases[] = {
      {"baseline", false, false, false, 0},
      {"restarts", false, false, false, 1},
      {"progressive", true, false, false, 0},
      {"arithmetic", false, true, false, 0},
      {"arithmetic progressive", true, true, false, 0},
      {"one component a scan", false, false, true, 0},
  };
  for (const auto& c : cases) {
    const Bytes jpeg = MakeJpeg(96, 80, 3, JCS_RGB, colour, [&](jpeg_compress_struct& info) {
      if (c.progressive) jpeg_simple_progression(&info);
      if (c.separate) info.scan_info = separate;
      if (c.separate) info.num_scans = 3;
      info.arith_code = c.arithmetic;
      info.restart_in_rows = c.restartRows;
    });
    const Decoded whole = Decode(jpeg);
    ASSERT_EQ(whole.result, 0) << c.name;
    EXPECT_LT(MeanDistance(whole.pixels, colour, colour.size()), 4.0) << c.name;
    for (std::size_t cut = 1; cut <= 2; ++cut) {
      const Decoded endless = Decode(Bytes(jpeg.begin(), jpeg.end() - static_cast<std::ptrdiff_t>(cut)));
      EXPECT_EQ(endless.result, 0) << c.name;
      EXPECT_EQ(endless.pixels, whole.pixels) << c.name;
    }
    // The last row of blocks is a fifth of this picture: without the last third of the data some of it is missing.
    for (std::size_t size = 1; size <= jpeg.size() * 2 / 3; ++size) {
      const Bytes part(jpeg.begin(), jpeg.begin() + static_cast<std::ptrdiff_t>(size));
      ASSERT_NE(Decode(part).result, 0) << c.name << ": " << size << " of " << jpeg.size();
    }
  }
}

TEST(JpegDecodeTest, GreyBecomesColourAndInkIsRefused) {
  const auto plain = [](jpeg_compress_struct&) {};
  const Decoded grey = Decode(MakeJpeg(40, 24, 1, JCS_GRAYSCALE, Bytes(40 * 24, 90), plain));
  ASSERT_EQ(grey.result, 0);
  EXPECT_EQ(grey.length, 40 * 24 * 3);
  EXPECT_LT(MeanDistance(grey.pixels, Bytes(40 * 24 * 3, 90), 40 * 24 * 3), 1.0);
  EXPECT_NE(Decode(MakeJpeg(40, 24, 4, JCS_CMYK, Bytes(40 * 24 * 4, 90), plain)).result, 0);
}

TEST(JpegDecodeTest, CostIsBoundedBeforeMemoryIsTaken) {
  EXPECT_EQ(Decode(Patched(Encode(16, 16), 16000, 16000)).result, -2);
  EXPECT_EQ(Decode(Patched(Encode(16, 16), 8192, 8193)).result, -2);
  EXPECT_EQ(Decode(Patched(MakeScans(16, 16, 17), 8192, 8192)).result, -2);
  EXPECT_EQ(Decode(Patched(MakeScans(16, 16, 16), 8192, 8192)).result, -1) << "allowed, but its rows are missing";
  EXPECT_EQ(Decode(MakeScans(16, 16, 100)).result, 0);
  EXPECT_EQ(Decode(MakeScans(16, 16, 101)).result, -2);
}

TEST(JpegDecodeTest, SixtyFourMegapixelsAreAllowed) {
  const Bytes grey(8192 * 8192, 90);
  const Bytes jpeg = MakeJpeg(8192, 8192, 1, JCS_GRAYSCALE, grey, [](jpeg_compress_struct&) {});
  const Decoded decoded = Decode(jpeg, JCS_RGB, 8);
  ASSERT_EQ(decoded.result, 0);
  EXPECT_EQ(decoded.width, 1024);
}

// The scans of a thumbnail inside a segment and of data behind the end marker are none of the picture's.
TEST(JpegDecodeTest, OnlyThePicturesOwnScansCount) {
  Bytes jpeg = Encode(16, 16);
  Bytes segment = {0xFF, 0xE1, 0x04, 0x02};
  for (int i = 0; i < 256; ++i) segment.insert(segment.end(), {0xFF, 0xDA, 0, 2});
  jpeg.insert(jpeg.begin() + 2, segment.begin(), segment.end());
  jpeg.insert(jpeg.end(), {0, 2});
  jpeg.insert(jpeg.end(), segment.begin() + 4, segment.end());
  EXPECT_EQ(Decode(jpeg).result, 0);
}

TEST(JpegDecodeTest, HostileInputFailsQuietly) {
  testing::internal::CaptureStderr();
  const Bytes jpeg = Encode(64, 64);
  EXPECT_NE(Decode({'n', 'o', 'n', 'e'}).result, 0);
  EXPECT_NE(Decode({0xFF, 0xD8, 0xFF, 0xD9}).result, 0);
  EXPECT_NE(Decode({0xFF, 0xD8, 0xFF}).result, 0);
  EXPECT_NE(Decode({0xFF}).result, 0);
  EXPECT_NE(Decode(Patched(jpeg, 0, 16)).result, 0);
  unsigned char* out = nullptr;
  int length = 0, width = 0, height = 0;
  const int size = static_cast<int>(jpeg.size());
  EXPECT_NE(DecodeJpeg(nullptr, size, &out, length, JCS_RGB, 1, width, height), 0);
  EXPECT_NE(DecodeJpeg(jpeg.data(), 0, &out, length, JCS_RGB, 1, width, height), 0);
  EXPECT_NE(DecodeJpeg(jpeg.data(), -1, &out, length, JCS_RGB, 1, width, height), 0);
  EXPECT_NE(DecodeJpeg(jpeg.data(), size, nullptr, length, JCS_RGB, 1, width, height), 0);
  unsigned int state = 1;  // any result will do as long as the sanitizers are content
  for (int round = 0; round < 3000; ++round) {
    Bytes damaged = round % 2 == 0 ? jpeg : MakeScans(24, 24, 6);
    for (int i = 0; i < 4; ++i) {
      state = state * 1664525U + 1013904223U;
      damaged[(state >> 8) % damaged.size()] = static_cast<unsigned char>(state >> 24);
    }
    Decode(damaged, JCS_RGB, 8);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
