#include "tools/mediautil/timeline.h"

#include <algorithm>
#include <cstdlib>

extern "C" {
#include <libavutil/avutil.h>
}

namespace {

constexpr std::int64_t kMillisecond = 1000;  // microseconds
// Frames further apart than that mean that the clock was set, unless the recording has few frames anyway.
constexpr std::int64_t kFarAhead = 5000 * kMillisecond;
constexpr std::int64_t kFarBack = 500 * kMillisecond;
constexpr std::int64_t kUsualStep = 40 * kMillisecond;
constexpr std::int64_t kLongestDuration = 1000 * kFarAhead;  // so that sums do not overflow

bool IsNear(std::int64_t a, std::int64_t b) {
  return std::abs(a - b) <= kFarAhead;
}

}  // namespace

std::int64_t Timeline::Place(Track track, std::int64_t time, std::int64_t duration) {
  Line& line = m_lines[static_cast<std::size_t>(track)];
  const Line& other = m_lines[1 - static_cast<std::size_t>(track)];
  duration = std::clamp<std::int64_t>(duration, 0, kLongestDuration);
  const std::int64_t step = line.step > 0 ? line.step : duration > 0 ? duration : kUsualStep;
  if (time == AV_NOPTS_VALUE) {
    time = line.begun ? line.last + step : 0;
  }
  if (!line.begun) {
    Begin(line, other, time);
  } else {
    const std::int64_t ahead = time - line.last;
    if (ahead < -kFarBack || ahead > std::max(kFarAhead, 3 * duration)) {
      Close(line, other, time, step);
    } else if (ahead > 0) {
      line.step = ahead;
    }
  }
  line.last = time;
  m_end = std::max(m_end, line.LastOut() - kFirst + std::min(step, kFarAhead));
  return line.LastOut();
}

void Timeline::Begin(Line& line, const Line& other, std::int64_t time) {
  line.begun = true;
  if (!other.begun) {
    line.shift = kFirst - time;
  } else if (IsNear(time + other.shift, other.LastOut())) {
    line.shift = other.shift;
  } else {
    line.shift = other.LastOut() - time;
    m_onJump(other.last, time);
  }
}

void Timeline::Close(Line& line, const Line& other, std::int64_t time, std::int64_t step) {
  const std::int64_t together = time + other.shift;
  if (other.begun && together > line.LastOut() - kFarBack && IsNear(together, other.LastOut())) {
    line.shift = other.shift;
    return;
  }
  const std::int64_t from = line.last;
  line.shift = line.LastOut() + step - time;
  m_onJump(from, time);
}
