#include "platform/file.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "tests/platform/platform_fixture.h"

namespace {

int Write(const std::string& bytes, const std::string& path, bool sync = false) {
  return WriteContentFromBufToFile(bytes.data(), static_cast<unsigned int>(bytes.size()), sync, path);
}

unsigned int ModeOf(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

int CountEntries(const std::string& dir) {
  const auto begin = std::filesystem::directory_iterator(dir);
  return static_cast<int>(std::distance(begin, std::filesystem::directory_iterator()));
}

using FileTest = PlatformTest;

TEST_F(FileTest, ReplacesWholeFileAndKeepsItsMode) {
  const std::string path = Dir() + "/file";
  const mode_t umaskBefore = umask(027);
  EXPECT_EQ(Write("first, longer", path), 0);
  umask(umaskBefore);
  EXPECT_EQ(ModeOf(path), 0640u);
  ASSERT_EQ(chmod(path.c_str(), 0606), 0);
  const std::ifstream reader(path);
  EXPECT_EQ(Write(std::string("2nd\0!", 5), path, true), 0);
  EXPECT_EQ(ReadFile(path), std::string("2nd\0!", 5));
  EXPECT_EQ(ModeOf(path), 0606u);
  std::ostringstream old;
  old << reader.rdbuf();
  EXPECT_EQ(old.str(), "first, longer") << "who reads the old file still has it";
  EXPECT_EQ(WriteContentFromBufToFile(nullptr, 0, false, path), 0);
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(CountEntries(Dir()), 1);
}

TEST_F(FileTest, ReplacesALinkAndNotItsTarget) {
  WriteFile(Dir() + "/target", "old");
  std::filesystem::create_symlink("target", Dir() + "/link");
  ASSERT_EQ(chmod((Dir() + "/target").c_str(), 0604), 0);
  EXPECT_EQ(Write("new", Dir() + "/link"), 0);
  EXPECT_NE(ModeOf(Dir() + "/link"), 0604u) << "the target's permissions are not the link's";
  EXPECT_EQ(ReadFile(Dir() + "/target"), "old");
  EXPECT_EQ(ReadFile(Dir() + "/link"), "new");
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(Dir() + "/link")));
}

TEST_F(FileTest, WorksInTheCurrentDirectoryAndPastLeftovers) {
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(Dir());
  const std::string longName(255, 'n');
  for (int i = 0; i < 50; ++i) WriteFile(".write-" + std::to_string(getpid()) + "-" + std::to_string(i), "left");
  EXPECT_EQ(Write("x", longName), 0);
  EXPECT_EQ(ReadFile(longName), "x");
  std::filesystem::current_path(before);
}

TEST_F(FileTest, FailuresLeaveNothingBehind) {
  std::filesystem::create_directory(Dir() + "/dir");
  ASSERT_EQ(mkfifo((Dir() + "/fifo").c_str(), 0600), 0);
  WriteFile(Dir() + "/file", "old");
  const struct {
    std::string path;
    int error;
  } cases[] = {
      {Dir() + "/dir", EEXIST},
      {Dir() + "/fifo", EEXIST},
      {Dir() + "/none/file", ENOENT},
      {Dir() + "/file/x", ENOTDIR},
      {Dir() + "/file/", ENOTDIR},
      {Dir() + "/" + std::string(256, 'n'), ENAMETOOLONG},
      {Dir() + std::string("/file\0x", 7), EINVAL},
      {"", EINVAL},
  };
  for (const auto& c : cases) {
    errno = 0;
    EXPECT_EQ(Write("new", c.path), -1) << c.path;
    EXPECT_EQ(errno, c.error) << c.path;
  }
  EXPECT_EQ(WriteContentFromBufToFile(nullptr, 3, false, Dir() + "/file"), -1);
  EXPECT_EQ(ReadFile(Dir() + "/file"), "old");
  EXPECT_EQ(CountEntries(Dir()), 3);
  EXPECT_EQ(CountEntries(Dir() + "/dir"), 0);
}

// Runs in a process of its own: writes a small file, then a large one that cannot be written whole.
int WriteTooMuch(const std::string& dir, int expectedError) {
  const std::string path = dir + "/file";
  if (Write("old", path) != 0) return 1;
  errno = 0;
  if (Write(std::string(1 << 20, 'x'), path, true) != -1) return 2;
  if (errno != expectedError) return 3;
  if (ReadFile(path) != "old") return 4;
  return CountEntries(dir) == 1 ? 0 : 5;
}

// On a full disk where mounting is allowed, else with a limit on the size of files.
TEST_F(FileTest, FullDiskKeepsTheOldFile) {
  const pid_t child = StartProcess([&] {
    if (unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("none", Dir().c_str(), "tmpfs", 0, "size=64k") == 0) {
      return WriteTooMuch(Dir(), ENOSPC);
    }
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {4096, 4096};
    return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? WriteTooMuch(Dir(), EFBIG) : 6;
  });
  EXPECT_EQ(WaitFor(child), 0);
}

TEST_F(FileTest, ReadOnlyDirectoryKeepsTheOldFile) {
  WriteFile(Dir() + "/file", "old");
  ASSERT_EQ(chmod(Dir().c_str(), 0555), 0);
  const pid_t child = StartProcess([&] {
    if (getuid() == 0 && setuid(65534) != 0) return 2;
    return Write("new", Dir() + "/file") == -1 && errno == EACCES ? 0 : 1;
  });
  EXPECT_EQ(WaitFor(child), 0);
  ASSERT_EQ(chmod(Dir().c_str(), 0755), 0);
  EXPECT_EQ(ReadFile(Dir() + "/file"), "old");
}

}  // namespace
