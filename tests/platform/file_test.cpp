#include "platform/file.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "tests/platform/platform_fixture.h"

namespace {

using FileTest = PlatformTest;

int Write(const std::string& bytes, const std::string& path, bool sync = false) {
  return WriteContentFromBufToFile(bytes.data(), static_cast<unsigned int>(bytes.size()), sync, path);
}

unsigned int ModeOf(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

int CountEntries(const std::string& dir) {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

TEST_F(FileTest, ReplacesWholeFileAndKeepsItsMode) {
  const std::string path = Path("file");
  const mode_t umaskBefore = umask(027);
  EXPECT_EQ(Write("first, longer", path), 0);
  EXPECT_EQ(ModeOf(path), 0640u);
  ASSERT_EQ(chmod(path.c_str(), 0606), 0);
  const std::ifstream reader(path);
  EXPECT_EQ(Write(std::string("2nd\0!", 5), path, true), 0);
  EXPECT_EQ(ReadFile(path), std::string("2nd\0!", 5));
  EXPECT_EQ(ModeOf(path), 0606u);
  std::ostringstream old;
  old << reader.rdbuf();
  EXPECT_EQ(old.str(), "first, longer") << "who reads the old file still has it";

  std::filesystem::create_symlink("file", Path("link"));
  EXPECT_EQ(WriteContentFromBufToFile(nullptr, 0, false, Path("link")), 0);
  EXPECT_EQ(ReadFile(path).size(), 5u) << "a link is replaced and not its target";
  EXPECT_EQ(ReadFile(Path("link")), "");
  EXPECT_EQ(ModeOf(Path("link")), 0640u) << "nor has the new file its permissions";
  umask(umaskBefore);
  EXPECT_EQ(CountEntries(Path()), 2);
}

TEST_F(FileTest, FailuresLeaveNothingBehind) {
  std::filesystem::create_directory(Path("dir"));
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  WriteFile(Path("file"), "old");
  const std::string holdsNull("file\0x", 6);
  const std::pair<std::string, int> cases[] = {
      {"dir", EEXIST}, {"fifo", EEXIST}, {"none/file", ENOENT}, {"file/x", ENOTDIR}, {holdsNull, EINVAL}};
  for (const auto& [name, error] : cases) {
    errno = 0;
    EXPECT_EQ(Write("new", Path(name)), -1) << name;
    EXPECT_EQ(errno, error) << name;
  }
  EXPECT_EQ(Write("new", ""), -1);
  EXPECT_EQ(WriteContentFromBufToFile(nullptr, 3, false, Path("file")), -1);
  EXPECT_EQ(ReadFile(Path("file")), "old");
  EXPECT_EQ(CountEntries(Path()) + CountEntries(Path("dir")), 3);
}

// On a full disk where mounting is allowed, else with a limit on the size of files.
TEST_F(FileTest, FullDiskKeepsTheOldFile) {
  const pid_t child = StartProcess([&] {
    const bool mounted = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount("none", Path().c_str(), "tmpfs", 0, "size=64k") == 0;
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {4096, 4096};
    if (!mounted && setrlimit(RLIMIT_FSIZE, &limit) != 0) return 1;
    if (Write("old", Path("file")) != 0) return 2;
    if (Write(std::string(1 << 20, 'x'), Path("file"), true) != -1) return 3;
    if (errno != (mounted ? ENOSPC : EFBIG)) return 4;
    return ReadFile(Path("file")) == "old" && CountEntries(Path()) == 1 ? 0 : 5;
  });
  EXPECT_EQ(WaitFor(child), 0);
}

}  // namespace
