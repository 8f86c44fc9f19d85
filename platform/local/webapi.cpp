#include "platform/webapi.h"

#include <json/writer.h>
#include <openssl/evp.h>

#include <algorithm>

#include "platform/http.h"
#include "platform/json.h"
#include "platform/local/curleasy.h"
#include "platform/local/settingsfile.h"

namespace {

constexpr const char* kCgiPath = "webapi/entry.cgi";

bool IsUnreserved(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

std::string PercentEncode(const std::string& text) {
  constexpr const char* kHex = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsUnreserved(c)) {
      encoded += c;
    } else {
      encoded += {'%', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  return encoded;
}

// Bytes that are not UTF-8 pass as they are.
std::string ToJsonText(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  return Json::writeString(writer, value);
}

// A text that authenticates. Empty without one, and for one that callers, who put it between quotes into a query,
// cannot send.
std::string AuthSetting(const Json::Value& settings, const char* key) {
  std::string value;
  local::ReadKey(settings, key, value);
  const bool canBeSent = local::IsHeaderText(value) && value.find_first_of(" \"\\&#") == std::string::npos;
  return canBeSent ? value : "";
}

// Null for anything but an object.
Json::Value ParseReply(const std::string& text) {
  Json::Value reply;
  return JsonParse(text, reply, false, true) == 0 && reply.isObject() ? reply : Json::Value();
}

bool Post(const std::string& host, int port, const std::string& cgiPath, const Json::Value& request, bool https,
          int timeout, std::string& replyText) {
  WriteText writer(replyText);
  return SendHttpPostAndGetResult<WriteText>(host, port, cgiPath, JsonToStrPair(request, true, true), "", writer, https,
                                             timeout, true, HTTP_VERSION_DEFAULT) >= 0;
}

int ErrorCode(const Json::Value& reply) {
  const Json::Value& error = reply["error"];
  return error.isObject() && error["code"].isInt() ? error["code"].asInt() : 0;
}

std::string SessionId(const Json::Value& reply) {
  const Json::Value& success = reply["success"];
  const Json::Value& data = reply["data"];
  const bool hasOne = success.isBool() && success.asBool() && data.isObject() && data["sid"].isString();
  return hasOne ? data["sid"].asString() : std::string();
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature is fixed
Json::Value GetJsonAPIInfo(std::string api, std::string method, int version) {
  Json::Value info(Json::objectValue);
  info["api"] = api;
  info["method"] = method;
  info["version"] = version;
  return info;
}

std::string JsonToStrPair(const Json::Value& object, bool urlEncode, bool bareStrings) {
  std::string pairs;
  if (!object.isObject()) return pairs;
  const auto encode = [urlEncode](const std::string& text) { return urlEncode ? PercentEncode(text) : text; };
  for (auto member = object.begin(); member != object.end(); ++member) {
    const bool bare = bareStrings && member->isString();
    if (!pairs.empty()) pairs += '&';
    pairs += encode(member.name()) + "=" + encode(bare ? member->asString() : ToJsonText(*member));
  }
  return pairs;
}

std::string HttpBase64EncodeUnsigned(const unsigned char* data, std::size_t length) {
  constexpr std::size_t kPiece = 3 << 20;  // libcrypto counts in int; whole groups of 3 give no padding in between
  std::string text((length / 3 + (length % 3 != 0 ? 1 : 0)) * 4, '\0');
  for (std::size_t done = 0; done < length; done += kPiece) {
    auto* out = reinterpret_cast<unsigned char*>(text.data() + done / 3 * 4);
    EVP_EncodeBlock(out, data + done, static_cast<int>(std::min(kPiece, length - done)));
  }
  return text;
}

int SendWebAPIWithEncrypt(const std::string& host, int port, const std::string& sid, const Json::Value& request,
                          Json::Value& reply, bool https, bool, int timeout, const std::string& cgiPath) {
  reply = Json::Value();
  if (!request.isObject()) return -1;
  Json::Value parameters = request;
  if (!sid.empty()) parameters["_sid"] = sid;
  std::string text;
  if (Post(host, port, cgiPath, parameters, https, timeout, text)) reply = ParseReply(text);
  return reply.isObject() ? 0 : -1;
}

int LoginNh(const std::string& host, int port, const std::string& account, const std::string& password,
            const std::string& extra, const std::string& second, bool https, int timeout, std::string& sid,
            std::string& outText, int& outCode) {
  Json::Value request = GetJsonAPIInfo("ZELK.API.Auth", "login", 3);
  request["account"] = account;
  request["passwd"] = password;
  request["session"] = "Korvane";
  request["format"] = "sid";
  if (!extra.empty()) request["otp_code"] = extra;
  if (!second.empty()) request["device_id"] = second;

  std::string text;
  const bool posted = Post(host, port, kCgiPath, request, https, timeout, text);
  const Json::Value reply = posted ? ParseReply(text) : Json::Value();
  const bool isObject = reply.isObject();
  sid = isObject ? SessionId(reply) : "";
  outCode = isObject ? ErrorCode(reply) : 0;
  outText = sid.empty() ? text : "";
  return sid.empty() ? -1 : 0;
}

void GetTimeAndCookieForHost(std::string& cookie, std::string& timestamp) {
  Json::Value settings;
  const bool read = local::ReadSettings(settings);
  cookie = read ? AuthSetting(settings, "cmsCookie") : "";
  timestamp = read ? AuthSetting(settings, "cmsTimestamp") : "";
}

std::string GetNHSerialNumber() {
  Json::Value settings;
  return local::ReadSettings(settings) ? AuthSetting(settings, "serialNumber") : "";
}
