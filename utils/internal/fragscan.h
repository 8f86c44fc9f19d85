// Where the next fragment of a fragmented MP4 begins, read from the bytes as they pass by.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace mediautil {

// Follows the first track through movie fragments of any length, cut into pieces of any size, in constant memory. Bytes
// that are no box structure end the scan; what was found until then stays.
class FragScan {
 public:
  void Feed(const std::uint8_t* data, std::size_t size);

  // The decoding time of the last fragment's first sample plus the durations of its samples, in ticks of the track. A
  // fragment counts once the box behind its header begins; 0 before the first one.
  std::int64_t NextStart() const { return static_cast<std::int64_t>(m_next); }

 private:
  enum class Field { kHeader, kLongHeader, kTrackHeader, kDecodeTime, kRunHeader, kSample };
  // The boxes that the scan goes into, outermost first.
  enum Level : std::size_t { kFile, kFragment, kTrack, kLevels };

  void Want(Field field, std::uint64_t size);
  void Take();
  void OpenBox(std::uint64_t size, std::uint64_t headerSize);
  void Enter(std::uint32_t type, std::uint64_t bodySize);
  void Leave();
  void ReadTrackHeader();
  void ReadRunHeader();
  void ReadSample();
  void NextBox();
  void Lost();
  std::uint32_t Word(std::size_t at) const;
  std::uint64_t LongWord(std::size_t at) const;

  Field m_field = Field::kHeader;
  std::array<std::uint8_t, 32> m_bytes{};  // the field, as far as it has come
  std::size_t m_have = 0;
  std::size_t m_need = 8;
  std::uint64_t m_skip = 0;  // bytes to pass over before the field
  std::uint64_t m_pos = 0;   // bytes seen
  std::size_t m_level = kFile;
  std::array<std::uint64_t, kLevels> m_end{};  // of the open box of each level
  std::uint64_t m_boxEnd = 0;                  // of the box at hand

  std::uint32_t m_trackId = 0;
  std::uint32_t m_defaultDuration = 0;
  std::uint32_t m_samplesLeft = 0;  // of the run at hand
  std::size_t m_sampleSize = 0;
  std::uint64_t m_sum = 0;  // m_next as far as the fragment at hand goes
  std::uint64_t m_next = 0;
};

}  // namespace mediautil
