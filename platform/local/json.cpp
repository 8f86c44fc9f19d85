#include "platform/json.h"

#include <json/reader.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

namespace {

constexpr int kMaxJsonDepth = 256;
constexpr std::size_t kMaxJsonValues = 100000;  // about 100 bytes of memory each, written in as few as 2
constexpr int kMaxSchemaDepth = 32;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// What the reader does not tell or keep: it always takes comments behind elements.
struct Outline {
  std::size_t values = 1;  // at most as many are in the text
  bool hasComments = false;
};

// The end of a comment that begins at a place, on its last byte.
std::size_t CommentEnd(const std::string& text, std::size_t begin) {
  const bool isLine = text.compare(begin, 2, "//") == 0;
  const std::size_t end = isLine ? text.find_first_of("\r\n", begin) : text.find("*/", begin + 2);
  return end == std::string::npos ? text.size() : isLine ? end : end + 1;
}

Outline Scan(const std::string& text) {
  Outline outline;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '/' && !inString) {
      outline.hasComments = true;
      i = CommentEnd(text, i);
      continue;
    }
    if (c == '"') inString = !inString;
    if (c == '\\' && inString) ++i;
    if (inString) continue;
    if (c == ',' || c == '[' || c == '{') ++outline.values;
  }
  return outline;
}

// Some versions of the reader make an infinity of a number that is too large.
bool IsFinite(const Json::Value& value) {
  if (value.isDouble()) return std::isfinite(value.asDouble());
  return std::all_of(value.begin(), value.end(), IsFinite);  // an element has no more than kMaxJsonDepth levels
}

// The text stands between brackets, since the reader overlooks what follows a value when values of any type are
// allowed. It also takes a NUL, which no JSON text holds, for the end. A comment at the end ends before the bracket.
bool ParseElement(const std::string& text, bool allowComments, Json::Value& element) {
  const Outline outline = Scan(text);
  if (outline.values > kMaxJsonValues || (outline.hasComments && !allowComments)) return false;
  if (text.find('\0') != std::string::npos) return false;
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["rejectDupKeys"] = false;
  builder["allowComments"] = allowComments;
  builder["collectComments"] = false;
  builder["stackLimit"] = kMaxJsonDepth + 1;

  const bool marked = text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0;
  std::string array = "[";
  array.append(text, marked ? kByteOrderMark.size() : 0);
  array += "\n]";
  Json::Value root;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(array.data(), array.data() + array.size(), &root, nullptr) || root.size() != 1) return false;
  if (!IsFinite(root)) return false;
  element.swap(root[0]);
  return true;
}

struct SchemaType {
  std::string_view name;
  bool (*matches)(const Json::Value& value);
};

constexpr SchemaType kSchemaTypes[] = {
    {"any", [](const Json::Value&) { return true; }},
    {"null", [](const Json::Value& value) { return value.isNull(); }},
    {"bool", [](const Json::Value& value) { return value.isBool(); }},
    {"int", [](const Json::Value& value) { return value.isInt(); }},
    {"number", [](const Json::Value& value) { return value.isNumeric(); }},
    {"string", [](const Json::Value& value) { return value.isString(); }},
    {"array", [](const Json::Value& value) { return value.isArray(); }},
    {"object", [](const Json::Value& value) { return value.isObject(); }},
};

// Reads a schema and holds a value against it in one pass. Each function is false when the schema cannot be read or
// the value does not satisfy it; without a value it only reads.
class SchemaReader {
 public:
  explicit SchemaReader(std::string_view schema) : m_rest(schema) {}

  bool Accepts(const Json::Value& value) { return ReadSchema(&value, 0) && NextByte() == '\0' && m_rest.empty(); }

 private:
  // The next byte that is not blank, 0 at the end.
  char NextByte() {
    m_rest.remove_prefix(std::min(m_rest.find_first_not_of(" \t\r\n"), m_rest.size()));
    return m_rest.empty() ? '\0' : m_rest.front();
  }

  bool Take(char byte) {
    if (NextByte() != byte) return false;
    m_rest.remove_prefix(1);
    return true;
  }

  std::string_view TakeWord() {
    NextByte();
    const std::string_view word = m_rest.substr(0, m_rest.find_first_of(" \t\r\n:,{}"));
    m_rest.remove_prefix(word.size());
    return word;
  }

  bool ReadSchema(const Json::Value* value, int depth) {
    if (depth > kMaxSchemaDepth) return false;
    return NextByte() == '{' ? ReadRecord(value, depth) : ReadType(value, TakeWord());
  }

  static bool ReadType(const Json::Value* value, std::string_view name) {
    for (const SchemaType& type : kSchemaTypes) {
      if (type.name == name) return value == nullptr || type.matches(*value);
    }
    return false;
  }

  bool ReadRecord(const Json::Value* value, int depth) {
    std::string_view type;
    bool hasMembers = false;
    Take('{');
    do {
      const std::string_view key = TakeWord();
      if (!Take(':')) return false;
      if (key == "type" && type.empty()) {
        type = TakeWord();
      } else if (key == "required" || key == "optional") {
        hasMembers = true;
        if (!ReadMembers(value, key == "required", depth + 1)) return false;
      } else {
        return false;
      }
    } while (Take(','));
    return Take('}') && (!hasMembers || type == "object") && ReadType(value, type);
  }

  bool ReadMembers(const Json::Value* value, bool required, int depth) {
    if (!Take('{')) return false;
    if (Take('}')) return true;
    do {
      const std::string_view name = TakeWord();
      if (name.empty() || !Take(':')) return false;
      const bool isObject = value != nullptr && value->isObject();
      const Json::Value* member = isObject ? value->find(name.data(), name.data() + name.size()) : nullptr;
      if (required && value != nullptr && member == nullptr) return false;
      if (!ReadSchema(member, depth)) return false;
    } while (Take(','));
    return Take('}');
  }

  std::string_view m_rest;
};

}  // namespace

int JsonParse(const std::string& text, Json::Value& out, bool allowComments, bool strictRoot) {
  out = Json::nullValue;
  try {
    Json::Value value;
    if (!ParseElement(text, allowComments, value)) return -1;
    if (strictRoot && !value.isObject() && !value.isArray()) return -1;
    out = std::move(value);
    return 0;
  } catch (const std::exception&) {
    return -1;  // nested too deeply, or out of memory
  }
}

int VyJson::Validate(const std::string& schema, const Json::Value& value) {
  return SchemaReader(schema).Accepts(value) ? 0 : -1;
}
