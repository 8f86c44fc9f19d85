// The record that describes one elementary stream.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

// Stream categories, ESFormat::i_cat.
enum ES_CATEGORY : std::int32_t { ES_UNKNOWN = 0, ES_VIDEO = 1, ES_AUDIO = 2 };

// A four-character code, first character in the most significant byte.
constexpr std::uint32_t EsFourCC(const char (&text)[5]) {
  return static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) << 24 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 16 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 8 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(text[3]));
}

// The sound of a stream.
struct ESAudioFormat {
  std::uint32_t i_rate;       // samples per second
  std::uint8_t i_channels;    // number of channels
  std::uint32_t i_caller[4];  // words of the callers, carried unchanged
};

// The pictures of a stream.
struct ESVideoFormat {
  std::uint32_t i_width;      // pixels
  std::uint32_t i_height;     // pixels
  std::uint32_t i_sar_num;    // sample aspect ratio, numerator
  std::uint32_t i_sar_den;    // and denominator
  std::uint32_t i_caller[4];  // words of the callers, carried unchanged
};

// A plain record: copying it copies the pointer, so one of the copies has to give p_extra up.
struct ESFormat {
  std::int32_t i_cat = ES_UNKNOWN;   // an ES_CATEGORY
  std::uint32_t i_codec = 0;         // four-character code, 0: none
  std::int32_t i_codec_id = -1;      // AVCodecID, -1: not known
  ESAudioFormat audio = {};          // of category ES_AUDIO
  ESVideoFormat video = {};          // of category ES_VIDEO
  std::int32_t i_bitrate = 0;        // bits per second
  std::int32_t i_extra = 0;          // bytes in p_extra
  unsigned char* p_extra = nullptr;  // codec configuration data from malloc, owned by the record
  std::string str_codec;             // name in session-description spelling, empty: not known

  // Empties the record for a new stream of the wanted category and frees p_extra. Reset(ES_UNKNOWN) releases it.
  void Reset(std::int32_t cat) {
    i_cat = cat;
    i_codec = 0;
    i_codec_id = -1;
    audio = {};
    video = {};
    i_bitrate = 0;
    i_extra = 0;
    std::free(p_extra);
    p_extra = nullptr;
    str_codec.clear();
  }
};
