// Platform interface: text.
#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// The pieces of text between separators, empty ones in between included ("a;;b" has three). A separator at the very
// end adds no piece; an empty text has none; an empty separator gives the whole text.
VY_API std::vector<std::string> String2StrVector(const std::string& text, const std::string& separator);

// A text formatted as by printf; empty when the format fails.
VY_API std::string StringPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The text with a piece of it replaced: the first place where it stands or, with all, every one. An empty piece changes
// nothing.
VY_API std::string StringReplaceSymbol(const std::string& text, const std::string& piece,
                                       const std::string& replacement, bool all);
