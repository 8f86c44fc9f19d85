#include "utils/audiotranscoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <random>

#include "tests/support/log_capture.h"
#include "tests/support/muxing.h"
#include "utils/audioutil.h"
#include "utils/encodermp3.h"

namespace {

using Format = CAM_CAP_AUDIO_OUT_FORMAT;

Format From(const char* decoder, int rate = 8000, int channels = 1, int bits = 8) {
  return {"camera", rate, bits, channels, decoder, "", ""};
}

Format To(const char* encoder, const char* muxer, const char* sampleFormat, int rate = 8000, int channels = 1,
          int bits = 8) {
  return {"speaker", rate, bits, channels, encoder, muxer, sampleFormat};
}

const Format kPcmu = From("pcm_mulaw");
const Format kToPcm = To("pcm_s16le", "s16le", "s16");
const Format kToMp3 = To("libmp3lame", "mp3", "s16p");

// A transcoder with its surroundings.
struct Transcoding {
  Sink sink;
  AudioTranscoder transcoder;

  int Init(const Format& from, const Format& to) { return transcoder.Init(from, to, &sink, Sink::Write); }
  int Push(std::vector<Bytes> buffers) {  // how many of them failed
    int failed = 0;
    for (Bytes& buffer : buffers) {
      failed += transcoder.DoTranscode(reinterpret_cast<char*>(buffer.data()), static_cast<int>(buffer.size()));
    }
    return failed;
  }
  Track End(const Format& to) {
    transcoder.Close();
    const std::string options =
        "sample_rate=" + std::to_string(to.sampleRate) + ":code_size=" + std::to_string(to.bitsPerSample);
    return std::move(ReadBack(sink.bytes, to.ffMuxerName.c_str(), options.c_str()).at(0));
  }
};

}  // namespace

TEST(AudioTranscoder, KeepsToneLevelAndLength) {
  const struct {
    SoundWish sound;
    Format from;
    Format to;
    int bytes = 0;    // of each callback, 0 where they vary
    int header = 0;   // bytes, give or take the text of a version
    double gain = 1;  // the MP3 encoder's is 0.95
  } cases[] = {
      {{"pcm_mulaw"}, kPcmu, To("aac", "adts", "fltp")},
      {{"pcm_alaw"}, From("pcm_alaw"), To("aac", "adts", "fltp", 16000)},
      {{"pcm_mulaw"}, kPcmu, kToMp3, 576, 45, 0.95},
      {{"pcm_mulaw", 16000}, From("pcm_mulaw", 16000), To("libmp3lame", "mp3", "fltp", 32000), 576, 45, 0.95},
      {{"pcm_s16be", 48000, 2}, From("pcm_s16be", 48000, 2), To("libmp3lame", "mp3", "s16p", 44100, 2), 0, 45, 0.95},
      {{"g726", 8000, 1, 2, 0, 24000}, From("g726", 8000, 1, 3), To("g726", "g726", "s16", 8000, 1, 3), 1026},
      {{"g726", 8000, 1, 2, 0, 40000}, From("g726", 8000, 1, 5), To("g726", "g726", "s16", 8000, 1, 5), 1025},
      {{"g726le", 8000, 1, 2, 0, 24000}, From("g726le", 8000, 1, 3), To("g726le", "g726le", "s16", 8000, 1, 4), 1024},
      {{"g726le", 8000, 1, 2, 0, 40000}, From("g726le", 8000, 1, 5), To("g726", "wav", "s16", 8000, 1, 4), 1024, 80},
      {{"pcm_mulaw"}, kPcmu, To("pcm_alaw", "alaw", "s16"), 1024},
      {{"pcm_s16be"}, From("pcm_s16be"), To("pcm_mulaw", "mulaw", "s16"), 1024},
      {{"pcm_s16le", 48000}, From("pcm_s16le", 48000), kToPcm, 2048},
      {{"pcm_s16be"}, From("pcm_s16be"), To("g722", "g722", "s16", 16000), 160},
      {{"aac", 16000}, From("aac", 16000), To("pcm_s16le", "wav", "s16", 11025), 2048, 80},
      {{"aac", 48000, 2, 2, 0, 128000}, From("aac", 48000, 2), To("aac", "adts", "fltp", 22050, 2)},
      {{"libmp3lame", 32000}, From("mp3float", 32000), To("pcm_s16le", "wav", "s16", 48000), 2048, 80, 0.95},
      // Records that lie about channels and rate.
      {{"libmp3lame", 32000}, From("mp3float", 8000, 2), To("pcm_s16le", "wav", "s16", 8000, 2), 2048, 80, 0.672},
      {{"libmp3lame", 44100, 2}, From("mp3", 8000), To("libmp3lame", "mp3", "s16p", 32000), 576, 45, 0.9025}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.from.ffCodecName + " to " + c.to.ffCodecName + " " + std::to_string(c.to.sampleRate));
    SoundWish wish = c.sound;
    wish.frequency = 730;  // 1 kHz would hide a skip of whole periods
    Transcoding out;
    ASSERT_EQ(out.Init(c.from, c.to), 0);
    EXPECT_NEAR(static_cast<double>(out.sink.bytes.size()), c.header, 5);
    out.sink.sizes.clear();
    EXPECT_LE(out.Push(EncodeTone(wish).packets), wish.encoder[0] == 'l' ? 1 : 0);  // MP3 may begin without sound
    for (const int size : out.sink.sizes) {
      EXPECT_TRUE(size == c.bytes || (c.bytes == 0 && size < 2048)) << size;
    }
    const Track track = out.End(c.to);
    EXPECT_EQ(std::tuple(track.rate, track.channels, track.errors), std::tuple(c.to.sampleRate, c.to.channels, 0));
    EXPECT_NEAR(static_cast<double>(track.sound.size()) / track.rate, 2, 0.5);
    EXPECT_NEAR(LevelAt(track.sound, track.rate, 730), 0.5 * c.gain, 0.01 * c.gain);
    EXPECT_NEAR(LevelAt(track.right, track.rate, 730), track.channels == 2 ? 0.5 * c.gain : 0, 0.01);
  }
}

