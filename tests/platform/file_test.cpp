#include "platform/file.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "platform/sync.h"
#include "tests/platform/platform_fixture.h"

namespace {

using FileTest = PlatformTest;

int Write(const std::string& bytes, const std::string& path, bool sync = false) {
  return WriteContentFromBufToFile(bytes.data(), static_cast<unsigned int>(bytes.size()), sync, path);
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

// The second process finds what the first one left under its own name, as if it had the same number.
TEST_F(FileTest, KilledProcessesLeaveOneFileForANumber) {
  std::string leftover;
  for (const rlim_t limit : {4096U, 8192U}) {
    const pid_t killed = StartProcess([&] {
      const std::string own =
          leftover.substr(0, leftover.rfind('-', leftover.rfind('-') - 1) + 1) + std::to_string(getpid()) + "-0";
      const rlimit limits = {limit, limit};
      if (!leftover.empty() && rename(leftover.c_str(), own.c_str()) != 0) return 1;
      std::signal(SIGXFSZ, SIG_DFL);
      return setrlimit(RLIMIT_FSIZE, &limits) + Write(std::string(1 << 20, 'x'), Path("file")) == 0 ? 2 : 3;
    });
    EXPECT_EQ(WaitFor(killed), -1);
    ASSERT_EQ(CountEntries(Path()), 1);
    leftover = std::filesystem::directory_iterator(Path())->path();
    EXPECT_EQ(GetFileSize(leftover), static_cast<long long>(limit));
  }
}

TEST_F(FileTest, NewDirectoriesAreForTheGroupToo) {
  const std::pair<mode_t, std::string> cases[] = {{0, "a/b"}, {077, "c/d"}, {077, "set/e"}};
  std::filesystem::create_directory(Path("set"));
  ASSERT_EQ(chmod(Path("set").c_str(), 02700), 0);
  for (const auto& [mask, path] : cases) {
    const mode_t umaskBefore = umask(mask);
    EXPECT_EQ(MakeDirIfNotExist(Path(path)), 0);
    umask(umaskBefore);
  }
  for (const char* path : {"a", "a/b", "c", "c/d"}) EXPECT_EQ(ModeOf(Path(path)), 0750u) << path;
  EXPECT_TRUE(ModeOf(Path("set")) == 02700 && ModeOf(Path("set/e")) == 02750);
}

int ErrorOf(int result) {
  return result == 0 ? 0 : errno;
}

TEST_F(FileTest, LocksShareAndExclude) {
  using Take = int (VyFlock::*)(int);
  constexpr Take kSh = &VyFlock::LockSh;
  constexpr Take kEx = &VyFlock::LockEx;
  const std::tuple<Take, Take, int> cases[] = {
      {kSh, kSh, 0}, {kSh, kEx, EWOULDBLOCK}, {kEx, kSh, EWOULDBLOCK}, {kEx, kEx, EWOULDBLOCK}};
  int row = 0;
  for (const auto& [first, second, error] : cases) {
    VyFlock a(Path("lock"));
    VyFlock b(Path("lock"));
    EXPECT_EQ(a.UnLock() + (a.*first)(-1), 0) << row;
    for (const int timeout : {0, 30}) EXPECT_EQ(ErrorOf((b.*second)(timeout)), error) << row;
    EXPECT_EQ(b.UnLock() + a.UnLock(), 0) << row;
    EXPECT_EQ((b.*second)(0) + b.LockEx(0) + b.LockSh(0) + a.LockSh(0), 0) << "changed in place, " << row;
    ++row;
  }
  pid_t child = 0;
  {
    VyFlock lock(Path("lock"));
    EXPECT_EQ(lock.LockEx(0), 0) << "an instance gives its lock back";
    child = StartProcess(pause);
  }
  EXPECT_EQ(VyFlock(Path("lock")).LockEx(0), 0) << "for the child too";
  kill(child, SIGKILL);
  EXPECT_EQ(WaitFor(child), -1);
}

TEST_F(FileTest, KilledProcessKeepsNoLock) {
  int toChild[2];
  int toParent[2];
  ASSERT_EQ(pipe(toChild) + pipe(toParent), 0);
  char byte = 0;
  const pid_t holder = StartProcess([&] {
    VyFlock lock(Path("lock"));
    const bool done = lock.LockEx(-1) == 0 && write(toParent[1], "x", 1) == 1 && read(toChild[0], &byte, 1) == 1;
    usleep(20000);  // by then the other one waits
    return done ? raise(SIGKILL) : 1;
  });
  ASSERT_EQ(read(toParent[0], &byte, 1), 1);
  VyFlock lock(Path("lock"));
  EXPECT_EQ(ErrorOf(lock.LockSh(0)), EWOULDBLOCK);
  EXPECT_EQ(write(toChild[1], "x", 1), 1);
  EXPECT_EQ(lock.LockEx(-1), 0);
  EXPECT_EQ(WaitFor(holder), -1);
  for (const int fd : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(fd);
}

TEST_F(FileTest, LockFilesAreRegular) {
  WriteFile(Path("file"), "");
  std::filesystem::create_directory(Path("dir"));
  std::filesystem::create_symlink("file", Path("link"));
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  const std::pair<std::string, int> cases[] = {{"link", ELOOP},       {"fifo", EINVAL},    {"dir", EINVAL},
                                               {"none/lock", ENOENT}, {"file/x", ENOTDIR}, {{"file\0", 5}, EINVAL}};
  for (const auto& [name, error] : cases) EXPECT_EQ(ErrorOf(VyFlock(Path(name)).LockSh(-1)), error) << name;

  // A directory in which nothing can be made, for a user whom that concerns.
  WriteFile(Path("dir/lock"), "");
  for (const char* name : {"", "dir", "dir/lock"}) ASSERT_EQ(chmod(Path(name).c_str(), 0555), 0);
  const pid_t user = StartProcess([&] {
    if (geteuid() == 0 && setuid(65534) != 0) return 1;
    return VyFlock(Path("dir/lock")).LockEx(0) == 0 && ErrorOf(VyFlock(Path("dir/new")).LockEx(0)) == EACCES ? 0 : 2;
  });
  EXPECT_EQ(WaitFor(user), 0);
  for (const char* name : {"", "dir"}) ASSERT_EQ(chmod(Path(name).c_str(), 0755), 0);
}

}  // namespace
