#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>

#include "tests/support/mixing.h"

TEST(Mixer, FilesKeepTheirLevelsAndTheLongestItsLength) {
  // Files are never taken for late: those of d.wav have frames of 4 s, of 1 s, and none.
  const struct {
    const char* output;
    const char* sound;  // in the file
    double slack;       // its length differs by fewer samples
    std::vector<SoundWish> inputs;
  } cases[] = {
      {"a.WAV", "pcm_s16le 44100 2", 1, {{"alac", 44100, 2, 1, 2e3}, {"flac", 44100, 6, 3, 9e3}, {"wavpack"}}},
      {"b.mp3", "mp3 48000 2", 4e3, {{"aac", 48000, 2, 1, 730}, {"libmp3lame", 32000, 2}}},
      {"d.wav", "pcm_s16le 4000 1", 1, {{"pcm_u8", 1000, 1, 8, 100}, {"pcm_alaw", 4000}, {"pcm_s16le", 4000, 1, 0}}},
      {"c.m4a", "aac 11025 1", 1100, {{"pcm_s16le", 9000, 1, 0}, {"pcm_u8", 8000, 1, 1, 730}}}};
  for (const auto& c : cases) {
    Mixing live;
    double longest = 0;
    for (SoundWish wish : c.inputs) {
      wish.amplitude = 0.3;
      ASSERT_GE(live.Add(EncodeTone(wish), wish.encoder + std::string(wish.encoder[0] == 'p' ? ".wav" : ".mka")), 0);
      longest = std::max(longest, wish.seconds);
    }
    ASSERT_EQ(live.SetOutput(c.output), 0);
    const Track track = live.Mix(c.output);
    EXPECT_EQ(live.mixer.WriteToFile(), 0);
    EXPECT_EQ(live.Troubles(), 0U);
    // The mix is not made at another input's rate.
    const std::string rate = std::to_string(track.rate);
    EXPECT_EQ(live.Count("amix:default--[" + rate + "Hz flt"), 1U);
    EXPECT_EQ(avcodec_get_name(track.codecId) + (" " + rate) + " " + std::to_string(track.channels), c.sound);
    EXPECT_LT(std::fabs(static_cast<double>(track.sound.size()) - longest * track.rate), c.slack) << c.output;
    for (const SoundWish& wish : c.inputs) {
      // LAME plays at 0.95, mono in stereo at 0.7071, six channels as each of them. The longest does not fade at the
      // end.
      const double coding =
          std::pow(0.95, (wish.encoder[0] == 'l' ? 1 : 0) + (track.codecId == AV_CODEC_ID_MP3 ? 1 : 0));
      const double level = 0.3 * coding * (wish.channels < track.channels ? 0.7071 : 1);
      for (double at = 0.05; at < wish.seconds; at += 0.5) {
        EXPECT_NEAR(LevelIn(track.sound, track.rate, at, at + 0.4, wish.frequency), level, 0.02 * level) << at;
      }
    }
  }
}

// Files and streams of any length, the packets of any size, pushed in any order.
TEST(Mixer, AnyMixIsTheSumOfItsInputs) {
  for (unsigned int seed = 0; seed < 12; ++seed) {
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    Mixing live;
    std::vector<SoundClip> clips(2 + below(7), {AV_CODEC_ID_PCM_S16LE, 48000, 1, {}, {}});
    std::vector<std::size_t> next;
    std::vector<int> sum;
    for (SoundClip& clip : clips) {
      const std::size_t length = below(8) == 0 ? below(2) : below(20000);
      sum.resize(std::max(sum.size(), length));
      for (std::size_t at = 0; at < length;) {
        Bytes& packet = clip.packets.emplace_back();
        for (const std::size_t end = std::min(length, at + 1 + below(3000)); at < end; ++at) {
          const int sample = static_cast<int>(below(8000)) - 4000;
          for (const int byte : {sample, sample >> 8}) packet.push_back(static_cast<std::uint8_t>(byte));
          sum[at] += sample;
        }
      }
      next.push_back(below(2) == 0 ? SIZE_MAX : 0);
      ASSERT_GE(live.Add(clip, next.back() == 0 ? "" : std::to_string(next.size()) + ".wav"), 0);
    }
    ASSERT_EQ(live.SetOutput("mix.wav"), 0);
    for (int round = 0; round < 3000 && !live.mixer.IsFinished(); ++round) {
      const auto i = static_cast<unsigned int>(below(clips.size()));
      if (next[i] < clips[i].packets.size()) {
        live.Push(i, clips[i], next[i], next[i] + 1);
        ++next[i];
      } else if (next[i] != SIZE_MAX) {
        live.mixer.PushPkt(i, nullptr);
      }
      EXPECT_EQ(below(3) == 0 ? live.mixer.ProcessInput() : 0, 0);
    }
    EXPECT_TRUE(live.mixer.IsFinished());
    const Samples mix = live.Mix().sound;
    ASSERT_EQ(mix.size(), sum.size()) << seed;
    std::size_t wrong = live.Troubles();
    for (std::size_t at = 0; at < sum.size(); ++at) wrong += std::abs(std::lround(mix[at] * 32768) - sum[at]) > 1;
    EXPECT_EQ(wrong, 0U) << seed;
  }
}

