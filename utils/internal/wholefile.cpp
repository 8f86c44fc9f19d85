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

// The file that stands at an URL, behind all links; "" when none does.
std::string ResolvedName(const char* url) {
  const MallocPtr<char> name(realpath(FileName(url), nullptr));
  return name == nullptr ? "" : name.get();
}

bool IsRegularFile(const std::string& name, struct stat& status) {
  return lstat(name.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Writes to a new file beside the target, which nobody else can read until it is whole.
int OpenPart(AVFormatContext* oc, const std::string& target) {
  std::string part = target.substr(0, target.rfind('/') + 1) + ".part-XXXXXX";
  const int fd = mkostemp(part.data(), O_CLOEXEC);
  if (fd < 0) {
    return AVERROR(errno);
  }
  close(fd);
  char* url = av_strdup(part.c_str());
  const int ret = url == nullptr ? AVERROR(ENOMEM) : avio_open(&oc->pb, url, AVIO_FLAG_WRITE);
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
int Replace(const char* part, const std::string& target) {
  struct stat old = {};
  const int fd = open(part, O_RDONLY | O_CLOEXEC);
  const bool isReady =
      fd >= 0 && stat(target.c_str(), &old) == 0 && fchmod(fd, old.st_mode & 0777) == 0 && fsync(fd) == 0;
  const int ret = isReady && std::rename(part, target.c_str()) == 0 ? 0 : AVERROR(errno);
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
  if (IsRegularFile(target, old) && old.st_size > 0) {
    const int ret = OpenPart(oc, target);
    if (ret != AVERROR(EACCES) && ret != AVERROR(EPERM) && ret != AVERROR(EROFS)) {
      return ret;
    }
  }
  return avio_open(&oc->pb, url.c_str(), AVIO_FLAG_WRITE);
}

int CloseWhole(AVFormatContext* oc, const std::string& url, bool isWhole) {
  avio_flush(oc->pb);
  const int written = std::min(oc->pb->error, 0);
  const int closed = avio_closep(&oc->pb);
  int ret = written < 0 ? written : std::min(closed, 0);
  if (isWhole && ret >= 0 && url != oc->url) {
    ret = Replace(oc->url, ResolvedName(url.c_str()));
  }
  struct stat status = {};
  if ((!isWhole || ret < 0) && IsRegularFile(FileName(oc->url), status)) {
    unlink(FileName(oc->url));
  }
  return ret;
}

}  // namespace mediautil
