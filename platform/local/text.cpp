#include "platform/text.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

std::vector<std::string> String2StrVector(const std::string& text, const std::string& separator) {
  std::vector<std::string> pieces;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = separator.empty() ? std::string::npos : text.find(separator, begin);
    pieces.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
    if (end == std::string::npos) break;
    begin = end + separator.size();
  }
  return pieces;
}

std::string StringPrintf(const char* format, ...) {
  const int error = errno;
  std::string text;
  va_list args;
  va_list again;
  va_start(args, format);
  va_copy(again, args);
  const int length = format == nullptr ? -1 : std::vsnprintf(nullptr, 0, format, args);
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length));
    std::vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  va_end(args);
  errno = error;
  return text;
}

std::string StringReplaceSymbol(const std::string& text, const std::string& piece, const std::string& replacement,
                                bool all) {
  std::string replaced;
  std::size_t begin = 0;
  std::size_t found = piece.empty() ? std::string::npos : text.find(piece);
  while (found != std::string::npos) {
    replaced.append(text, begin, found - begin).append(replacement);
    begin = found + piece.size();
    found = all ? text.find(piece, begin) : std::string::npos;
  }
  return replaced.append(text, begin, std::string::npos);
}
