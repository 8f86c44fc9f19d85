// What the tests of the archive push share: a state directory, a log that hears the sender alone, and files to send.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "archiving/archivesender.h"
#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/tempdir.h"

using Lines = std::vector<std::string>;

class ArchivingTest : public testing::Test, public WebapiSender, protected TempDir {
 protected:
  ArchivingTest() {
    setenv("MEDIAUTIL_STATE_DIR", Path("state").c_str(), 1);
    log.cfg.categLevel[LOG_CATEG_MEDIA] = 0;
    log.cfg.categLevel[LOG_CATEG_ARCHPUSH] = LOG_LEVEL_TRACE;
  }
  ~ArchivingTest() override { unsetenv("MEDIAUTIL_STATE_DIR"); }

  // "level|function|text" of what the sender has said since the last call, with PATH for that text.
  Lines Said(const std::string& path = "") {
    Lines said;
    for (const LogLine& line : log.Lines()) {
      std::string text = line.level + "|" + line.function + "|" + line.text;
      const std::size_t at = path.empty() ? std::string::npos : text.find(path);
      if (at != std::string::npos) text.replace(at, path.size(), "PATH");
      if (line.path == "archiving/archivesender") said.push_back(text);
    }
    log.Clear();
    return said;
  }

  // Writes a file of the test's directory, and the directories above it. Its path.
  std::string Make(const std::string& name, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(Path(name)).parent_path());
    SaveBytes(Path(name), bytes.data(), bytes.size());
    return Path(name);
  }
  static ArchFile File(const std::string& path, ARCH_FILE_TYPE type = ARCH_FILE_PLAIN) {
    ArchFile file;
    file.SetFileType(type);
    file.SetFilePath(path);
    return file;
  }
  void OnFileSent(long long sent, long long total) override {
    if (onSent) onSent(sent, total);
  }

  std::function<void(long long sent, long long total)> onSent;
  LogCapture log;
};
