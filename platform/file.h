// Platform interface: files.
#pragma once

#include <string>

#include "platform/export.h"

// Replaces the file at path by these bytes as a whole: readers see the old file or the new one, never a part. It keeps
// the old file's permissions; a new one has 0666 less the umask. A symbolic link at path is itself replaced; a device,
// FIFO, socket or directory is refused. sync: also wait until the bytes are on the disk. Null data with size 0 makes an
// empty file. 0 on success; -1 with errno set, then the old file stands and nothing else was left behind.
VY_API int WriteContentFromBufToFile(const char* data, unsigned int size, bool sync, const std::string& path);
