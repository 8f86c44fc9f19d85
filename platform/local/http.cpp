#include "platform/http.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/local/curleasy.h"
#include "platform/local/httpreply.h"
#include "platform/local/netlog.h"
#include "platform/webapi.h"

namespace {

constexpr const char* kSource = "local/http";

class Deadline {
 public:
  explicit Deadline(int seconds) : m_end(Clock::now() + std::chrono::seconds(seconds)) {}

  // Milliseconds for poll(2), 0 when it is over.
  int Left() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
  }
  bool IsOver() const { return Left() == 0; }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point m_end;
};

// False when the deadline is over or the socket cannot be watched.
bool WaitFor(curl_socket_t socket, short events, const Deadline& deadline) {
  pollfd watched = {socket, events, 0};
  for (int left = deadline.Left(); left > 0; left = deadline.Left()) {
    const int ready = poll(&watched, 1, left);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
  return false;
}

}  // namespace

namespace VyNet {

// The connection is libcurl's, what goes over it is ours: libcurl's own upload would copy every byte once more and
// would not tell that the reply is complete while the body is not.
class VyHttpClient::Impl {
 public:
  struct Request {
    local::Endpoint endpoint;
    std::string path;
    std::string user;
    std::string password;
    std::string cookie;
    int timeout = local::TimeoutOrDefault(0);  // seconds
    HTTP_VERSION httpVersion = HTTP_VERSION_DEFAULT;
    TLS_VERSION tlsVersion = TLS_VERSION_DEFAULT;
  };

  Request request;

  bool Open(unsigned long long length, const std::string& contentType);
  bool Write(const char* data, std::size_t size);
  bool HasReply(int timeout);
  std::string ReadReply();
  void Close();

 private:
  bool IsRequestClean(const std::string& contentType) const;
  bool Connect();
  std::string Head(unsigned long long length, const std::string& contentType) const;
  std::size_t SendSome(const char* data, std::size_t size, CURLcode& result);
  bool Receive();
  void LogFailure(int line, const char* action, const char* reason) const;

