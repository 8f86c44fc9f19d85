// A directory that goes with its contents at the end of a test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "mediautil_XXXXXX").string();
    m_path = mkdtemp(pattern.data());
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string Path(const std::string& name) const { return m_path + "/" + name; }
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};
