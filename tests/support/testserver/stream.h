// One accepted connection, plain or TLS, with blocking reads and writes.
#pragma once

#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>

#include "tests/support/testserver/testserver.h"

namespace testserver {

// Null without options.certFile. Makes the certificate; throws when it cannot.
std::shared_ptr<SSL_CTX> MakeTlsContext(const Options& options);

class Stream {
 public:
  // Takes the socket; tls may be null and outlives the stream. The first reading does the handshake.
  Stream(int fd, SSL_CTX* tls) : m_fd(fd), m_ssl(tls == nullptr ? nullptr : SSL_new(tls)) {
    if (m_ssl == nullptr) return;
    SSL_set_fd(m_ssl, m_fd);
    SSL_set_accept_state(m_ssl);
  }
  ~Stream() { Close(); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // The count, 0 or less at the end.
  long Read(char* data, std::size_t size) {
    return m_ssl != nullptr ? SSL_read(m_ssl, data, static_cast<int>(size)) : recv(m_fd, data, size, 0);
  }
  bool Write(const std::string& text) {
    const int size = static_cast<int>(text.size());
    return (m_ssl != nullptr ? SSL_write(m_ssl, text.data(), size) : send(m_fd, text.data(), text.size(), 0)) == size;
  }
  // Tells the peer that nothing more comes; reading goes on.
  void Finish() {
    if (m_ssl != nullptr) SSL_shutdown(m_ssl);
    shutdown(m_fd, SHUT_WR);
  }
  void Close() {
    const std::lock_guard<std::mutex> lock(m_closing);
    SSL_free(m_ssl);
    m_ssl = nullptr;
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }
  void Reset() {
    const linger now = {1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    Close();
  }
  // Until the peer or Abort ends the connection, or the time is over; negative: for ever.
  void WaitForEnd(int milliseconds) const {
    pollfd wait = {m_fd, POLLRDHUP, 0};
    poll(&wait, 1, milliseconds);
  }
  // For another thread: ends whatever waits here.
  void Abort() {
    const std::lock_guard<std::mutex> lock(m_closing);
    if (m_fd >= 0) shutdown(m_fd, SHUT_RDWR);
  }

 private:
  int m_fd;
  SSL* m_ssl;
  std::mutex m_closing;
};

}  // namespace testserver
