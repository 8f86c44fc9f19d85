#include "utils/internal/callbackio.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace mediautil {

CallbackIo::~CallbackIo() {
  Close();
}

bool CallbackIo::AllocBuffer(int size) {
  m_buffer = static_cast<unsigned char*>(av_malloc(static_cast<std::size_t>(size)));
  m_size = size;
  return m_buffer != nullptr;
}

AVIOContext* CallbackIo::Open() {
  m_io = avio_alloc_context(m_buffer, m_size, 1, this, nullptr, OnWrite, nullptr);
  if (m_io != nullptr) {
    m_buffer = nullptr;
  }
  return m_io;
}

void CallbackIo::Close() {
  if (m_io != nullptr) {
    avio_flush(m_io);
    av_freep(&m_io->buffer);  // FFmpeg may have replaced the one that it was given
    avio_context_free(&m_io);
  }
  av_freep(&m_buffer);
}

int CallbackIo::OnWrite(void* self, IoBytes data, int size) {
  const auto& io = *static_cast<const CallbackIo*>(self);
  return io.m_write == nullptr ? size : io.m_write(io.m_opaque, const_cast<unsigned char*>(data), size);
}

}  // namespace mediautil
