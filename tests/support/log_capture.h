// Stands in for the platform's log topic at link time: records what would be written.
#pragma once

#include <string>
#include <vector>

#include "platform/log.h"

struct LogLine {
  std::string categ;
  std::string level;
  std::string path;
  int line;
  std::string function;
  std::string text;
};

using Messages = std::vector<std::string>;

// Records from its construction on, with every level of the media category let through. One at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();

  // The library's messages so far; FFmpeg's own are kept apart.
  std::vector<LogLine> Lines() const;
  std::vector<LogLine> FfmpegLines() const;
  // "1|text" of each line: the number of its level, then the message, newlines included.
  ::Messages Messages() const;
  std::string Text() const;  // the messages in one
  void Clear();

  // The configuration that the library sees; Detach takes it away.
  DbgLogCfg cfg = {};
  void Attach();
  void Detach();
  int reinitCalls = 0;
};