// No sample is lost or doubled, whatever the pieces.
TEST(AudioTranscoder, BuffersOfAnySizeGiveTheSame) {
  const Bytes data = RandomBytes(400000, 127);  // without the code for negative zero, which comes back positive
  Bytes expected;
  for (const auto sizes : {std::array{400000, 1, 1}, std::array{320, 320, 320}, std::array{1, 1, 1999}}) {
    std::vector<Bytes> pieces;
    for (auto at = data.begin(); at != data.end(); at += static_cast<std::ptrdiff_t>(pieces.back().size())) {
      pieces.emplace_back(at, at + std::min<std::ptrdiff_t>(sizes[pieces.size() % 3], data.end() - at));
    }
    Transcoding same;
    Transcoding lower;
    EXPECT_EQ(same.Init(kPcmu, To("pcm_mulaw", "mulaw", "s16")) + same.Push(pieces), 0);
    EXPECT_TRUE(same.sink.bytes == Bytes(data.begin(), data.begin() + 390 * 1024)) << sizes[0];
    EXPECT_EQ(lower.Init(From("pcm_mulaw", 16000), To("aac", "adts", "fltp", 11025)), 0);
    EXPECT_EQ(lower.Push(pieces) > 0, sizes[0] == 1);  // when the resampler keeps the sample
    expected = expected.empty() ? lower.sink.bytes : expected;
    EXPECT_TRUE(lower.sink.bytes == expected && lower.sink.sizes.size() == 268) << sizes[0];  // 25 s less a frame
  }
}

