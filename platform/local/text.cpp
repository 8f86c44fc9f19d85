#include "platform/text.h"

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
