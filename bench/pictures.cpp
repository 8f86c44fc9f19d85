// Snapshots of key frames and thumbnails of pictures.
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <stdexcept>

#include "bench/floor.h"
#include "bench/inputs.h"
#include "bench/require.h"
#include "bench/runner.h"
#include "platform/jpeg.h"
#include "utils/imageobject.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/mpeg4util.h"

using bench::Bytes;
using bench::Require;
using bench::Workload;

namespace {

// A rectangle and a slanted quadrilateral, together about a quarter of the picture.
constexpr const char* kRegions = "05000500350005003500400005004000;55003000900045008000900050007500";

constexpr std::size_t kJpegCapacity = 4 << 20;
constexpr double kAlikeDb = 28;  // the image route resamples the colours once more where a mask is painted

struct Codec {
  const char* name;
  int videoType;  // as DoFFMpegInitVideo counts them
  AVCodecID id;
  Bytes bench::Inputs::*keyFrame;
};

constexpr Codec kCodecs[] = {{"h264", 3, AV_CODEC_ID_H264, &bench::Inputs::h264},
                             {"hevc", 6, AV_CODEC_ID_HEVC, &bench::Inputs::hevc},
                             {"mjpeg", 1, AV_CODEC_ID_MJPEG, &bench::Inputs::mjpeg}};

struct Size {
  const char* name;
  int width;
  int height;
};

constexpr Size kSizes[] = {{"320", 320, 180}, {"full", bench::kWidth, bench::kHeight}};

// ---------------------------------------------------------------------------------------------------------------------
// The library's side; out takes a copy of the JPEG and may be null
// ---------------------------------------------------------------------------------------------------------------------

struct Snapshot {
  const Codec* codec;
  const Bytes* keyFrame;
  Size size;
  std::string regions;
};

void ByFrame(const Snapshot& wish, Bytes* out) {
  AVFrame* frame = nullptr;
  Require(DoFFMpegGetScaledFrame(wish.codec->videoType, nullptr, 0, wish.keyFrame->data(),
                                 static_cast<int>(wish.keyFrame->size()), &frame, wish.size.width) == 0,
          "DoFFMpegGetScaledFrame");
  unsigned char* jpeg = nullptr;
  int size = 0;
  const int ret = DoFFMpegGetJpeg(frame, &jpeg, &size, -1, wish.regions);
  DoFFmpegFrameFree(&frame);
  const mediautil::MallocPtr<unsigned char> owner(jpeg);
  Require(ret == 0, "DoFFMpegGetJpeg");
  if (out != nullptr) {
    out->assign(jpeg, jpeg + size);
  }
}

void Compressed(int ret, unsigned char* jpeg, unsigned int size, Bytes* out) {
  const std::unique_ptr<unsigned char[]> owner(jpeg);
  Require(ret == 0, "compression");
  if (out != nullptr) {
    out->assign(jpeg, jpeg + size);
  }
}

void ByImage(const Snapshot& wish, Bytes* out) {
  ImageObject image;
  image.SetPrivacyRegion(wish.regions);
  Require(
      image.LoadFromMPEG(wish.codec->videoType, nullptr, 0, wish.keyFrame->data(),
                         static_cast<unsigned int>(wish.keyFrame->size()), static_cast<unsigned int>(wish.size.width),
                         static_cast<unsigned int>(wish.size.height)) == 0,
      "LoadFromMPEG");
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  const int ret = image.CompressToJPEG(jpeg, size, -1);
  Compressed(ret, jpeg, size, out);
}

void Thumbnail(const ImageObject& image, Bytes* out) {
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  const int ret = CompressImgToJPEG(image, jpeg, size, false);
  Compressed(ret, jpeg, size, out);
}

// ---------------------------------------------------------------------------------------------------------------------
// Agreement of library and floor
// ---------------------------------------------------------------------------------------------------------------------

Bytes Pixels(const Bytes& jpeg) {
  unsigned char* rows = nullptr;
  int length = 0;
  int width = 0;
  int height = 0;
  Require(DecodeJpeg(jpeg.data(), static_cast<int>(jpeg.size()), &rows, length, JCS_RGB, 1, width, height) == 0,
          "reading the JPEG back");
  const mediautil::MallocPtr<unsigned char> owner(rows);
  return Bytes(rows, rows + length);
}

// Peak signal-to-noise ratio in dB.
double Likeness(const Bytes& a, const Bytes& b) {
  Require(a.size() == b.size() && !a.empty(), "comparing pictures of one size");
  double squares = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double difference = static_cast<double>(a[i]) - b[i];
    squares += difference * difference;
  }
  return squares > 0 ? 10 * std::log10(255.0 * 255.0 * static_cast<double>(a.size()) / squares)
                     : std::numeric_limits<double>::infinity();
}

