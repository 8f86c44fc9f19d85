// Platform interface: what is known of a recording besides its pictures.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/export.h"

// Why a camera was recording during a second: a bit number of a trigger entry.
enum REC_TRIG_META : int {
  REC_TRIG_CONTINUOUS = 0,
  REC_TRIG_MOTION = 1,
  REC_TRIG_ALARM = 2,
  REC_TRIG_MANUAL = 3,
  REC_TRIG_EXTERNAL = 4,
  REC_TRIG_ANALYTICS = 5,
};

// A row of bit sets over an enumeration, 48 bits in 6 bytes each, bit 0 the lowest bit of the first byte. Starts all
// zero.
template <typename E>
class BitwiseEnum {
 public:
  static constexpr std::size_t kEntryBytes = 6;  // bytes of a bit set

  // The number of bit sets, and their bytes.
  explicit BitwiseEnum(std::size_t entries) : m_bytes(entries * kEntryBytes) {}
  std::size_t Entries() const { return m_bytes.size() / kEntryBytes; }
  unsigned char* Data() { return m_bytes.data(); }
  const unsigned char* Data() const { return m_bytes.data(); }
  std::size_t Size() const { return m_bytes.size(); }  // bytes

 private:
  std::vector<unsigned char> m_bytes;
};

// Fills the map, one entry a second from startTime on, from the trigger log of a recording directory: the regular file
// "triggers/<startTime>.trig" in dir, which holds the entries and nothing else. Seconds behind the log's end and an
// entry cut short stay as they are. 0 when there was a log; -1 otherwise, the map is unchanged then.
VY_API int ReadRecLog2(const std::string& dir, long startTime, BitwiseEnum<REC_TRIG_META>& map);

// What the name of a recording tells.
class VY_API EventNameParser {
 public:
  // When a recording began, seconds since 1970, from its file name: the last group of digits before the extension, as
  // in "entrance-1763849760.mp4". 0 when the name tells nothing, or a time too late for a long. The flag is the
  // server's own option.
  static long GetRecStartTime(const std::string& path, bool);
};
