#include "platform/log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/platform/platform_fixture.h"

namespace {

__attribute__((format(printf, 1, 2))) int Log(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result =
      VyVPrintf(LOG_TYPE_DEFAULT, "MEDIA", "WARN", "utils/mpeg4util", 42, "DoFFMpegDecode", format, args);
  va_end(args);
  return result;
}

__attribute__((format(printf, 1, 2))) int LogNulls(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = VyVPrintf(LOG_TYPE_DEFAULT, nullptr, nullptr, nullptr, 0, nullptr, format, args);
  va_end(args);
  return result;
}

std::int32_t Word(const std::string& record, std::size_t offset) {
  std::int32_t value = 0;
  if (offset + sizeof(value) <= record.size()) std::memcpy(&value, record.data() + offset, sizeof(value));
  return value;
}

class LogTest : public PlatformTest {
 protected:
  // The message part of the only line, or the whole file when it is not one line.
  std::string LoggedText() const {
    const std::string file = ReadFile(LogFile());
    const std::string mark = " utils/mpeg4util:42 DoFFMpegDecode: ";
    const std::size_t pos = file.find(mark);
    const bool oneLine = !file.empty() && file.find('\n') == file.size() - 1;
    if (pos == std::string::npos || !oneLine) return file;
    return file.substr(pos + mark.size(), file.size() - 1 - pos - mark.size());
  }
};

TEST_F(LogTest, OneLineForEachMessage) {
  errno = EPIPE;
  const int written = Log("Failed to %s %d.\n", "open", 7);
  EXPECT_EQ(errno, EPIPE);
  LogNulls(nullptr);
  std::ifstream in(LogFile());
  const std::string pid = " [" + std::to_string(getpid()) + "] ";
  for (const char* expected : {"MEDIA WARN utils/mpeg4util:42 DoFFMpegDecode: Failed to open 7.", "- - -:0 -: -"}) {
    std::string line;
    std::getline(in, line);
    std::replace_if(
        line.begin(), line.begin() + 23, [](char c) { return c >= '0' && c <= '9'; }, 'd');
    EXPECT_EQ(line, "dddd-dd-dd dd:dd:dd.ddd" + pid + expected);
  }
  EXPECT_EQ(in.peek(), EOF);
  EXPECT_EQ(static_cast<std::size_t>(written), ReadFile(LogFile()).find('\n') + 1);
  struct stat info = {};
  ASSERT_EQ(stat(LogFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07137, 0u);
}

TEST_F(LogTest, NoMessageForgesALine) {
  const std::string many(8192, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"end\r\n\n", "end"},
      {"", ""},
      {"a\n2026-01-01 00:00:00.000 [1] MEDIA ERR forged", "a?2026-01-01 00:00:00.000 [1] MEDIA ERR forged"},
      {"\x1b[2Jtab\tbell\a\x7f", "?[2Jtab?bell??"},
      {"\xC2\x9B[2J \xC2\x85 \xE2\x80\xA8 \xE2\x80\xA9", "?[2J ? ? ?"},
      {"Kamera K\xC3\xBC\xC2\xA0\xE2\x80\xA6 \xE9\x96\x80", "Kamera K\xC3\xBC\xC2\xA0\xE2\x80\xA6 \xE9\x96\x80"},
      {"Cookie: id=abc\nHost: x", "Cookie: ***?Host: x"},
      {many + "\n", many},
      {many + "y", many + "..."},
      {many.substr(1) + "\xC3\xBC", many.substr(1) + "..."},
      {many.substr(3) + "\xE9\x96\x80z", many.substr(3) + "\xE9\x96\x80..."},
      {std::string(100000, 'x'), many + "..."},
      {many.substr(6) + "_sid=abcdef", many.substr(6) + "_sid=***..."},
  };
  for (const auto& [message, expected] : cases) {
    std::filesystem::remove(LogFile());
    Log("%s", message.c_str());
    EXPECT_EQ(LoggedText(), expected);
  }
}

// A datagram socket shows where one write ends and the next begins.
TEST_F(LogTest, StderrGetsOneWrite) {
  unsetenv("MEDIAUTIL_LOG_FILE");
  int sockets[2] = {};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets), 0);
  const int savedStderr = dup(STDERR_FILENO);
  dup2(sockets[0], STDERR_FILENO);
  const int written = Log("%s", std::string(9000, 'x').c_str());
  dup2(savedStderr, STDERR_FILENO);
  std::string line(20000, '\0');
  const ssize_t received = recv(sockets[1], line.data(), line.size(), MSG_DONTWAIT);
  for (const int fd : {savedStderr, sockets[0], sockets[1]}) close(fd);
  ASSERT_GT(received, 8192);
  EXPECT_EQ(received, written);
  EXPECT_EQ(line.substr(static_cast<std::size_t>(received) - 5, 5), "x...\n");
}

