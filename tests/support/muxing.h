// A muxer under test: where its bytes go, and a policy that watches its packets.
#pragma once

#include <functional>
#include <vector>

#include "tests/support/readback.h"
#include "utils/ffmpegmuxer.h"

constexpr FFMPEG_MUXER_FORMAT kMp4 = FFMPEG_MUXER_FORMAT_MP4;
constexpr FFMPEG_MUXER_FORMAT kFlv = FFMPEG_MUXER_FORMAT_FLV;
constexpr FFMPEG_MUXER_FORMAT kMp3 = FFMPEG_MUXER_FORMAT_MP3;

constexpr double kMp3Level = 0.475;  // the encoder plays 0.5 at 0.95 of it

// H.264 with its parameter sets apart, a key frame every ten.
inline const Clip& H264() {
  static const Clip clip = EncodeClip({"libx264", 160, 120, 30, 0, true, 10});
  return clip;
}

// Raw packets of 64 ms.
inline const SoundClip& Aac() {
  static const SoundClip clip = EncodeTone({"aac", 16000, 1, 1.2, 1000, 48000});
  return clip;
}

// Collects the output. answer decides what the callback returns for a number of bytes; without it, all are taken.
struct Sink {
  Bytes bytes;
  std::vector<int> sizes;  // of each call
  std::function<int(int size)> answer;

  static int Write(void* opaque, unsigned char* data, int size) {
    auto& sink = *static_cast<Sink*>(opaque);
    sink.bytes.insert(sink.bytes.end(), data, data + size);
    sink.sizes.push_back(size);
    return sink.answer ? sink.answer(size) : size;
  }
};

struct SeenPacket {
  int stream;
  std::int64_t pts;
  std::int64_t dts;
  bool key;
  int size;
  std::int64_t duration;  // in the stream's time base, as the times
};

// Chooses a sound codec, records packets, and passes them on or answers for them.
class Policy : public MuxCtrler {
 public:
  int soundCodec = -1;          // -1: the default choice
  std::function<int()> answer;  // in place of writing
  std::function<void()> afterVdo;
  mutable std::vector<SeenPacket> packets;
  mutable int afterVdoCalls = 0;
  mutable int afterAdoCalls = 0;

  int GetMuxAdoCodec(const ESFormat& src) const override {
    return soundCodec >= 0 ? soundCodec : MuxCtrler::GetMuxAdoCodec(src);
  }
  int WritePkt(AVFormatContext* oc, AVPacket* pkt) const override {
    packets.push_back(
        {pkt->stream_index, pkt->pts, pkt->dts, (pkt->flags & AV_PKT_FLAG_KEY) != 0, pkt->size, pkt->duration});
    return answer ? answer() : MuxCtrler::WritePkt(oc, pkt);
  }
  int AfterWriteVdo(AVFormatContext*) const override {
    ++afterVdoCalls;
    if (afterVdo) afterVdo();
    return -1;  // has no meaning
  }
  int AfterWriteAdo(AVFormatContext*) const override {
    ++afterAdoCalls;
    return -1;
  }
};

// A muxer with its surroundings.
struct Muxing {
  Policy policy;
  Sink sink;
  FFmpegMuxer muxer{policy};

  int Init(FFMPEG_MUXER_FORMAT format = kMp4) { return muxer.Init(format, &sink, Sink::Write); }
  int AddVideo(const Clip& clip = H264(), const char* codec = "H264") {
    return muxer.AddVdoStream(codec, clip.width, clip.height, clip.extradata.data(),
                              static_cast<int>(clip.extradata.size()));
  }
  int AddSound(const char* info = "1|16000", const char* codec = "MPEG4-GENERIC") {
    return muxer.AddAdoStream(info, codec, false);
  }

  // Ready for frames of one stream: 0, or -1.
  int Start(const Clip& clip = H264(), const char* codec = "H264", FFMPEG_MUXER_FORMAT format = kMp4) {
    return Init(format) == 0 && AddVideo(clip, codec) == 0 ? muxer.WriteHeader() : -1;
  }
  int Start(const char* info, const char* codec, FFMPEG_MUXER_FORMAT format = kMp4, bool g726LittleEndian = false) {
    return Init(format) == 0 && muxer.AddAdoStream(info, codec, g726LittleEndian) == 0 ? muxer.WriteHeader() : -1;
  }

  int Video(const CodedFrame& frame, long long ptsUs) {
    return muxer.WriteVdoFrame(const_cast<unsigned char*>(frame.data.data()), static_cast<int>(frame.data.size()),
                               ptsUs, frame.key);
  }
  // A whole clip, 25 frames a second. The number of frames that were written.
  int Video(const Clip& clip = H264(), long long firstUs = 1000000) {
    int written = 0;
    for (const CodedFrame& frame : clip.frames) {
      written += Video(frame, firstUs) == 0 ? 1 : 0;
      firstUs += 40000;
    }
    return written;
  }
  int Audio(const Bytes& data, long long ptsUs = 0) {
    return muxer.WriteAdoFrame(const_cast<unsigned char*>(data.data()), static_cast<int>(data.size()), ptsUs);
  }

  // Finalizes and reads the output.
  std::vector<Track> End() {
    muxer.Finalize();
    return ReadBack(sink.bytes);
  }
  // The same of an output with one track.
  Track EndOne() {
    std::vector<Track> tracks = End();
    return tracks.size() == 1 ? std::move(tracks[0]) : Track();
  }
};
