// Files to be sent. below: a directory that the path begins with, behind which no part of the path may be a symbolic
// link, for others may put one there meanwhile; empty when the path may go through links.
#pragma once

#include <string>

#include "utils/internal/ffmpegptr.h"

namespace mediautil {

// Opens a regular file for reading, without a buffer of its own. Null for anything else; never waits for a FIFO's
// writer.
FilePtr OpenPlainFile(const std::string& path, const std::string& below);

// Gives the file to the service's user: SetFileOwnerToVy. 0, or -1.
int TakeOwnership(const std::string& path, const std::string& below);

}  // namespace mediautil