TEST_F(LogTest, FileIsMadeAnewWhenMovedAwayAndNeverALink) {
  EXPECT_GT(Log("one"), 0);
  std::filesystem::rename(LogFile(), LogFile() + ".1");
  EXPECT_GT(Log("two"), 0);
  EXPECT_EQ(LoggedText(), "two");
  std::filesystem::remove(LogFile());
  std::filesystem::create_symlink(LogFile() + ".1", LogFile());
  EXPECT_LT(Log("three"), 0);
  setenv("MEDIAUTIL_LOG_FILE", (Dir() + "/none/test.log").c_str(), 1);
  EXPECT_LT(Log("four"), 0);
}

TEST_F(LogTest, RecordLayoutInTheFile) {
  ASSERT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 6), 0);
  std::string record = ReadFile(Record());
  ASSERT_EQ(record.size(), 4096u);
  EXPECT_EQ(Word(record, 0), 0);
  for (std::size_t categ = 0; categ < 512; ++categ) EXPECT_EQ(Word(record, 4 + 4 * categ), categ == 75 ? 6 : 3);
  EXPECT_EQ(Word(record, 304), 6);
  EXPECT_EQ(Word(record, 2052), 0);

  ASSERT_EQ(SetDbgLogPids({11, 12, 13}), 0);
  ASSERT_EQ(SetDbgLogPids({21, 22}), 0);
  record = ReadFile(Record());
  EXPECT_EQ(Word(record, 304), 6);
  EXPECT_EQ(Word(record, 2052), 2);
  EXPECT_EQ(Word(record, 2056), 21);
  EXPECT_EQ(Word(record, 2060), 22);
  EXPECT_EQ(Word(record, 2064), 0);
  ASSERT_EQ(SetDbgLogPids(std::vector<int>(510, 9)), 0);
  EXPECT_EQ(Word(ReadFile(Record()), 4092), 9);
  ASSERT_EQ(SetDbgLogPids({}), 0);
  EXPECT_EQ(Word(ReadFile(Record()), 2052), 0);
}

TEST_F(LogTest, RefusedChangesLeaveTheRecord) {
  ASSERT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 7), 0);
  const std::string before = ReadFile(Record());
  EXPECT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 8), -1);
  EXPECT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, -1), -1);
  EXPECT_EQ(SetDbgLogLevel(static_cast<LOG_CATEG>(512), 3), -1);
  EXPECT_EQ(SetDbgLogLevel(static_cast<LOG_CATEG>(-1), 3), -1);
  EXPECT_EQ(SetDbgLogPids({1, 0}), -1);
  EXPECT_EQ(SetDbgLogPids({-5}), -1);
  EXPECT_EQ(SetDbgLogPids(std::vector<int>(511, 9)), -1);
  EXPECT_EQ(ReadFile(Record()), before);
  setenv("MEDIAUTIL_STATE_DIR", "", 1);
  EXPECT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 3), -1);
  setenv("MEDIAUTIL_STATE_DIR", LogFile().c_str(), 1);
  WriteFile(LogFile(), "a file");
  EXPECT_EQ(SetDbgLogPids({1}), -1);
}

