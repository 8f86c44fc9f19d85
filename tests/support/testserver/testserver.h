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

// What the server does wrong. Applies to uploads ("SyncFiles") unless Options::faultMethod names another method; what
// is said of the body's first MiB holds for uploads. A file is stored when it came whole and the code is 0.
enum class Fault {
  kNone,
  kReplyFirst,     // a reply, with Options::code, before any byte of the body is read; the rest is read and counted
  kReplyAfterMiB,  // the same after 1 MiB of the body
  kSilent,         // reads everything, never replies
  kHalfHeader,     // ends in the middle of the reply's head
  kHalfBody,       // ends in the middle of the reply's body
  kClose,          // closes after 1 MiB of the body
  kReset,          // resets the connection after 1 MiB of the body
  kSlowReply,      // 64 KB of JSON at 1 KB/s
  kBigReply,       // 10 MB of JSON
  kNotJson,
  kChunked,      // no fault: a reply in chunks
  kRedirect,     // 302 to Options::redirectTo
  kNoContent,    // 204
  kWrongLength,  // announces more than it sends, then holds the connection open
  kStopReading,  // stops reading after 1 MiB of the body and holds the connection open
  kSlowRead,     // reads the body at 1 KB/s
};

struct Call;

struct Options {
  std::string host = "127.0.0.1";
  int port = 0;          // 0: any free one
  std::string storeDir;  // what is received is stored below; empty: nothing is stored
  std::string account = "admin";
  std::string password = "secret";
  std::string certFile;  // PEM, with keyFile: HTTPS
  std::string keyFile;
  Fault fault = Fault::kNone;
  std::string faultMethod = "SyncFiles";
  int code = 0;            // the error code of the replies to faultMethod; 0: success
  std::string redirectTo;  // empty: the path /redirected of this server
  bool tls11 = false;      // TLS 1.1 and nothing newer
  // Called when a request is over, by several threads at once; the request is not kept then.
  std::function<void(const Call&)> onDone;
};

// One request as it came.
struct Call {
  std::string verb;    // "POST"
  std::string target;  // with the query, as sent
  std::string head;    // the request line and the header lines as sent
  Pairs headers;
  std::string rawParams;  // of the query and the form body, as sent
  Pairs params;           // decoded, in the order sent
  std::string body;       // its first 16 MiB
  long long bodyBytes = 0;
  std::string outcome;  // what the server made of it, in words

  // The first value under that name; empty without one. Header names in any case.
  std::string Param(const std::string& name) const;
  std::string Header(const std::string& name) const;
};

class Server {
 public:
  // Listens when it returns, and serves from a thread of its own, each connection from another. Throws when it cannot.
  explicit Server(Options options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int Port() const;
  // The requests so far, an unfinished one with what has come of it.
  std::vector<Call> Calls() const;
  // For the requests that come after it.
  void SetFault(Fault fault, int code = 0);

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

// The fault of a name such as "reply-first"; false for an unknown one.
bool FaultFromName(const std::string& name, Fault& fault);

// Makes a self-signed certificate, which may also serve as an authority's, and its key in the directory as NAME.crt and
// NAME.key, valid from startDays to endDays from now (negative: the past), for a host name or address. False when it
// cannot.
bool MakeCertificate(const std::string& dir, const std::string& name, const std::string& host, int startDays,
                     int endDays);

}  // namespace testserver
