#include <gtest/gtest.h>

#include "tests/support/format.h"
#include "tests/support/muxing.h"

namespace {

std::string Mime(const ESFormat& video, int soundId, int soundCodec) {
  Policy policy;
  policy.soundCodec = soundCodec;
  return GetMimeCodecs(video, Format(soundId < 0 ? ES_UNKNOWN : ES_AUDIO, soundId), policy);
}

}  // namespace

TEST(MimeCodecs, OfCodedStreams) {
  const struct {
    ClipWish wish;
    const char* codecs;
  } cases[] = {{{"libx264", 160, 120, 1, 0, true, 250, "level=31"}, "avc1.42c01f"},
               {{"libx265", 160, 120, 1, 0, true, 250, "level-idc=31"}, "hvc1.1.6.L93.90"},
               {{"mpeg4", 160, 120, 1, 0, true}, "mp4v.20.1"}};
  for (const auto& c : cases) {
    const Clip clip = EncodeClip(c.wish);
    for (const Bytes& extra : {clip.extradata, AsInMp4(clip).extradata}) {
      Format video(ES_VIDEO, clip.codecId);
      video.SetExtra(extra);
      EXPECT_EQ(Mime(video, -1, -1), "video/mp4; codecs=\"" + std::string(c.codecs) + "\"");
    }
  }
}

TEST(MimeCodecs, Table) {
  const Bytes avcc = {1, 0x64, 0x00, 0x1F, 0xFF, 0xE0, 0};
  const Bytes avcSps = {0, 0, 0, 1, 0x67, 0x4D, 0x40, 0x28, 1};
  const Bytes hevcSps = {0, 0, 1, 0x42, 1, 1, 0x62, 0x20, 0, 0, 3, 0, 0xB0, 0, 0, 3, 0, 0, 3, 0, 0x78, 1};
  Bytes hvcc = {1, 0x81, 0x60, 0, 0, 0, 0, 0, 0, 0, 0, 0, 60};
  hvcc.resize(23);
  constexpr int kUlaw = AV_CODEC_ID_PCM_MULAW;
  const struct {
    int videoId;  // 0: no picture
    const char* name;
    Bytes extra;
    int soundId;  // -1: no sound
    int policy;
    const char* codecs;  // null: not to be named
  } cases[] = {{AV_CODEC_ID_H264, "", avcc, -1, -1, "avc1.64001f"},
               {AV_CODEC_ID_H264, "", avcc, AV_CODEC_ID_AAC, -1, "avc1.64001f, mp4a.40.2"},
               {AV_CODEC_ID_H264, "", avcc, AV_CODEC_ID_AAC, AV_CODEC_ID_MP3, "avc1.64001f, mp4a.40.2"},
               {AV_CODEC_ID_H264, "", avcc, kUlaw, -1, "avc1.64001f, mp4a.6B"},
               {AV_CODEC_ID_H264, "", avcc, kUlaw, AV_CODEC_ID_AAC, "avc1.64001f, mp4a.40.2"},
               {AV_CODEC_ID_H264, "", avcc, kUlaw, AV_CODEC_ID_SPEEX, nullptr},
               {-1, "AVC1", avcSps, -1, -1, "avc1.4d4028"},
               {-1, "H265", hevcSps, -1, -1, "hev1.A2.4.H120.B0"},
               {-1, "H265", hvcc, -1, -1, "hev1.B1.6.L60"},
               {-1, "JPEG", {}, -1, -1, "mp4v.6C"},
               {-1, "H264", {}, AV_CODEC_ID_AAC, -1, nullptr},
               {-1, "H264", {1, 0x64, 0}, -1, -1, nullptr},
               {-1, "H265", {0, 0, 1, 0x42}, -1, -1, nullptr},
               {-1, "MP4V-ES", {0, 0, 1}, -1, -1, nullptr},
               {AV_CODEC_ID_VP8, "", {}, -1, -1, nullptr},
               {0, "", {}, AV_CODEC_ID_AAC, -1, "mp4a.40.2"},
               {0, "", {}, -1, -1, nullptr}};
  for (const auto& c : cases) {
    Format video(c.videoId == 0 ? ES_UNKNOWN : ES_VIDEO, c.videoId);
    video.str_codec = c.name;
    video.SetExtra(c.extra);
    const std::string type = c.videoId == 0 ? "audio" : "video";
    EXPECT_EQ(Mime(video, c.soundId, c.policy), c.codecs == nullptr ? "" : type + "/mp4; codecs=\"" + c.codecs + "\"");
  }
}
