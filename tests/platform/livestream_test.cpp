// The memory of live streams: frames as several processes see them, refusals, hostile memory, killed writers.
#include "platform/livestream.h"

#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "platform/local/streamring.h"
#include "tests/platform/platform_fixture.h"

namespace {

using local::StreamRing;
using Bytes = std::basic_string<unsigned char>;

struct Detach {
  void operator()(const void* memory) const { shmdt(memory); }
};
using Reader = std::unique_ptr<ShmStreamFifo, Detach>;

class LiveStreamTest : public PlatformTest {
 protected:
  std::string LockPath() const { return StateDir() + "/" + local::StreamLockName(kCamera, kStream); }

  key_t Key() const {
    struct stat lock = {};
    return stat(LockPath().c_str(), &lock) == 0 ? local::StreamKey(lock) : -1;
  }

  // The writer's memory, to damage it.
  std::unique_ptr<StreamRing, Detach> Ring() const {
    return std::unique_ptr<StreamRing, Detach>(
        static_cast<StreamRing*>(shmat(std::stoi(ReadFile(LockPath())), nullptr, 0)));
  }

  static constexpr int kCamera = 7;
  static constexpr int kStream = 2;
};

Reader Attach(int camera = 7, int stream = 2) {
  return Reader(LiveStreamFifoAt(camera, stream));
}

// Numbers that all processes of a test see.
class SharedInts {
 public:
  std::atomic<int>& operator[](int i) const { return m_ints[i]; }
  SharedInts() = default;
  ~SharedInts() { munmap(m_ints, kSize); }
  SharedInts(const SharedInts&) = delete;
  SharedInts& operator=(const SharedInts&) = delete;

