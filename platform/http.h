// Platform interface: HTTP client.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

#include "platform/export.h"

// The versions to be spoken; 0 leaves the choice to client and server.
enum HTTP_VERSION : int { HTTP_VERSION_DEFAULT = 0, HTTP_VERSION_1_0 = 1, HTTP_VERSION_1_1 = 2 };
enum TLS_VERSION : int { TLS_VERSION_DEFAULT = 0, TLS_VERSION_1_2 = 1, TLS_VERSION_1_3 = 2 };

// Servers are verified: certificate chain and host name, against the system's authorities or those of the settings.
// Only http and https, no redirects, no proxy. Control characters in path, cookie, content type and user, spaces in the
// path, and a host that is more than a name or an address are refused before anything is sent. No call raises SIGPIPE.
namespace VyNet {

// One POST whose body is written in pieces while the reply is watched. One thread at a time.
class VY_API VyHttpClient {
 public:
  VyHttpClient();
  ~VyHttpClient();
  VyHttpClient(const VyHttpClient&) = delete;
  VyHttpClient& operator=(const VyHttpClient&) = delete;

  // Says where the request goes; nothing is sent yet, a request that was open is closed. path is the request target
  // with its query, sent as it is. user and password, when given, become basic authentication. timeout: seconds for the
  // connection, for each write and for the reply once it has begun; 0 or less stands for 20. The parameters without a
  // name are the server's own client options; this client has none.
  void Init(const std::string& path, const std::string& host, int port, const std::string& user,
            const std::string& password, int timeout, bool, bool, bool, HTTP_VERSION httpVersion, const std::string&,
            bool https, bool, bool, const std::string&, const Json::Value& options, TLS_VERSION tlsVersion);

  // The value of the Cookie header; empty sends none.
  void SetCookie(const std::string& cookie);

  // Connects and sends the request's head. length, bytes, is what the head announces; the body may end before. 0 on
  // success.
  int OpenRawDataUpload(unsigned long long length, const std::string& contentType);

  // Sends body bytes, all of them unless it fails. The count sent, or 0 or less on failure: not open, nothing to send,
  // the connection broke, or the peer took nothing for the time-out. After a broken connection or a time-out further
  // calls fail at once; a reply can still be read.
  int WriteData(const char* data, int length);

  // Whether a reply, or the connection's end, has come within timeout seconds; 0 only looks. An interim reply (1xx) is
  // none, nor is less than a status line.
  bool HasDataToRead(int timeout);

  // The reply's body. Reads until it is complete, the connection ends, the time-out is over or 1 MiB is passed; what
  // came until then is returned. Empty without a reply. A second call returns the same.
  std::string GetResp();

  // Ends the connection. May run twice; the destructor does it too.
  void Close();

 private:
  class Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace VyNet

// A reply writer that gathers the reply's body, up to 1 MiB, in a text of the caller's, which must outlive it.
class VY_API WriteText {
 public:
  // The text is appended to.
  explicit WriteText(std::string& sink) : m_sink(sink) {}
  // False when the body grew too long; the transfer fails then.
  bool operator()(const char* data, std::size_t size);

 private:
  std::string& m_sink;
};

// Posts a form-encoded body to a path of host and port and passes the reply's body to the writer. timeout: seconds for
// the whole exchange; 0 or less stands for 20. The HTTP status, at least 0; negative on a failure of the transport (no
// connection, an unverified server, time-out, a writer that refused). The bool is the server's own client option.
template <typename Writer>
int SendHttpPostAndGetResult(const std::string& host, int port, const std::string& cgiPath, const std::string& body,
                             const std::string& cookie, Writer& writer, bool https, int timeout, bool,
                             HTTP_VERSION httpVersion);
template <>
VY_API int SendHttpPostAndGetResult<WriteText>(const std::string& host, int port, const std::string& cgiPath,
                                               const std::string& body, const std::string& cookie, WriteText& writer,
                                               bool https, int timeout, bool, HTTP_VERSION httpVersion);
