// Platform interface: JSON texts.
#pragma once

#include <json/value.h>

#include <string>

#include "platform/export.h"

// Reads a JSON text. allowComments: C and C++ comments may stand in it. strictRoot: it must be an object or an array.
// Of members with the same name the last one counts. 0 on success; -1 otherwise, also for bytes after the end, nesting
// deeper than 256 levels and more than 100 000 values, out is null then. Never throws.
VY_API int JsonParse(const std::string& text, Json::Value& out, bool allowComments, bool strictRoot);

namespace VyJson {

// Whether a value satisfies a schema, a text such as "{type: object, required: {code: int, name: string}}": a type name
// (any, null, bool, int, number, string, array, object) or a record of "type" and, for an object, "required" and
// "optional" with a schema for each member. Members without a schema are allowed; an int has 32 bits; records nest up
// to 32 levels. 0 when it does; -1 when not, and for a schema that cannot be read.
VY_API int Validate(const std::string& schema, const Json::Value& value);

}  // namespace VyJson
