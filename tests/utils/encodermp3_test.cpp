#include "utils/encodermp3.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/log_capture.h"
#include "tests/support/readback.h"
#include "tests/support/sound.h"
#include "tests/support/tempdir.h"

using mediautil::FfPtr;

namespace {

constexpr double kLevel = 0.475;  // the encoder plays 0.5 at 0.95 of it

// The decoder of the sound, as far as the encoder cares, or an encoder of the caller's.
FfPtr<AVCodecContext> Context(AVSampleFormat format = AV_SAMPLE_FMT_S16, int rate = 8000, const char* encoder = "",
                              int channels = 1) {
  const AVCodec* codec = avcodec_find_encoder_by_name(encoder);
  FfPtr<AVCodecContext> ctx(avcodec_alloc_context3(codec));
  ctx->sample_fmt = format;
  ctx->sample_rate = rate;
  av_channel_layout_default(&ctx->ch_layout, channels);
  EXPECT_TRUE(codec == nullptr || avcodec_open2(ctx.get(), codec, nullptr) >= 0);
  return ctx;
}

FfPtr<AVFrame> Frame(int samples, int rate = 8000, AVSampleFormat format = AV_SAMPLE_FMT_S16) {
  return SoundFrame(format, rate, 1, Tone(rate, static_cast<double>(samples) / rate), 0, samples);
}

// Encodes sound in frames of so many samples and reads the file.
Track Encode(const Samples& sound, AVSampleFormat format, int rate, int channels, std::size_t frameSize) {
  const TempDir dir;
  EncoderMP3 encoder;
  EXPECT_EQ(encoder.OpenOutputAudioCodec(Context(format, rate).get(), true, dir.Path("a.mp3")), 0);
  for (std::size_t at = 0; at < sound.size(); at += frameSize) {
    const auto count = static_cast<int>(std::min(frameSize, sound.size() - at));
    EXPECT_EQ(encoder.EncodeFrame(SoundFrame(format, rate, channels, sound, at, count).get()), 0);
  }
  const Bytes bytes = ReadBytes(dir.Path("a.mp3"));  // every packet is there at once
  encoder.Close();
  EXPECT_TRUE(ReadBytes(dir.Path("a.mp3")) == bytes && bytes.size() % 144 == 0);
  std::vector<Track> tracks = ReadBack(bytes, "mp3");
  return tracks.empty() ? Track() : std::move(tracks[0]);
}

}  // namespace

TEST(EncoderMp3, KeepsToneLevelAndLength) {
  const struct {
    AVSampleFormat format;
    int rate;
    int channels = 1;
  } cases[] = {{AV_SAMPLE_FMT_S16, 8000},     {AV_SAMPLE_FMT_S16P, 11025}, {AV_SAMPLE_FMT_U8P, 22050},
               {AV_SAMPLE_FMT_S16, 32000},    {AV_SAMPLE_FMT_FLT, 44100},  {AV_SAMPLE_FMT_FLTP, 44100, 2},
               {AV_SAMPLE_FMT_S32P, 48000, 6}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rate);
    const Track track = Encode(Tone(c.rate, 2, 730), c.format, c.rate, c.channels, 1024);
    EXPECT_EQ(std::tuple(track.rate, track.channels, track.errors), std::tuple(32000, 1, 0));
    EXPECT_NEAR(static_cast<double>(track.packets.size()), 50.5, 2);  // of 55 frames some stay in the encoder
    EXPECT_NEAR(LevelAt(track.sound, 32000, 730), kLevel, 0.02 * kLevel);
  }
  // Read as if it were mono: each sample of the first half of a frame, twice.
  const Samples stereo = Encode(Tone(32000, 2), AV_SAMPLE_FMT_S16, 32000, 2, 1024).sound;
  EXPECT_LT(LevelAt(stereo, 32000, 1000), 0.05);
  EXPECT_GT(LevelAt(stereo, 32000, 500), 0.1);
}

