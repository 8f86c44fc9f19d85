// Output files that take an older file's place when they are whole, and go when they are not.
#pragma once

#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

namespace mediautil {

// The file that an FFmpeg URL names, within url; "" when it names something else.
const char* FileName(const char* url);

// Opens url for writing. While a regular file with content stands there, also behind a symbolic link, what is written
// grows in a hidden file of its own beside it; not where that cannot be made or could not take its place. oc's url is
// what is written. 0, or an error of FFmpeg.
int OpenWhole(AVFormatContext* oc, const std::string& url);

// Closes it and gives a whole file its place, with the older one's owner and permissions; a regular file that is not
// whole, or that failed, is removed. 0, or the error.
int CloseWhole(AVFormatContext* oc, const std::string& url, bool isWhole);

}  // namespace mediautil
