#include "tests/support/testserver/testserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <list>
#include <stdexcept>
#include <thread>

#include "tests/support/testserver/exchange.h"

namespace testserver {
namespace {

struct ContextFreer {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using Context = std::unique_ptr<SSL_CTX, ContextFreer>;

Context MakeContext(const Options& options) {
  if (options.certFile.empty()) {
    return nullptr;
  }
  Context context(SSL_CTX_new(TLS_server_method()));
  if (SSL_CTX_use_certificate_chain_file(context.get(), options.certFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), options.keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("cannot use the certificate " + options.certFile + " and its key");
  }
  if (options.tls11) {
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_min_proto_version(context.get(), TLS1_1_VERSION);
    SSL_CTX_set_max_proto_version(context.get(), TLS1_1_VERSION);
  }
  return context;
}

int Listen(const Options& options, int& port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(options.port));
  socklen_t size = sizeof(address);
  auto* any = reinterpret_cast<sockaddr*>(&address);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (inet_pton(AF_INET, options.host.c_str(), &address.sin_addr) != 1 || bind(fd, any, size) != 0 ||
      listen(fd, SOMAXCONN) != 0 || getsockname(fd, any, &size) != 0) {
    const std::string why = std::strerror(errno);
    close(fd);
    throw std::runtime_error("cannot listen on " + options.host + ":" + std::to_string(options.port) + ": " + why);
  }
  port = ntohs(address.sin_port);
  return fd;
}

}  // namespace

class Server::Impl {
 public:
  explicit Impl(Options options) : m_context(MakeContext(options)) {
    m_shared.options = std::move(options);
    m_fd = Listen(m_shared.options, m_shared.port);
    m_acceptor = std::thread([this] { Accept(); });
  }

  ~Impl() {
    m_isStopped = true;
    shutdown(m_fd, SHUT_RDWR);  // wakes the acceptor
    m_acceptor.join();
    close(m_fd);
    for (Connection& connection : m_connections) {
      connection.stream.Abort();
    }
    for (Connection& connection : m_connections) {
      connection.thread.join();
    }
  }

  Shared& GetShared() { return m_shared; }

 private:
  struct Connection {
    Connection(int fd, SSL_CTX* tls) : stream(fd, tls) {}
    Stream stream;
    std::thread thread;
    std::atomic<bool> isDone{false};
  };

  void Accept() {
    while (!m_isStopped) {
      const int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
      Reap();
      if (fd >= 0) {
        Connection& connection = m_connections.emplace_back(fd, m_context.get());
        connection.thread = std::thread([this, &connection] { Serve(connection); });
      }
    }
  }

  void Serve(Connection& connection) {
    sigset_t pipe;  // OpenSSL writes without MSG_NOSIGNAL
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    Exchange(m_shared, connection.stream).Run();
    connection.stream.Close();
    connection.isDone = true;
  }

  void Reap() {
    for (auto connection = m_connections.begin(); connection != m_connections.end();) {
      if (connection->isDone) {
        connection->thread.join();
        connection = m_connections.erase(connection);
      } else {
        ++connection;
      }
    }
  }

  Context m_context;
  Shared m_shared;
  int m_fd = -1;
  std::atomic<bool> m_isStopped{false};
  std::list<Connection> m_connections;  // of the acceptor while it runs
  std::thread m_acceptor;
};

Server::Server(Options options) : m_impl(std::make_unique<Impl>(std::move(options))) {}
Server::~Server() = default;

int Server::Port() const {
  return m_impl->GetShared().port;
}

std::vector<Call> Server::Calls() const {
  Shared& shared = m_impl->GetShared();
  const std::lock_guard<std::mutex> lock(shared.mutex);
  return {shared.calls.begin(), shared.calls.end()};
}

void Server::SetFault(Fault fault, int code) {
  Shared& shared = m_impl->GetShared();
  const std::lock_guard<std::mutex> lock(shared.mutex);
  shared.options.fault = fault;
  shared.options.code = code;
}

std::string Call::Param(const std::string& name) const {
  const auto found =
      std::find_if(params.begin(), params.end(), [&name](const auto& pair) { return pair.first == name; });
  return found == params.end() ? "" : found->second;
}

std::string Call::Header(const std::string& name) const {
  const auto found = std::find_if(headers.begin(), headers.end(), [&name](const auto& pair) {
    return strcasecmp(pair.first.c_str(), name.c_str()) == 0;
  });
  return found == headers.end() ? "" : found->second;
}

bool FaultFromName(const std::string& name, Fault& fault) {
  constexpr const char* kNames[] = {"none",         "reply-first", "reply-after-mib", "silent",     "half-header",
                                    "half-body",    "close",       "reset",           "slow-reply", "big-reply",
                                    "not-json",     "chunked",     "redirect",        "no-content", "wrong-length",
                                    "stop-reading", "slow-read"};
  const auto* found = std::find(std::begin(kNames), std::end(kNames), name);
  if (found == std::end(kNames)) {
    return false;
  }
  fault = static_cast<Fault>(found - std::begin(kNames));
  return true;
}

}  // namespace testserver
