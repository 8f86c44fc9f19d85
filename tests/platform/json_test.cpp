// JSON texts and schemas.
#include "platform/json.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include "platform/text.h"

namespace {

std::string Repeat(const std::string& piece, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += piece;
  return text;
}

// The value on one line; "-" when the text is refused.
std::string Parse(const std::string& text, bool allowComments, bool strictRoot) {
  Json::Value out = "left over";
  if (JsonParse(text, out, allowComments, strictRoot) != 0) return out.isNull() ? "-" : "not null";
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, out);
}

TEST(JsonTest, Parse) {
  // Each text and what comes of it: as it is, with comments, with any root.
  for (const std::string& line : String2StrVector(
           " [1,\t2.5,\r\n{}] ~[1,2.5,{}]~[1,2.5,{}]~[1,2.5,{}];\xEF\xBB\xBF[]~[]~[]~[];{\"a\":1,\"a\":2}~{\"a\":2}~"
           "{\"a\":2}~{\"a\":2};7~-~-~7;null~-~-~null;\"\\\"/\"~-~-~\"\\\"/\";{} // end~-~{}~-;/**/[1/**/]~-~[1]~-",
           ";")) {
    const std::string text = line.substr(0, line.find('~'));
    EXPECT_EQ(text + "~" + Parse(text, false, true) + "~" + Parse(text, true, true) + "~" + Parse(text, false, false),
              line);
  }
  std::vector<std::string> refused = String2StrVector(
      ";{} x;1 x;1],[2;{},{};];[1,];{\"a\":1;{'a':1};[NaN];{} /*;[-;[1e999];[\"\\ud800;\xFF;<html>Bad Gateway</html>",
      ";");
  for (const char* piece : {"[", "{\"a\":", "[[],"}) refused.push_back(Repeat(piece, 1000000));
  for (const char* before : {"", "/*\"*/", "//\"\r", "//\"\n", "[/*/\"*/0],"}) {
    refused.push_back(before + ("[" + Repeat("0,", 100000) + "0]"));  // so many values take a lot of memory
  }
  refused.insert(refused.end(), {std::string("{}\0x", 4), std::string("1]\0", 3), Repeat("[", 257) + Repeat("]", 257)});
  for (const std::string& text : refused) EXPECT_EQ(Parse(text, true, false), "-") << text.substr(0, 99);
  EXPECT_NE(Parse("[" + Repeat("0,", 99000) + Repeat("[", 255) + Repeat("]", 256), false, true), "-");
  EXPECT_NE(Parse("[\"" + std::string(10 << 20, ',') + "\xFF\xC0\x80\xED\xA0\"]", false, true), "-");
}

TEST(JsonTest, Validate) {
  const auto validate = [](int result, const std::string& schema, const std::string& texts) {
    for (const std::string& text : String2StrVector(texts, ";")) {
      Json::Value value;
      EXPECT_EQ(JsonParse(text, value, false, false), 0) << text;
      EXPECT_EQ(VyJson::Validate(schema, value), result) << schema.substr(0, 99) << text;
    }
  };
  const std::string error = "{type: object, required: {error: {type: object, required: {code: int}}}}";
  validate(0, error, R"({"error":{"code":105,"more":[1]},"a":0};{"error":{"code":-2147483648}})");
  validate(-1, error,
           R"({"error":{"code":2147483648}};{"error":{"code":"105"}};{"error":{"code":1.5}};null;[];{"a":1})");
  validate(-1, error, R"({"error":{"code":null}};{"error":{}};{"error":[105]};{"error":105})");
  validate(-1, std::string("object \0", 8), "{}");
  const std::string optional = "{\n optional:{a:{type:string}, b:any} , type:object, required:{}}";
  validate(0, optional, R"({};{"a":"x","b":null})");
  validate(-1, optional, R"({"a":1};[])");
  const char* values[] = {"null", "true", "1", "3000000000", "1.5", "\"1\"", "[]", "{}"};
  // Which of these values a type takes.
  for (const std::string& line :
       String2StrVector("any 01234567;null 0;bool 1;int 2;number 234;string 5;array 6;object 7", ";")) {
    const std::vector<std::string> type = String2StrVector(line, " ");
    for (int i = 0; i < 8; ++i)
      validate(type[1].find(std::to_string(i)) == std::string::npos ? -1 : 0, type[0], values[i]);
  }
  for (const int levels : {32, 33, 1000000}) {
    const std::string nested = Repeat("{type:object,optional:{a:", levels) + "int" + Repeat("}}", levels);
    validate(levels > 32 ? -1 : 0, nested, "{}");
  }
  for (const std::string& unreadable : String2StrVector(
           "|objects|object object|{}|{type: object|{type: object}}|{type: object,}|{type: object, type: object}|"
           "{type: object, other: {}}|{required: {}}|{type: any, required: {}}|{type: object, optional: {a}}|"
           "{type: object, optional: {a: none}}|{type: object, optional: {: int}}",
           "|")) {
    validate(-1, unreadable, "{}");
  }
}

}  // namespace