TEST(EncoderMp3, IntoAContainer) {
  const struct {
    const char* name;
    const char* encoder;
    AVSampleFormat format = AV_SAMPLE_FMT_S16P;
    int channels = 1;
  } cases[] = {{"a.mp4", "libmp3lame"},
               {"a.mp3", "libmp3lame"},
               // These get what they do not want, but nothing beyond.
               {"a.wav", "pcm_u8", AV_SAMPLE_FMT_U8},
               {"a.aac", "aac", AV_SAMPLE_FMT_FLTP, 6}};
  for (const auto& c : cases) {
    const TempDir dir;
    const bool isMp3 = c.channels == 1 && c.format == AV_SAMPLE_FMT_S16P;
    const FfPtr<AVCodecContext> enc = Context(c.format, 32000, c.encoder, c.channels);
    AVFormatContext* oc = nullptr;
    avformat_alloc_output_context2(&oc, nullptr, nullptr, dir.Path(c.name).c_str());
    AVStream* st = avformat_new_stream(oc, nullptr);
    avcodec_parameters_from_context(st->codecpar, enc.get());
    ASSERT_TRUE(avio_open(&oc->pb, oc->url, AVIO_FLAG_WRITE) >= 0 && avformat_write_header(oc, nullptr) >= 0);
    EncoderMP3 encoder;
    ASSERT_EQ(c.name[3] == '4' ? encoder.OpenOutputAudioCodec(Context().get(), false, "not opened")
                               : encoder.AddOutputAudioCodec(Context().get(), enc.get()),
              0);
    for (const int rate : {16000, 8000, 48000}) {  // may change on the way
      EXPECT_TRUE(encoder.EncodeToOc(Frame(rate, rate, AV_SAMPLE_FMT_FLTP).get(), oc, st) == 0 || !isMp3);
    }
    LogCapture log;
    oc->pb->error = AVERROR(ENOSPC);
    EXPECT_TRUE(!isMp3 || encoder.EncodeToOc(Frame(8000).get(), oc, st) == 1);
    oc->pb->error = 0;
    encoder.ResetOutputConext();
    EXPECT_EQ(encoder.EncodeToOc(Frame(1).get(), oc, st), 1);
    EXPECT_EQ(log.Text(), (isMp3 ? "1|Error while writing audio frame\n" : "") +
                              std::string("1|No encoder[(nil)] or no output.\n"));
    encoder.Close();
    EXPECT_TRUE(avcodec_is_open(enc.get()));
    av_write_trailer(oc);
    avio_closep(&oc->pb);
    LockAVFormatFreeContext(oc);
    const std::vector<Track> tracks = isMp3 ? ReadBack(ReadBytes(dir.Path(c.name))) : std::vector<Track>();
    for (std::size_t i = 1; isMp3 && i < 75; ++i) {
      EXPECT_NEAR(static_cast<double>(tracks.at(0).times.at(i) - tracks[0].times[i - 1]), 36000, 50);
    }
  }
}

