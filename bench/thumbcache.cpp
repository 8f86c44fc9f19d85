// A thumbnail out of the cache, by the library and by hand under the same locks.
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "bench/require.h"
#include "bench/stills.h"
#include "platform/file.h"
#include "utils/sharedthumb.h"

using bench::Require;

namespace {

constexpr unsigned int kSize = 2048;  // bytes of a thumbnail
constexpr unsigned int kNeverOld = UINT_MAX;

using Bytes = SharedThumb::Bytes;

const std::string kThumbFile = std::string(SharedThumb::kDirectory) + "/1.0";
const std::string kLockFile = kThumbFile + ".lock";

// A folder /var that only this process sees, so that the server's own cache is left alone.
bool HideServerCache() {
  return (unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", "/var", "tmpfs", 0, nullptr) == 0;
}

void FillCache() {
  std::filesystem::create_directories(SharedThumb::kDirectory);
  const std::string bytes(kSize, 'x');
  Require(WriteContentFromBufToFile(bytes.data(), kSize, false, kThumbFile) == 0, "filling the cache");
}

const SharedThumb& Thumb() {
  static const SharedThumb thumb = [] {
    Camera camera;
    camera.id = 1;
    camera.videoType = 1;
    return SharedThumb(camera, CAM_PROFILE_HIGH, kNeverOld);
  }();
  return thumb;
}

Bytes ReadByHand() {
  const int lock = open(kLockFile.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640);
  Require(lock >= 0 && flock(lock, LOCK_SH) == 0, "locking");
  const int file = open(kThumbFile.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  struct stat info = {};
  Require(file >= 0 && fstat(file, &info) == 0, "opening");
  const auto size = static_cast<unsigned int>(info.st_size);
  Bytes bytes(new unsigned char[size], size);
  Require(read(file, bytes.first.get(), size) == info.st_size, "reading");
  close(file);
  close(lock);
  return bytes;
}

Bytes ReadByLibrary() {
  Bytes bytes;
  Require(Thumb().GetThumb(bytes) == 0, "GetThumb");
  return bytes;
}

void Check() {
  const Bytes library = ReadByLibrary();
  const Bytes hand = ReadByHand();
  Require(library.second == kSize && hand.second == kSize &&
              std::equal(hand.first.get(), hand.first.get() + kSize, library.first.get()),
          "comparing the bytes");
}

}  // namespace

std::vector<bench::Workload> bench::CacheWorkloads() {
  if (!HideServerCache()) {
    std::fprintf(stderr, "cache/hit is left out: the system allows no folder /var of the program's own\n");
    return {};
  }
  FillCache();
  return {{"cache/hit", Repeat(ReadByLibrary), Repeat(ReadByHand), Check, 100}};
}
