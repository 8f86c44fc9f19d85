// The directory that holds everything the stand-in keeps, named by the environment variable MEDIAUTIL_STATE_DIR.
#pragma once

#include <string>

namespace local {

// The path of a file in the state directory; empty when the environment names none.
std::string StatePath(const char* name);

// The same, the directory made first when it is absent; empty also when it cannot be made.
std::string StatePathForWriting(const char* name);

}  // namespace local
