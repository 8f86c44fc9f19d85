// A muxer under test: where its bytes go, and a policy that watches its packets.
#pragma once

#include <functional>
#include <vector>

#include "tests/support/readback.h"
#include "utils/ffmpegmuxer.h"

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
    if (afterVdo) {
      afterVdo();
    }
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

  int Init(FFMPEG_MUXER_FORMAT format = FFMPEG_MUXER_FORMAT_MP4) { return muxer.Init(format, &sink, Sink::Write); }
  int AddVideo(const Clip& clip, const char* codec = "H264") {
    return muxer.AddVdoStream(codec, clip.width, clip.height, clip.extradata.data(),
                              static_cast<int>(clip.extradata.size()));
  }
  int AddSound(const char* info, const char* codec) { return muxer.AddAdoStream(info, codec, false); }

  // Ready for frames of one stream: 0, or -1.
  int Start(const Clip& clip, const char* codec = "H264", FFMPEG_MUXER_FORMAT format = FFMPEG_MUXER_FORMAT_MP4) {
    return Init(format) == 0 && AddVideo(clip, codec) == 0 ? muxer.WriteHeader() : -1;
  }
  int Start(const char* info, const char* codec, FFMPEG_MUXER_FORMAT format = FFMPEG_MUXER_FORMAT_MP4,
            bool g726LittleEndian = false) {
    return Init(format) == 0 && muxer.AddAdoStream(info, codec, g726LittleEndian) == 0 ? muxer.WriteHeader() : -1;
  }

  int Video(const CodedFrame& frame, long long ptsUs) {
    return muxer.WriteVdoFrame(const_cast<unsigned char*>(frame.data.data()), static_cast<int>(frame.data.size()),
                               ptsUs, frame.key);
  }
  // A whole clip, 25 frames a second. The number of frames that were written.
  int Video(const Clip& clip, long long firstUs = 1000000) {
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
};
