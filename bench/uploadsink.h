// A receiver of uploads that only counts: on a loopback port, one upload after the other.
#pragma once

#include <cstdint>

namespace bench {

struct Received {
  std::int64_t bytes = 0;
  std::uint64_t sum = 0;  // of the body's bytes, each multiplied by its place
};

// Everything throws std::runtime_error when it fails.
class UploadSink {
 public:
  // Listens on any free port.
  UploadSink();
  ~UploadSink();
  UploadSink(const UploadSink&) = delete;
  UploadSink& operator=(const UploadSink&) = delete;

  int Port() const { return m_port; }

  // Takes the next upload and answers it. Its body has as many bytes as its parameter "fileSize" says. sums: add up the
  // bytes, too. Fails when nothing comes for a minute.
  Received Take(bool sums);

 private:
  int m_fd = -1;
  int m_port = 0;
};

// A connection to a loopback port.
int ConnectTo(int port);

}  // namespace bench
