// The shared memory of a live stream: a pool of slots, of which one holds the newest frame, one the newest key frame
// and one the codec configuration. What is published is never written to; the writer fills another slot and then names
// it. Fixed-size integers only, so that 32-bit and 64-bit processes share it.
#pragma once

#include <sys/ipc.h>
#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/livestream.h"

namespace local {

// Whose memory it is. The lock file tells one state directory's streams from another's.
struct StreamIdentity {
  std::uint32_t magic;
  std::uint32_t version;  // of the layout
  std::int32_t cameraId;
  std::int32_t streamNo;
  std::uint64_t lockDevice;
  std::uint64_t lockInode;
};

// 32 bits wide: wider ones are read by writing on some 32-bit machines, and readers map the memory read-only.
using SharedWord = std::atomic<std::uint32_t>;
static_assert(SharedWord::is_always_lock_free && sizeof(SharedWord) == 4, "shared between processes");

struct StreamRing {
  static constexpr std::uint32_t kMagic = 0x4C495645;  // "LIVE"
  static constexpr std::uint32_t kVersion = 1;
  // Three are published; the others are filled in turn, so that a reader has three frames' time to copy one.
  static constexpr std::uint32_t kSlots = 6;
  static constexpr std::uint32_t kSlotBits = 3;

  enum Role : std::uint32_t { kFrame, kKeyFrame, kExtra, kRoles };

  struct Slot {
    SharedWord ticket;  // of what it holds; 0 while it is written
    SharedWord size;    // bytes
  };

  StreamIdentity identity;
  // A ticket names a slot in its low kSlotBits and counts the writes in the others; 0: nothing yet.
  SharedWord published[kRoles];
  Slot slots[kSlots];
  // A page that was never written takes no memory.
  alignas(4096) unsigned char bytes[kSlots][LiveStreamWriter::kMaxFrame];
};
static_assert(offsetof(StreamRing, published) == 32 && offsetof(StreamRing, slots) == 44, "shared layout");
static_assert(offsetof(StreamRing, bytes) == 4096 && StreamRing::kSlots <= 1U << StreamRing::kSlotBits,
              "shared layout");

// The lock file of a stream. It holds the number of the memory's segment. Its writer locks the byte kWriterByte while
// it lives, and kReadyByte from when the number is right; the system gives both back with the process.
std::string StreamLockName(int cameraId, int streamNo);
constexpr long kWriterByte = 0;
constexpr long kReadyByte = 1;

// The memory's key while it is made. It finds the segment of a writer that was killed at that.
key_t StreamKey(const struct stat& lock);

}  // namespace local
