#include "utils/audioutil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstring>

#include "tests/support/fulldisk.h"
#include "tests/support/log_capture.h"
#include "tests/support/readback.h"
#include "tests/support/sound.h"
#include "tests/support/tempdir.h"
#include "utils/mp3demuxer.h"

namespace {

struct AudioUtil : ::testing::Test {
  TempDir dir;
  std::string in = dir.Path("in");
  std::string out = dir.Path("out.wav");
  LogCapture log;

  void Save(const std::string& path, const Bytes& bytes) { SaveBytes(path, bytes.data(), bytes.size()); }
  // The message of a failure.
  std::string Why(int result) {
    const std::string message = result == -1 ? log.Messages().at(0) : "succeeded";
    log.Clear();
    return message;
  }
};

Bytes Header(std::uint32_t dataSize) {
  const char text[] = "RIFF....WAVEfmt \x10\0\0\0\x07\0\x02\0\x40\x1F\0\0\x80\x3E\0\0\x02\0\x08\0data....";
  Bytes header(text, text + 44);
  for (unsigned int i = 0; i < 4; ++i) {
    header[4 + i] = static_cast<std::uint8_t>((dataSize + 36) >> 8 * i & 0xFF);
    header[40 + i] = static_cast<std::uint8_t>(dataSize >> 8 * i & 0xFF);
  }
  return header;
}

// The level of a tone on each channel of a WAV file, at the end of it when seconds are given.
void ExpectTone(const Bytes& wav, double frequency, double level, std::ptrdiff_t seconds = 0) {
  const Track track = std::move(ReadBack(wav).at(0));
  for (const Samples& channel : {track.sound, track.right}) {
    const auto begin = seconds > 0 ? channel.end() - seconds * 8000 : channel.begin();
    EXPECT_NEAR(LevelAt(Samples(begin, channel.end()), 8000, frequency), level, level * 0.02);
  }
}

}  // namespace

TEST_F(AudioUtil, UlawOfEverySampleAndCode) {
  for (int sample = SHRT_MIN; sample <= SHRT_MAX; ++sample) {
    // Sixteen even steps in each octave above the bias of 33, in units of 4 rounded down.
    const double biased = std::min(std::fabs(std::floor(sample / 4.0)) + 33, 8191.0);
    const double octave = std::floor(std::log2(biased)) - 5;
    const double step = std::floor(biased / std::exp2(octave + 1)) - 16;
    ASSERT_EQ(Linear2Ulaw(static_cast<short>(sample)), (sample < 0 ? 127 : 255) - 16 * octave - step) << sample;
  }
  Bytes wav = Header(512);
  for (int i = 0; i < 512; ++i) wav.push_back(static_cast<std::uint8_t>(i / 2));
  const Samples sound = std::move(ReadBack(wav).at(0).sound);
  for (std::size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(Ulaw2Linear(static_cast<unsigned char>(i)), static_cast<int>(sound.at(i) * 32768));
  }
}

TEST_F(AudioUtil, WavHeaders) {
  for (const int size : {0, 1000, INT_MAX, -1}) {
    FILE* file = std::fopen(out.c_str(), "wb");
    WriteWavHeader(file, 5);
    UpdateWavMetaSize(file, size);
    std::fclose(file);
    EXPECT_EQ(ReadBytes(out), Header(static_cast<std::uint32_t>(size)));
  }
  FILE* pipe = popen(("cat > " + out).c_str(), "w");
  UpdateWavMetaSize(pipe, 1000);
  pclose(pipe);
  EXPECT_EQ(ReadBytes(out), (Bytes{0x0C, 4, 0, 0, 0xE8, 3, 0, 0}));
  WriteWavHeader(nullptr, 1);
  UpdateWavMetaSize(nullptr, 1);
  EXPECT_EQ(log.Messages(), (Messages{"1|Failed to seek file\n", "1|Failed to seek file\n",
                                      "1|Failed to append wav header cause null file pointer.\n",
                                      "1|Failed to update wav header cause null file pointer.\n"}));
  EXPECT_EQ(GetWavAudioFileDataStartPos("/a/var/packages/Korvane/target/DefData/AudioPattern/b.wav"), 58);
  EXPECT_EQ(GetWavAudioFileDataStartPos("/var/packages/Korvane/target/DefData/AudioPattern"), 44);
}

