// What all HTTP connections have in common: where they may go, and an easy handle of libcurl with our options.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/http.h"

namespace local {

// A server's address. host: a name, an IPv4 or an IPv6 address, the latter with or without brackets.
struct Endpoint {
  std::string host;
  int port = 0;
  bool https = false;

  // Nothing but an address can stand in the host, so that it is certain where a connection goes.
  bool IsValid() const;
  std::string Url() const;         // "https://[::1]:5001/"
  std::string HostHeader() const;  // "[::1]:5001", without a default port
};

// Whether a text can stand in a header: without control characters. A request target has no spaces either.
bool IsHeaderText(std::string_view text);
bool IsRequestTarget(std::string_view text);

// Seconds as callers give them: 0 or less stands for 20.
int TimeoutOrDefault(int seconds);
// Milliseconds as libcurl takes them.
long ToMilliseconds(int seconds);

class Easy {
 public:
  // Verification as the settings say, no proxy, no redirects, no other protocols, no signals.
  Easy(const Endpoint& endpoint, HTTP_VERSION httpVersion, TLS_VERSION tlsVersion);
  Easy(const Easy&) = delete;
  Easy& operator=(const Easy&) = delete;

  CURL* Get() const { return m_handle.get(); }

  // A value must have the type that libcurl's documentation names: long, curl_off_t or a pointer.
  template <typename T>
  void Set(CURLoption option, T value) {
    static_assert(std::is_pointer_v<T> || std::is_same_v<T, long> || std::is_same_v<T, curl_off_t>);
    if (m_result == CURLE_OK) m_result = curl_easy_setopt(m_handle.get(), option, value);
  }

  // Connects, or runs the whole request. False on failure, also of an option before, which is logged.
  bool Perform();

 private:
  struct Cleaner {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  };

  const Endpoint m_endpoint;
  char m_error[CURL_ERROR_SIZE] = {};  // outlives the handle, which writes to it
  const std::unique_ptr<CURL, Cleaner> m_handle;
  CURLcode m_result;
};

}  // namespace local
