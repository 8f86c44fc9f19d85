// Opening and reading of files whose kind is not known.
#pragma once

#include <sys/types.h>

#include <string>

namespace local {

// Opens a regular file close-on-exec. flags: for open(2). -1 with errno set, EINVAL for another kind of file, for whose
// other end it does not wait.
int OpenRegularFile(const std::string& path, int flags, mode_t mode = 0);

// The first bytes of a regular file, at most limit. flags: further flags for open(2). False with errno set when that
// fails, bytes is unchanged then; a FIFO is refused without waiting for its writer.
bool ReadRegularFile(const std::string& path, int flags, std::size_t limit, std::string& bytes);

}  // namespace local