// The stream leads. Its bursts make no holes in the file, nor do the file's frames of 0.512 s in the stream.
TEST(Mixer, AFileBesideAStream) {
  for (const auto& [stream, burst] : {std::pair(0U, 50U), std::pair(1U, 1U)}) {
    Mixing live;
    for (const unsigned int i : {0U, 1U}) ASSERT_GE(i == stream ? live.Add(Low()) : live.Add(High(), "file.wav"), 0);
    ASSERT_EQ(live.SetOutput("mix.wav"), 0);
    for (unsigned int i = 0; i < 200; i += burst) {
      live.Push(stream, Low(), i, i + burst);
      for (int pass = 0; pass < 5; ++pass) live.Pass();  // without packets the file waits
      EXPECT_NEAR(live.mixer.MixedSeconds(), 0.02 * (i + burst), 0.52);
    }
    const Samples sound = live.Mix().sound;
    EXPECT_EQ(sound.size(), 32000U);
    for (const double at : {0.0, 1.0, 2.0, 3.0}) {
      for (const double tone : {730.0, 1000.0}) EXPECT_NEAR(LevelIn(sound, 8000, at, at + 1, tone), 0.25, 0.01);
    }
    EXPECT_EQ(live.Troubles(), 0U);
  }
}

TEST(Mixer, PacketsOfTwoStreams) {
  Mixing live({Low()});
  ASSERT_EQ(live.Add(High()), 1);
  live.Push(0, Low(), 0, 10);  // kept until there is an output
  ASSERT_EQ(live.SetOutput(""), 0);
  // The second one goes on alone. Nothing counts behind the first end marker, nor does another one.
  for (std::size_t i = 0; i < 400; ++i) {
    live.Push(0, Low(), i < 10 ? i + 1 : i % 200, i % 200 + 1);
    live.Push(1, High(), i % 200, i % 200 + 1);
    EXPECT_EQ(i < 199 ? 0 : live.mixer.PushPkt(0, nullptr), 0);
    EXPECT_EQ(live.mixer.PopMixed(live.popped), 0);
  }
  EXPECT_EQ(live.mixer.PushPkt(1, nullptr), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(live.mixer.PopMixed(live.popped), 0);
  EXPECT_TRUE(live.mixer.IsFinished());
  EXPECT_EQ(live.mixer.MixedSeconds(), 8);
  const AVCodecContext& enc = *live.mixer.GetEncoder();
  EXPECT_GT(enc.extradata_size, 1);
  std::int64_t pts = -enc.initial_padding;
  std::vector<Bytes> adts;
  for (const AVPacket* packet : live.popped) {
    EXPECT_TRUE(packet->pts == pts && av_cmp_q(packet->time_base, enc.time_base) == 0) << pts;
    pts += enc.frame_size;
    adts.push_back(WithAdts({packet->data, packet->data + packet->size}, 8000, 1));
  }
  const Samples sound = ReadBack(Joined(adts)).at(0).sound;  // priming of 0.128 s
  EXPECT_NEAR(LevelIn(sound, 8000, 0.13, 4.12, 730), 0.25, 0.01);
  EXPECT_NEAR(LevelIn(sound, 8000, 4.3, 8.1, 730), 0, 0.001);
  for (const double at : {0.13, 4.13}) EXPECT_NEAR(LevelIn(sound, 8000, at, at + 4, 1000), 0.25, 0.01);
  EXPECT_EQ(live.Count("Input 0 finished, write nullptr frame\n"), 1U);
  EXPECT_EQ(live.Troubles(), 0U);
}

TEST(Mixer, SilenceForAStreamThatStops) {
  const std::pair<std::size_t, std::size_t> gaps[] = {{20, 0}, {25, 0}, {26, 2}, {30, 10}};  // of 20 ms, of 10 ms
  for (const auto& [packets, frames] : gaps) {
    Mixing live({Low(), High()});
    live.Push(0, Low(), 0, packets);
    live.Pass();
    EXPECT_EQ(live.Count("Add 80 samples on input 1 (8000 Hz, time=0.010000, ttime=0."), frames) << packets;
  }
  Mixing live({Low(), High()});
  live.Push(0, Low(), 0, 30);
  live.Pass();
  const std::string drop = ", push silent frame to input [1]";
  EXPECT_EQ(live.Count("Detect frame drop from ExpectSec[0.600000]TorranceSec[0.500000]" + drop + "[0.000000]\n"), 1U);
  // It begins late: its sound follows the silence, and the distance stays.
  live.Push(1, High(), 0, 100);
  live.Push(0, Low(), 30, 130);
  // The first one stays away for now: what it still has, and what waits, is heard. Afterwards nothing new comes.
  live.mixer.FlushStream(0);
  EXPECT_EQ(live.Count("Detect frame drop"), 2U);
  EXPECT_EQ(live.Count("Samples on input 0 (8000 Hz, samples=20800, ttime=2.600000)\n"), 1U);
  EXPECT_EQ(live.Count("Detect frame drop from ExpectSec[2.600000]TorranceSec[-0.100000]" + drop + "[2.100000]\n"), 1U);
  for (unsigned int i = 0; i < 2000; ++i) live.mixer.FlushStream(i % 2);
  EXPECT_EQ(live.Count("Add 80 samples on input 1"), 70U);
  EXPECT_EQ(live.Count("Add 80 samples on input 0"), 20U);
  live.Pass();
  EXPECT_NEAR(live.mixer.MixedSeconds(), 2.7, 0.02);
  const Samples sound = live.Mix().sound;
  EXPECT_NEAR(LevelIn(sound, 8000, 0.1, 2.1, 1000), 0.25, 0.005);
  EXPECT_NEAR(LevelIn(sound, 8000, 2.1, 2.6, 1000), 0, 0.001);
  for (const LogLine& line : live.log.Lines()) EXPECT_EQ(line.level, "1") << line.text;
}

TEST(Mixer, AStreamThatChangesItsShape) {
  for (const SoundWish& before : {SoundWish{"libmp3lame", 16000, 2}, {"aac", 16000, 1}}) {
    const bool isAac = before.encoder[0] == 'a';
    SoundClip clips[] = {EncodeTone(before), EncodeTone({before.encoder, isAac ? 44100 : 16000, isAac ? 2 : 1})};
    clips[0].extradata.clear();
    Mixing live({clips[0], Low()});
    for (const SoundClip& clip : clips) {
      for (const Bytes& data : clip.packets) {
        EXPECT_EQ(live.Push(0, isAac ? WithAdts(data, clip.rate, clip.channels) : data), 0);
        live.Pass();
      }
    }
    const Samples sound = live.Mix().sound;
    EXPECT_NEAR(LevelIn(sound, 16000, 0.3, 1.8, 1000), isAac ? 0.5 : 0.475, 0.012);
    EXPECT_NEAR(LevelIn(sound, 16000, 2.4, 3.8, 1000), isAac ? 0.5 : 0.475 * 0.7071, 0.012);
    EXPECT_EQ(live.Count("feeding"), 0U);
  }
}

TEST(Mixer, GarbageLeavesTheOthersAlone) {
  const float values[160] = {NAN, INFINITY, -1e30F};  // what is no number becomes silence
  Bytes wild(sizeof(values));
  std::memcpy(wild.data(), values, sizeof(values));
  for (const char* encoder : {"aac", "libmp3lame", "pcm_f32le"}) {
    const SoundClip clip = EncodeTone({encoder, 8000, 1, 2, 3000, 0, 0.05});
    std::mt19937 random(7);
    Mixing live({High(), clip});
    for (std::size_t i = 0; i < 200; ++i) {
      Bytes bad = i % 4 == 0 ? Bytes() : clip.packets[i % clip.packets.size()];
      for (std::size_t at = i % 2 == 0 ? 0 : bad.size() / 2; at < bad.size(); ++at)
        bad[at] = static_cast<std::uint8_t>(random());
      live.Push(0, High(), i, i + 1);
      EXPECT_EQ(live.Push(1, encoder[0] == 'p' ? wild : bad), 0);
      if (i % 8 == 7) live.Pass();
    }
    const Samples sound = live.Mix().sound;
    EXPECT_GE(sound.size(), 32000U) << encoder;
    EXPECT_NEAR(LevelAt(sound, 8000, 1000), 0.25, encoder[0] == 'p' ? 0.005 : 0.15) << encoder;  // noise clips
    EXPECT_TRUE(encoder[0] != 'p' || *std::min_element(sound.begin(), sound.end()) > -0.3) << "no clicks";
  }
}

TEST(Mixer, WhatWaitsIsBounded) {
  Mixing live({Low()});
  ASSERT_EQ(live.Add(High()), 1);
  ASSERT_EQ(live.SetOutput(""), 0);
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(live.Push(0, Low().packets[0]), 0);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(live.Push(1, Bytes(10 << 20)), 0);
  for (int i = 0; i < 21; ++i) {  // 10 s each of 30 s and of 22 minutes
    EXPECT_NEAR(live.mixer.MixedSeconds(), std::max(10 * i - (i > 3 ? 0.5 : 0), 0.0), 0.13);
    live.Pass();
  }
  EXPECT_EQ(live.Count("Add 80000 samples on input 1"), 21U);
  EXPECT_EQ(live.mixer.PopMixed(live.popped), 0);
  EXPECT_NEAR(static_cast<double>(live.popped.size()), 1500, 80);
  EXPECT_EQ(live.Count("Too many packets wait on input[0], the oldest are dropped\n"), 1U);
  EXPECT_EQ(live.Count("Too many packets wait on input[1], the oldest are dropped\n"), 1U);
  EXPECT_EQ(live.Count("Too many mixed packets wait, the oldest are dropped\n"), 1U);
}

// A pass takes 10 s of what waits, and after a damaged packet begins anew: the other stream's rest is no gap.
TEST(Mixer, ABacklogIsNoGap) {
  SoundClip coded = EncodeTone({"aac", 8000, 1, 28, 1000, 0, 0.25});
  Mixing live({coded, Low()});
  coded.packets[39].assign(coded.packets[39].size(), 0xFF);  // at 5 s
  live.Push(0, coded, 0, coded.packets.size());
  for (int i = 0; i < 7; ++i) live.Push(1, Low(), 0, Low().packets.size());
  live.Mix();
  EXPECT_EQ(live.Count("Could not decode frame error["), 1U);
  EXPECT_EQ(live.Troubles(), 1U);
}

// Of callers that arrange the passes themselves, what was pushed just before is none either.
TEST(Mixer, AGapBetweenPassesByHand) {
  Mixing live({Low(), High()});
  for (std::size_t i = 0; i < 200; ++i) {
    live.Push(0, Low(), i, i + 1);
    if (i < 50 || i >= 150) live.Push(1, High(), i, i + 1);
    live.mixer.DoAutoBalance();
    bool isEnd = false;
    for (const unsigned int idx : {0U, 1U}) EXPECT_EQ(live.mixer.PushFilterSource(idx, isEnd), 0);
    EXPECT_EQ(live.mixer.PullFilterSink(isEnd), 0);
  }
  EXPECT_NEAR(live.mixer.MixedSeconds(), 3.5, 0.1);
}

TEST(Mixer, WhatIsRefused) {
  Mixing live({Low()});
  AudioMixer& mixer = live.mixer;
  const auto at = [&live](const char* name) { return live.dir.Path(name); };
  Bytes hollow(188 * 200);  // packets of no stream
  for (std::size_t i = 0; i < hollow.size(); i += 188) std::memcpy(&hollow[i], "\x47\x1F\xFF\x10", 4);
  SaveBytes(at("hollow.ts"), hollow.data(), hollow.size());
  WriteFile(EncodeClip({"mpeg4", 64, 48, 2}), at("video.mkv"));
  WriteFile({Low(), High()}, at("two.mka"));
  const Bytes recording = ReadBytes(WriteFile({High()}, at("in.wav")));
  std::filesystem::create_hard_link(at("in.wav"), at("link.wav"));
  SaveBytes(at("list.wav"), "ffconcat version 1.0\nfile in.wav\n", 33);
  SaveBytes(at("tones.wav"), "base: 200+10/50\noff: -\nNOW base\n", 32);  // without an end
  ASSERT_EQ(mkfifo(at("fifo.wav").c_str(), 0600), 0);
  live.Fails({mixer.AddInput(at("none.wav")), mixer.AddInput(at("hollow.ts")), mixer.AddInput(at("video.mkv")),
              mixer.AddInput(at("two.mka")), live.Add(EncodeTone({"pcm_s16le", 8000, 9, 0.1}), "wide.wav"),
              mixer.AddStream(nullptr), mixer.AddInput(at("list.wav")), mixer.AddInput(at("tones.wav")),
              mixer.AddInput(at("fifo.wav")), mixer.AddInput("file:" + at("in.wav"))},
             R"(
1|Could not open input file[none.wav] error[No such file or directory]
1|Failed to open fromat contex [none.wav]
1|Could not open find stream info error[End of file]
1|Failed to open fromat contex [hollow.ts]
1|File input has no stream audio
1|Failed to pick audio stream [video.mkv]
1|Expected one audio input stream, but found 2
1|Failed to pick audio stream [two.mka]
1|Could not open input codec error[Invalid argument]
1|Failed to open codec context [wide.wav]
1|Failed to open codec context
1|Could not open input file[list.wav] error[Invalid data found when processing input]
1|Failed to open fromat contex [list.wav]
1|Could not open input file[tones.wav] error[Invalid data found when processing input]
1|Failed to open fromat contex [tones.wav]
1|Could not open input file[fifo.wav] error[Invalid data found when processing input]
1|Failed to open fromat contex [fifo.wav]
1|Could not open input file[file:in.wav] error[No such file or directory]
1|Failed to open fromat contex [file:in.wav]
)",
             0);
  const char* failed = "\n1|Could not open input codec error[Invalid argument]\n1|Failed to open codec context\n";
  for (const auto& [rate, channels] : {std::pair(8000, 0), {0, 1}, {1000000, 1}})
    live.Fails({live.Add({AV_CODEC_ID_PCM_S16LE, rate, channels, {}, {}})}, failed, AVERROR(EINVAL));
  live.Fails({live.Add({AV_CODEC_ID_H264, 8000, 1, {}, {}})}, failed, AVERROR(EINVAL));
  ASSERT_EQ(mixer.SetOutput(""), -1);
  ASSERT_EQ(mixer.AddInput(at("in.wav")), 1);
  bool isEnd = false;
  const mediautil::FfPtr<AVPacket> packet(MakePacket({1}));  // stays ours
  live.Fails(
      {live.Add({AV_CODEC_ID_NONE, 8000, 1, {}, {}}), mixer.PushPkt(2, packet.get()), mixer.PushPkt(1, packet.get()),
       mixer.PushFilterSource(2, isEnd), mixer.InitFilter(nullptr), mixer.PullFilterSink(isEnd), mixer.ProcessInput(),
       mixer.WriteToFile(), mixer.SetOutput("x.wav/x.ogg"), mixer.SetOutput("wav")},
      R"(
1|Need at least 2 inputs
1|Could not find input codec[0]
1|Failed to open codec context
1|Invalid input id 2
1|Input[1] is not a stream
1|Invalid input id 2
1|Output is not set
1|No output file is set
1|Unknown output format [x.wav/x.ogg]
1|Unknown output format [wav]
)");
  // Without an output there is nothing to put silence into. A gap of 0.5 s is none.
  for (const unsigned int i : {0U, 2U}) mixer.FlushStream(i);
  for (const double expected : {0.5, 0.6}) mixer.AutoBalanceInput(0, expected, 0.5);
  EXPECT_EQ(live.Count("Invalid input id 2\n", "FlushStream"), 1U);
  EXPECT_EQ(live.Count("Error while feeding the audio filtergraph\n", "AutoBalanceInput"), 1U);
  // An input stays as it is, under whatever name.
  const std::pair<const char*, int> outputs[] = {
      {"no/x.mp4", ENOENT}, {"in.wav", EBUSY}, {"link.wav", EBUSY}, {"fifo.wav", ENOTSUP}};
  for (const auto& [name, error] : outputs) {
    for (const std::string& path : {at(name), "file:" + at(name)}) {
      EXPECT_EQ(mixer.SetOutput(path), AVERROR(error));
      EXPECT_EQ(live.Count("Could not open output file[" + path + "] error[" + std::strerror(error) + "]\n"), 1U);
    }
  }
  EXPECT_EQ(mixer.SetOutput("tee:" + at("in.wav")), AVERROR(ENOTSUP));
  EXPECT_EQ(ReadBytes(at("in.wav")), recording);
  live.log.Clear();
  ASSERT_EQ(mixer.SetOutput(at("mix.wav")), 0);
  for (const char* part : {"|   src0    |", "|   src1    |", "amix:default--", "volume:default--"}) {
    EXPECT_EQ(live.Count(part, "InitFilter"), 1U) << part;
  }
  live.log.Clear();
  live.Fails({mixer.SetOutput(""), mixer.AddInput("x"), mixer.AddStream(nullptr)},
             "\n1|Output is already set\n1|Output is already set\n1|Output is already set\n");
}

