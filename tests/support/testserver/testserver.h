// A recorder that receives archive pushes, for tests and for trying things out: its own small HTTP and HTTPS server on
// a loopback port, because the announced length of an upload is never reached and because it can be told to misbehave.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace testserver {

using Pairs = std::vector<std::pair<std::string, std::string>>;
struct Call;

struct Options {
  int port = 0;                     // 0: any free one
  std::string storeDir;             // what is received is stored below; empty: nothing is stored
  std::string password = "secret";  // of the account "admin"
  // HTTPS, with a new self-signed certificate, which is written here: its file, its host name or IPv4 address, and from
  // when to when it is valid, in days from now.
  std::string certFile;
  std::string certHost = "127.0.0.1";
  int certStart = -1;
  int certEnd = 365;
  bool tls11 = false;  // TLS 1.1 and nothing newer
  // What the server does wrong with requests of faultMethod:
  //   none
  //   reply-first   replies before any byte of an upload is read; the rest is read and counted
  //   silent        reads everything, never replies
  //   half-header   ends in the middle of the reply's head
  //   half-body     ends in the middle of the reply's body
  //   close         closes after 1 MiB of an upload
  //   reset         resets the connection after 1 MiB of an upload
  //   slow-reply    64 KB of JSON at 1 KB/s
  //   big-reply     10 MB of JSON
  //   not-json
  //   redirect      302 to the path /redirected
  //   no-content    204
  //   wrong-length  announces more than it sends, then holds the connection open
  //   stop-reading  stops reading after 1 MiB of an upload and holds the connection open
  //   slow-read     reads the body at 1 KB/s
  std::string fault = "none";
  int code = 0;  // the error code of the replies to faultMethod; 0: success. A file is stored when it came whole then
  std::string faultMethod = "SyncFiles";
  // Called when a request is over, by several threads at once; the request is not kept then.
  std::function<void(const Call&)> onDone;
};

// One request as it came.
struct Call {
  std::string verb;    // "POST"
  std::string target;  // with the query, as sent
  Pairs headers;
  std::string rawParams;  // of the query and the form body, as sent
  Pairs params;           // decoded, in the order sent
  std::string body;       // its first 16 MiB
  long long bodyBytes = 0;
  std::string outcome;  // what the server made of it, in words

  // The first value under that name, in any case; empty without one.
  std::string Param(const std::string& name) const;
  std::string Header(const std::string& name) const;
};

class Server {
 public:
  // Listens when it returns, and serves from a thread of its own, each connection from another. Throws when it cannot,
  // and for an unknown fault.
  explicit Server(const Options& options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int Port() const;
  // The requests so far, an unfinished one with what has come of it.
  std::vector<Call> Calls() const;
  // For the requests that come after it. Throws for an unknown fault.
  void SetFault(const std::string& fault, int code = 0);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace testserver
