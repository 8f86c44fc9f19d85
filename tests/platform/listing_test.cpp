// Names, sizes, listings and owners of files.
#include <sys/stat.h>

#include "platform/file.h"
#include "platform/text.h"
#include "tests/platform/platform_fixture.h"

namespace {

class ListingTest : public PlatformTest {
 protected:
  // Names with ";" between: "a/" makes a directory, "a@target" a symbolic link, "a|" a FIFO, else a file.
  void Make(const std::string& names) {
    for (const std::string& name : String2StrVector(names, ";")) {
      const std::string path = Path(name.substr(0, name.find_first_of("@|")));
      if (path.size() == Path(name).size()) WriteFile(path, "x");
      if (name.back() == '/') std::filesystem::create_directory(path);
      if (name.back() == '|') mkfifo(path.c_str(), 0600);
      if (name.find('@') != std::string::npos) std::filesystem::create_symlink(name.substr(name.find('@') + 1), path);
    }
  }
};

// The paths below dir, each behind a "|"; "-1" comes first on a failure.
std::string List(decltype(GetDirsInDir)& list, const std::string& dir, bool recursive = true, bool hidden = false,
                 const std::string& suffix = "") {
  std::list<std::string> paths = {"left over"};
  std::string text = list(dir, paths, recursive, hidden, suffix) == 0 ? "" : "-1";
  for (const std::string& path : paths) text += (path.rfind(dir, 0) == 0 ? "|" : "?") + path.substr(dir.size());
  return text;
}

TEST_F(ListingTest, NamesAndSizes) {
  std::string text;
  for (const char* path : {"", "a", "a/b", "/a", "//a", "/", "a/", "a//b", "/a/b/", "//", "./a", "/a\n/b c"}) {
    text += GetDirPath(path) + "|" + GetBaseName(path) + ";";
  }
  EXPECT_EQ(text, "|;|a;a|b;/|a;/|a;/|;a|;a|b;/a/b|;/|;.|a;/a\n|b c;");
  Make("dir/;file;big;fifo|;link@big;loop@loop;device@/dev/null");
  ASSERT_EQ(truncate(Path("big").c_str(), 5LL << 30), 0);
  EXPECT_TRUE(GetFileSize(Path("file")) == 1 && GetFileSize(Path("link")) == 5368709120LL);
  for (const char* name : {"dir", "fifo", "loop", "none", "device"}) EXPECT_EQ(GetFileSize(Path(name)), -1) << name;
  EXPECT_EQ(GetFileSize(Path(std::string("file\0", 5))), -1);
}

TEST_F(ListingTest, MakeDir) {
  Make("dir/;file;link@dir;dangling@none");
  const mode_t umaskBefore = umask(027);
  std::string errors;
  for (const std::string& name :
       String2StrVector("a/b/c|a/b/c|a/d//|link/x|file|file/x|dangling|e" + std::string(1, '\0'), "|")) {
    errors += std::to_string(MakeDirIfNotExist(Path(name)) == 0 ? 0 : errno) + " ";
  }
  umask(umaskBefore);
  EXPECT_EQ(errors, StringPrintf("0 0 0 0 %d %d %d %d ", ENOTDIR, ENOTDIR, EEXIST, EINVAL));
  EXPECT_EQ(std::filesystem::status(Path("a/b")).permissions(), std::filesystem::perms(0750));
  EXPECT_TRUE(std::filesystem::is_directory(Path("dir/x")) && std::filesystem::is_directory(Path("a/d")));
}

TEST_F(ListingTest, SortedHiddenAndSuffix) {
  Make(
      "s/;s/b/;s/b/z/;s/b-/;s/b/z/1.mp4;s/b/.h;s/.d/;s/.d/in.mp4;s/.d/in/;s/a b,\xC3\xBC;s/\xFF\n;s/b/srv s;s/B.mp4;"
      "s/v.mp4/;s/...;s/b/up@..;s/passwd@/etc/passwd;s/none@none;s/fifo|;given@s");
  const std::string s = Path("s");
  EXPECT_EQ(List(GetDirsInDir, s), "|/b|/b-|/b/z|/v.mp4");
  EXPECT_EQ(List(GetFilesInDir, s), "|/B.mp4|/a b,\xC3\xBC|/b/srv s|/b/z/1.mp4|/\xFF\n");
  EXPECT_EQ(List(GetDirsInDir, s, true, true), "|/.d|/.d/in|/b|/b-|/b/z|/v.mp4");
  EXPECT_EQ(List(GetFilesInDir, s, false, true), "|/...|/B.mp4|/a b,\xC3\xBC|/\xFF\n");
  EXPECT_EQ(List(GetFilesInDir, s, true, true, ".mp4"), "|/.d/in.mp4|/B.mp4|/b/z/1.mp4");
  EXPECT_EQ(List(GetDirsInDir, s, false, false, ".mp4") + List(GetDirsInDir, s + "/b/z"), "|/v.mp4");
  EXPECT_EQ(List(GetDirsInDir, Path("given/")), "|b|b-|b/z|v.mp4") << "the given one may be a link and end in a slash";
  const std::string refused[] = {Path("none"), s + "/B.mp4", s + "/fifo", s + "/none", s + std::string("\0", 1), ""};
  for (const std::string& dir : refused) EXPECT_EQ(List(GetFilesInDir, dir), "-1") << dir;
}

TEST_F(ListingTest, DeeperThanAnyPathMayBeLong) {
  const pid_t child = StartProcess([&] {
    const std::string name(250, 'd');
    bool made = chdir(Path().c_str()) == 0;
    for (int i = 0; i < 20 && made; ++i) made = mkdir(name.c_str(), 0700) == 0 && chdir(name.c_str()) == 0;
    return made ? 0 : 1;
  });
  ASSERT_EQ(WaitFor(child), 0);
  std::list<std::string> dirs;
  EXPECT_TRUE(GetDirsInDir(Path(), dirs, true, true, "") == -1 && errno == ENAMETOOLONG && dirs.size() == 17);
}

TEST_F(ListingTest, OwnerChangesButNotThroughLinks) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  Make("victim;a;t/;t/f;t/d/;t/d/.h;out/;out/v;link@victim;tlink@t;t/link@../victim;t/out@../out;fifo|");
  ASSERT_EQ(std::system(("chown -hR 65534:65534 '" + Path() + "' && chmod 600 '" + Path("a") + "'").c_str()), 0);
  const auto asOther = [] { return setuid(65533) == 0 && SetFileOwnerToVy("/etc", false) == -1 ? errno : 0; };
  EXPECT_EQ(WaitFor(StartProcess(asOther)), EPERM);
  // The error, and what is ours then.
  const auto take = [this](const std::string& name, bool recursive = false) {
    std::string names = SetFileOwnerToVy(Path(name), recursive) == 0 ? "" : std::to_string(errno);
    for (const char* entry : {"a", "fifo", "link", "out", "out/v", "t", "t/d", "t/d/.h", "t/f", "t/link", "victim"}) {
      struct stat info = {};
      EXPECT_EQ(lstat(Path(entry).c_str(), &info), 0);
      if (info.st_uid == geteuid() && info.st_gid == getegid()) names += std::string(" ") + entry;
    }
    return names;
  };
  const std::pair<const char*, int> refused[] = {
      {"link", ELOOP}, {"tlink/", ELOOP}, {"fifo", EINVAL}, {"none", ENOENT}};
  for (const auto& [name, error] : refused) EXPECT_EQ(take(name, true), std::to_string(error)) << name;
  EXPECT_EQ(take("a", true), " a");
  EXPECT_EQ(take("t"), " a t");
  EXPECT_EQ(take("t/", true), " a t t/d t/d/.h t/f");
  EXPECT_EQ(std::filesystem::status(Path("a")).permissions(), std::filesystem::perms(0600)) << "permissions stay";
}

}  // namespace
