#include "utils/internal/codecstring.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace mediautil {
namespace {

struct Bytes {
  const std::uint8_t* data;
  std::size_t size;
};

// Types of network abstraction layer units.
constexpr unsigned int kAvcSps = 7;
constexpr unsigned int kHevcVps = 32;
constexpr unsigned int kHevcSps = 33;
constexpr unsigned int kHevcPps = 34;

constexpr std::size_t kAvcHeaderSize = 7;
constexpr std::size_t kHevcHeaderSize = 23;
constexpr std::size_t kProfileSize = 12;  // of an HEVC stream: profile, compatibility, constraints, level

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[64];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  return text;
}

// Offset of the next start code 00 00 01, or the size.
std::size_t FindStartCode(const Bytes& bytes, std::size_t from) {
  for (std::size_t i = from; i + 3 <= bytes.size; ++i) {
    if (bytes.data[i] == 0 && bytes.data[i + 1] == 0 && bytes.data[i + 2] == 1) {
      return i;
    }
  }
  return bytes.size;
}

std::vector<Bytes> StartCodeUnits(const Bytes& bytes) {
  std::vector<Bytes> units;
  for (std::size_t at = FindStartCode(bytes, 0); at < bytes.size;) {
    const std::size_t begin = at + 3;
    at = FindStartCode(bytes, begin);
    if (at > begin) {
      units.push_back({bytes.data + begin, at - begin});
    }
  }
  return units;
}

// The units of an hvcC box, as far as they are there.
std::vector<Bytes> HvccUnits(const Bytes& bytes) {
  std::vector<Bytes> units;
  std::size_t at = kHevcHeaderSize;
  for (unsigned int arrays = bytes.data[at - 1]; arrays > 0 && at + 3 <= bytes.size; --arrays) {
    unsigned int count = bytes.data[at + 1] * 256U + bytes.data[at + 2];
    at += 3;
    for (; count > 0 && at + 2 <= bytes.size; --count) {
      const std::size_t size = bytes.data[at] * 256U + bytes.data[at + 1];
      at += 2;
      if (size > bytes.size - at) {
        return units;
      }
      if (size > 0) {
        units.push_back({bytes.data + at, size});
      }
      at += size;
    }
  }
  return units;
}

bool IsHvcc(const Bytes& bytes) {
  return bytes.size >= kHevcHeaderSize && bytes.data[0] == 1;
}

std::vector<Bytes> HevcUnits(const Bytes& bytes) {
  return IsHvcc(bytes) ? HvccUnits(bytes) : StartCodeUnits(bytes);
}

unsigned int HevcType(const Bytes& unit) {
  return unit.data[0] >> 1 & 0x3FU;
}

using Profile = std::array<std::uint8_t, kProfileSize>;

// The bytes of a parameter set from an offset on, without the 03 that keeps start codes from appearing in it. False
// when it is too short.
bool ReadProfile(const Bytes& unit, std::size_t offset, Profile& profile) {
  std::size_t count = 0;
  unsigned int zeros = 0;
  for (std::size_t i = 0; i < unit.size && count < offset + profile.size(); ++i) {
    if (zeros >= 2 && unit.data[i] == 3) {
      zeros = 0;
      continue;
    }
    zeros = unit.data[i] == 0 ? zeros + 1 : 0;
    if (count >= offset) {
      profile[count - offset] = unit.data[i];
    }
    ++count;
  }
  return count == offset + profile.size();
}

bool FindProfile(const Bytes& bytes, Profile& profile) {
  if (IsHvcc(bytes)) {
    std::copy_n(bytes.data + 1, profile.size(), profile.begin());
    return true;
  }
  for (const Bytes& unit : StartCodeUnits(bytes)) {
    const unsigned int type = HevcType(unit);
    if ((type == kHevcSps && ReadProfile(unit, 3, profile)) || (type == kHevcVps && ReadProfile(unit, 6, profile))) {
      return true;
    }
  }
  return false;
}

std::string AvcString(const Bytes& bytes) {
  const std::uint8_t* profile = nullptr;  // profile, compatibility, level
  if (bytes.size >= kAvcHeaderSize && bytes.data[0] == 1) {
    profile = bytes.data + 1;
  } else {
    for (const Bytes& unit : StartCodeUnits(bytes)) {
      if ((unit.data[0] & 0x1FU) == kAvcSps && unit.size >= 4) {
        profile = unit.data + 1;
        break;
      }
    }
  }
  return profile == nullptr ? "" : Format("avc1.%02x%02x%02x", profile[0], profile[1], profile[2]);
}

std::string HevcString(const Bytes& bytes) {
  Profile profile = {};
  if (!FindProfile(bytes, profile)) {
    return "";
  }
  constexpr const char* kSpaces[] = {"", "A", "B", "C"};
  std::uint32_t compatibility = 0;  // named with its bits in reverse order
  for (unsigned int bit = 0; bit < 32; ++bit) {
    const unsigned int byte = profile[1 + bit / 8];
    compatibility |= (byte >> (7 - bit % 8) & 1U) << bit;
  }
  std::string text = HoldsHevcSets(bytes.data, bytes.size) ? "hvc1" : "hev1";
  text += Format(".%s%u.%X.%c%u", kSpaces[profile[0] >> 6], profile[0] & 0x1FU, compatibility,
                 (profile[0] & 0x20U) != 0 ? 'H' : 'L', profile[11]);
  std::size_t last = 10;
  while (last >= 5 && profile[last] == 0) {
    --last;
  }
  for (std::size_t i = 5; i <= last; ++i) {
    text += Format(".%X", profile[i]);
  }
  return text;
}

std::string Mpeg4String(const Bytes& bytes) {
  constexpr std::uint8_t kSequenceStart = 0xB0;
  for (const Bytes& unit : StartCodeUnits(bytes)) {
    if (unit.data[0] == kSequenceStart && unit.size >= 2) {
      return Format("mp4v.20.%u", unit.data[1]);
    }
  }
  return "";
}

}  // namespace

std::string VideoCodecString(AVCodecID codecId, const std::uint8_t* extradata, std::size_t size) {
  const Bytes bytes = {extradata, extradata == nullptr ? 0 : size};
  switch (codecId) {
    case AV_CODEC_ID_H264:
      return AvcString(bytes);
    case AV_CODEC_ID_HEVC:
      return HevcString(bytes);
    case AV_CODEC_ID_MPEG4:
      return Mpeg4String(bytes);
    case AV_CODEC_ID_MJPEG:
      return "mp4v.6C";
    default:
      return "";
  }
}

std::string AudioCodecString(AVCodecID codecId) {
  switch (codecId) {
    case AV_CODEC_ID_AAC:
      return "mp4a.40.2";
    case AV_CODEC_ID_MP2:
    case AV_CODEC_ID_MP3:
      return "mp4a.6B";
    case AV_CODEC_ID_AC3:
      return "ac-3";
    case AV_CODEC_ID_EAC3:
      return "ec-3";
    case AV_CODEC_ID_OPUS:
      return "opus";
    case AV_CODEC_ID_FLAC:
      return "flac";
    default:
      return "";
  }
}

bool HoldsHevcSets(const std::uint8_t* extradata, std::size_t size) {
  bool vps = false;
  bool sps = false;
  bool pps = false;
  for (const Bytes& unit : HevcUnits({extradata, extradata == nullptr ? 0 : size})) {
    vps = vps || HevcType(unit) == kHevcVps;
    sps = sps || HevcType(unit) == kHevcSps;
    pps = pps || HevcType(unit) == kHevcPps;
  }
  return vps && sps && pps;
}

}  // namespace mediautil
