#include "utils/sharedthumb.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <vector>

#include "platform/file.h"
#include "platform/livestream.h"
#include "platform/sync.h"
#include "platform/time.h"
#include "platform/webapi.h"
#include "utils/imageobject.h"
#include "utils/internal/guarded.h"
#include "utils/internal/log.h"

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

constexpr int kVideoTypeMjpeg = 1;
constexpr off_t kMaxFileSize = off_t{4} * 1024 * 1024;
constexpr mode_t kFileMode = 0640;

using Bytes = SharedThumb::Bytes;
using Extra = std::vector<unsigned char>;

struct Stream {
  int cameraId;
  int streamNo;
  int videoType;
};

// Owner, group and mode of the cache; all 0 when they cannot be told.
struct stat DirectoryInfo() {
  struct stat info = {};
  stat(SharedThumb::kDirectory, &info);
  return info;
}

// Who may write into the directory may as well have written the file.
bool IsTrusted(const struct stat& file) {
  if (file.st_uid == 0 || file.st_uid == geteuid()) {
    return true;
  }
  const struct stat directory = DirectoryInfo();
  const bool isGroups = (directory.st_mode & (S_IWGRP | S_IWOTH)) == S_IWGRP && file.st_gid == directory.st_gid;
  return file.st_uid == directory.st_uid || isGroups;
}

// A file of the cache, opened once: age, owner, size and bytes are those of one file, whatever takes its name
// meanwhile.
class CacheFile {
 public:
  explicit CacheFile(const std::string& path)
      : m_fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)) {
    if (m_fd >= 0 && fstat(m_fd, &m_info) != 0) {
      m_info = {};
    }
  }
  ~CacheFile() {
    if (m_fd >= 0) {
      close(m_fd);
    }
  }
  CacheFile(const CacheFile&) = delete;
  CacheFile& operator=(const CacheFile&) = delete;

  bool IsFresh(unsigned int maxAge) const {
    return S_ISREG(m_info.st_mode) && m_info.st_size > 0 && m_info.st_size <= kMaxFileSize && m_info.st_mtime > 0 &&
           IsTrusted(m_info) && static_cast<unsigned long>(Age()) < maxAge;
  }

  bool Read(Bytes& out) const {
    const auto size = static_cast<std::size_t>(m_info.st_size);
    Bytes bytes(new unsigned char[size], static_cast<unsigned int>(size));
    ssize_t count = 0;
    do {
      count = read(m_fd, bytes.first.get(), size);
    } while (count < 0 && errno == EINTR);
    if (count != m_info.st_size) {
      return false;
    }
    out = std::move(bytes);
    return true;
  }

  // For the users of the cache, whatever the umask and also when root wrote it. Where that fails, others decode.
  bool Share() const {
    const bool isOurs = S_ISREG(m_info.st_mode) && m_info.st_nlink == 1 && m_info.st_uid == geteuid();
    if (!isOurs || fchmod(m_fd, kFileMode) != 0) {
      return false;
    }
    const struct stat directory = DirectoryInfo();
    return geteuid() != 0 || fchown(m_fd, directory.st_uid, directory.st_gid) == 0;
  }

 private:
  long Age() const { return GetAbsTimeDiffBySec(static_cast<long>(time(nullptr)), static_cast<long>(m_info.st_mtime)); }

  const int m_fd;
  struct stat m_info = {};
};

struct Detacher {
  void operator()(const ShmStreamFifo* fifo) const { shmdt(fifo); }
};

Extra ReadExtra(const ShmStreamFifo& fifo) {
  unsigned char bytes[LiveStreamWriter::kMaxExtra];
  int size = sizeof(bytes);
  return fifo.GetExtra(bytes, size) == 0 ? Extra(bytes, bytes + size) : Extra();
}

// The newest frame that can be decoded alone, for all but MJPEG with its codec configuration: the stream may change to
// another one between two calls.
bool ReadNewest(const ShmStreamFifo& fifo, bool isMjpeg, Bytes& frame, Extra& extra) {
  if (!isMjpeg) {
    extra = ReadExtra(fifo);
  }
  unsigned char* data = nullptr;
  int size = 0;
  const int ret = isMjpeg ? fifo.ReadLatest(data, size) : fifo.ReadLatestIFrame(data, size);
  frame.first.reset(data);
  frame.second = static_cast<unsigned int>(size);
  return ret == 0 && data != nullptr && size > 0 && (isMjpeg || extra == ReadExtra(fifo));
}

// Decodes the newest frame. False without one; an image that stays empty tells of a frame that cannot be decoded.
bool LoadNewestFrame(const Stream& stream, ImageObject& image) {
  const std::unique_ptr<const ShmStreamFifo, Detacher> fifo(LiveStreamFifoAt(stream.cameraId, stream.streamNo));
  if (fifo == nullptr) {
    return false;
  }
  const bool isMjpeg = stream.videoType == kVideoTypeMjpeg;
  Bytes frame;
  Extra extra;
  if (!ReadNewest(*fifo, isMjpeg, frame, extra)) {
    return false;
  }
  if (isMjpeg) {
    image.LoadFromJPEG(frame.first.get(), frame.second);
  } else if (IsSupportedMp4VdoType(stream.videoType)) {
    image.LoadFromMPEG(stream.videoType, extra.data(), static_cast<unsigned int>(extra.size()), frame.first.get(),
                       frame.second, 0, 0);
  }
  return true;
}