 private:
  static constexpr std::size_t kSize = 4096;
  std::atomic<int>* m_ints =
      static_cast<std::atomic<int>*>(mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
};

// What a read hands out; "none", or "half" for a failure that hands something out all the same.
template <typename R>
std::string Read(const Reader& fifo, R read) {
  unsigned char before = 0;
  unsigned char* data = &before;
  int size = 99;
  if ((fifo.get()->*read)(data, size) != 0) return data == nullptr && size == 0 ? "none" : "half";
  const std::unique_ptr<unsigned char[]> owned(data);
  return std::string(data, data + size);
}
std::string Latest(const Reader& fifo) {
  return Read(fifo, &ShmStreamFifo::ReadLatest);
}
std::string LatestKey(const Reader& fifo) {
  return Read(fifo, &ShmStreamFifo::ReadLatestIFrame);
}
std::string Extra(const Reader& fifo, int capacity = LiveStreamWriter::kMaxExtra) {
  unsigned char buffer[LiveStreamWriter::kMaxExtra];
  int size = capacity;
  if (fifo->GetExtra(buffer, size) != 0) return size == 0 ? "none" : "half";
  return std::string(buffer, buffer + size);
}

int Write(LiveStreamWriter& writer, const std::string& frame, bool isKey = false) {
  return writer.Write(Bytes(frame.begin(), frame.end()).data(), static_cast<int>(frame.size()), isKey);
}
int SetExtra(LiveStreamWriter& writer, const std::string& extra) {
  return writer.SetExtra(Bytes(extra.begin(), extra.end()).data(), static_cast<int>(extra.size()));
}

TEST_F(LiveStreamTest, NewestFrameKeyFrameAndExtra) {
  EXPECT_EQ(Attach(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(StateDir())) << "a look makes nothing";
  LiveStreamWriter writer;
  ASSERT_EQ(writer.Open(kCamera, kStream), 0);
  const Reader fifo = Attach();
  ASSERT_NE(fifo, nullptr);
  EXPECT_TRUE(Attach(kCamera, 1) == nullptr && Attach(8, kStream) == nullptr) << "other streams";
  EXPECT_EQ(Latest(fifo) + LatestKey(fifo) + Extra(fifo), "nonenone");

  EXPECT_EQ(Write(writer, "first"), 0);
  EXPECT_EQ(Latest(fifo) + " " + LatestKey(fifo), "first none") << "no key frame yet";
  EXPECT_EQ(SetExtra(writer, "config") + Write(writer, "key", true), 0);
  for (int i = 1; i <= 1000; ++i) {
    ASSERT_EQ(Write(writer, "frame " + std::to_string(i)), 0);
    ASSERT_EQ(Latest(fifo) + LatestKey(fifo) + Extra(fifo), "frame " + std::to_string(i) + "keyconfig");
  }
  std::string big(LiveStreamWriter::kMaxFrame, 'x');
  big.front() = big.back() = 'y';
  EXPECT_EQ(Write(writer, big, true), 0);
  EXPECT_TRUE(Latest(fifo) == big && LatestKey(fifo) == big && LatestKey(Attach()) == big);

  const std::string whole(LiveStreamWriter::kMaxExtra, 'e');
  EXPECT_EQ(SetExtra(writer, whole), 0);
  EXPECT_EQ(Extra(fifo), whole);
  EXPECT_EQ(Extra(fifo, LiveStreamWriter::kMaxExtra - 1) + Extra(fifo, -1), "nonenone");
  int size = 9;
  EXPECT_EQ(fifo->GetExtra(nullptr, size), -1);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(writer.SetExtra(nullptr, 0), 0);
  EXPECT_EQ(Extra(fifo) + Extra(fifo, 0), "");

  EXPECT_EQ(LatestKey(fifo), "none") << "other bytes take the key frame back";
  EXPECT_EQ(SetExtra(writer, "config") + Write(writer, "key", true) + SetExtra(writer, "config"), 0);
  EXPECT_EQ(LatestKey(fifo) + Extra(fifo), "keyconfig") << "the same do not";

  EXPECT_EQ(Write(writer, "last"), 0);
  pid_t child = StartProcess([] { return Latest(Attach()) == "last" ? 0 : 1; });
  EXPECT_EQ(WaitFor(child), 0);
  child = StartProcess(pause);
  writer.Close();
  writer.Close();
  EXPECT_EQ(Latest(fifo), "last") << "who is attached keeps what there is";
  EXPECT_EQ(Attach(), nullptr);
  ASSERT_EQ(writer.Open(kCamera, kStream), 0) << "the child has it no more";
  kill(child, SIGKILL);
  EXPECT_EQ(WaitFor(child), -1);
  EXPECT_EQ(Latest(Attach()), "none");
  EXPECT_TRUE(writer.Open(8, 0) == 0 && Attach() == nullptr && Attach(8, 0) != nullptr) << "one stream a writer";
}

TEST_F(LiveStreamTest, RefusalsKeepWhatThereIs) {
  LiveStreamWriter writer;
  errno = 0;
  EXPECT_TRUE(Write(writer, "x") == -1 && errno == EBADF && SetExtra(writer, "x") == -1 && errno == EBADF);
  ASSERT_EQ(writer.Open(kCamera, kStream), 0);
  EXPECT_EQ(SetExtra(writer, "config") + Write(writer, "kept", true), 0);
  EXPECT_EQ(std::filesystem::status(LockPath()).permissions() & std::filesystem::perms(0137), std::filesystem::perms());

  const unsigned char byte = 0;
  for (const int size : {0, -1, INT_MIN, INT_MAX, LiveStreamWriter::kMaxFrame + 1}) {
    errno = 0;
    EXPECT_TRUE(writer.Write(&byte, size, true) == -1 && errno == EINVAL) << size;
  }
  for (const int size : {-1, INT_MIN, INT_MAX, LiveStreamWriter::kMaxExtra + 1}) {
    errno = 0;
    EXPECT_TRUE(writer.SetExtra(&byte, size) == -1 && errno == EINVAL) << size;
  }
  EXPECT_EQ(writer.Write(nullptr, 1, true) + writer.SetExtra(nullptr, 1), -2);
  const auto tryOpen = [] { return LiveStreamWriter().Open(kCamera, kStream) == 0 ? 0 : errno; };
  EXPECT_EQ(tryOpen(), EBUSY);
  EXPECT_EQ(WaitFor(StartProcess(tryOpen)), EBUSY);
  EXPECT_EQ(Latest(Attach()) + LatestKey(Attach()) + Extra(Attach()), "keptkeptconfig");

  const std::string state = StateDir() + "/live-";
  std::filesystem::create_symlink("none", state + "1-1.lock");
  std::filesystem::create_directory(state + "1-2.lock");
  ASSERT_EQ(mkfifo((state + "1-3.lock").c_str(), 0600), 0);
  const std::tuple<int, int, int> cases[] = {{0, 0, EINVAL},  {-1, 0, EINVAL},      {INT_MIN, 0, EINVAL},
                                             {1, -1, EINVAL}, {1, 1, ELOOP},        {1, 2, EISDIR},
                                             {1, 3, EINVAL},  {INT_MAX, INT_MAX, 0}};
  for (const auto& [camera, stream, error] : cases) {
    errno = 0;
    EXPECT_EQ(writer.Open(camera, stream), error == 0 ? 0 : -1) << camera << " " << stream;
    EXPECT_EQ(error == 0 ? 0 : errno, error) << camera << " " << stream;
    EXPECT_EQ(Attach(camera, stream) != nullptr, error == 0) << camera << " " << stream;
  }
  const std::string file = Path("file");
  WriteFile(file, "");
  for (const auto& [dir, error] : {std::make_pair(file + "/x", ENOTDIR), std::make_pair(std::string(), ENOENT)}) {
    setenv("MEDIAUTIL_STATE_DIR", dir.c_str(), 1);
    EXPECT_EQ(tryOpen(), error) << dir;
    EXPECT_EQ(Attach(), nullptr) << dir;
  }
}

TEST_F(LiveStreamTest, DamagedMemoryIsNotRead) {
  const auto reads = [] {
    const Reader fifo = Attach();
    return fifo == nullptr ? "null" : Latest(fifo) + " " + LatestKey(fifo) + " " + Extra(fifo);
  };
  const auto slotOf = [](StreamRing& ring, StreamRing::Role role) -> StreamRing::Slot& {
    return ring.slots[ring.published[role] & 7];
  };
  const std::pair<const char*, std::function<void(StreamRing&)>> cases[] = {
      {"null", [](StreamRing& ring) { ++ring.identity.magic; }},
      {"null", [](StreamRing& ring) { ++ring.identity.version; }},
      {"null", [](StreamRing& ring) { ++ring.identity.cameraId; }},
      {"null", [](StreamRing& ring) { ++ring.identity.lockInode; }},
      {"none none none",
       [](StreamRing& ring) {
         for (local::SharedWord& ticket : ring.published) ticket = 0xFFFFFFFF;  // a slot behind the last one
       }},
      {"none none none",
       [](StreamRing& ring) {
         for (auto& ticket : ring.published) ticket += 8;
       }},
      {"frame none config", [&](StreamRing& ring) { slotOf(ring, StreamRing::kKeyFrame).size = 0; }},
      {"none key config", [&](StreamRing& ring) { slotOf(ring, StreamRing::kFrame).size = (8 << 20) + 1; }},
      {"none key config", [&](StreamRing& ring) { slotOf(ring, StreamRing::kFrame).size = UINT_MAX; }},
      {"frame key none", [&](StreamRing& ring) { slotOf(ring, StreamRing::kExtra).size = 1025; }},
      {"frame none config", [&](StreamRing& ring) { slotOf(ring, StreamRing::kKeyFrame).ticket = 0; }},
  };
  int number = 0;
  for (const auto& [expected, damage] : cases) {
    LiveStreamWriter writer;
    ASSERT_EQ(writer.Open(kCamera, kStream) + SetExtra(writer, "config") + Write(writer, "key", true) +
                  Write(writer, "frame"),
              0);
    ASSERT_EQ(reads(), "frame key config");
    const auto ring = Ring();
    damage(*ring);
    EXPECT_EQ(reads(), expected) << number;
    // The writer believes no memory either.
    ring->identity = {};
    EXPECT_EQ(Write(writer, "again", true), 0) << number;
    ++number;
  }
}

// What stands in the lock file of a living writer may lead elsewhere.
TEST_F(LiveStreamTest, OtherMemoryIsNotTaken) {
  LiveStreamWriter writer;
  ASSERT_EQ(writer.Open(kCamera, kStream), 0);
  const std::string right = ReadFile(LockPath());
  // A segment as another user, another program, or an older library might have made it.
  const auto makeSegment = [&](std::size_t size, bool copyHeader) {
    const int segment = shmget(IPC_PRIVATE, size, 0644);
    void* memory = shmat(segment, nullptr, 0);
    if (copyHeader) *static_cast<local::StreamIdentity*>(memory) = Ring()->identity;
    shmdt(memory);
    return segment;
  };
  const int small = makeSegment(4096, true);
  const int longer = makeSegment(sizeof(StreamRing) + 4096, true);
  const int empty = makeSegment(sizeof(StreamRing), false);
  const int same = makeSegment(sizeof(StreamRing), true);
  const auto padded = [](int segment) {
    char text[16] = {};
    std::snprintf(text, sizeof(text), "%11d\n", segment);
    return std::string(text);
  };
  const std::pair<std::string, bool> cases[] = {{"", false},
                                                {"7", false},
                                                {"garbage 12345\n", false},
                                                {"99999999999\n", false},
                                                {padded(-1), false},
                                                {padded(small), false},
                                                {padded(longer), false},
                                                {padded(INT_MAX), false},
                                                {padded(empty), false},
                                                {padded(same), true},
                                                {right, true}};
  for (const auto& [text, taken] : cases) {
    WriteFile(LockPath(), text);
    EXPECT_EQ(Attach() != nullptr, taken) << text;
  }
  for (const int segment : {small, longer, empty, same}) shmctl(segment, IPC_RMID, nullptr);
  if (geteuid() != 0) return;
  const SharedInts foreign;
  const pid_t other = StartProcess([&] {
    if (setuid(65534) != 0) return 1;
    foreign[0] = makeSegment(sizeof(StreamRing), false);
    shmid_ds info = {};
    shmctl(foreign[0], IPC_STAT, &info);
    info.shm_perm.uid = 0;  // given away, to look like one of ours
    return shmctl(foreign[0], IPC_SET, &info);
  });
  EXPECT_EQ(WaitFor(other), 0);
  void* memory = shmat(foreign[0], nullptr, 0);
  WriteFile(LockPath(), right);
  *static_cast<local::StreamIdentity*>(memory) = Ring()->identity;
  shmdt(memory);
  WriteFile(LockPath(), padded(foreign[0]));
  EXPECT_EQ(Attach(), nullptr);
  shmctl(foreign[0], IPC_RMID, nullptr);
}

// A writer that was killed while it made its memory leaves a segment; what is in use under its key is another's.
TEST_F(LiveStreamTest, LeftoverSegmentIsRemoved) {
  for (const bool isUsed : {false, true}) {
    ASSERT_EQ(LiveStreamWriter().Open(kCamera, kStream), 0) << "makes the lock file";
    const int leftover = shmget(Key(), 4096, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(leftover, 0);
    void* memory = isUsed ? shmat(leftover, nullptr, 0) : nullptr;
    LiveStreamWriter writer;
    EXPECT_EQ(writer.Open(kCamera, kStream) + Write(writer, "frame"), 0);
    EXPECT_EQ(Latest(Attach()), "frame");
    EXPECT_EQ(shmctl(leftover, IPC_RMID, nullptr), isUsed ? 0 : -1);
    if (isUsed) shmdt(memory);
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// Several processes
// ---------------------------------------------------------------------------------------------------------------------

// Size and content follow from the seed that it begins with; every 16th is a key frame.
std::vector<std::uint32_t> MakeFrame(std::uint32_t seed) {
  std::vector<std::uint32_t> words(1 + seed * 2654435761U % 20000, seed);
  for (std::size_t i = 1; i < words.size(); ++i) words[i] = words[i - 1] * 1664525U + 1013904223U;
  return words;
}
constexpr bool IsKey(std::uint32_t seed) {
  return seed % 16 == 0;
}
constexpr int kExtraWords = 256;

bool IsWhole(const void* data, int size, std::uint32_t& seed) {
  std::memcpy(&seed, data, sizeof(seed));
  const std::vector<std::uint32_t> words = MakeFrame(seed);
  return static_cast<std::size_t>(size) == words.size() * 4 && std::memcmp(data, words.data(), words.size() * 4) == 0;
}

int WriteUntilKilled(std::uint32_t seed) {
  LiveStreamWriter writer;
  if (writer.Open(7, 2) != 0) return 1;
  for (;; ++seed) {
    const std::vector<std::uint32_t> extra(kExtraWords, seed);
    const void* bytes = extra.data();
    if (IsKey(seed) && writer.SetExtra(static_cast<const unsigned char*>(bytes), kExtraWords * 4) != 0) return 3;
    const std::vector<std::uint32_t> words = MakeFrame(seed);
    const void* data = words.data();
    if (writer.Write(static_cast<const unsigned char*>(data), static_cast<int>(words.size() * 4), IsKey(seed)) != 0) {
      return 2;
    }
  }
}

// The seed of the configuration, 0 without one; 1 for a mixture.
std::uint32_t ReadExtraSeed(const Reader& fifo) {
  std::uint32_t extra[kExtraWords];
  int size = sizeof(extra);
  void* buffer = extra;
  if (fifo->GetExtra(static_cast<unsigned char*>(buffer), size) != 0) return 1;
  if (size == 0) return 0;
  return std::count(std::begin(extra), std::end(extra), extra[0]) == kExtraWords ? extra[0] : 1;
}

// One frame and the configuration; 0 or what is wrong. last: the seed that this memory had before, it never goes back.
int ReadAndCheck(const Reader& fifo, bool isKey, std::uint32_t& last) {
  const std::uint32_t before = ReadExtraSeed(fifo);
  unsigned char* data = nullptr;
  int size = 0;
  const int result = isKey ? fifo->ReadLatestIFrame(data, size) : fifo->ReadLatest(data, size);
  const std::unique_ptr<unsigned char[]> owned(data);
  if (result != 0) return last != 0 && !isKey ? 1 : 0;
  std::uint32_t seed = 0;
  if (size < 4 || !IsWhole(data, size, seed)) return 2;
  if (seed < last || (isKey && !IsKey(seed))) return 3;
  last = seed;
  const std::uint32_t after = ReadExtraSeed(fifo);
  if (before == 1 || after == 1) return 4;
  return isKey && before == after && before != seed ? 5 : 0;
}

int ReadUntilStopped(const SharedInts& shared, int own) {
  constexpr int kReadsAtOnce = 50;
  while (shared[0] == 0) {
    const Reader fifo = Attach();
    if (fifo == nullptr) usleep(200);
    std::uint32_t last[2] = {};
    for (int i = 0; fifo != nullptr && i < kReadsAtOnce; ++i) {
      if (const int wrong = ReadAndCheck(fifo, i % 2 == 0, last[i % 2]); wrong != 0) return wrong;
      shared[own] += last[i % 2] != 0 ? 1 : 0;
    }
  }
  return 0;
}

TEST_F(LiveStreamTest, KilledWritersTearNoFrame) {
  constexpr int kKills = 60;
  constexpr int kReaders = 4;
  const SharedInts shared;
  pid_t readers[kReaders];
  for (int i = 0; i < kReaders; ++i) {
    readers[i] = StartProcess([&shared, i] { return ReadUntilStopped(shared, 1 + i); });
  }
  std::mt19937 random(1);
  for (int i = 1; i <= kKills; ++i) {
    const pid_t writer = StartProcess([i] { return WriteUntilKilled(static_cast<std::uint32_t>(i) << 16); });
    usleep(static_cast<useconds_t>(random() % 10000));
    kill(writer, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_TRUE(WIFSIGNALED(status)) << "writer " << i << ": " << WEXITSTATUS(status);
  }
  shared[0] = 1;
  for (int i = 0; i < kReaders; ++i) {
    EXPECT_EQ(WaitFor(readers[i]), 0);
    EXPECT_GT(shared[1 + i], kKills) << "reader " << i;
  }
  EXPECT_EQ(Attach(), nullptr) << "nobody writes";
  LiveStreamWriter writer;
  EXPECT_EQ(writer.Open(kCamera, kStream), 0);
  EXPECT_EQ(Latest(Attach()), "none");
  EXPECT_EQ(shmget(Key(), 0, 0), -1) << "no segment is left";
}

}  // namespace
