// Opening what is to be sent.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace mediautil {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

// Opens a regular file for reading, without a buffer of its own. Null for anything else; never waits for a FIFO's
// writer. below: a directory that the path begins with, behind which no part of the path may be a symbolic link, for
// others may put one there meanwhile; empty when the path may go through links.
FilePtr OpenPlainFile(const std::string& path, const std::string& below);

}  // namespace mediautil
