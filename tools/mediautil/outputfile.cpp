#include "tools/mediautil/outputfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "tools/mediautil/args.h"
#include "tools/mediautil/stopsignals.h"

namespace {

// With a slash at its end.
std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

}  // namespace

OutputFile::~OutputFile() {
  if (!m_temporary.empty()) {
    close(m_fd);
    unlink(m_temporary.c_str());
  }
}

int OutputFile::Open() {
  if (m_output == "-") {
    m_fd = STDOUT_FILENO;
    return kDone;
  }
  if (struct stat old = {}; stat(m_output.c_str(), &old) == 0) {
    m_mode = old.st_mode & 0777;
  }
  const std::string temporary = DirectoryOf(m_output) + ".export-" + std::to_string(getpid()) + m_ending;
  unlink(temporary.c_str());  // of a process that was killed and had the same number
  // Whoever writes may open it again, and nobody reads in it what he could not read before.
  m_fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, m_mode ? 0600 : 0666);
  if (m_fd < 0) {
    m_error = errno;
    return FailWrite();
  }
  m_temporary = temporary;
  return kDone;
}

int OutputFile::Write(void* self, unsigned char* data, int size) {
  return static_cast<OutputFile*>(self)->Append(data, size) ? size : -1;
}

bool OutputFile::Append(const unsigned char* data, int size) {
  while (size > 0 && !IsFailed()) {
    const ssize_t written = write(m_fd, data, static_cast<std::size_t>(size));
    if (written <= 0) {
      if (errno != EINTR || StopSignals::Seen()) {
        m_error = written == 0 ? ENOSPC : errno;
      }
      continue;
    }
    data += written;
    size -= static_cast<int>(written);
    m_size += written;
  }
  return !IsFailed();
}

bool OutputFile::TakeError(int error) {
  constexpr int kWriteErrors[] = {EBADF, EDQUOT, EFBIG, EIO, ENOSPC, EPIPE};
  if (!IsFailed() && std::find(std::begin(kWriteErrors), std::end(kWriteErrors), error) != std::end(kWriteErrors)) {
    m_error = error;
  }
  return IsFailed();
}

int OutputFile::Commit() {
  if (StopSignals::Seen()) {
    return Fail(kInterrupted, OutputName(m_output) + ": interrupted; nothing was written");
  }
  if (IsFailed()) {
    return FailWrite();
  }
  if (m_temporary.empty()) {
    return kDone;
  }
  if ((m_mode && fchmod(m_fd, *m_mode) != 0) || fsync(m_fd) != 0 ||
      std::rename(m_temporary.c_str(), m_output.c_str()) != 0) {
    m_error = errno;
    return FailWrite();
  }
  m_temporary.clear();
  close(m_fd);
  const int directory = open(DirectoryOf(m_output).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory >= 0) {
    fsync(directory);
    close(directory);
  }
  return kDone;
}

int OutputFile::FailWrite() const {
  const std::string why = std::strerror(m_error);
  return m_output == "-" ? Fail(kFailed, "stdout: cannot write the result: " + why + "; check where the output goes")
                         : Fail(kFailed, m_output + ": cannot write the " + m_what + ": " + why +
                                             "; check the directory, its permissions and the free space");
}