// Null when there is no picture.
Bytes MakeThumb(const Stream& stream) {
  ImageObject image;
  unsigned char* jpeg = nullptr;
  unsigned int size = 0;
  if (LoadNewestFrame(stream, image)) {
    CompressImgToJPEG(image, jpeg, size, false);
  }
  return Bytes(jpeg, size);
}

bool Save(const Bytes& thumb, const std::string& path) {
  struct stat old = {};
  if (lstat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode) && (old.st_mode & S_IRUSR) == 0) {
    unlink(path.c_str());  // the new file would keep that mode and could not be opened either
  }
  if (WriteContentFromBufToFile(reinterpret_cast<const char*>(thumb.first.get()), thumb.second, true, path) != 0) {
    return false;
  }
  CacheFile(path).Share();
  return true;
}

int GetFromCache(const Stream& stream, unsigned int maxAge, Bytes& out) {
  const std::string thumbFile = std::string(SharedThumb::kDirectory) + "/" + std::to_string(stream.cameraId) + "." +
                                std::to_string(stream.streamNo);
  const std::string lockFile = thumbFile + ".lock";
  VyFlock lock(lockFile);
  int error = lock.LockSh(-1) == 0 ? 0 : errno;
  if (error != 0) {  // only then the directory is worth a look
    if (MakeDirIfNotExist(SharedThumb::kDirectory) != 0) {
      return -1;
    }
    error = lock.LockSh(-1) == 0 ? 0 : errno;
  }
  VY_FAIL_IF(error != 0, -1, LOG_LEVEL_ERR, "Failed to LockSh file [%s] with errno [%d]\n", lockFile.c_str(), error);
  if (const CacheFile cached(thumbFile); cached.IsFresh(maxAge)) {
    VY_FAIL_IF(!cached.Read(out), -1, LOG_LEVEL_ERR, "Failed to read file[%s]\n", thumbFile.c_str());
    return 0;
  }
  lock.UnLock();
  Bytes thumb = MakeThumb(stream);
  if (thumb.first == nullptr) {
    return -1;
  }
  error = lock.LockEx(-1) == 0 ? 0 : errno;
  VY_FAIL_IF(error != 0, -1, LOG_LEVEL_ERR, "Failed to LockEx file [%s] with errno [%d]\n", lockFile.c_str(), error);
  if (!CacheFile(thumbFile).IsFresh(maxAge) && !Save(thumb, thumbFile)) {
    VY_LOG(LOG_LEVEL_ERR, "Failed to save base64 thumb for sharing Cam[%d] Stm[%d]\n", stream.cameraId,
           stream.streamNo);
  }
  out = std::move(thumb);
  return 0;
}

}  // namespace

SharedThumb::SharedThumb(int cameraId, CAM_PROFILE_TYPE (Camera::*profileGetter)() const, unsigned int maxAge)
    : m_maxAge(maxAge) {
  Camera camera;
  const bool isLoaded =
      profileGetter != nullptr && mediautil::Guarded([&] { return camera.Load(cameraId, 0, 0); }) == 0;
  if (!isLoaded) {
    VyPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, mediautil::kSourcePath.data(), __LINE__, __func__,
             "Failed to load Cam[%d]\n", cameraId);
    return;
  }
  *this = SharedThumb(camera, (camera.*profileGetter)(), maxAge);
}

SharedThumb::SharedThumb(const Camera& camera, CAM_PROFILE_TYPE profile, unsigned int maxAge)
    : m_cameraId(camera.id),
      m_streamNo(camera.GetUiStreamNo(profile)),
      m_videoType(camera.videoType),
      m_maxAge(maxAge) {}

int SharedThumb::GetThumb(Bytes& out) const {
  out = Bytes();
  if (m_cameraId < 1 || m_streamNo < 0) {
    return -1;
  }
  return mediautil::Guarded([&] { return GetFromCache({m_cameraId, m_streamNo, m_videoType}, m_maxAge, out); });
}

int SharedThumb::GetBase64Thumb(std::string& out) const {
  out.clear();
  return mediautil::Guarded([&] {
    Bytes thumb;
    if (GetThumb(thumb) != 0) {
      return -1;
    }
    out = HttpBase64EncodeUnsigned(thumb.first.get(), thumb.second);
    return 0;
  });
}

int GetSharedThumb(const Camera& camera, SharedThumb::Bytes& out) {
  constexpr unsigned int kMaxAge = 1;  // seconds
  out = SharedThumb::Bytes();
  VY_FAIL_IF(camera.id < 1, -1, LOG_LEVEL_ERR, "Failed to get thumb since cam is not loaded. Cam Id: [%d]\n",
             camera.id);
  VY_FAIL_IF(SharedThumb(camera, camera.GetLiveProfile(), kMaxAge).GetThumb(out) != 0, -1, LOG_LEVEL_ERR,
             "Failed to get thumb. Cam Id: [%d]\n", camera.id);
  return 0;
}