TEST_F(AudioUtil, SoundToUlaw) {
  const double mono = 0.5 * M_SQRT1_2;
  for (const auto& [name, options, duration, isNeeded, level, slack] :
       {std::tuple{"1.wav", "-ar 8000", 2, false, 0.5, 0.0},
        {"2.wav", "-ar 16000 -ac 1", 2, false, mono, 0.003},
        {"3.wav", "-ar 8000 -ac 1 -c:a pcm_mulaw", 2, true, mono, 0.0},
        {"4.mp3", "-ar 44100", 2, true, 0.475, 0.06},
        {"5.wav", "-ar 16000 -ac 1 -c:a adpcm_ima_wav", 2, true, mono, 0.1},
        {"6.mp4", "-f lavfi -i color=s=64x48:d=1", 2, true, 0.5, 0.05},
        {"7.mkv", "-b:a 128k", -1, true, 0.5, 0.05},
        {"8.wav", "-ar 8000 -af 'pan=3.0|c0=c0|c1=c0|c2=0*c0'", 2, true, 0.5, 0.0}}) {  // taken for 2.1
    for (const double frequency : {730.0, 1000.0}) {
      SCOPED_TRACE(name);
      SaveTone(dir.Path(name), options, 2, frequency);
      EXPECT_EQ(GetAudioDuration(dir.Path(name)), duration);
      EXPECT_EQ(IsFileNeedToTranscode(dir.Path(name)), isNeeded);
      ASSERT_EQ(TranscodeToG711(dir.Path(name), out), 0);
      EXPECT_EQ(log.Messages(), Messages{});
      EXPECT_NEAR((static_cast<double>(ReadBytes(out).size()) - 44) / 16000, 2, slack);
      ExpectTone(ReadBytes(out), frequency, level);
      std::filesystem::remove(out);
    }
  }
}

// Counted is what had left the stream, whole blocks of 4096 bytes, and what the file held before.
TEST_F(AudioUtil, HeaderOfAConversion) {
  const unsigned int cases[][4] = {{12, 320, 0, 0},      {1, 4096, 0, 4096},   {2, 2048, 0, 0},
                                   {100, 320, 0, 28672}, {128, 320, 0, 36864}, {1, 5000, 10, 4106}};
  for (const auto& [frames, bytes, before, counted] : cases) {
    const std::string samples = "-af aresample=8000,asetnsamples=" + std::to_string(bytes / 2) + " -c:a pcm_s16le -f ";
    SaveTone(in, samples + "matroska", frames * bytes / 16000.0);
    SaveTone(out, samples + "s16le", frames * bytes / 16000.0);
    const Bytes raw = ReadBytes(out);
    Bytes expected = Header(counted);
    expected.insert(expected.end(), before, 'x');
    SaveBytes(out, expected.data() + 44, before);
    for (std::size_t i = 0; i < raw.size(); i += 2) {
      expected.push_back(Linear2Ulaw(static_cast<short>(raw[i] | raw[i + 1] << 8)));
    }
    ASSERT_EQ(TranscodeToG711(in, out), 0);
    EXPECT_EQ(ReadBytes(out), expected) << frames << " x " << bytes;
  }
}

// From stereo to mono over damaged bytes; frames of more than 12 seconds, which are left out; 300 Hz.
TEST_F(AudioUtil, OddSources) {
  SaveTone(in, "-ar 44100 -f mp3 -write_xing 0", 3);
  SaveTone(out, "-ar 44100 -af 'pan=mono|c0=c0' -f mp3 -write_xing 0 -id3v2_version 0", 3);
  Save(in, Joined({ReadBytes(in), Bytes(5000, 0xA5), ReadBytes(out)}));
  std::filesystem::remove(out);
  ASSERT_EQ(TranscodeToG711(in, out), 0);
  EXPECT_NEAR(static_cast<double>(ReadBytes(out).size()), 96000, 3000);
  ExpectTone(ReadBytes(out), 1000, 0.475 * M_SQRT1_2, 2);
  for (const char* options : {"-ar 4000 -f flac -frame_size 65535", "-ar 300 -c:a pcm_u8 -f wav"}) {
    SaveTone(in, options, 20, 70);
    std::filesystem::remove(out);
    ASSERT_EQ(TranscodeToG711(in, out), 0);
    EXPECT_LT(ReadBytes(out).size(), options[4] == '4' ? 58000U : 320045U);
    ExpectTone(ReadBytes(out), 70, 0.5);
  }
}

