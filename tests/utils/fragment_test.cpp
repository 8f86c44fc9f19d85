#include <gtest/gtest.h>

#include <random>

#include "tests/support/muxing.h"
#include "utils/internal/fragscan.h"

namespace {

Bytes Words(const std::vector<std::uint64_t>& values) {
  std::vector<Bytes> words;
  for (const std::uint64_t value : values) words.push_back(BigEndian(value, 4));
  return Joined(words);
}

Bytes Box(const std::string& type, const Bytes& body) {
  return Joined({BigEndian(body.size() + 8, 4), Bytes(type.begin(), type.end()), body});
}

Bytes Fragment(std::uint64_t id, std::uint64_t time, const Bytes& runs) {
  const Bytes header = Box("tfhd", Words({0x2003B, id, 0, 0, 1, 512, 0, 0}));
  const Bytes decodeTime =
      Box("tfdt", time >> 32 != 0 ? Joined({BigEndian(0x01000000, 4), BigEndian(time, 8)}) : Words({0, time}));
  const Bytes track = Box("traf", Joined({header, decodeTime, runs}));
  return Joined({Box("moof", Joined({Box("mfhd", Words({0, 1})), track})), Box("mdat", Bytes(40, 0x6D))});
}

// The start that a scan in pieces of up to a number of bytes finds.
std::int64_t Scan(const Bytes& stream, std::size_t limit) {
  static std::mt19937 random(5);
  mediautil::FragScan scan;
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t size = std::min<std::size_t>(1 + random() % limit, stream.size() - at);
    scan.Feed(stream.data() + at, size);
    at += size;
  }
  return scan.NextStart();
}

}  // namespace

// The start that is foretold after each frame is the one that the next fragment then gets.
TEST(NextFragment, IsTheDecodingTimeOfTheNextOne) {
  enum { kRegular, kJitter, kGap, kBackward, kSound, kSoundFirst, kCases };
  for (int c = kRegular; c < kCases; ++c) {
    SCOPED_TRACE(c);
    const auto timeOf = [c](long long i) {
      const long long late = c == kJitter ? i * 7919 % 9000 : c == kGap && i > 14 ? 3000000 : 0;
      return 9000000 + (c == kBackward ? -i : i) * 40000 + late;
    };
    Muxing out;
    std::vector<long long> foretold;
    out.policy.afterVdo = [&out, &foretold] {
      const long long next = out.muxer.GetMovVdoTrackNextFragStart();
      if (foretold.empty() || foretold.back() != next) {
        foretold.push_back(next);
      }
    };
    ASSERT_EQ(out.Init() + (c == kSoundFirst ? out.AddSound() : 0) + out.AddVideo(), 0);
    ASSERT_EQ((c == kSound ? out.AddSound() : 0) + out.muxer.WriteHeader(), 0);
    long long heard = 0;
    for (std::size_t i = 0; i < 30; ++i) {
      EXPECT_EQ(out.Video(H264().frames[i], timeOf(static_cast<long long>(i))), 0);
      for (; c >= kSound && heard * 64000 <= static_cast<long long>(i) * 40000; ++heard) {
        EXPECT_EQ(out.Audio(Aac().packets[static_cast<std::size_t>(heard)], 9000000 + heard * 64000), 0);
        out.policy.afterVdo();
      }
    }
    out.muxer.Finalize();
    const std::vector<std::int64_t> fragments = FragmentTimes(out.sink.bytes, 1);
    ASSERT_EQ(fragments.size(), 3U);
    ASSERT_EQ(foretold.size(), 3U);  // the last one leaves with Finalize
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(foretold[i], av_rescale_q(fragments[i], {1, c == kSoundFirst ? 16000 : 1000000}, {1, 1000000}));
    }
  }
  Muxing flv;
  ASSERT_EQ(flv.Start(H264(), "H264", kFlv), 0);
  EXPECT_EQ(flv.Video(), 30);
  EXPECT_EQ(flv.muxer.GetMovVdoTrackNextFragStart(), 0);
}

TEST(NextFragment, ScanOfHandMadeBoxes) {
  const Bytes told = Box("trun", Words({0x705, 2, 9, 8, 100, 1, 2, 150, 1, 2}));
  const Bytes untold = Box("trun", Words({0x200, 3, 1, 2, 3}));
  const Bytes none = Box("trun", Words({0x101, 0, 7}));
  const Bytes tooLong = Box("trun", Words({0x101, UINT32_MAX, 0, 5}));
  const Bytes shortTrack = Joined({Box("tfhd", {}), Box("tfdt", BigEndian(0, 4)), Box("trun", BigEndian(1, 4))});
  const Bytes moof = {'m', 'o', 'o', 'f'};
  const Bytes mdat = {'m', 'd', 'a', 't'};
  const Bytes first = Fragment(1, 1000, told);
  const struct {
    const char* name;
    Bytes stream;
    std::int64_t expected;
  } cases[] = {{"durations of the samples", first, 1250},
               {"default duration", Fragment(1, 1000, untold), 2536},
               {"several runs, late", Fragment(1, 0x100000005, Joined({told, none, untold})), 0x100000005 + 1786},
               {"other track", Joined({Fragment(1, 7, none), Fragment(2, 5000, told)}), 7},
               {"no fragment", Joined({Box("ftyp", Bytes(20, 1)), Box("moov", Bytes(200, 0))}), 0},
               {"long box", Joined({BigEndian(1, 4), mdat, BigEndian(66, 8), Bytes(50, 9), first}), 1250},
               {"garbage behind", Joined({first, Bytes(300, 0xFF), Fragment(1, 9, none)}), 1250},
               {"box to the end", Joined({first, BigEndian(0, 4), mdat, Fragment(1, 9, none)}), 1250},
               {"run beyond its box", Joined({Fragment(1, 3, none), Fragment(1, 9, tooLong), first}), 3},
               {"box beyond its parent", Joined({BigEndian(24, 4), moof, BigEndian(800, 4), Bytes(90, 't'), first}), 0},
               {"short headers", Joined({Box("moof", Box("traf", shortTrack)), Fragment(1, 4, none)}), 4}};
  for (const auto& c : cases) {
    for (const std::size_t limit : {std::size_t{1}, std::size_t{5}, std::size_t{64}, c.stream.size()}) {
      EXPECT_EQ(Scan(c.stream, limit), c.expected) << c.name << " in pieces of up to " << limit;
    }
  }
  std::mt19937 random(11);
  for (int round = 0; round < 3000; ++round) {  // damaged: it ends, with the same start whatever the pieces
    Bytes damaged = Joined({Fragment(1, 0x100000005, told), Fragment(1, 1250, told)});
    for (int flips = 0; flips < 1 + round % 5; ++flips) {
      damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random() % (round % 2 == 0 ? 256 : 4));
    }
    EXPECT_EQ(Scan(damaged, damaged.size()), Scan(damaged, 9)) << round;
  }
}
