// One request on one connection and what the server makes of it.
#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <set>
#include <string>

#include "tests/support/testserver/stream.h"
#include "tests/support/testserver/testserver.h"

namespace testserver {

// What the connections share.
struct Shared {
  Options options;
  int port = 0;
  std::mutex mutex;  // of all below, and of options.fault and options.code
  std::list<Call> calls;
  std::set<std::string> sessions;
};

class Exchange {
 public:
  Exchange(Shared& shared, Stream& stream) : m_shared(shared), m_stream(stream) {}

  void Run();

 private:
  struct Reply {
    int code = 0;
    std::string data = {};  // JSON, for a success
  };

  bool ReadHead();
  void Handle();
  void HandleUpload();
  Reply HandleRequest();
  Reply Login();
  int CheckRequest() const;
  bool IsLoggedIn() const;

  std::string Param(const std::string& name) const { return m_call->Param(name); }
  long Read(char* data, std::size_t size);
  template <typename Sink>
  bool ReadBody(long long size, Sink sink);
  void Drain();
  void AddParams(const std::string& text);
  void TakeFault();
  void Note(const std::string& outcome);

  void Answer(const Reply& reply);
  void AnswerText(const std::string& status, const std::string& body, bool isOpen = false);
  void AnswerSlowly(const std::string& text);

  Shared& m_shared;
  Stream& m_stream;
  std::list<Call>::iterator m_call;
  std::string m_pending;  // read behind the head
  Fault m_fault = Fault::kNone;
  int m_code = 0;
};

}  // namespace testserver
