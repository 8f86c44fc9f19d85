#include "platform/livestream.h"

#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/local/fd.h"
#include "platform/local/readfile.h"
#include "platform/local/state.h"
#include "platform/local/streamring.h"

using local::SharedWord;
using local::StreamIdentity;
using local::StreamRing;
using local::UniqueFd;

namespace {

constexpr mode_t kMode = 0640;
constexpr std::uint32_t kSlotMask = (1U << StreamRing::kSlotBits) - 1;
constexpr std::uint32_t kMaxCount = UINT32_MAX >> StreamRing::kSlotBits;

// Detaches the memory.
struct Detach {
  void operator()(void* ring) const { shmdt(ring); }
};
using WriterRing = std::unique_ptr<StreamRing, Detach>;

bool IsStream(int cameraId, int streamNo) {
  return cameraId >= 1 && streamNo >= 0;
}

StreamIdentity IdentityOf(int cameraId, int streamNo, const struct stat& lock) {
  return {StreamRing::kMagic, StreamRing::kVersion, cameraId, streamNo, lock.st_dev, lock.st_ino};
}

bool IsSame(const StreamIdentity& a, const StreamIdentity& b) {
  return std::memcmp(&a, &b, sizeof(a)) == 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// The lock file
// ---------------------------------------------------------------------------------------------------------------------

// Locks of the open file, not of the process: threads exclude each other too, and a look takes no lock, so that readers
// never keep a writer out.
struct flock ByteLock(short type, long byte) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return lock;
}

// type: F_WRLCK or F_UNLCK
bool SetByte(int fd, long byte, short type) {
  const struct flock lock = ByteLock(type, byte);
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool LockByte(int fd, long byte) {
  return SetByte(fd, byte, F_WRLCK);
}

bool IsByteLocked(int fd, long byte) {
  struct flock lock = ByteLock(F_RDLCK, byte);
  return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

// The number is always as long, so that a shorter one needs no cut.
constexpr std::size_t kNumberSize = 12;

bool WriteSegment(int fd, int segment) {
  char text[kNumberSize + 1];
  std::snprintf(text, sizeof(text), "%11d\n", segment);
  const ssize_t written = pwrite(fd, text, kNumberSize, 0);
  if (written >= 0 && static_cast<std::size_t>(written) != kNumberSize) errno = ENOSPC;
  return written == static_cast<ssize_t>(kNumberSize);
}

int ReadSegment(int fd) {
  char text[kNumberSize + 1] = {};
  if (pread(fd, text, kNumberSize, 0) != static_cast<ssize_t>(kNumberSize)) return -1;
  char* end = nullptr;
  const long number = std::strtol(text, &end, 10);
  return *end == '\n' && number <= INT_MAX ? static_cast<int>(number) : -1;
}

// ---------------------------------------------------------------------------------------------------------------------
// The memory
// ---------------------------------------------------------------------------------------------------------------------

void RemoveLeftover(key_t key) {
  shmid_ds info = {};
  const int segment = shmget(key, 0, 0);
  const bool isOurs = segment >= 0 && shmctl(segment, IPC_STAT, &info) == 0 && info.shm_perm.cuid == geteuid();
  if (isOurs && info.shm_nattch == 0) shmctl(segment, IPC_RMID, nullptr);
}

int NewSegment(key_t key) {
  constexpr int kFlags = kMode | SHM_NORESERVE | IPC_CREAT | IPC_EXCL;
  int segment = shmget(key, sizeof(StreamRing), kFlags);
  if (segment >= 0 || errno != EEXIST) return segment;
  RemoveLeftover(key);
  segment = shmget(key, sizeof(StreamRing), kFlags);
  const bool isForeign = segment < 0 && errno == EEXIST;
  return isForeign ? shmget(IPC_PRIVATE, sizeof(StreamRing), kFlags) : segment;
}

// Marked for removal as soon as it is attached: it goes with the last process that has it, even one that was killed.
// Others can attach it all the same until then, by its number.
WriterRing MakeRing(key_t key, int& segment) {
  segment = NewSegment(key);
  if (segment < 0) return nullptr;
  void* memory = shmat(segment, nullptr, 0);
  const int error = errno;
  shmctl(segment, IPC_RMID, nullptr);
  errno = error;
  return WriterRing(reinterpret_cast<std::intptr_t>(memory) == -1 ? nullptr : static_cast<StreamRing*>(memory));
}

// The creator counts and not the owner, whom the creator may change.
bool IsTrusted(const shmid_ds& segment, const struct stat& lock) {
  const uid_t creator = segment.shm_perm.cuid;
  return segment.shm_segsz == sizeof(StreamRing) && (creator == 0 || creator == geteuid() || creator == lock.st_uid);
}

const StreamRing* AttachRing(int segment, const struct stat& lock) {
  shmid_ds info = {};
  if (segment < 0 || shmctl(segment, IPC_STAT, &info) != 0 || !IsTrusted(info, lock)) return nullptr;
  const void* memory = shmat(segment, nullptr, SHM_RDONLY);
  return reinterpret_cast<std::intptr_t>(memory) == -1 ? nullptr : static_cast<const StreamRing*>(memory);
}

// ---------------------------------------------------------------------------------------------------------------------
// Slots
// ---------------------------------------------------------------------------------------------------------------------

// Keeps what it needs to itself and never reads the memory.
class Publisher {
 public:
  // Fills a slot that is not published and returns its ticket.
  std::uint32_t Fill(StreamRing& ring, const unsigned char* data, int size) {
    do {
      m_last = (m_last + 1) % StreamRing::kSlots;
    } while (IsPublished(m_last));
    m_count = m_count < kMaxCount ? m_count + 1 : 1;
    const std::uint32_t ticket = m_count << StreamRing::kSlotBits | m_last;
    StreamRing::Slot& slot = ring.slots[m_last];
    slot.ticket.store(0, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    slot.size.store(static_cast<std::uint32_t>(size), std::memory_order_relaxed);
    std::memcpy(ring.bytes[m_last], data, static_cast<std::size_t>(size));
    slot.ticket.store(ticket, std::memory_order_release);
    return ticket;
  }

  // 0 takes back what was published.
  void Publish(StreamRing& ring, StreamRing::Role role, std::uint32_t ticket) {
    m_tickets[role] = ticket;
    ring.published[role].store(ticket, std::memory_order_release);
  }

 private:
  bool IsPublished(std::uint32_t slot) const {
    return std::any_of(std::begin(m_tickets), std::end(m_tickets),
                       [slot](std::uint32_t ticket) { return ticket != 0 && (ticket & kSlotMask) == slot; });
  }

  std::uint32_t m_tickets[StreamRing::kRoles] = {};
  std::uint32_t m_last = 0;   // slot that was written
  std::uint32_t m_count = 0;  // writes
};

// A copy of what a slot holds.
struct Copy {
  std::unique_ptr<unsigned char[]> data;
  std::uint32_t size = 0;
};

enum class Outcome { kCopied, kNothing, kOvertaken };

// Nothing in the memory is trusted: the slot's number and the size are bounded, each after a single read.
Outcome CopyOnce(const StreamRing& ring, StreamRing::Role role, std::uint32_t limit, Copy& copy) {
  const std::uint32_t ticket = ring.published[role].load(std::memory_order_acquire);
  const std::uint32_t number = ticket & kSlotMask;
  if (ticket == 0) return Outcome::kNothing;
  if (number >= StreamRing::kSlots) return Outcome::kOvertaken;
  const StreamRing::Slot& slot = ring.slots[number];
  if (slot.ticket.load(std::memory_order_acquire) != ticket) return Outcome::kOvertaken;
  const std::uint32_t size = slot.size.load(std::memory_order_relaxed);
  if (size < 1 || size > limit) return Outcome::kOvertaken;
  copy.data.reset(new unsigned char[size]);
  copy.size = size;
  std::memcpy(copy.data.get(), ring.bytes[number], size);
  std::atomic_thread_fence(std::memory_order_acquire);
  return slot.ticket.load(std::memory_order_relaxed) == ticket ? Outcome::kCopied : Outcome::kOvertaken;
}

Outcome CopyNewest(const StreamRing& ring, StreamRing::Role role, std::uint32_t limit, Copy& copy) {
  constexpr int kAttempts = 100;
  Outcome outcome = Outcome::kOvertaken;
  for (int i = 0; i < kAttempts && outcome == Outcome::kOvertaken; ++i) outcome = CopyOnce(ring, role, limit, copy);
  return outcome;
}

const StreamRing& RingOf(const ShmStreamFifo* fifo) {
  return *static_cast<const StreamRing*>(static_cast<const void*>(fifo));
}

int ReadFrame(const StreamRing& ring, StreamRing::Role role, unsigned char*& data, int& size) {
  Copy copy;
  data = nullptr;
  size = 0;
  if (CopyNewest(ring, role, LiveStreamWriter::kMaxFrame, copy) != Outcome::kCopied) return -1;
  data = copy.data.release();
  size = static_cast<int>(copy.size);
  return 0;
}

int FailWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

std::string local::StreamLockName(int cameraId, int streamNo) {
  return "live-" + std::to_string(cameraId) + "-" + std::to_string(streamNo) + ".lock";
}

key_t local::StreamKey(const struct stat& lock) {
  const std::uint64_t mixed = (std::uint64_t{lock.st_ino} ^ std::uint64_t{lock.st_dev} << 20) * 0x9E3779B97F4A7C15U;
  return static_cast<key_t>(mixed >> 34 | 1);  // positive and not IPC_PRIVATE
}

// ---------------------------------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------------------------------

int ShmStreamFifo::ReadLatest(unsigned char*& data, int& size) const {
  return ReadFrame(RingOf(this), StreamRing::kFrame, data, size);
}

int ShmStreamFifo::ReadLatestIFrame(unsigned char*& data, int& size) const {
  return ReadFrame(RingOf(this), StreamRing::kKeyFrame, data, size);
}

int ShmStreamFifo::GetExtra(unsigned char* buffer, int& size) const {
  const int capacity = size;
  size = 0;
  if (buffer == nullptr || capacity < 0) return -1;
  Copy copy;
  const Outcome outcome = CopyNewest(RingOf(this), StreamRing::kExtra, LiveStreamWriter::kMaxExtra, copy);
  if (outcome == Outcome::kNothing) return 0;
  if (outcome != Outcome::kCopied || copy.size > static_cast<std::uint32_t>(capacity)) return -1;
  std::memcpy(buffer, copy.data.get(), copy.size);
  size = static_cast<int>(copy.size);
  return 0;
}

ShmStreamFifo* LiveStreamFifoAt(int cameraId, int streamNo) {
  const std::string path = local::StatePath(local::StreamLockName(cameraId, streamNo).c_str());
  if (path.empty() || !IsStream(cameraId, streamNo)) return nullptr;
  struct stat lock = {};
  const UniqueFd fd(local::OpenRegularFile(path, O_RDONLY | O_NOFOLLOW));
  if (!fd.IsOpen() || fstat(fd.Get(), &lock) != 0 || !IsByteLocked(fd.Get(), local::kReadyByte)) return nullptr;
  const StreamRing* ring = AttachRing(ReadSegment(fd.Get()), lock);
  if (ring == nullptr) return nullptr;
  if (!IsSame(ring->identity, IdentityOf(cameraId, streamNo, lock))) {
    shmdt(ring);
    return nullptr;
  }
  return static_cast<ShmStreamFifo*>(const_cast<void*>(static_cast<const void*>(ring)));
}

// ---------------------------------------------------------------------------------------------------------------------
// Writing
// ---------------------------------------------------------------------------------------------------------------------

class LiveStreamWriter::Impl {
 public:
  explicit Impl(const std::string& lockPath)
      : m_lock(local::OpenRegularFile(lockPath, O_RDWR | O_CREAT | O_NOFOLLOW, kMode)) {}
  // Closing alone would leave the locks to a child that was forked meanwhile.
  ~Impl() {
    if (!m_lock.IsOpen()) return;
    SetByte(m_lock.Get(), local::kReadyByte, F_UNLCK);
    SetByte(m_lock.Get(), local::kWriterByte, F_UNLCK);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  int Open(int cameraId, int streamNo) {
    struct stat lock = {};
    if (!m_lock.IsOpen() || fstat(m_lock.Get(), &lock) != 0) return -1;
    if (!LockByte(m_lock.Get(), local::kWriterByte)) return errno == EAGAIN || errno == EACCES ? FailWith(EBUSY) : -1;
    int segment = -1;
    m_ring = MakeRing(local::StreamKey(lock), segment);
    if (m_ring == nullptr) return -1;
    m_ring->identity = IdentityOf(cameraId, streamNo, lock);
    return WriteSegment(m_lock.Get(), segment) && LockByte(m_lock.Get(), local::kReadyByte) ? 0 : -1;
  }

  void SetExtra(const unsigned char* extra, int size) {
    const std::vector<unsigned char> bytes(extra, extra + size);
    if (bytes != m_extra) m_publisher.Publish(*m_ring, StreamRing::kKeyFrame, 0);
    m_extra = bytes;
    const std::uint32_t ticket = size > 0 ? m_publisher.Fill(*m_ring, extra, size) : 0;
    m_publisher.Publish(*m_ring, StreamRing::kExtra, ticket);
  }

  void Write(const unsigned char* data, int size, bool isKeyFrame) {
    const std::uint32_t ticket = m_publisher.Fill(*m_ring, data, size);
    if (isKeyFrame) m_publisher.Publish(*m_ring, StreamRing::kKeyFrame, ticket);
    m_publisher.Publish(*m_ring, StreamRing::kFrame, ticket);
  }

 private:
  UniqueFd m_lock;
  WriterRing m_ring;
  Publisher m_publisher;
  std::vector<unsigned char> m_extra;
};

LiveStreamWriter::LiveStreamWriter() = default;

LiveStreamWriter::~LiveStreamWriter() {
  Close();
}

int LiveStreamWriter::Open(int cameraId, int streamNo) {
  Close();
  if (!IsStream(cameraId, streamNo)) return FailWith(EINVAL);
  errno = ENOENT;  // of a state directory that the environment does not name
  const std::string path = local::StatePathForWriting(local::StreamLockName(cameraId, streamNo).c_str());
  if (path.empty()) return -1;
  auto impl = std::make_unique<Impl>(path);
  if (const int result = impl->Open(cameraId, streamNo); result != 0) return result;
  m_impl = std::move(impl);
  return 0;
}

int LiveStreamWriter::SetExtra(const unsigned char* extra, int size) {
  if (size < 0 || size > kMaxExtra || (extra == nullptr && size > 0)) return FailWith(EINVAL);
  if (m_impl == nullptr) return FailWith(EBADF);
  m_impl->SetExtra(extra, size);
  return 0;
}

int LiveStreamWriter::Write(const unsigned char* data, int size, bool isKeyFrame) {
  if (size < 1 || size > kMaxFrame || data == nullptr) return FailWith(EINVAL);
  if (m_impl == nullptr) return FailWith(EBADF);
  m_impl->Write(data, size, isKeyFrame);
  return 0;
}

void LiveStreamWriter::Close() {
  m_impl.reset();
}
