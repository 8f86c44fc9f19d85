// The output of a command whose result does not fit into memory.
#pragma once

#include <cstdint>
#include <string>

// A file that takes its name, and an older file's place, when it is complete; or stdout for "-".
class OutputFile {
 public:
  explicit OutputFile(const std::string& output) : m_output(output) {}
  // Removes what was not committed.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // kDone, or prints the error.
  int Open();

  // A write callback over an OutputFile. After a failure, or a signal to stop, it fails.
  static int Write(void* self, unsigned char* data, int size);
  bool IsFailed() const { return m_error != 0; }
  std::int64_t Size() const { return m_size; }

  // Puts the file into its place, on the disk. kDone, or prints the error, also that of an earlier write.
  int Commit();

 private:
  bool Append(const unsigned char* data, int size);
  int FailWrite() const;

  std::string m_output;
  std::string m_temporary;
  int m_fd = -1;
  int m_error = 0;  // errno of the first failure
  std::int64_t m_size = 0;
};