TEST(AudioTranscoder, BadBuffersAreReportedAndDoNotLast) {
  char byte = 0;
  char failure[100];
  std::snprintf(failure, sizeof(failure), "1|Failed to decode audio, pBuf[%p], Length[1].\n",
                static_cast<void*>(&byte));
  LogCapture log;
  Transcoding out;
  EXPECT_EQ(out.transcoder.DoTranscode(&byte, 1), 1);  // not open
  EXPECT_EQ(log.Text(), failure);
  EXPECT_EQ(log.Lines()[0].path, "utils/audiotranscoder");
  ASSERT_EQ(out.Init(kPcmu, kToPcm), 0);
  log.Clear();  // none, and too much for the conversion, then for what waits as well
  EXPECT_EQ(out.transcoder.DoTranscode(nullptr, 10) + out.transcoder.DoTranscode(&byte, INT_MIN), 2);
  EXPECT_EQ(out.Push({Bytes((32 << 20) + 1), Bytes(1), Bytes(32 << 20), Bytes(1023)}), 2);
  EXPECT_EQ(log.Text(),
            "1|No buf or buf is invalid.\n1|No buf or buf is invalid.\n"
            "1|Could not alloc out buffer.\n1|Could not alloc out merge buffer.\n");
  EXPECT_EQ(out.sink.sizes, std::vector<int>{2048});

  Transcoding encoding;
  ASSERT_EQ(encoding.Init(From("pcm_f32le"), To("aac", "adts", "fltp")), 0);
  log.Clear();
  EXPECT_EQ(encoding.Push({Bytes(8192, 0xFF)}), 1);  // no numbers
  EXPECT_EQ(log.Text(), "1|Failed to encode data, Packet = 0.\n");
  EXPECT_LE(encoding.Push(EncodeTone({"pcm_f32le"}).packets), 10);
  EXPECT_NEAR(LevelAt(encoding.End(To("", "adts", "")).sound, 8000, 1000), 0.5, 0.02);

  Transcoding decoding;
  ASSERT_EQ(decoding.Init(From("aac"), kToPcm), 0);
  const std::vector<Bytes> packets = EncodeTone({"aac"}).packets;
  std::mt19937 random(3);
  for (Bytes bad : packets) {
    std::generate(bad.begin() + static_cast<std::ptrdiff_t>(random() % bad.size()), bad.end(), std::ref(random));
    decoding.Push({bad});
  }
  decoding.sink.bytes.clear();
  EXPECT_EQ(decoding.Push(packets), 0);
  EXPECT_NEAR(LevelAt(decoding.End(kToPcm).sound, 8000, 1000), 0.5, 0.02);
}

TEST(AudioTranscoder, PassesEqualFormatsThrough) {
  for (const char* label : {"camera", ""}) {
    for (Format to : {To("pcm_alaw", "alaw", "s16"), To("pcm_alaw", "alaw", "s16", 8000, 2),  // channels do not count
                      To("pcm_alaw", "alaw", "s16", 8000, 1, 16), To("pcm_alaw", "alaw", "s16", 16000)}) {
      Format from = kPcmu;
      from.strFormat = to.strFormat = label;
      Transcoding out;
      ASSERT_EQ(out.Init(from, to), 0);
      out.sink.answer = [](int) { return -1; };  // has no meaning
      EXPECT_EQ(out.Push({Bytes(5000, 0x7F), Bytes(1, 0x7F)}), 0);
      EXPECT_EQ(out.sink.sizes == (std::vector<int>{5000, 1}) && out.sink.bytes == Bytes(5001, 0x7F),
                to.bitsPerSample == 8 && to.sampleRate == 8000);
      out.transcoder.Close();
      EXPECT_EQ(out.Push({Bytes(1)}), 1);
    }
  }
}

TEST(AudioTranscoder, RefusalsSayWhyAndCanBeClosed) {
  const std::string closing = "1|Failed to init FFmpeg audio decoder.\n";
  const std::string notOpened = "1|Failed to open codec PCMU with Ret [-22] and err [Invalid argument].\n" + closing;
  const struct {
    Format from;
    Format to;
    std::string messages;
  } cases[] = {
      {kPcmu, To("aac", "", "fltp"), "1|Failed to open output context, AVRet[-22]\n" + closing},
      {From("h264"), kToPcm, "1|Failed to find decoder. CodecId: [h264]\n" + closing},
      {From("g726"), kToPcm, notOpened},  // 8 bits
      {From("pcm_mulaw", 8000, INT_MAX), kToPcm, notOpened},
      {From("pcm_mulaw", -1, -1), kToPcm, notOpened},
      {kPcmu, To("adpcm_g722", "g722", "s16"), "1|codec not found. id:[adpcm_g722]\n"},
      {kPcmu, To("mjpeg", "s16le", "s16"), "1|codec not found. id:[mjpeg]\n"},
      {kPcmu, To("aac", "adts", "s16"), "1|Could not open codec\n"},
      {kPcmu, To("pcm_s16le", "s16le", "s16", 8000, 1, -1), "1|Could not open codec\n"},
      {kPcmu, To("pcm_s16le", "s16le", "s16", 8000, 2), "1|Could not open codec\n"},
      {From("pcm_mulaw", 8000, 6), To("libmp3lame", "mp3", "s16p", 8000, 6), "1|Could not open codec\n"},
      {From("pcm_mulaw", 8000, 3), To("pcm_s16le", "s16le", "s16", INT_MAX, 3, INT_MAX), "1|Could not open codec\n"},
      {kPcmu, To("pcm_s16le", "s16le", "s16", INT_MAX), "1|Swr error.\n"},
      {kPcmu, To("pcm_s16le", "s16le", "s16", 10), "1|Swr error.\n"},
      {From("flac"), kToPcm, "1|Swr error.\n"},  // its sample format stands in the stream only
      {kPcmu, To("pcm_alaw", "mp4", "s16"), "1|Error of writing header\n"}};
  for (const auto& c : cases) {
    LogCapture log;
    Transcoding out;
    EXPECT_EQ(out.Init(c.from, c.to), -1) << c.messages;
    EXPECT_EQ(log.Text(), c.messages);
    EXPECT_EQ(out.Push({Bytes(8000)}), 1);
    out.transcoder.Close();
    out.transcoder.Close();
    EXPECT_TRUE(out.sink.bytes.empty());
    EXPECT_EQ(out.Init(kPcmu, kToMp3), 0);
  }
}