  std::optional<local::Easy> m_easy;
  curl_socket_t m_socket = CURL_SOCKET_BAD;
  bool m_canWrite = false;
  local::HttpReply m_reply;
};

bool VyHttpClient::Impl::Open(unsigned long long length, const std::string& contentType) {
  Close();
  m_reply = {};
  if (!IsRequestClean(contentType)) {
    LogFailure(__LINE__, "Request to", "a character that is not allowed in host, port, path, cookie, type or user");
    return false;
  }
  m_canWrite = Connect();
  const std::string head = Head(length, contentType);
  if (m_canWrite && Write(head.data(), head.size())) return true;
  Close();
  return false;
}

bool VyHttpClient::Impl::IsRequestClean(const std::string& contentType) const {
  return request.endpoint.IsValid() && local::IsRequestTarget(request.path) && local::IsHeaderText(request.cookie) &&
         local::IsHeaderText(contentType) && local::IsHeaderText(request.user);
}

bool VyHttpClient::Impl::Connect() {
  m_easy.emplace(request.endpoint, request.httpVersion, request.tlsVersion);
  m_easy->Set(CURLOPT_CONNECT_ONLY, 1L);
  m_easy->Set(CURLOPT_CONNECTTIMEOUT_MS, local::ToMilliseconds(request.timeout));
  return m_easy->Perform() && curl_easy_getinfo(m_easy->Get(), CURLINFO_ACTIVESOCKET, &m_socket) == CURLE_OK &&
         m_socket != CURL_SOCKET_BAD;
}

std::string VyHttpClient::Impl::Head(unsigned long long length, const std::string& contentType) const {
  const char* version = request.httpVersion == HTTP_VERSION_1_0 ? "HTTP/1.0" : "HTTP/1.1";
  std::string head = "POST " + request.path + " " + version + "\r\nHost: " + request.endpoint.HostHeader() + "\r\n";
  if (!request.user.empty()) {
    const std::string account = request.user + ":" + request.password;
    const auto* bytes = reinterpret_cast<const unsigned char*>(account.data());
    head += "Authorization: Basic " + HttpBase64EncodeUnsigned(bytes, account.size()) + "\r\n";
  }
  if (!request.cookie.empty()) head += "Cookie: " + request.cookie + "\r\n";
  if (!contentType.empty()) head += "Content-Type: " + contentType + "\r\n";
  return head + "Content-Length: " + std::to_string(length) + "\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

// One TLS record at a time, for libcurl tells nothing of a longer piece before all of it has gone out.
std::size_t VyHttpClient::Impl::SendSome(const char* data, std::size_t size, CURLcode& result) {
  constexpr std::size_t kTlsRecord = 16384;
  std::size_t sent = 0;
  result = curl_easy_send(m_easy->Get(), data, request.endpoint.https ? std::min(size, kTlsRecord) : size, &sent);
  return result == CURLE_OK ? sent : 0;
}

bool VyHttpClient::Impl::Write(const char* data, std::size_t size) {
  constexpr int kPauseMs = 10;
  Deadline deadline(request.timeout);
  bool waited = false;
  while (m_canWrite && size > 0) {
    CURLcode result = CURLE_OK;
    const std::size_t sent = SendSome(data, size, result);
    data += sent;
    size -= sent;
    if (sent > 0) {
      deadline = Deadline(request.timeout);
      waited = false;
    } else if (result != CURLE_OK && result != CURLE_AGAIN) {
      LogFailure(__LINE__, "Sending to", curl_easy_strerror(result));
      m_canWrite = false;
    } else {
      // A writable socket that takes nothing: TLS wants to read first.
      if (waited) poll(nullptr, 0, kPauseMs);
      waited = WaitFor(m_socket, POLLOUT, deadline);
      m_canWrite = waited;
      if (!waited) LogFailure(__LINE__, "Sending to", "the peer took nothing for the time-out");
    }
  }
  return m_canWrite;
}

// Takes what has come; false when nothing has, be it that the socket was readable for what TLS keeps to itself.
bool VyHttpClient::Impl::Receive() {
  std::array<char, 16384> buffer;
  std::size_t received = 0;
  const CURLcode result = curl_easy_recv(m_easy->Get(), buffer.data(), buffer.size(), &received);
  if (result == CURLE_AGAIN) return false;
  if (result != CURLE_OK) LogFailure(__LINE__, "Reading the reply of", curl_easy_strerror(result));
  if (result == CURLE_OK && received > 0) {
    m_reply.Feed({buffer.data(), received});
  } else {
    m_reply.End();
  }
  return true;
}

bool VyHttpClient::Impl::HasReply(int timeout) {
  const Deadline deadline(std::max(timeout, 0));
  while (m_easy && !m_reply.HasBegun()) {
    if (!Receive() && !WaitFor(m_socket, POLLIN, deadline)) return false;
  }
  return m_reply.HasBegun();
}

std::string VyHttpClient::Impl::ReadReply() {
  const Deadline deadline(request.timeout);
  while (m_easy && !m_reply.IsOver()) {
    const bool received = Receive() || WaitFor(m_socket, POLLIN, deadline);
    if (received && !deadline.IsOver()) continue;
    LogFailure(__LINE__, "Reading the reply of", "it was not complete within the time-out");
    m_reply.End();
  }
  return m_reply.Body();
}

void VyHttpClient::Impl::Close() {
  m_easy.reset();
  m_socket = CURL_SOCKET_BAD;
  m_canWrite = false;
}

void VyHttpClient::Impl::LogFailure(int line, const char* action, const char* reason) const {
  local::LogNet(LOG_LEVEL_NOTE, kSource, line, "VyHttpClient", "%s [%s:%d] failed: %s\n", action,
                request.endpoint.host.c_str(), request.endpoint.port, reason);
}

VyHttpClient::VyHttpClient() : m_impl(std::make_unique<Impl>()) {}

VyHttpClient::~VyHttpClient() = default;

void VyHttpClient::Init(const std::string& path, const std::string& host, int port, const std::string& user,
                        const std::string& password, int timeout, bool, bool, bool, HTTP_VERSION httpVersion,
                        const std::string&, bool https, bool, bool, const std::string&, const Json::Value&,
                        TLS_VERSION tlsVersion) {
  m_impl = std::make_unique<Impl>();
  m_impl->request = {{host, port, https}, path,      user, password, "", local::TimeoutOrDefault(timeout),
                     httpVersion,         tlsVersion};
}

void VyHttpClient::SetCookie(const std::string& cookie) {
  m_impl->request.cookie = cookie;
}

int VyHttpClient::OpenRawDataUpload(unsigned long long length, const std::string& contentType) {
  return m_impl->Open(length, contentType) ? 0 : -1;
}

int VyHttpClient::WriteData(const char* data, int length) {
  if (data == nullptr || length <= 0) return 0;
  return m_impl->Write(data, static_cast<std::size_t>(length)) ? length : -1;
}

bool VyHttpClient::HasDataToRead(int timeout) {
  return m_impl->HasReply(timeout);
}

std::string VyHttpClient::GetResp() {
  return m_impl->ReadReply();
}

void VyHttpClient::Close() {
  m_impl->Close();
}

}  // namespace VyNet

bool WriteText::operator()(const char* data, std::size_t size) {
  if (m_sink.size() + size > local::kMaxReplyBody) return false;
  m_sink.append(data, size);
  return true;
}

namespace {

// A count other than all of them makes libcurl fail; an exception must not pass through it.
std::size_t PassToWriter(char* data, std::size_t, std::size_t size, void* writer) {
  try {
    return (*static_cast<WriteText*>(writer))(data, size) ? size : CURL_WRITEFUNC_ERROR;
  } catch (const std::exception&) {
    return CURL_WRITEFUNC_ERROR;
  }
}

// Notes whether the reply's head is complete: libcurl takes a connection that ends within it for an empty body.
std::size_t NoteHeader(char* line, std::size_t, std::size_t size, void* complete) {
  const std::string_view text(line, size);
  bool& isComplete = *static_cast<bool*>(complete);
  if (text.substr(0, 5) == "HTTP/") isComplete = false;
  if (text == "\r\n" || text == "\n") isComplete = true;
  return size;
}

struct SlistFreer {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

}  // namespace

template <>
int SendHttpPostAndGetResult<WriteText>(const std::string& host, int port, const std::string& cgiPath,
                                        const std::string& body, const std::string& cookie, WriteText& writer,
                                        bool https, int timeout, bool, HTTP_VERSION httpVersion) {
  const local::Endpoint endpoint = {host, port, https};
  const std::string target = "/" + cgiPath;
  if (!endpoint.IsValid() || !local::IsRequestTarget(target) || !local::IsHeaderText(cookie)) {
    local::LogNet(LOG_LEVEL_NOTE, kSource, __LINE__, __func__,
                  "Request to [%s:%d] failed: a character that is not allowed in host, port, path or cookie\n",
                  host.c_str(), port);
    return -1;
  }
  const std::unique_ptr<curl_slist, SlistFreer> headers(curl_slist_append(nullptr, "Expect:"));
  local::Easy easy(endpoint, httpVersion, TLS_VERSION_DEFAULT);
  easy.Set(CURLOPT_TIMEOUT_MS, local::ToMilliseconds(local::TimeoutOrDefault(timeout)));
  easy.Set(CURLOPT_REQUEST_TARGET, target.c_str());
  easy.Set(CURLOPT_HTTPHEADER, headers.get());
  easy.Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  easy.Set(CURLOPT_POSTFIELDS, body.c_str());
  if (!cookie.empty()) easy.Set(CURLOPT_COOKIE, cookie.c_str());
  easy.Set(CURLOPT_WRITEFUNCTION, PassToWriter);
  easy.Set(CURLOPT_WRITEDATA, &writer);
  bool hasHead = false;
  easy.Set(CURLOPT_HEADERFUNCTION, NoteHeader);
  easy.Set(CURLOPT_HEADERDATA, &hasHead);
  long status = 0;
  if (!easy.Perform() || !hasHead || curl_easy_getinfo(easy.Get(), CURLINFO_RESPONSE_CODE, &status) != CURLE_OK)
    return -1;
  return static_cast<int>(status);
}