TEST_F(AudioUtil, Refusals) {
  SaveTone(in, "-ar 8000 -f wav");
  WriteFile(EncodeClip({"libx264", 64, 48, 5}), dir.Path("mute.mp4"));
  const std::string large = dir.Path("large");
  Save(large, {1});
  ASSERT_EQ(mkfifo(dir.Path("fifo").c_str(), 0600) + truncate(large.c_str(), INT_MAX + 1LL), 0);
  const int disk = memfd_create("full", MFD_ALLOW_SEALING | MFD_CLOEXEC);
  const std::string full = "/proc/self/fd/" + std::to_string(disk);
  ASSERT_TRUE(write(disk, "old", 3) == 3 && fcntl(disk, F_ADD_SEALS, F_SEAL_GROW) == 0);
  for (const auto& [name, text] : {std::pair{"live.m3u8", "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nmute.mp4\n"},
                                   {"self", "ffconcat version 1.0\nfile self\n"}}) {
    SaveBytes(dir.Path(name), text, std::strlen(text));
  }
  for (const auto& [name, at, value] : {std::tuple{"codec", 20U, 0x99}, {"bits", 20U, 0x45}, {"rate", 26U, 15}}) {
    Bytes wav = Header(4000);
    wav.resize(4044);
    wav[at] = static_cast<std::uint8_t>(value);
    Save(dir.Path(name), wav);
  }
  ESFormat fmt;
  for (const char* name : {"none", "", "fifo", "large", "live.m3u8", "self", "mute.mp4", "codec", "bits"}) {
    const std::string path = dir.Path(name);
    // Newer versions of FFmpeg do not count a stream whose decoder does not open.
    const bool isNone = *name == 'm' || (*name == 'b' && avformat_version() >= AV_VERSION_INT(61, 0, 0));
    const std::string message = isNone         ? "1|Could not find any audio stream in the file.\n"
                                : *name == 'c' ? "1|Failed to find decoder with codec 0.\n"
                                : *name == 'b' ? "1|Failed to open codec.\n"
                                               : "1|Could not open source file " + path + ".\n";
    EXPECT_EQ(Why(TranscodeToG711(path, out)), message);
    EXPECT_EQ(Why(DemuxMp3().Open(path, fmt)), message);
    EXPECT_EQ(Why(GetAudioDuration(path)), message[2] == 'F' ? "succeeded" : message);
    EXPECT_EQ(IsFileNeedToTranscode(path), message[2] == 'F');
    EXPECT_TRUE(std::filesystem::is_empty(out));
    log.Clear();
  }
  EXPECT_EQ(TranscodeToG711(dir.Path("none"), out), -1);
  EXPECT_EQ(log.Messages(), (Messages{"1|Could not open source file " + dir.Path("none") + ".\n",
                                      "1|Get AVFormatContext failed.\n", "1|Get AV Format/Codec Context failed.\n"}));
  log.Clear();
  EXPECT_EQ(Why(TranscodeToG711(dir.Path("rate"), out)),
            "1|Failed to get resample context. Src channel[2], rate[991040], fmt[1].\n");
  for (const std::string& path : {dir.Path("no/folder"), dir.Path("fifo"), dir.Path()}) {
    EXPECT_EQ(Why(TranscodeToG711(in, path)), "1|Failed to open file [" + path + "]\n");
    EXPECT_EQ(Why(AppendWavHeader(path)), "1|Failed to open file [" + path + "]!\n");
  }
  EXPECT_EQ(Why(TranscodeToG711(in, in)), "1|Source and destination are the same file [" + in + "]\n");
  EXPECT_EQ(Why(TranscodeToG711(in, full)), "1|Failed to write file[" + full + "]!\n");
  EXPECT_EQ(ReadBytes(full).size(), 3U);
  EXPECT_EQ(Why(AppendWavHeader(full)), "1|Failed to write file[" + full + "]!\n");
  EXPECT_EQ(Why(AppendWavHeader(large)), "1|File is too large [" + large + "]!\n");
  EXPECT_EQ(std::filesystem::file_size(large), INT_MAX + 1ULL);
  Save(out, {'o', 'l', 'd'});
  {
    const FullDisk limit(40);  // no room for the header
    EXPECT_EQ(AppendWavHeader(out), -1);
  }
  EXPECT_EQ(ReadBytes(out), (Bytes{'o', 'l', 'd'}));
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir.Path());
  std::filesystem::rename("in", "pipe:0");
  EXPECT_EQ(GetAudioDuration("pipe:0"), 2);  // a file as any other
  std::filesystem::current_path(before);
}
