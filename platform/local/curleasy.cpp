#include "platform/local/curleasy.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>

#include "platform/local/netlog.h"
#include "platform/local/settingsfile.h"

namespace local {
namespace {

constexpr const char* kSource = "local/curleasy";
constexpr std::size_t kMaxHost = 255;

bool IsNameChar(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '_';
}

bool IsName(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsNameChar);
}

std::string WithoutBrackets(const std::string& host) {
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  return bracketed ? host.substr(1, host.size() - 2) : host;
}

// An IPv6 address and the zone behind its "%", as in "fe80::1%eth0".
struct Ipv6 {
  std::string address;
  std::string zone;
  bool isValid = false;
};

Ipv6 ParseIpv6(const std::string& host) {
  const std::string text = WithoutBrackets(host);
  const std::size_t percent = text.find('%');
  Ipv6 ipv6;
  ipv6.address = text.substr(0, percent);
  if (percent != std::string::npos) ipv6.zone = text.substr(percent + 1);
  in6_addr ignored = {};
  ipv6.isValid = ipv6.address.find('\0') == std::string::npos &&
                 inet_pton(AF_INET6, ipv6.address.c_str(), &ignored) == 1 &&
                 (percent == std::string::npos || IsName(ipv6.zone));
  return ipv6;
}

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

bool InitialiseOnce() {
  static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
  return result == CURLE_OK;
}

curl_socket_t OpenSocket(void*, curlsocktype, curl_sockaddr* address) {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

long CurlHttpVersion(HTTP_VERSION version) {
  return version == HTTP_VERSION_1_0 ? long{CURL_HTTP_VERSION_1_0} : long{CURL_HTTP_VERSION_1_1};
}

long CurlTlsVersion(TLS_VERSION version) {
  return version == TLS_VERSION_1_3 ? long{CURL_SSLVERSION_TLSv1_3} : long{CURL_SSLVERSION_TLSv1_2};
}

void SetVerification(Easy& easy, const Endpoint& endpoint) {
  const TlsSettings settings = ReadTlsSettings();
  if (!settings.verify) {
    LogNet(LOG_LEVEL_WARN, kSource, __LINE__, __func__,
           "The server [%s:%d] is not verified, the settings switch it off.\n", endpoint.host.c_str(), endpoint.port);
  }
  easy.Set(CURLOPT_SSL_VERIFYPEER, settings.verify ? 1L : 0L);
  easy.Set(CURLOPT_SSL_VERIFYHOST, settings.verify ? 2L : 0L);
  if (settings.verify && !settings.caFile.empty()) {
    easy.Set(CURLOPT_CAINFO, settings.caFile.c_str());
    easy.Set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // these authorities and no others
  }
}

}  // namespace

bool Endpoint::IsValid() const {
  return host.size() <= kMaxHost && (IsName(host) || ParseIpv6(host).isValid) && port > 0 && port <= 65535;
}

std::string Endpoint::Url() const {
  const Ipv6 ipv6 = ParseIpv6(host);
  const std::string zone = ipv6.zone.empty() ? "" : "%25" + ipv6.zone;
  const std::string authority = ipv6.isValid ? "[" + ipv6.address + zone + "]" : host;
  return (https ? "https://" : "http://") + authority + ":" + std::to_string(port) + "/";
}

std::string Endpoint::HostHeader() const {
  const Ipv6 ipv6 = ParseIpv6(host);
  const std::string name = ipv6.isValid ? "[" + ipv6.address + "]" : host;
  return port == (https ? 443 : 80) ? name : name + ":" + std::to_string(port);
}

bool IsHeaderText(std::string_view text) {
  return std::none_of(text.begin(), text.end(), IsControl);
}

bool IsRequestTarget(std::string_view text) {
  return !text.empty() && text.front() == '/' && IsHeaderText(text) && text.find(' ') == std::string_view::npos;
}

int TimeoutOrDefault(int seconds) {
  return seconds > 0 ? seconds : 20;
}

long ToMilliseconds(int seconds) {
  return std::min(long{seconds}, INT_MAX / 1000L) * 1000L;
}

Easy::Easy(const Endpoint& endpoint, HTTP_VERSION httpVersion, TLS_VERSION tlsVersion)
    : m_endpoint(endpoint),
      m_handle(InitialiseOnce() ? curl_easy_init() : nullptr),
      m_result(m_handle == nullptr ? CURLE_FAILED_INIT : CURLE_OK) {
  Set(CURLOPT_ERRORBUFFER, m_error);
  Set(CURLOPT_URL, endpoint.Url().c_str());
  Set(CURLOPT_PROTOCOLS_STR, "http,https");
  Set(CURLOPT_FOLLOWLOCATION, 0L);
  Set(CURLOPT_PROXY, "");  // not even that of the environment
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_QUICK_EXIT, 1L);  // a name server that is silent must not outlast the time-out
  Set(CURLOPT_OPENSOCKETFUNCTION, OpenSocket);
  Set(CURLOPT_HTTP_VERSION, CurlHttpVersion(httpVersion));
  Set(CURLOPT_SSLVERSION, CurlTlsVersion(tlsVersion));
  if (endpoint.https) SetVerification(*this, endpoint);
}

bool Easy::Perform() {
  if (m_result == CURLE_OK) m_result = curl_easy_perform(m_handle.get());
  if (m_result == CURLE_OK) return true;
  LogNet(LOG_LEVEL_NOTE, kSource, __LINE__, __func__, "Connection with [%s:%d] failed: %s\n", m_endpoint.host.c_str(),
         m_endpoint.port, m_error[0] != '\0' ? m_error : curl_easy_strerror(m_result));
  return false;
}

}  // namespace local
