// One accepted connection, plain or TLS, with blocking reads and writes.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace testserver {

class Stream {
 public:
  // Takes the socket; tls may be null and outlives the stream.
  Stream(int fd, SSL_CTX* tls) : m_fd(fd), m_tls(tls) {}
  ~Stream() { Close(); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // The TLS handshake, if any.
  bool Open();
  // The count, 0 or less at the end.
  long Read(char* data, std::size_t size);
  bool Write(const std::string& text);
  // Tells the peer that nothing more comes; reading goes on.
  void Finish();
  void Close();
  void Reset();

  // Waits until the peer or Abort ends the connection: true, or until the time is over; negative: for ever.
  bool WaitForEnd(int milliseconds) const;
  // For another thread: ends whatever waits here.
  void Abort();

 private:
  struct Freer {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };

  int m_fd;
  SSL_CTX* m_tls;
  std::unique_ptr<SSL, Freer> m_ssl;
  std::mutex m_closing;
};

}  // namespace testserver
