// Platform interface: the web API of a recorder.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

#include "platform/export.h"

// An object that names the API, method and version of a request; the caller adds its parameters as members.
VY_API Json::Value GetJsonAPIInfo(std::string api, std::string method, int version);

// Renders an object as name=value pairs joined by "&", in the order of the names. urlEncode: everything but letters,
// digits and "-._~" is percent-encoded, so that any bytes arrive as one parameter. bareStrings: texts without JSON's
// quotes. Other values are JSON texts. Empty for anything but an object.
VY_API std::string JsonToStrPair(const Json::Value& object, bool urlEncode, bool bareStrings);

// Standard base64 with padding, without line breaks.
VY_API std::string HttpBase64EncodeUnsigned(const unsigned char* data, std::size_t length);

// Posts one request, with "_sid" when sid is not empty, to a CGI path of a recorder and reads its JSON reply. timeout
// in seconds. 0 on success; negative on failure of the transport and for a reply that is not a JSON object, reply is
// null then. The bool before the time-out is the server's own option.
VY_API int SendWebAPIWithEncrypt(const std::string& host, int port, const std::string& sid, const Json::Value& request,
                                 Json::Value& reply, bool https, bool, int timeout, const std::string& cgiPath);

// Logs an account in. extra: a one-time code when the account asks for one, else empty; second: the identifier of a
// trusted device, else empty. 0 on success, sid filled; otherwise sid is empty, outText is the reply's text and outCode
// the web API's error code, 0 when the reply has none.
VY_API int LoginNh(const std::string& host, int port, const std::string& account, const std::string& password,
                   const std::string& extra, const std::string& second, bool https, int timeout, std::string& sid,
                   std::string& outText, int& outCode);

// What authenticates this recorder to the central-management host it is paired with; empty texts without pairing
// data, and for one with a quote, a blank or another character that a query cannot hold.
VY_API void GetTimeAndCookieForHost(std::string& cookie, std::string& timestamp);

// This recorder's serial number; empty when unknown.
VY_API std::string GetNHSerialNumber();