// When the mixer is destroyed, and when the disk is full after some bytes, what stood there stays.
TEST(Mixer, AnOlderFileIsReplacedByAWholeOne) {
  for (const Bytes& old : {Bytes(), Bytes{'o', 'l', 'd'}}) {
    for (const auto& [name, room] :
         {std::pair("a.wav", 0), {"b.wav", 4096}, {"c.mp4", 0}, {"d.mp4", 32}, {"e.wav", -1}}) {
      Mixing live;
      const std::string input = WriteFile({Low()}, live.dir.Path("in.wav"));
      const std::string path = live.dir.Path(name);
      if (!old.empty()) SaveBytes(path, old.data(), old.size());
      chmod(path.c_str(), 0600);
      const bool isGiven = chown(path.c_str(), 65534, 65534) == 0;
      for (const bool isDestroyed : {true, false}) {
        const bool isFull = !isDestroyed && room >= 0;
        const FullDisk disk(isFull ? room : -1);
        auto mixer = std::make_unique<AudioMixer>();
        for (const int i : {0, 1}) ASSERT_EQ(mixer->AddInput(input), i);
        int ret = mixer->SetOutput("file:" + path);
        ret = ret < 0 ? ret : isDestroyed ? mixer->ProcessInput() : mixer->WriteToFile();
        EXPECT_EQ(ret, isFull ? AVERROR(EFBIG) : 0) << name;
        EXPECT_EQ(live.Count("error[File too large]\n") > 0, isFull);
        EXPECT_EQ(live.Count("error[File too large]\n"), live.Troubles());
        EXPECT_EQ(mixer->ProcessInput() < 0, isFull);
        if (isDestroyed) mixer.reset();
        EXPECT_EQ(ReadBytes(path) == old, isDestroyed || isFull) << name;
        EXPECT_EQ(live.Files(), old.empty() && (isDestroyed || isFull) ? 1 : 2) << name;
      }
      EXPECT_EQ(room < 0 ? ReadBack(ReadBytes(path)).at(0).sound.size() : 32000U, 32000U);
      struct stat info = {};
      EXPECT_TRUE(old.empty() || (stat(path.c_str(), &info) == 0 && (info.st_mode & 0777) == 0600)) << info.st_mode;
      EXPECT_EQ(info.st_uid == 65534, isGiven && !old.empty());
    }
  }
}

