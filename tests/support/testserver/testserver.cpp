#include "tests/support/testserver/testserver.h"

#include <netinet/in.h>
#include <strings.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tests/support/testserver/exchange.h"

namespace testserver {
namespace {

// On the loopback address.
int Listen(int& port) {
  sockaddr_in address = {AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t size = sizeof(address);
  auto* any = reinterpret_cast<sockaddr*>(&address);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(fd, any, size) != 0 || listen(fd, SOMAXCONN) != 0 || getsockname(fd, any, &size) != 0) {
    const std::string why = std::strerror(errno);
    close(fd);
    throw std::runtime_error("cannot listen on port " + std::to_string(port) + ": " + why);
  }
  port = ntohs(address.sin_port);
  return fd;
}

std::string Find(const Pairs& pairs, const std::string& name) {
  for (const auto& [key, value] : pairs) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return "";
}

}  // namespace

struct Server::Impl {
  struct Connection {
    Connection(Shared& shared, int fd, SSL_CTX* tls) : stream(fd, tls), thread([this, &shared] { Serve(shared); }) {}
    ~Connection() { thread.join(); }
    void Serve(Shared& shared) {
      sigset_t pipe;  // what the peer does not take is no reason to end
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
      Exchange(shared, stream).Run();
      stream.Close();
      isDone = true;
    }

    Stream stream;
    std::atomic<bool> isDone{false};
    std::thread thread;
  };

  explicit Impl(const Options& options) : context(MakeTlsContext(options)), port(options.port), fd(Listen(port)) {
    shared.options = options;
    acceptor = std::thread([this] { Accept(); });
  }
  ~Impl() {
    isStopped = true;
    shutdown(fd, SHUT_RDWR);  // wakes the acceptor
    acceptor.join();
    close(fd);
    for (Connection& connection : connections) connection.stream.Abort();
  }
  void Accept() {
    while (!isStopped) {
      const int accepted = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
      connections.remove_if([](const Connection& connection) { return connection.isDone.load(); });
      if (accepted >= 0) connections.emplace_back(shared, accepted, context.get());
    }
  }

  std::shared_ptr<SSL_CTX> context;
  int port;
  int fd;
  std::atomic<bool> isStopped{false};
  Shared shared;
  std::list<Connection> connections;  // of the acceptor while it runs
  std::thread acceptor;
};

Server::Server(const Options& options) : m_impl(std::make_unique<Impl>(options)) {
  SetFault(options.fault, options.code);
}
Server::~Server() = default;

int Server::Port() const {
  return m_impl->port;
}

std::vector<Call> Server::Calls() const {
  const std::lock_guard<std::mutex> lock(m_impl->shared.mutex);
  return {m_impl->shared.calls.begin(), m_impl->shared.calls.end()};
}

void Server::SetFault(const std::string& fault, int code) {
  static const std::set<std::string> known = {"none",     "reply-first", "silent",     "half-header",  "half-body",
                                              "close",    "reset",       "slow-reply", "big-reply",    "not-json",
                                              "redirect", "no-content",  "slow-read",  "wrong-length", "stop-reading"};
  if (known.count(fault) == 0) throw std::invalid_argument("unknown fault: " + fault);
  const std::lock_guard<std::mutex> lock(m_impl->shared.mutex);
  m_impl->shared.options.fault = fault;
  m_impl->shared.options.code = code;
}

std::string Call::Param(const std::string& name) const {
  return Find(params, name);
}

std::string Call::Header(const std::string& name) const {
  return Find(headers, name);
}

}  // namespace testserver