void RequireSame(const Bytes& library, const Bytes& floor) {
  if (library != floor) {
    throw std::runtime_error("library and floor give different JPEGs: " + std::to_string(library.size()) + " and " +
                             std::to_string(floor.size()) + " bytes");
  }
}

void RequireAlike(const Bytes& library, const Bytes& floor) {
  const double likeness = Likeness(Pixels(library), Pixels(floor));
  if (!(likeness >= kAlikeDb)) {
    throw std::runtime_error("library and floor give unlike pictures: PSNR " + std::to_string(likeness) + " dB");
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// The workloads
// ---------------------------------------------------------------------------------------------------------------------

using Work = std::function<void(Bytes* out)>;

std::function<void(int)> Repeat(const Work& work) {
  return [work](int times) {
    for (int i = 0; i < times; ++i) {
      work(nullptr);
    }
  };
}

Workload MakeWorkload(const std::string& name, const Work& library, const Work& floor,
                      void (*agree)(const Bytes& library, const Bytes& floor)) {
  const auto check = [library, floor, agree] {
    Bytes fromLibrary;
    Bytes fromFloor;
    library(&fromLibrary);
    floor(&fromFloor);
    agree(fromLibrary, fromFloor);
  };
  return {name, Repeat(library), Repeat(floor), check};
}

using Buffer = std::shared_ptr<Bytes>;

Work Floor(const Snapshot& wish, const Buffer& buffer) {
  const std::vector<bench::Run> runs = bench::CoveredRuns(wish.regions, wish.size.width, wish.size.height);
  return [wish, runs, buffer](Bytes* out) {
    const std::size_t size = bench::FloorSnapshot(wish.codec->id, *wish.keyFrame, wish.size.width, wish.size.height,
                                                  runs, buffer->data(), buffer->size());
    if (out != nullptr) {
      out->assign(buffer->data(), buffer->data() + size);
    }
  };
}

Workload MakeThumbnail(const Bytes& rgb, const Buffer& buffer) {
  const auto image = std::make_shared<ImageObject>();
  Require(image->LoadFromRGB(rgb.data(), static_cast<unsigned int>(rgb.size()), bench::kWidth, bench::kHeight) == 0,
          "LoadFromRGB");
  const auto library = [image](Bytes* out) { Thumbnail(*image, out); };
  const auto floor = [&rgb, buffer](Bytes* out) {
    const std::size_t size = bench::FloorThumbnail(rgb, 160, 90, buffer->data(), buffer->size());
    if (out != nullptr) {
      out->assign(buffer->data(), buffer->data() + size);
    }
  };
  return MakeWorkload("thumbnail", library, floor, RequireSame);
}

std::vector<Workload> MakeWorkloads(const std::string& folder) {
  static const bench::Inputs inputs = folder.empty() ? bench::MakeInputs() : bench::LoadInputs(folder);
  const auto buffer = std::make_shared<Bytes>(kJpegCapacity);
  std::vector<Workload> workloads;
  for (const Codec& codec : kCodecs) {
    for (const Size& size : kSizes) {
      const std::string name = std::string(codec.name) + "/" + size.name;
      for (const char* regions : {"", kRegions}) {
        const Snapshot wish = {&codec, &(inputs.*codec.keyFrame), size, regions};
        const bool masked = !wish.regions.empty();
        const auto byFrame = [wish](Bytes* out) { ByFrame(wish, out); };
        const auto byImage = [wish](Bytes* out) { ByImage(wish, out); };
        const Work floor = Floor(wish, buffer);
        workloads.push_back(MakeWorkload(name + (masked ? "/frame-masked" : "/frame"), byFrame, floor, RequireSame));
        workloads.push_back(MakeWorkload(name + (masked ? "/image-masked" : "/image"), byImage, floor,
                                         masked ? RequireAlike : RequireSame));
      }
    }
  }
  workloads.push_back(MakeThumbnail(inputs.rgb, buffer));
  return workloads;
}

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBench(
      argc, argv,
      {"Snapshots and thumbnails: the library beside the least work that gives the same result.", MakeWorkloads,
       [](const std::string& folder) { bench::SaveInputs(bench::MakeInputs(), folder); }});
}