// Neither gets the part's place, nor the older file's owner and permissions, what somebody put under its name.
TEST(Mixer, AForeignFileIsNoPart) {
  for (const bool isLink : {false, true}) {
    Mixing live;
    const std::string input = WriteFile({Low()}, live.dir.Path("in.wav"));
    const std::string path = live.dir.Path("old.wav");
    const std::string victim = live.dir.Path("victim");
    for (const std::string& name : {path, victim}) SaveBytes(name, "old", 3);
    chmod(path.c_str(), 0666);
    chmod(victim.c_str(), 0600);
    for (const int i : {0, 1}) ASSERT_EQ(live.mixer.AddInput(input), i);
    ASSERT_EQ(live.mixer.SetOutput(path), 0);
    std::string part;
    for (const auto& entry : std::filesystem::directory_iterator(live.dir.Path())) {
      if (entry.path().filename().string().rfind(".old.wav.part-", 0) == 0) part = entry.path();
    }
    ASSERT_TRUE(std::filesystem::remove(part));
    if (isLink) {
      std::filesystem::create_symlink(victim, part);
    } else {
      std::filesystem::create_hard_link(victim, part);
    }
    EXPECT_EQ(live.mixer.WriteToFile(), AVERROR(ENOENT));
    EXPECT_EQ(std::filesystem::status(victim).permissions(), std::filesystem::perms(0600));
    for (const std::string& name : {path, victim}) EXPECT_EQ(ReadBytes(name), (Bytes{'o', 'l', 'd'}));
    EXPECT_EQ(live.Files(), 4) << "the foreign name stays";
  }
}

