// The times of an exported recording: from 0 on, without the jumps of the camera's clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

enum class Track : std::size_t { kVideo, kAudio };

// Moves the frames' times. Both tracks move together: a jump of the clock that one of them has met moves the other by
// as much, and a hole in one track alone stays a hole. Times are microseconds.
class Timeline {
 public:
  // Called for each jump that is closed up, with the times of the two frames.
  using OnJump = std::function<void(std::int64_t from, std::int64_t to)>;
  explicit Timeline(OnJump onJump) : m_onJump(std::move(onJump)) {}

  // The first frame's time in the output. Positive: the muxer would take a zero for no time.
  static constexpr std::int64_t kFirst = 1;

  // The time of the next frame of a track in the output, which is not positive when it belongs before the first frame
  // of all. time: AV_NOPTS_VALUE for one step after the frame before. duration: until the next frame, 0 when not known.
  std::int64_t Place(Track track, std::int64_t time, std::int64_t duration);

  // How long the output is so far.
  std::int64_t Length() const { return m_end; }

 private:
  struct Line {
    bool begun = false;
    std::int64_t last = 0;   // time of the last frame
    std::int64_t step = 0;   // from the frame before to it, 0 when not known
    std::int64_t shift = 0;  // from a frame's time to that in the output

    std::int64_t LastOut() const { return last + shift; }
  };

  void Begin(Line& line, const Line& other, std::int64_t time);
  void Close(Line& line, const Line& other, std::int64_t time, std::int64_t step);

  OnJump m_onJump;
  Line m_lines[2];
  std::int64_t m_end = 0;
};
