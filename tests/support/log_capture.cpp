#include "tests/support/log_capture.h"

#include <cstdio>
#include <mutex>

DbgLogCfg* g_pDbgLogCfg = nullptr;
int g_DbgLogPid = 0;

namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;
LogCapture* g_capture = nullptr;

std::vector<LogLine> Select(bool fromFfmpeg) {
  const std::lock_guard<std::mutex> guard(g_mutex);
  std::vector<LogLine> selected;
  for (const LogLine& line : g_lines) {
    if ((line.function == "FfmpegLog") == fromFfmpeg) selected.push_back(line);
  }
  return selected;
}

}  // namespace

void ReinitDbgLogCfg() {
  const std::lock_guard<std::mutex> guard(g_mutex);
  if (g_capture != nullptr) ++g_capture->reinitCalls;
}

int VyVPrintf(LOG_TYPE, const char* categText, const char* levelText, const char* sourcePath, int line,
              const char* function, const char* format, va_list args) {
  char text[4096];
  const int length = std::vsnprintf(text, sizeof(text), format, args);
  const std::lock_guard<std::mutex> guard(g_mutex);
  g_lines.push_back({categText == nullptr ? "(null)" : categText, levelText == nullptr ? "(null)" : levelText,
                     sourcePath, line, function, text});
  return length;
}

template <>
VyEnum2StrMap<LOG_CATEG>::VyEnum2StrMap() : m_texts{{LOG_CATEG_MEDIA, "MEDIA"}} {}

template <>
VyEnum2StrMap<LOG_LEVEL>::VyEnum2StrMap()
    : m_texts{{LOG_LEVEL_ERR, "1"},  {LOG_LEVEL_WARN, "3"},  {LOG_LEVEL_NOTE, "4"},
              {LOG_LEVEL_INFO, "5"}, {LOG_LEVEL_DEBUG, "6"}, {LOG_LEVEL_TRACE, "7"}} {}

LogCapture::LogCapture() {
  cfg.categLevel[LOG_CATEG_MEDIA] = LOG_LEVEL_TRACE;
  g_capture = this;
  Attach();
  Clear();
}

LogCapture::~LogCapture() {
  Detach();
  g_capture = nullptr;
}

void LogCapture::Attach() {
  __atomic_store_n(&g_pDbgLogCfg, &cfg, __ATOMIC_RELEASE);
}

void LogCapture::Detach() {
  __atomic_store_n(&g_pDbgLogCfg, nullptr, __ATOMIC_RELEASE);
}

std::vector<LogLine> LogCapture::Lines() const {
  return Select(false);
}

std::vector<LogLine> LogCapture::FfmpegLines() const {
  return Select(true);
}

::Messages LogCapture::Messages() const {
  ::Messages messages;
  for (const LogLine& line : Lines()) messages.push_back(line.level + "|" + line.text);
  return messages;
}

std::string LogCapture::Text() const {
  std::string text;
  for (const std::string& message : Messages()) text += message;
  return text;
}

void LogCapture::Clear() {
  const std::lock_guard<std::mutex> guard(g_mutex);
  g_lines.clear();
}
