// Reading of small files whose kind is not known.
#pragma once

#include <string>

namespace local {

// The first bytes of a regular file, at most limit. flags: further flags for open(2). False with errno set when that
// fails, bytes is unchanged then; a FIFO is refused without waiting for its writer.
bool ReadRegularFile(const std::string& path, int flags, std::size_t limit, std::string& bytes);

}  // namespace local