TEST_F(LogTest, MappedRecordFollowsAnotherProcess) {
  ASSERT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 5), 0);
  ReinitDbgLogCfg();
  ASSERT_NE(g_pDbgLogCfg, nullptr);
  const DbgLogCfg* const mapped = g_pDbgLogCfg;
  EXPECT_EQ(__atomic_load_n(&mapped->categLevel[LOG_CATEG_MEDIA], __ATOMIC_ACQUIRE), 5);
  const pid_t child = StartProcess([] { return SetDbgLogLevel(LOG_CATEG_MEDIA, 7) + SetDbgLogPids({1234}); });
  ASSERT_EQ(WaitFor(child), 0);
  EXPECT_EQ(__atomic_load_n(&mapped->categLevel[LOG_CATEG_MEDIA], __ATOMIC_ACQUIRE), 7);
  EXPECT_EQ(__atomic_load_n(&mapped->pidCount, __ATOMIC_ACQUIRE), 1);
  EXPECT_EQ(__atomic_load_n(&mapped->pids[0], __ATOMIC_ACQUIRE), 1234);
  ReinitDbgLogCfg();
  EXPECT_EQ(g_pDbgLogCfg, mapped);
}

TEST_F(LogTest, WhatIsNoRecordIsNotMapped) {
  const auto stays = [](const char* what) {
    errno = EPIPE;
    ReinitDbgLogCfg();
    EXPECT_EQ(g_pDbgLogCfg, nullptr) << what;
    EXPECT_EQ(errno, EPIPE) << what;
  };
  stays("absent directory");
  std::filesystem::create_directory(StateDir());
  stays("absent");
  WriteFile(Record(), std::string(4095, '\3'));
  stays("short");
  EXPECT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 4), 0) << "a short file is replaced";
  std::filesystem::rename(Record(), Record() + ".real");
  std::filesystem::create_symlink(Record() + ".real", Record());
  stays("link");
  EXPECT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 6), -1);
  EXPECT_EQ(Word(ReadFile(Record() + ".real"), 304), 4);
  std::filesystem::remove(Record());
  ASSERT_EQ(mkfifo(Record().c_str(), 0600), 0);
  stays("pipe");
  std::filesystem::remove(Record());
  std::filesystem::create_directory(Record());
  stays("directory");
  unsetenv("MEDIAUTIL_STATE_DIR");
  stays("no state");
  DbgLogCfg own = {};
  g_pDbgLogCfg = &own;
  ReinitDbgLogCfg();
  EXPECT_EQ(g_pDbgLogCfg, &own);
  g_pDbgLogCfg = nullptr;
}

TEST_F(LogTest, ThreadsMapOnceAndWriteWholeLines) {
  ASSERT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 5), 0);
  constexpr int kThreads = 4;
  constexpr int kLines = 50;
  std::vector<DbgLogCfg*> seen(kThreads);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &seen] {
      ReinitDbgLogCfg();
      seen[t] = __atomic_load_n(&g_pDbgLogCfg, __ATOMIC_ACQUIRE);
      for (int i = 0; i < kLines; ++i) Log("%s", std::string(2000, static_cast<char>('a' + t)).c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const DbgLogCfg* record : seen) EXPECT_EQ(record, g_pDbgLogCfg);
  EXPECT_NE(g_pDbgLogCfg, nullptr);

  std::ifstream in(LogFile());
  int count = 0;
  for (std::string line; std::getline(in, line); ++count) {
    ASSERT_GT(line.size(), 2000u);
    const std::string text = line.substr(line.size() - 2000);
    ASSERT_EQ(text, std::string(2000, text[0]));
  }
  EXPECT_EQ(count, kThreads * kLines);
}

TEST_F(LogTest, EnumTexts) {
  const VyEnum2StrMap<LOG_CATEG> categories;
  EXPECT_STREQ(categories.Find(LOG_CATEG_ARCHPUSH), "ARCHPUSH");
  EXPECT_STREQ(categories.Find(LOG_CATEG_MEDIA), "MEDIA");
  EXPECT_EQ(categories.Find(static_cast<LOG_CATEG>(1)), nullptr);
  const VyEnum2StrMap<LOG_LEVEL> levels;
  const char* const expected[] = {"ERR", "CRIT", "WARN", "NOTE", "INFO", "DEBUG", "TRACE"};
  for (int i = 0; i < 7; ++i) EXPECT_STREQ(levels.Find(static_cast<LOG_LEVEL>(i + 1)), expected[i]);
  EXPECT_EQ(levels.Find(static_cast<LOG_LEVEL>(0)), nullptr);
}

}  // namespace
