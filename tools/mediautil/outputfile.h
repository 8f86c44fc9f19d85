// The output of a command whose result does not fit into memory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

// A file that takes its name, and an older file's place, when it is complete; or stdout for "-".
class OutputFile {
 public:
  // what: what messages call it, such as a "recording". ending: of Path, for somebody who goes by that.
  OutputFile(const std::string& output, const std::string& what, const std::string& ending = "")
      : m_output(output), m_what(what), m_ending(ending) {}
  // Removes what was not committed.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // kDone, or prints the error.
  int Open();

  // A write callback over an OutputFile. After a failure, or a signal to stop, it fails.
  static int Write(void* self, unsigned char* data, int size);
  bool IsFailed() const { return m_error != 0; }
  int Error() const { return m_error; }  // errno of the first failure
  std::int64_t Size() const { return m_size; }

  // For somebody else who writes: the file by the name that it has until the end, empty for stdout.
  const std::string& Path() const { return m_temporary; }
  // What that writing failed with. False for an errno that tells of something else.
  bool TakeError(int error);

  // Puts the file into its place, on the disk. kDone, or prints the error, also that of an earlier write, or that a
  // signal came.
  int Commit();

 private:
  bool Append(const unsigned char* data, int size);
  int FailWrite() const;

  std::string m_output;
  std::string m_what;
  std::string m_ending;
  std::string m_temporary;
  std::optional<mode_t> m_mode;  // of the file that it replaces
  int m_fd = -1;
  int m_error = 0;
  std::int64_t m_size = 0;
};
