// Output files that take an older file's place when they are whole, and go when they are not.
#pragma once

#include <sys/stat.h>

#include <string>

#include "utils/internal/inputfile.h"

namespace mediautil {

// The file that an FFmpeg URL names, within url; "" when it names something else.
const char* FileName(const char* url);

// One output at a time: Open, then Close.
class WholeFile {
 public:
  WholeFile() = default;
  ~WholeFile();
  WholeFile(const WholeFile&) = delete;
  WholeFile& operator=(const WholeFile&) = delete;

  // Opens url for oc to write. While a regular file with content stands there, also behind a symbolic link, what is
  // written grows in a hidden file of its own beside it; not where that cannot be made or could not take its place.
  // oc's url is what is written. 0, or an error of FFmpeg.
  int Open(AVFormatContext* oc, const std::string& url);

  // Closes it and gives a whole file its place, with the older one's owner and permissions; a regular file that is not
  // whole, or that failed, is removed, or emptied where it cannot be. 0, or the error; also 0 when oc is null or not
  // open.
  int Close(AVFormatContext* oc, bool isWhole);

 private:
  int OpenPart(AVFormatContext* oc);
  int Replace() const;
  bool IsStillThere() const;
  void ClosePart();

  std::string m_target;    // the older file, behind all links; empty while a new one is written in place
  struct stat m_old = {};  // what it was like
  std::string m_written;   // what is written; empty when it is no regular file
  FileId m_id;
  int m_part = -1;  // a second descriptor of what is to replace the target
};

}  // namespace mediautil