TEST(AudioTranscoder, MessagesNameTheFunctionCalled) {
  Transcoding out;  // whose container writes when it is flushed
  EXPECT_EQ(out.Init(kPcmu, To("mp2", "mpegts", "s16", 16000)), 0);
  out.sink.answer = [](int) { return -1; };
  EncoderMP3 mp3;
  AVFrame frame = {};
  const std::unique_ptr<FILE, int (*)(FILE*)> small(fmemopen(nullptr, 1, "w"), std::fclose);
  const std::pair<const char*, std::function<int()>> cases[] = {
      {"EncodeFrame 4 Audio frame is nullptr.\n", [&] { return mp3.EncodeFrame(nullptr); }},
      {"EncodeToOc 4 Audio frame is nullptr.\n", [&] { return mp3.EncodeToOc(nullptr, nullptr, nullptr); }},
      {"EncodeFrame 8 Failed to alloc AVFrame.\n", [&] { return av_max_alloc(1), mp3.EncodeFrame(&frame); }},
      {"EncodeToOc 8 Failed to alloc AVFrame.\n",
       [&] { return av_max_alloc(1), mp3.EncodeToOc(&frame, nullptr, nullptr); }},
      {"UpdateWavMetaSize 0 Failed to seek file\n", [&] { return UpdateWavMetaSize(small.get(), 1), 0; }},
      {"DoEncode 0 Error while writing audio frame\n", [&] { return out.Push({Bytes(800)}); }}};
  for (const auto& [expected, call] : cases) {
    LogCapture log;
    const std::string result = std::to_string(call());
    av_max_alloc(INT_MAX);
    EXPECT_EQ(log.Lines().at(0).function + " " + result + " " + log.Lines()[0].text, expected);
  }
}

TEST(AudioTranscoder, LifeAndCallbacks) {
  LogCapture log;
  Transcoding out;
  out.sink.answer = [&out](int) { return out.sink.sizes.size() % 3 == 1 ? -1 : 0; };
  EXPECT_EQ(out.Init(kPcmu, kToMp3), -1);
  EXPECT_EQ(out.Init(kPcmu, kToPcm), -1);  // not closed
  out.transcoder.Close();
  EXPECT_EQ(out.Init(kPcmu, kToPcm) + out.Push({Bytes(5 * 1024)}), 0);
  EXPECT_EQ(out.Init(kToPcm, kToPcm), -1);  // changes nothing
  EXPECT_EQ(out.Push({Bytes(1024)}), 0);
  EXPECT_EQ(out.sink.sizes, (std::vector<int>{out.sink.sizes[0], 2048, 2048, 2048, 2048, 2048, 2048}));
  const std::string second = "1|Duplicately use audioTranscoder\n1|Failed to init FFmpeg audio decoder.\n";
  const std::string write = "1|Error while writing audio frame\n";
  EXPECT_EQ(log.Text(), "1|Error of writing header\n" + second + write + second + write);
  out.transcoder.Close();
  EXPECT_EQ(out.transcoder.Init(kPcmu, kToPcm, nullptr, nullptr) + out.Push({Bytes(1024)}), 0);  // without a callback
  out.transcoder.Close();
  EXPECT_EQ(out.Push({Bytes(1024)}), 1);

  Transcoding trailer;  // a container that consists of its end
  EXPECT_EQ(trailer.Init(kPcmu, To("pcm_s16le", "md5", "s16")) + trailer.Push({Bytes(8000)}), 0);
  EXPECT_TRUE(trailer.sink.bytes.empty());
  trailer.transcoder.Close();
  EXPECT_EQ(std::string(trailer.sink.bytes.begin(), trailer.sink.bytes.end()).substr(0, 4), "MD5=");
}
