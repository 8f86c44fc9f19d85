#include "utils/internal/wholefile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

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

// A name for a new file beside another one, for mkostemp.
std::string PartName(const std::string& target) {
  std::string part = target;
  part.insert(part.rfind('/') + 1, ".");
  return part + ".part-XXXXXX";
}

// Whether another file can be renamed over it: not in a directory such as /tmp, where only owners may, and not over a
// mount.
bool IsReplaceable(const std::string& target, const struct stat& file) {
  struct stat dir = {};
  struct statx info = {};
  const uid_t user = geteuid();
  if (stat(target.substr(0, target.rfind('/') + 1).c_str(), &dir) != 0 ||
      statx(AT_FDCWD, target.c_str(), AT_SYMLINK_NOFOLLOW, 0, &info) != 0) {
    return false;
  }
  const bool isToldMounts = (info.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0;
  const bool isMount = isToldMounts ? (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 : dir.st_dev != file.st_dev;
  const bool isForOwners = (dir.st_mode & S_ISVTX) != 0;
  return !isMount && (user == 0 || !isForOwners || user == file.st_uid || user == dir.st_uid);
}

// Gives a file the owner and the permissions of the target, as far as this process may. With an access list the bits of
// the group are not the group's.
void CopyAccess(int fd, const std::string& target, const struct stat& from) {
  constexpr auto kSame = static_cast<uid_t>(-1);
  const bool hasList = getxattr(target.c_str(), "system.posix_acl_access", nullptr, 0) > 0;
  const bool isShared = fchown(fd, kSame, from.st_gid) == 0 && !hasList;
  [[maybe_unused]] int ignored = fchmod(fd, from.st_mode & (isShared ? 0777U : 0707U));
  ignored = fchown(fd, from.st_uid, static_cast<gid_t>(-1));
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

WholeFile::~WholeFile() {
  ClosePart();
}

void WholeFile::ClosePart() {
  if (m_part >= 0) {
    close(m_part);
  }
  m_part = -1;
}

// Until it is whole nobody else can read it.
int WholeFile::OpenPart(AVFormatContext* oc) {
  std::string part = PartName(m_target);
  m_part = mkostemp(part.data(), O_CLOEXEC);
  if (m_part < 0) {
    return AVERROR(errno);
  }
  int ret = fchmod(m_part, 0600) == 0 ? 0 : AVERROR(EPERM);  // or there are no permissions to be copied
  char* url = av_strdup(part.c_str());
  ret = url == nullptr ? AVERROR(ENOMEM) : ret;
  ret = ret < 0 ? ret : avio_open(&oc->pb, url, AVIO_FLAG_WRITE);
  if (ret < 0) {
    av_free(url);
    unlink(part.c_str());
    ClosePart();
    return ret;
  }
  av_free(oc->url);
  oc->url = url;
  struct stat status = {};
  fstat(m_part, &status);
  m_id = {status.st_dev, status.st_ino};
  m_written = std::move(part);
  return 0;
}

int WholeFile::Open(AVFormatContext* oc, const std::string& url) {
  m_target = ResolvedName(url.c_str());
  int ret = AVERROR(EPERM);
  if (IsRegularFile(m_target, m_old) && m_old.st_size > 0 && IsReplaceable(m_target, m_old)) {
    ret = OpenPart(oc);
  }
  if (ret == AVERROR(EACCES) || ret == AVERROR(EPERM) || ret == AVERROR(EROFS) || ret == AVERROR(ENAMETOOLONG)) {
    m_target.clear();
    ret = avio_open(&oc->pb, url.c_str(), AVIO_FLAG_WRITE);
  }
  if (m_part < 0) {
    struct stat status = {};
    m_written = ret < 0 ? "" : ResolvedName(oc->url);
    m_written = IsRegularFile(m_written, status) ? m_written : "";
    m_id = {status.st_dev, status.st_ino};
  }
  return ret;
}

// Another process may have put its own file there meanwhile.
bool WholeFile::IsStillThere() const {
  struct stat status = {};
  return IsRegularFile(m_written, status) && FileId(status.st_dev, status.st_ino) == m_id;
}

// What is on the disk takes the target's place, so that a power cut leaves one of the two.
int WholeFile::Replace() const {
  CopyAccess(m_part, m_target, m_old);
  if (fsync(m_part) != 0) {
    return AVERROR(errno);
  }
  return !IsStillThere() ? AVERROR(ENOENT) : std::rename(m_written.c_str(), m_target.c_str()) == 0 ? 0 : AVERROR(errno);
}

int WholeFile::Close(AVFormatContext* oc, bool isWhole) {
  if (oc == nullptr || oc->pb == nullptr) {
    return 0;
  }
  avio_flush(oc->pb);
  const int failed = std::min(oc->pb->error, 0);
  const int closed = avio_closep(&oc->pb);
  int ret = failed < 0 ? failed : std::min(closed, 0);
  if (isWhole && ret >= 0 && !m_target.empty()) {
    ret = Replace();
  }
  ClosePart();
  if ((!isWhole || ret < 0) && IsStillThere() && unlink(m_written.c_str()) != 0) {
    [[maybe_unused]] const int emptied = truncate(m_written.c_str(), 0);  // where names cannot be removed
  }
  return ret;
}

}  // namespace mediautil
