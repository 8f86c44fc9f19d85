#include "tools/mediautil/password.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/mediautil/args.h"
#include "tools/mediautil/stopsignals.h"

namespace {

constexpr const char* kVariable = "MEDIAUTIL_PASSWORD";
constexpr std::size_t kLongest = 1024;

enum class Line { kRead, kTooLong, kFailed };

// The bytes up to the end of the line or of the input. A signal to stop ends it, even one that comes before the read.
Line ReadLine(int fd, std::string& line) {
  constexpr int kPause = 100;  // milliseconds
  while (line.size() <= kLongest && !StopSignals::Seen()) {
    pollfd wait = {fd, POLLIN, 0};
    if (poll(&wait, 1, kPause) <= 0) {
      continue;
    }
    char c = 0;
    const ssize_t count = read(fd, &c, 1);
    if (count < 0) {
      return Line::kFailed;
    }
    if (count == 0 || c == '\n') {
      return Line::kRead;
    }
    line += c;
  }
  return StopSignals::Seen() ? Line::kFailed : Line::kTooLong;
}

// Takes the echo from a terminal, and the keys that would leave it so.
class EchoOff {
 public:
  explicit EchoOff(int fd) : m_fd(fd), m_isOff(tcgetattr(fd, &m_before) == 0) {
    termios quiet = m_before;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_cc[VSUSP] = _POSIX_VDISABLE;
    quiet.c_cc[VQUIT] = _POSIX_VDISABLE;
    m_isOff = m_isOff && tcsetattr(fd, TCSAFLUSH, &quiet) == 0;
  }
  ~EchoOff() {
    if (m_isOff) {
      tcsetattr(m_fd, TCSAFLUSH, &m_before);
    }
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

  bool IsOff() const { return m_isOff; }

 private:
  int m_fd;
  termios m_before = {};
  bool m_isOff;
};

void WriteText(int fd, const std::string& text) {
  std::size_t done = 0;
  for (ssize_t count = 1; done < text.size() && count > 0; done += count > 0 ? static_cast<std::size_t>(count) : 0) {
    count = write(fd, text.data() + done, text.size() - done);
  }
}

int FailInterrupted() {
  return Fail(kInterrupted, "interrupted; nothing was sent");
}

int FromFile(const std::string& file, std::string& password) {
  const bool isStdin = file == "-";
  const int fd = isStdin ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  struct stat status = {};
  const Line line = fd < 0 ? Line::kFailed : ReadLine(fd, password);
  const std::string why = std::strerror(errno);
  const bool isOpenToOthers =
      fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) != 0;
  if (fd >= 0 && !isStdin) {
    close(fd);
  }
  const std::string what = (isStdin ? "stdin" : file) + ": cannot read the password: ";
  if (line == Line::kFailed) {
    return StopSignals::Seen() ? FailInterrupted()
                               : Fail(kBadInput, what + why + "; check the path and the permissions");
  }
  if (!password.empty() && password.back() == '\r') {
    password.pop_back();
  }
  if (line == Line::kTooLong || password.empty()) {
    return Fail(kBadInput, what + (password.empty() ? "the first line is empty" : "the first line is too long") +
                               "; put the password there and nothing else");
  }
  if (isOpenToOthers) {
    Note(file + ": other users may read the password; chmod 600 it");
  }
  return kDone;
}

int FromTerminal(const std::string& prompt, std::string& password) {
  const int fd = open("/dev/tty", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return Fail(kUsage, std::string("no terminal to ask for the password; give --password-file, or set ") + kVariable);
  }
  Line line = Line::kFailed;
  {
    const EchoOff echoOff(fd);
    if (echoOff.IsOff()) {
      WriteText(fd, prompt);
      line = ReadLine(fd, password);
      WriteText(fd, "\n");
    }
  }
  close(fd);
  if (line == Line::kRead) {
    return kDone;
  }
  return StopSignals::Seen() ? FailInterrupted()
                             : Fail(kFailed, "cannot read the password from the terminal; give --password-file");
}

}  // namespace

int ReadPassword(const std::string& file, const std::string& prompt, std::string& password) {
  if (!file.empty()) {
    return FromFile(file, password);
  }
  const char* value = std::getenv(kVariable);
  if (value != nullptr && *value != '\0') {
    password = value;
    return kDone;
  }
  return FromTerminal(prompt, password);
}
