// A private state directory and log file for each test, and helpers that several tests share.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/log.h"
#include "tests/support/tempdir.h"

class PlatformTest : public testing::Test, protected TempDir {
 protected:
  PlatformTest() {
    setenv("MEDIAUTIL_STATE_DIR", StateDir().c_str(), 1);
    setenv("MEDIAUTIL_LOG_FILE", LogFile().c_str(), 1);
  }
  ~PlatformTest() override {
    unsetenv("MEDIAUTIL_STATE_DIR");
    unsetenv("MEDIAUTIL_LOG_FILE");
    if (g_pDbgLogCfg != nullptr) munmap(g_pDbgLogCfg, sizeof(DbgLogCfg));
    g_pDbgLogCfg = nullptr;
  }

  std::string StateDir() const { return Path("state"); }
  std::string LogFile() const { return Path("test.log"); }
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// The permissions of a file, of a link its own; 0 without one.
inline unsigned int ModeOf(const std::string& path) {
  struct stat info = {};
  return lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

// Starts a process that runs the function and exits with its result.
template <typename F>
pid_t StartProcess(F function) {
  const pid_t pid = fork();
  if (pid == 0) _exit(function());
  return pid;
}

// Its exit code, or -1 when it ended otherwise.
inline int WaitFor(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
