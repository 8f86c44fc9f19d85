#include "tests/support/testserver/stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace testserver {

bool Stream::Open() {
  if (m_tls == nullptr) {
    return true;
  }
  m_ssl.reset(SSL_new(m_tls));
  return m_ssl != nullptr && SSL_set_fd(m_ssl.get(), m_fd) == 1 && SSL_accept(m_ssl.get()) == 1;
}

long Stream::Read(char* data, std::size_t size) {
  constexpr std::size_t kMost = 1 << 20;
  size = std::min(size, kMost);
  return m_ssl != nullptr ? SSL_read(m_ssl.get(), data, static_cast<int>(size)) : recv(m_fd, data, size, 0);
}

bool Stream::Write(const std::string& text) {
  if (m_ssl != nullptr) {
    return text.empty() || SSL_write(m_ssl.get(), text.data(), static_cast<int>(text.size())) > 0;
  }
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t count = send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) {
      return false;
    }
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

void Stream::Finish() {
  if (m_ssl != nullptr) {
    SSL_shutdown(m_ssl.get());
  }
  shutdown(m_fd, SHUT_WR);
}

void Stream::Close() {
  const std::lock_guard<std::mutex> lock(m_closing);
  m_ssl.reset();
  if (m_fd >= 0) {
    close(m_fd);
    m_fd = -1;
  }
}

void Stream::Reset() {
  const linger now = {1, 0};
  setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  Close();
}

bool Stream::WaitForEnd(int milliseconds) const {
  pollfd wait = {m_fd, POLLRDHUP, 0};
  return poll(&wait, 1, milliseconds) > 0;
}

void Stream::Abort() {
  const std::lock_guard<std::mutex> lock(m_closing);
  if (m_fd >= 0) {
    shutdown(m_fd, SHUT_RDWR);
  }
}

}  // namespace testserver
