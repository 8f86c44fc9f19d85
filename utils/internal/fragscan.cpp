#include "utils/internal/fragscan.h"

#include <algorithm>
#include <cstring>

#include "utils/esformat.h"

namespace mediautil {
namespace {

constexpr std::uint32_t kFirstTrack = 1;

// What the flags of a track header and of a run announce.
constexpr std::uint32_t kBaseOffset = 0x1;
constexpr std::uint32_t kDescriptionIndex = 0x2;
constexpr std::uint32_t kDefaultDuration = 0x8;
constexpr std::uint32_t kDataOffset = 0x1;
constexpr std::uint32_t kFirstSampleFlags = 0x4;
constexpr std::uint32_t kSampleDuration = 0x100;
constexpr std::uint32_t kSampleFields[] = {kSampleDuration, 0x200, 0x400, 0x800};  // with size, flags, time offset

}  // namespace

void FragScan::Feed(const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    const std::uint64_t wanted = m_skip > 0 ? m_skip : m_need - m_have;
    const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(wanted, size));
    if (m_skip > 0) {
      m_skip -= n;
    } else {
      std::memcpy(m_bytes.data() + m_have, data, n);
      m_have += n;
    }
    data += n;
    size -= n;
    m_pos += n;
    if (m_have == m_need) {
      Take();
    }
  }
}

void FragScan::Want(Field field, std::uint64_t size) {
  m_field = field;
  m_have = 0;
  m_need = static_cast<std::size_t>(std::min<std::uint64_t>(size, m_bytes.size()));
}

void FragScan::Take() {
  switch (m_field) {
    case Field::kHeader:
      if (Word(0) == 1) {
        m_field = Field::kLongHeader;
        m_need = 16;
      } else {
        OpenBox(Word(0), 8);
      }
      break;
    case Field::kLongHeader:
      OpenBox(LongWord(8), 16);
      break;
    case Field::kTrackHeader:
      ReadTrackHeader();
      break;
    case Field::kDecodeTime:
      m_sum = m_bytes[0] == 1 ? LongWord(4) : Word(4);
      NextBox();
      break;
    case Field::kRunHeader:
      ReadRunHeader();
      break;
    case Field::kSample:
      ReadSample();
      break;
  }
}

void FragScan::OpenBox(std::uint64_t size, std::uint64_t headerSize) {
  const std::uint64_t start = m_pos - headerSize;
  while (m_level != kFile && start >= m_end[m_level]) {
    Leave();
  }
  const std::uint64_t room = m_level == kFile ? UINT64_MAX - start : m_end[m_level] - start;
  if (size < headerSize || size > room) {  // also a box that reaches to the end of the file
    Lost();
    return;
  }
  m_boxEnd = start + size;
  Enter(Word(4), size - headerSize);
}

void FragScan::Enter(std::uint32_t type, std::uint64_t bodySize) {
  const bool isContainer = (m_level == kFile && type == EsFourCC("moof")) ||  //
                           (m_level == kFragment && type == EsFourCC("traf"));
  const bool isFirst = m_trackId == kFirstTrack;
  if (isContainer) {
    m_end[++m_level] = m_boxEnd;
    m_trackId = 0;
    Want(Field::kHeader, 8);
  } else if (m_level == kTrack && type == EsFourCC("tfhd") && bodySize >= 8) {
    Want(Field::kTrackHeader, bodySize);
  } else if (m_level == kTrack && type == EsFourCC("tfdt") && bodySize >= 8 && isFirst) {
    Want(Field::kDecodeTime, std::min<std::uint64_t>(bodySize, 12));
  } else if (m_level == kTrack && type == EsFourCC("trun") && bodySize >= 8 && isFirst) {
    Want(Field::kRunHeader, 8);
  } else {
    NextBox();
  }
}

void FragScan::Leave() {
  if (m_level == kFragment) {
    m_next = m_sum;
  }
  --m_level;
}

void FragScan::ReadTrackHeader() {
  const std::uint32_t flags = Word(0);
  std::size_t at = 8;
  at += (flags & kBaseOffset) != 0 ? 8 : 0;
  at += (flags & kDescriptionIndex) != 0 ? 4 : 0;
  m_trackId = Word(4);
  m_defaultDuration = (flags & kDefaultDuration) != 0 && at + 4 <= m_need ? Word(at) : 0;
  NextBox();
}

void FragScan::ReadRunHeader() {
  const std::uint32_t flags = Word(0);
  m_samplesLeft = Word(4);
  m_sampleSize = 0;
  for (const std::uint32_t field : kSampleFields) {
    m_sampleSize += (flags & field) != 0 ? 4 : 0;
  }
  if ((flags & kSampleDuration) == 0) {
    m_sum += std::uint64_t{m_samplesLeft} * m_defaultDuration;
    NextBox();
    return;
  }
  m_skip = ((flags & kDataOffset) != 0 ? 4U : 0U) + ((flags & kFirstSampleFlags) != 0 ? 4U : 0U);
  if (m_skip + std::uint64_t{m_samplesLeft} * m_sampleSize > m_boxEnd - m_pos) {
    Lost();
  } else if (m_samplesLeft == 0) {
    NextBox();
  } else {
    Want(Field::kSample, m_sampleSize);
  }
}

void FragScan::ReadSample() {
  m_sum += Word(0);
  if (--m_samplesLeft == 0) {
    NextBox();
  } else {
    Want(Field::kSample, m_sampleSize);
  }
}

void FragScan::NextBox() {
  m_skip = m_boxEnd - m_pos;
  Want(Field::kHeader, 8);
}

void FragScan::Lost() {
  m_skip = UINT64_MAX;
  Want(Field::kHeader, 8);
}

std::uint32_t FragScan::Word(std::size_t at) const {
  return std::uint32_t{m_bytes[at]} << 24 | std::uint32_t{m_bytes[at + 1]} << 16 | std::uint32_t{m_bytes[at + 2]} << 8 |
         m_bytes[at + 3];
}

std::uint64_t FragScan::LongWord(std::size_t at) const {
  return std::uint64_t{Word(at)} << 32 | Word(at + 4);
}

}  // namespace mediautil
