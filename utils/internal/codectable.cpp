#include "utils/internal/codectable.h"

#include "utils/esformat.h"

namespace mediautil {

AVCodecID VideoCodecId(int vdoType) {
  switch (vdoType) {
    case 1:
      return AV_CODEC_ID_MJPEG;
    case 2:
      return AV_CODEC_ID_MPEG4;
    case 3:
    case 7:
      return AV_CODEC_ID_H264;
    case 5:
      return AV_CODEC_ID_MXPEG;
    case 6:
    case 8:
      return AV_CODEC_ID_HEVC;
    default:
      return AV_CODEC_ID_NONE;
  }
}

AVCodecID VideoCodecIdByName(const std::string& name) {
  if (name == "H264" || name == "AVC1") {
    return AV_CODEC_ID_H264;
  }
  if (name == "H265") {
    return AV_CODEC_ID_HEVC;
  }
  if (name == "MP4V-ES") {
    return AV_CODEC_ID_MPEG4;
  }
  return name == "JPEG" ? AV_CODEC_ID_MJPEG : AV_CODEC_ID_NONE;
}

AVCodecID AudioCodecId(std::uint32_t code, bool g726LittleEndian) {
  switch (code) {
    case EsFourCC("mp4a"):
      return AV_CODEC_ID_AAC;
    case EsFourCC("alaw"):
      return AV_CODEC_ID_PCM_ALAW;
    case EsFourCC("ulaw"):
      return AV_CODEC_ID_PCM_MULAW;
    case EsFourCC("g726"):
      return g726LittleEndian ? AV_CODEC_ID_ADPCM_G726LE : AV_CODEC_ID_ADPCM_G726;
    case EsFourCC("s16b"):
    case EsFourCC("twos"):
      return AV_CODEC_ID_PCM_S16BE;
    case EsFourCC("samr"):
      return AV_CODEC_ID_AMR_NB;
    case EsFourCC("sawb"):
      return AV_CODEC_ID_AMR_WB;
    default:
      return AV_CODEC_ID_NONE;
  }
}

int BitsPerCodedSample(std::uint32_t code, int bitRate) {
  switch (code) {
    case EsFourCC("g726"):
      switch (bitRate) {
        case 16000:
          return 2;
        case 24000:
          return 3;
        case 32000:
          return 4;
        case 40000:
          return 5;
        default:
          return 8;
      }
    case EsFourCC("alaw"):
    case EsFourCC("ulaw"):
      return 8;
    case EsFourCC("s16b"):
      return 16;
    default:
      return 0;
  }
}

std::string CodeText(std::uint32_t code) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += static_cast<char>(code >> shift & 0xFFU);
  }
  return text;
}

}  // namespace mediautil
