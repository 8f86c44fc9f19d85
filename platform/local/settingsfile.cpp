#include "platform/local/settingsfile.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/json.h"
#include "platform/local/readfile.h"
#include "platform/local/state.h"

namespace local {
namespace {

constexpr std::size_t kMaxBytes = 1 << 20;

template <typename T>
bool ReadAs(const Json::Value& settings, const char* key, T& value) {
  const Json::Value* found = settings.find(key, key + std::strlen(key));
  if (found == nullptr) return true;
  if (!found->is<T>()) return false;
  value = found->as<T>();
  return true;
}

}  // namespace

bool ReadSettings(Json::Value& settings) {
  settings = Json::objectValue;
  const std::string path = StatePath("settings.json");
  if (path.empty()) return false;
  std::string text;
  if (!ReadRegularFile(path, 0, kMaxBytes + 1, text)) return errno == ENOENT;
  Json::Value read;
  if (text.size() > kMaxBytes || JsonParse(text, read, true, true) != 0 || !read.isObject()) return false;
  settings.swap(read);
  return true;
}

bool ReadKey(const Json::Value& settings, const char* key, bool& value) {
  return ReadAs(settings, key, value);
}

bool ReadKey(const Json::Value& settings, const char* key, int& value) {
  return ReadAs(settings, key, value);
}

bool ReadKey(const Json::Value& settings, const char* key, std::string& value) {
  std::string text = value;
  if (!ReadAs(settings, key, text) || text.find('\0') != std::string::npos) return false;
  value = std::move(text);
  return true;
}

TlsSettings ReadTlsSettings() {
  Json::Value settings;
  TlsSettings tls;
  const bool read = ReadSettings(settings) && ReadKey(settings, "tlsVerify", tls.verify) &&
                    ReadKey(settings, "tlsCaFile", tls.caFile);
  return read ? tls : TlsSettings();
}

}  // namespace local