TEST(EncoderMp3, StandardOutputAndOutputsThatFail) {
  const TempDir dir;
  LogCapture log;
  EncoderMP3 encoder;
  std::fflush(stdout);
  const int terminal = dup(STDOUT_FILENO);
  const int file = open(dir.Path("out").c_str(), O_WRONLY | O_CREAT, 0600);
  dup2(file, STDOUT_FILENO);
  const int failed = encoder.OpenOutputAudioCodec(Context().get(), true, "") + encoder.EncodeFrame(Frame(8000).get());
  encoder.Close();
  const bool isOpen = std::printf("end") == 3 && std::fflush(stdout) == 0;
  dup2(terminal, STDOUT_FILENO);
  close(file);
  close(terminal);
  EXPECT_TRUE(failed == 0 && isOpen && ReadBytes(dir.Path("out")).size() % 144 == 3);
  EXPECT_GT(ReadBytes(dir.Path("out")).size(), 20U * 144);
  EXPECT_EQ(encoder.OpenOutputAudioCodec(Context().get(), true, dir.Path()), 0);  // cannot be opened
  EXPECT_EQ(encoder.EncodeFrame(Frame(1).get()), 1);
  EXPECT_EQ(encoder.OpenOutputAudioCodec(Context().get(), true, "/dev/full"), 0);
  EXPECT_EQ(encoder.EncodeFrame(Frame(8000).get()), 1);
  const Messages messages = log.Messages();
  EXPECT_EQ(messages.at(0), "1|Output of encoderMP3 is stdout.\n");
  EXPECT_EQ(messages.at(1), "1|Failed to fopen mp3 file [" + dir.Path() + "]: errno [21]\n");
  EXPECT_EQ(messages.at(2).substr(0, 14), "1|No encoder[0");
  EXPECT_EQ(messages.at(3), "1|Failed to write mp3 data: errno [28]\n");
}

TEST(EncoderMp3, BadInput) {
  LogCapture log;
  EncoderMP3 encoder;
  AVCodecContext* unopened = Context(AV_SAMPLE_FMT_NONE).release();
  EXPECT_EQ(encoder.OpenOutputAudioCodec(nullptr, false, ""), 3);
  EXPECT_EQ(encoder.OpenOutputAudioCodec(unopened, false, ""), 3);
  EXPECT_EQ(encoder.OpenOutputAudioCodec(Context(AV_SAMPLE_FMT_S16, 0).get(), false, ""), 3);
  EXPECT_EQ(encoder.AddOutputAudioCodec(Context().get(), unopened), 3);
  const std::string added = "1|Failed to add audio stream...\n";
  const std::string resampler = "1|Could not init resample.\n" + added;
  EXPECT_EQ(log.Text(), resampler + resampler + resampler + "1|Could not alloc out buffer.\n" +
                            "1|Could not init resample buffer.\n" + added);
  log.Clear();
  unopened->sample_fmt = AV_SAMPLE_FMT_S16;
  EXPECT_EQ(encoder.AddOutputAudioCodec(Context().get(), unopened), 0);  // which is still there
  EXPECT_EQ(encoder.EncodeFrame(nullptr), 4);
  AVFormatContext noContext = {};
  AVStream noStream = {};
  EXPECT_EQ(encoder.EncodeToOc(Frame(8000).get(), &noContext, &noStream), 1);
  EXPECT_EQ(log.Text(), "1|Audio frame is nullptr.\n1|Failed to encode data, Packet = 0.\n");
  EXPECT_EQ(log.Lines()[0].path, "utils/encodermp3");

  const TempDir dir;  // the encoder before goes with the next preparation
  ASSERT_EQ(encoder.OpenOutputAudioCodec(Context().get(), true, dir.Path("a.mp3")), 0);
  FfPtr<AVFrame> bad[] = {Frame(9), Frame(9), Frame(9), FfPtr<AVFrame>(av_frame_alloc()), Frame(9 << 20)};
  bad[0]->nb_samples = -5;
  bad[1]->format = 1000;
  bad[2]->sample_rate = 0;
  bad[3]->format = AV_SAMPLE_FMT_S16;
  bad[3]->sample_rate = 8000;
  bad[3]->nb_samples = 9;  // of nothing
  log.Clear();
  for (const auto& frame : bad) EXPECT_EQ(encoder.EncodeFrame(frame.get()), frame->nb_samples > 9 ? 8 : 1);
  const std::string convert = "1|Failed to swr_convert.\n";
  EXPECT_EQ(log.Text(), convert + convert + convert + convert + "1|Could not alloc out buffer.\n");
  EXPECT_EQ(encoder.EncodeFrame(Frame(8000).get()), 0);
  EXPECT_GT(ReadBytes(dir.Path("a.mp3")).size(), 20U * 144);
}
