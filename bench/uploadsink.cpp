#include "bench/uploadsink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench/require.h"

namespace bench {
namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Up to and with the empty line behind the head; what follows is of the body.
std::string ReadHead(int fd) {
  std::string text;
  char buffer[4096];
  while (text.find("\r\n\r\n") == std::string::npos) {
    const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
    Require(count > 0, "reading a request");
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

void Add(Received& received, const char* data, std::size_t size, bool sums) {
  for (std::size_t i = 0; sums && i < size; ++i) {
    const auto place = static_cast<std::uint64_t>(received.bytes) + i + 1;
    received.sum += place * static_cast<unsigned char>(data[i]);
  }
  received.bytes += static_cast<std::int64_t>(size);
}

Received TakeFrom(int fd, bool sums) {
  const std::string head = ReadHead(fd);
  const std::size_t size = head.find("fileSize=");
  Require(size != std::string::npos, "finding fileSize");
  const std::int64_t wanted = std::strtoll(head.c_str() + size + 9, nullptr, 10);
  const std::size_t body = head.find("\r\n\r\n") + 4;
  Received received;
  Add(received, head.data() + body, head.size() - body, sums);
  std::vector<char> buffer(1 << 18);
  while (received.bytes < wanted) {
    const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
    Require(count > 0, "reading a body");
    Add(received, buffer.data(), static_cast<std::size_t>(count), sums);
  }
  const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 16\r\nConnection: close\r\n\r\n{\"success\":true}";
  Require(send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(reply.size()), "replying");
  return received;
}

}  // namespace

UploadSink::UploadSink() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof(address);
  auto* any = reinterpret_cast<sockaddr*>(&address);
  const timeval patience = {60, 0};  // the accepted sockets inherit it
  Require(m_fd >= 0 && setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) == 0 &&
              bind(m_fd, any, size) == 0 && listen(m_fd, 8) == 0 && getsockname(m_fd, any, &size) == 0,
          "listening");
  m_port = ntohs(address.sin_port);
}

UploadSink::~UploadSink() {
  close(m_fd);
}

Received UploadSink::Take(bool sums) {
  const int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
  Require(fd >= 0, "accepting a connection");
  try {
    const Received received = TakeFrom(fd, sums);
    close(fd);
    return received;
  } catch (const std::exception&) {
    close(fd);
    throw;
  }
}

int ConnectTo(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  Require(fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connecting");
  return fd;
}

}  // namespace bench
