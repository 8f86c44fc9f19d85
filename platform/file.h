// Platform interface: files.
#pragma once

#include <list>
#include <string>

#include "platform/export.h"

// Replaces the file at path by these bytes as a whole: readers see the old file or the new one, never a part. It keeps
// the old file's permissions; a new one has 0666 less the umask. A symbolic link at path is itself replaced; a device,
// FIFO, socket or directory is refused. sync: also wait until the bytes are on the disk. Null data with size 0 makes an
// empty file. 0 on success; -1 with errno set, then the old file stands and nothing else was left behind. A process
// that is killed meanwhile leaves at most a part in ".write-NAMESPACE-THREAD-0" beside path, for each thread that was
// writing; the next thread of that number which writes there takes its place.
VY_API int WriteContentFromBufToFile(const char* data, unsigned int size, bool sync, const std::string& path);

// Bytes of a regular file, symbolic links followed; -1 when there is none or it cannot be told.
VY_API long long GetFileSize(const std::string& path);

// What stands behind the last "/"; the whole path without one.
VY_API std::string GetBaseName(const std::string& path);

// What stands before the last "/", slashes at its end dropped, "/" for an entry of the root; empty without a "/".
VY_API std::string GetDirPath(const std::string& path);

// The directories and the regular files below dir, as full paths that begin with dir as it was given, sorted, a
// directory before what it holds. recursive: at any depth. hidden: also names that begin with "."; what a hidden
// directory holds is hidden with it. suffix: only names that end in it; empty takes all. Symbolic links below dir are
// neither listed nor followed. What the list held before is dropped. 0 on success; -1 with errno set when dir, or one
// below it, cannot be read or is more than PATH_MAX bytes away, the list holds the others then.
VY_API int GetDirsInDir(const std::string& dir, std::list<std::string>& dirs, bool recursive, bool hidden,
                        const std::string& suffix);
VY_API int GetFilesInDir(const std::string& dir, std::list<std::string>& files, bool recursive, bool hidden,
                         const std::string& suffix);

// Makes a directory with those above it. Each that it makes has 0750, whatever the umask, and belongs to this process's
// user; those that were there stay as they are. 0 on success, also when all were there; -1 with errno set.
VY_API int MakeDirIfNotExist(const std::string& path);

// Gives a regular file or directory to the service's user and group: those of this process. Permissions stay.
// recursive: with the files and directories at any depth below. Never follows a symbolic link, neither at path nor
// below. 0 on success; -1 with errno set, what could be given is given then.
VY_API int SetFileOwnerToVy(const std::string& path, bool recursive);
