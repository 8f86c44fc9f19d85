// Platform interface: text.
#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

// The pieces of text between separators, empty ones in between included ("a;;b" has three). A separator at the very
// end adds no piece; an empty text has none; an empty separator gives the whole text.
VY_API std::vector<std::string> String2StrVector(const std::string& text, const std::string& separator);
