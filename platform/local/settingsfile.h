// The settings of the stand-in: settings.json in the state directory.
#pragma once

#include <json/value.h>

#include <string>

namespace local {

// False when the file cannot be read or holds no object, or more than 1 MiB; settings is an empty object then, as for
// an absent file. Keys: cmsPaired, cmsHostIp, cmsHostPort, cmsCookie, cmsTimestamp, serialNumber, tlsVerify, tlsCaFile.
bool ReadSettings(Json::Value& settings);

// Takes one key of an object over. False when it holds another type, value is unchanged then, as for an absent key. A
// text with a NUL counts as another type.
bool ReadKey(const Json::Value& settings, const char* key, bool& value);
bool ReadKey(const Json::Value& settings, const char* key, int& value);
bool ReadKey(const Json::Value& settings, const char* key, std::string& value);

// How servers are verified.
struct TlsSettings {
  bool verify = true;  // stays on when the settings cannot be read
  std::string caFile;  // PEM; empty: the system's authorities
};
TlsSettings ReadTlsSettings();

}  // namespace local
