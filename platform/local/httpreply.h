// Reader of one HTTP/1.x reply, fed with its bytes as they come.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace local {

constexpr std::size_t kMaxReplyBody = 1 << 20;  // bytes
constexpr std::size_t kMaxReplyHead = 1 << 16;  // interim replies and trailers included

class HttpReply {
 public:
  void Feed(std::string_view bytes);
  // No more bytes will come.
  void End() { m_state = State::kOver; }

  // The status line of a final reply (not 1xx) was read, or nothing more will come.
  bool HasBegun() const { return m_status >= 200 || IsOver(); }
  // Complete, ended, no HTTP, or too long; further bytes are ignored.
  bool IsOver() const { return m_state == State::kOver; }
  // 0 without a status line.
  int Status() const { return m_status; }
  // What came of it, at most kMaxReplyBody bytes.
  const std::string& Body() const { return m_body; }

 private:
  enum class State { kStatusLine, kHeaders, kBody, kChunkSize, kChunk, kChunkEnd, kTrailers, kOver };

  bool InHead() const;
  std::size_t TakeLine(std::string_view bytes);
  std::size_t TakeBody(std::string_view bytes);
  State AfterLine(std::string_view line);
  State AfterStatusLine(std::string_view line);
  State AfterHeader(std::string_view line);
  State AfterHead();
  State AfterChunkSize(std::string_view line);

  State m_state = State::kStatusLine;
  std::string m_line;  // the part of a line that has come
  std::size_t m_headSize = 0;
  int m_status = 0;
  bool m_chunked = false;
  bool m_hasLength = false;
  std::uint64_t m_length = 0;  // of the body as announced
  std::uint64_t m_left = 0;    // of the body or chunk
  std::string m_body;
};

}  // namespace local
