// Places for a program's own files.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace bench {

// An empty file in the system's temporary folder, gone with the object.
class TempFile {
 public:
  TempFile() : m_path((std::filesystem::temp_directory_path() / "mediautil-bench-XXXXXX").string()) {
    const int file = mkstemp(m_path.data());
    if (file < 0) {
      throw std::runtime_error("making a temporary file failed");
    }
    close(file);
  }
  ~TempFile() { std::remove(m_path.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

// A folder in the system's temporary one, gone with the object and all that is in it.
class TempFolder {
 public:
  TempFolder() : m_path((std::filesystem::temp_directory_path() / "mediautil-bench-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
      throw std::runtime_error("making a temporary folder failed");
    }
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

}  // namespace bench
