// Where received files go: below one directory and never out of it, whatever the names say. An empty root stores
// nothing.
#pragma once

#include <string>
#include <vector>

namespace testserver {

// Error codes of the web API. 0 is success.
enum Code : int {
  kBadParameter = 101,
  kNoApi = 102,
  kNoMethod = 103,
  kNoVersion = 104,
  kNotLoggedIn = 105,
  kWrongLogin = 400,
  kStoreFailed = 401,
  kBadPath = 407,
  kNoSpace = 487,
  kExists = 518,
};

// One file on its way into the store. It takes its name, with Commit, when it is complete. All return 0 or a code, and
// without Open do nothing.
class StoredFile {
 public:
  StoredFile() = default;
  ~StoredFile();
  StoredFile(const StoredFile&) = delete;
  StoredFile& operator=(const StoredFile&) = delete;

  int Open(const std::string& root, const std::string& dir, const std::string& name, bool overwrite);
  int Write(const char* data, std::size_t size) const;
  int Commit() const;

 private:
  int m_fd = -1;
  std::string m_path;
  std::string m_temporary;
  bool m_overwrite = false;
};

// Both: 0 or a code.
int MakeDirs(const std::string& root, const std::vector<std::string>& dirs);
int MoveDir(const std::string& root, const std::string& from, const std::string& to);

}  // namespace testserver
