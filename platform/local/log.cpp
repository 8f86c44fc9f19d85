#include "platform/log.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>

#include "platform/local/fd.h"
#include "platform/local/logconfig.h"
#include "platform/local/mask.h"
#include "platform/local/state.h"

DbgLogCfg* g_pDbgLogCfg = nullptr;
int g_DbgLogPid = 0;

namespace {

constexpr std::size_t kMaxText = 8192;  // bytes
constexpr std::size_t kRoomForNewlines = 16;

// A log call must not change the error that its caller is about to look at.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : m_errno(errno) {}
  ~ErrnoKeeper() { errno = m_errno; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int m_errno;
};

const char* TextOrDash(const char* text) {
  return text == nullptr ? "-" : text;
}

// "YYYY-MM-DD HH:MM:SS.mmm", local time.
std::string Timestamp() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  tm local = {};
  localtime_r(&now.tv_sec, &local);
  char date[32] = {};
  std::strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &local);
  char text[48] = {};
  std::snprintf(text, sizeof(text), "%s.%03d", date, static_cast<int>(now.tv_usec / 1000));
  return text;
}

// Cuts behind a whole UTF-8 character.
std::string_view CutText(std::string_view text) {
  std::size_t size = kMaxText;
  while (size > kMaxText - 3 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) --size;
  return text.substr(0, size);
}

// The message without its trailing newlines, secrets masked. Throws nothing but bad_alloc; false for a bad format.
__attribute__((format(printf, 1, 0))) bool FormatText(const char* format, va_list args, std::string& text) {
  if (format == nullptr) {
    text = "-";
    return true;
  }
  std::array<char, kMaxText + kRoomForNewlines> buffer;
  const int wanted = std::vsnprintf(buffer.data(), buffer.size(), format, args);
  if (wanted < 0) return false;
  const std::size_t size = std::min(static_cast<std::size_t>(wanted), buffer.size() - 1);
  std::string_view view(buffer.data(), size);
  while (!view.empty() && (view.back() == '\n' || view.back() == '\r')) view.remove_suffix(1);
  const bool cut = view.size() > kMaxText;
  text = local::MaskSecrets(cut ? CutText(view) : view);
  if (cut) text += "...";
  return true;
}

// Control characters, the two-byte ones of UTF-8 (U+0080 to U+009F) and its line separators included, become '?', so
// that no message can look like two or move a terminal's cursor.
std::string Defuse(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
    const std::string_view three = text.substr(i, 3);
    if (byte < 0x20 || byte == 0x7F) {
      out += '?';
    } else if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) {
      out += '?';
      ++i;
    } else if (three == "\xE2\x80\xA8" || three == "\xE2\x80\xA9") {
      out += '?';
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// One write, so that lines of several processes do not mix.
int WriteOnce(int fd, const std::string& line) {
  ssize_t written = 0;
  do {
    written = write(fd, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  return static_cast<int>(written);
}

// Opened for each line: a file that was moved away is simply made anew.
int WriteLine(const std::string& line) {
  const char* path = std::getenv("MEDIAUTIL_LOG_FILE");
  if (path == nullptr || *path == '\0') return WriteOnce(STDERR_FILENO, line);
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  const local::UniqueFd fd(open(path, kFlags, 0640));
  return fd.IsOpen() ? WriteOnce(fd.Get(), line) : -1;
}

}  // namespace

void ReinitDbgLogCfg() {
  const ErrnoKeeper keeper;
  if (__atomic_load_n(&g_pDbgLogCfg, __ATOMIC_ACQUIRE) != nullptr) return;
  const std::string path = local::StatePath(local::kDbgLogCfgFile);
  DbgLogCfg* record = nullptr;
  if (path.empty() || local::MapDbgLogCfg(path, local::RecordAccess::kRead, record) != local::RecordState::kMapped)
    return;
  DbgLogCfg* expected = nullptr;
  if (!__atomic_compare_exchange_n(&g_pDbgLogCfg, &expected, record, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    local::UnmapDbgLogCfg(record);
  }
}

int VyVPrintf(LOG_TYPE, const char* categText, const char* levelText, const char* sourcePath, int line,
              const char* function, const char* format, va_list args) {
  const ErrnoKeeper keeper;
  try {
    std::string text;
    if (!FormatText(format, args, text)) return -1;
    const std::string head = Timestamp() + " [" + std::to_string(getpid()) + "] " + TextOrDash(categText) + " " +
                             TextOrDash(levelText) + " " + TextOrDash(sourcePath) + ":" + std::to_string(line) + " " +
                             TextOrDash(function) + ": ";
    return WriteLine(Defuse(head + text) + "\n");
  } catch (const std::exception&) {
    return -1;  // out of memory
  }
}

template <>
VyEnum2StrMap<LOG_CATEG>::VyEnum2StrMap() : m_texts{{LOG_CATEG_ARCHPUSH, "ARCHPUSH"}, {LOG_CATEG_MEDIA, "MEDIA"}} {}

template <>
VyEnum2StrMap<LOG_LEVEL>::VyEnum2StrMap()
    : m_texts{{LOG_LEVEL_ERR, "ERR"},   {LOG_LEVEL_WARN, "WARN"},   {LOG_LEVEL_NOTE, "NOTE"},
              {LOG_LEVEL_INFO, "INFO"}, {LOG_LEVEL_DEBUG, "DEBUG"}, {LOG_LEVEL_TRACE, "TRACE"}} {}
