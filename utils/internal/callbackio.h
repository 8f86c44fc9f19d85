// A caller's write callback as FFmpeg output.
#pragma once

#include "utils/internal/ffcompat.h"

extern "C" {
#include <libavformat/avio.h>
}

namespace mediautil {

// Takes size bytes, which are valid during the call only. FFmpeg ignores how many it says to have taken; a negative
// result is an error that sticks: the callback is not called again and every later write fails with it.
using WriteCallback = int (*)(void* opaque, unsigned char* data, int size);

// Owns the buffer and the I/O context over it. The output cannot seek. Without a callback the bytes are dropped.
class CallbackIo {
 public:
  CallbackIo(void* opaque, WriteCallback write) : m_opaque(opaque), m_write(write) {}
  ~CallbackIo();
  CallbackIo(const CallbackIo&) = delete;
  CallbackIo& operator=(const CallbackIo&) = delete;

  // The two steps of opening, each false or null without memory. The callback gets at most size bytes at a time.
  bool AllocBuffer(int size);
  AVIOContext* Open();

  // Hands the buffered bytes to the callback and releases everything; may run twice.
  void Close();

 private:
  static int OnWrite(void* self, IoBytes data, int size);

  void* m_opaque;
  WriteCallback m_write;
  unsigned char* m_buffer = nullptr;  // the context's own once there is one
  int m_size = 0;
  AVIOContext* m_io = nullptr;
};

}  // namespace mediautil
