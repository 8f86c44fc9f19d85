// Platform interface: the newest frames of live camera streams, in shared memory.
#pragma once

#include <memory>

#include "platform/export.h"

// One stream's memory as a reader sees it. It lies in the shared memory itself: LiveStreamFifoAt attaches it read-only,
// shmdt(fifo) detaches it, nothing else is to be released. Any number of processes read while one writes, 32-bit and
// 64-bit ones alike; a reader waits for nobody, and what it gets is whole. It may outlive its writer; it gets no new
// frames then.
class VY_API ShmStreamFifo {
 public:
  ShmStreamFifo(const ShmStreamFifo&) = delete;
  ShmStreamFifo& operator=(const ShmStreamFifo&) = delete;

  // A copy of the newest frame, or of the newest key frame; the caller frees data with delete[]. What data and size
  // held before is dropped without a look. 0 on success; -1 without such a frame, and when the writer overtook the
  // copy a hundred times; data is null and size 0 then.
  int ReadLatest(unsigned char*& data, int& size) const;
  int ReadLatestIFrame(unsigned char*& data, int& size) const;

  // Copies the codec configuration bytes. size: the buffer's capacity on entry, the number of bytes on return. 0 on
  // success, also when there are none; -1 when they do not fit or the arguments are bad, then size is 0.
  int GetExtra(unsigned char* buffer, int& size) const;

 private:
  ShmStreamFifo() = default;
};

// Attaches the memory of a stream that is being written. Null when there is none: nobody writes it (any more), it has
// not this layout, or neither this user nor root nor the owner of the stream's lock file made it.
VY_API ShmStreamFifo* LiveStreamFifoAt(int cameraId, int streamNo);

// Writes one stream: one writer a stream for each state directory and IPC namespace. The memory goes with the writer
// and the readers that are attached, also when they are killed. A child that was forked meanwhile shares the stream: it
// keeps the stream when this process is killed, and ends it for both when it closes its copy. One thread uses an
// instance.
class VY_API LiveStreamWriter {
 public:
  static constexpr int kMaxExtra = 1024;             // bytes of codec configuration
  static constexpr int kMaxFrame = 8 * 1024 * 1024;  // bytes of a frame

  LiveStreamWriter();
  ~LiveStreamWriter();
  LiveStreamWriter(const LiveStreamWriter&) = delete;
  LiveStreamWriter& operator=(const LiveStreamWriter&) = delete;

  // Ends what was open and begins a stream without frames. 0 on success, -1 with errno set: EINVAL for a camera below 1
  // or a stream below 0, EBUSY while another writer has the stream, or what the system said.
  int Open(int cameraId, int streamNo);

  // The codec configuration bytes, at most kMaxExtra; null with size 0 for none. Readers see the old or the new ones,
  // never a mixture. Other bytes than before first take back the key frame, which has no use for them: a reader that
  // gets the same configuration before and after a key frame has the one that belongs to it. 0 on success, -1 with
  // errno set.
  int SetExtra(const unsigned char* extra, int size);

  // Publishes one frame of 1 to kMaxFrame bytes. 0 on success, -1 with errno set; the frames before stay then.
  int Write(const unsigned char* data, int size, bool isKeyFrame);

  // Ends the stream; readers that are attached keep what they have. May run twice; the destructor does it too.
  void Close();

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};