TEST(Mixer, AReadOnlyFileIsReplaced) {
  Mixing live;
  const std::string input = WriteFile({Low()}, live.dir.Path("in.wav"));
  const std::string path = live.dir.Path("old.wav");
  SaveBytes(path, "old", 3);
  chmod(path.c_str(), 0444);
  const uid_t user = geteuid();
  for (const std::string& name : {live.dir.Path(), path})
    EXPECT_EQ(user == 0 ? chown(name.c_str(), 65534, getegid()) : 0, 0);
  EXPECT_EQ(user == 0 ? seteuid(65534) : 0, 0);
  for (const int i : {0, 1}) EXPECT_EQ(live.mixer.AddInput(input), i);
  EXPECT_EQ(live.mixer.SetOutput(path), 0);
  EXPECT_EQ(live.mixer.WriteToFile(), 0);
  EXPECT_EQ(seteuid(user), 0);
  EXPECT_EQ(ReadBack(ReadBytes(path)).at(0).sound.size(), 32000U);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0444));
}

// A part is whole although what it should replace has gone, or leads elsewhere by now.
TEST(Mixer, AnOlderFileThatGoes) {
  for (const bool isLink : {false, true}) {
    Mixing live;
    const std::string input = WriteFile({Low()}, live.dir.Path("in.wav"));
    const std::string kept = live.dir.Path("kept.wav");
    const std::string path = live.dir.Path(isLink ? "link.wav" : "kept.wav");
    SaveBytes(kept, "old", 3);
    if (isLink) std::filesystem::create_symlink("kept.wav", path);
    for (const int i : {0, 1}) ASSERT_EQ(live.mixer.AddInput(input), i);
    ASSERT_EQ(live.mixer.SetOutput(path), 0);
    std::filesystem::remove(path);
    if (isLink) std::filesystem::create_symlink("in.wav", path);
    EXPECT_EQ(live.mixer.WriteToFile(), 0);
    EXPECT_EQ(ReadBack(ReadBytes(kept)).at(0).sound.size(), 32000U);
    EXPECT_NE(ReadBytes(input), ReadBytes(kept));
    EXPECT_EQ(live.Files(), isLink ? 3 : 2);
  }
}

TEST(Mixer, ARecordingThatBreaksOff) {
  Mixing live;
  const std::string cut = WriteFile({EncodeTone({"wavpack", 44100, 1, 4, 730, 0, 0.25})}, live.dir.Path("cut.wv"));
  std::filesystem::resize_file(cut, std::filesystem::file_size(cut) / 2);
  ASSERT_EQ(live.Add(High(), "whole.wav"), 0);
  ASSERT_EQ(live.mixer.AddInput(cut), 1);
  ASSERT_EQ(live.SetOutput("mix.wav"), 0);
  const Samples sound = live.Mix().sound;
  EXPECT_EQ(sound.size(), 4U * 44100);
  EXPECT_NEAR(LevelIn(sound, 44100, 0.2, 1, 730), 0.25, 0.005);
  EXPECT_EQ(live.Count("Could not read frame error[Input/output error]\n", "ReadDecodeFrame"), 1U);
  EXPECT_EQ(live.Troubles(), 1U);
}
