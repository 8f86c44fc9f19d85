#include "platform/local/httpreply.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace local {
namespace {

constexpr std::size_t kMaxChunkLine = 1024;
constexpr std::uint64_t kUntilEnd = std::numeric_limits<std::uint64_t>::max();

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return Lower(x) == Lower(y); });
}

std::string_view Trim(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

bool ParseNumber(std::string_view text, int base, std::uint64_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

void HttpReply::Feed(std::string_view bytes) {
  while (!bytes.empty() && !IsOver()) {
    const bool inBody = m_state == State::kBody || m_state == State::kChunk;
    bytes.remove_prefix(inBody ? TakeBody(bytes) : TakeLine(bytes));
  }
}

bool HttpReply::InHead() const {
  return m_state == State::kStatusLine || m_state == State::kHeaders || m_state == State::kTrailers;
}

std::size_t HttpReply::TakeLine(std::string_view bytes) {
  const std::size_t newline = bytes.find('\n');
  const std::size_t size = newline == std::string_view::npos ? bytes.size() : newline + 1;
  m_headSize += InHead() ? size : 0;
  if (m_headSize > kMaxReplyHead || (!InHead() && m_line.size() + size > kMaxChunkLine)) {
    m_state = State::kOver;
    return size;
  }
  m_line.append(bytes, 0, size);
  if (newline == std::string_view::npos) return size;
  m_line.pop_back();
  if (!m_line.empty() && m_line.back() == '\r') m_line.pop_back();
  m_state = AfterLine(m_line);
  m_line.clear();
  return size;
}

std::size_t HttpReply::TakeBody(std::string_view bytes) {
  const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), m_left));
  const std::size_t taken = std::min(size, kMaxReplyBody - m_body.size());
  m_body.append(bytes, 0, taken);
  if (m_left != kUntilEnd) m_left -= size;
  if (taken < size) {
    m_state = State::kOver;
  } else if (m_left == 0) {
    m_state = m_state == State::kChunk ? State::kChunkEnd : State::kOver;
  }
  return size;
}

HttpReply::State HttpReply::AfterLine(std::string_view line) {
  switch (m_state) {
    case State::kStatusLine:
      return AfterStatusLine(line);
    case State::kHeaders:
      return line.empty() ? AfterHead() : AfterHeader(line);
    case State::kChunkSize:
      return AfterChunkSize(line);
    case State::kChunkEnd:
      return line.empty() ? State::kChunkSize : State::kOver;
    case State::kTrailers:
      return line.empty() ? State::kOver : State::kTrailers;
    default:
      return State::kOver;
  }
}

// "HTTP/1.1 200 OK"; the text may be missing.
HttpReply::State HttpReply::AfterStatusLine(std::string_view line) {
  std::uint64_t status = 0;
  const bool isHttp = line.size() >= 12 && line.substr(0, 7) == "HTTP/1." && line[8] == ' ' &&
                      (line.size() == 12 || line[12] == ' ') && ParseNumber(line.substr(9, 3), 10, status);
  if (!isHttp || status < 100) return State::kOver;
  m_status = static_cast<int>(status);
  m_chunked = false;
  m_hasLength = false;
  return State::kHeaders;
}

HttpReply::State HttpReply::AfterHeader(std::string_view line) {
  const std::size_t colon = std::min(line.find(':'), line.size());
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = Trim(line.substr(std::min(colon + 1, line.size())));
  if (EqualsIgnoringCase(name, "Transfer-Encoding")) {
    m_chunked = EqualsIgnoringCase(Trim(value.substr(value.rfind(',') + 1)), "chunked");
  } else if (EqualsIgnoringCase(name, "Content-Length")) {
    std::uint64_t length = 0;
    if (!ParseNumber(value, 10, length) || (m_hasLength && length != m_length)) return State::kOver;
    m_hasLength = true;
    m_length = length;
  }
  return State::kHeaders;
}

HttpReply::State HttpReply::AfterHead() {
  if (m_status < 200) return State::kStatusLine;
  if (m_status == 204 || m_status == 304) return State::kOver;
  if (m_chunked) return State::kChunkSize;
  m_left = m_hasLength ? m_length : kUntilEnd;
  return m_left == 0 ? State::kOver : State::kBody;
}

HttpReply::State HttpReply::AfterChunkSize(std::string_view line) {
  const std::string_view size = Trim(line.substr(0, line.find(';')));
  if (!ParseNumber(size, 16, m_left) || m_left == kUntilEnd) return State::kOver;
  return m_left == 0 ? State::kTrailers : State::kChunk;
}

}  // namespace local
