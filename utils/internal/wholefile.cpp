#include "utils/internal/wholefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/internal/ffmpegptr.h"

extern "C" {
#include <libavutil/avstring.h>
#include <libavutil/mem.h>
}

namespace mediautil {
namespace {

// A target "/a/mix.wav" is written as "/a/.mix.wav.part-XXXXXX": the name keeps the target's, which may be gone, or
// another file, when the part is whole.
constexpr char kPartEnding[] = ".part-XXXXXX";

// The file that stands at an URL, behind all links; "" when none does.
std::string ResolvedName(const char* url) {
  const MallocPtr<char> name(realpath(FileName(url), nullptr));
  return name == nullptr ? "" : name.get();
}

std::size_t NameAt(const std::string& path) {
  return path.rfind('/') + 1;
}

std::string TargetOf(const std::string& part) {
  const std::size_t at = NameAt(part);
  return part.substr(0, at) + part.substr(at + 1, part.size() - at - sizeof(kPartEnding));
}

bool IsRegularFile(const std::string& name, struct stat& status) {
  return lstat(name.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Whether another file can be renamed over it: not in a directory such as /tmp, where only owners may, and not over a
// mount.
bool IsReplaceable(const std::string& target, const struct stat& file) {
  struct stat dir = {};
  const uid_t user = geteuid();
  return stat(target.substr(0, NameAt(target)).c_str(), &dir) == 0 && dir.st_dev == file.st_dev &&
         (user == 0 || (dir.st_mode & S_ISVTX) == 0 || user == file.st_uid || user == dir.st_uid);
}

// Gives a new file the owner and the permissions of an older one, as far as this process may.
bool CopyAccess(int fd, const struct stat& old) {
  const bool isShared = fchown(fd, old.st_uid, old.st_gid) == 0 || fchown(fd, geteuid(), old.st_gid) == 0;
  return fchmod(fd, old.st_mode & (isShared ? 0777U : 0707U)) == 0;
}

// Writes to a new file beside the target.
int OpenPart(AVFormatContext* oc, const std::string& target, const struct stat& old) {
  std::string part = target;
  part.insert(NameAt(part), ".").append(kPartEnding);
  const int fd = mkostemp(part.data(), O_CLOEXEC);
  if (fd < 0) {
    return AVERROR(errno);
  }
  int ret = CopyAccess(fd, old) ? 0 : AVERROR(errno);
  close(fd);
  char* url = av_strdup(part.c_str());
  ret = url == nullptr ? AVERROR(ENOMEM) : ret;
  ret = ret < 0 ? ret : avio_open(&oc->pb, url, AVIO_FLAG_WRITE);
  if (ret < 0) {
    av_free(url);
    unlink(part.c_str());
    return ret;
  }
  av_free(oc->url);
  oc->url = url;
  return 0;
}

// What is on the disk takes the target's place, so that a power cut leaves one of the two.
int Replace(const char* part) {
  const int fd = open(part, O_RDONLY | O_CLOEXEC);
  const bool isOnDisk = fd >= 0 && fsync(fd) == 0;
  const int ret = isOnDisk && std::rename(part, TargetOf(part).c_str()) == 0 ? 0 : AVERROR(errno);
  if (fd >= 0) {
    close(fd);
  }
  return ret;
}

}  // namespace

const char* FileName(const char* url) {
  const char* protocol = avio_find_protocol_name(url);
  if (protocol == nullptr || std::strcmp(protocol, "file") != 0) {
    return "";
  }
  av_strstart(url, "file:", &url);
  return url;
}

int OpenWhole(AVFormatContext* oc, const std::string& url) {
  struct stat old = {};
  const std::string target = ResolvedName(url.c_str());
  if (IsRegularFile(target, old) && old.st_size > 0 && IsReplaceable(target, old)) {
    const int ret = OpenPart(oc, target, old);
    if (ret != AVERROR(EACCES) && ret != AVERROR(EPERM) && ret != AVERROR(EROFS) && ret != AVERROR(ENAMETOOLONG)) {
      return ret;
    }
  }
  return avio_open(&oc->pb, url.c_str(), AVIO_FLAG_WRITE);
}

int CloseWhole(AVFormatContext* oc, const std::string& url, bool isWhole) {
  avio_flush(oc->pb);
  const int failed = std::min(oc->pb->error, 0);
  const int closed = avio_closep(&oc->pb);
  int ret = failed < 0 ? failed : std::min(closed, 0);
  if (isWhole && ret >= 0 && url != oc->url) {
    ret = Replace(oc->url);
  }
  struct stat status = {};
  const std::string written = ResolvedName(oc->url);
  if ((!isWhole || ret < 0) && IsRegularFile(written, status)) {
    unlink(written.c_str());
  }
  return ret;
}

}  // namespace mediautil
