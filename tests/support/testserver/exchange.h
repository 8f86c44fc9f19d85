// One request on one connection and what the server makes of it.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <string>

#include "tests/support/testserver/stream.h"

namespace testserver {

// What the connections share.
struct Shared {
  Options options;
  std::mutex mutex;  // of all below, and of options.fault and options.code
  std::list<Call> calls;
  std::set<std::string> sessions;
};

class Exchange {
 public:
  Exchange(Shared& shared, Stream& stream) : m_shared(shared), m_stream(stream) {}

  void Run();

 private:
  using Sink = std::function<void(const char* data, std::size_t size)>;

  bool ReadHead();
  void AddParams(const std::string& text);
  bool ReadBody(long long size, const Sink& sink = nullptr);

  // The codes are 0 for a success.
  void Handle();
  int CheckRequest() const;
  int HandleRequest();
  int Login();
  void HandleUpload(int code);
  void Answer(int code);
  std::string ReplyText(int code) const;

  void Note(const std::string& outcome);
  std::string Param(const std::string& name) const { return m_call->Param(name); }
  bool HasFault(std::initializer_list<const char*> faults) const;

  Shared& m_shared;
  Stream& m_stream;
  std::list<Call>::iterator m_call;
  std::string m_pending;  // read behind the head
  std::string m_data;     // JSON, for the reply
  std::string m_fault = "none";
  int m_code = 0;
};

}  // namespace testserver
