#include "platform/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/platform/platform_fixture.h"

namespace {

// Without a level all texts are null.
__attribute__((format(printf, 2, 3))) int Log(const char* level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const auto text = [level](const char* other) { return level == nullptr ? nullptr : other; };
  const int result =
      VyVPrintf(LOG_TYPE_DEFAULT, text("MEDIA"), level, text("utils/a"), 42, text("Decode"), format, args);
  va_end(args);
  return result;
}

class LogTest : public PlatformTest {
 protected:
  std::string Record() const { return StateDir() + "/dbglog.cfg"; }
  std::int32_t Word(std::size_t offset) const {
    const std::string record = ReadFile(Record());
    std::int32_t value = -1;
    if (offset + sizeof(value) <= record.size()) std::memcpy(&value, record.data() + offset, sizeof(value));
    return value;
  }
};

TEST_F(LogTest, OneLineForEachMessage) {
  errno = EPIPE;
  const int written = Log("WARN", "Failed to %s %d.\n", "open", 7);
  EXPECT_EQ(errno, EPIPE);
  Log(nullptr, "%s", "");
  std::ifstream in(LogFile());
  std::string first;
  std::string second;
  std::getline(std::getline(in, first), second);
  EXPECT_EQ(static_cast<std::size_t>(written), first.size() + 1);
  std::replace_if(
      first.begin(), first.begin() + 23, [](char c) { return std::isdigit(c) != 0; }, 'd');
  const std::string pid = " [" + std::to_string(getpid()) + "] ";
  EXPECT_EQ(first, "dddd-dd-dd dd:dd:dd.ddd" + pid + "MEDIA WARN utils/a:42 Decode: Failed to open 7.");
  EXPECT_EQ(second.substr(23), pid + "- - -:42 -: ");
  EXPECT_EQ(std::filesystem::status(LogFile()).permissions() & std::filesystem::perms(07137), std::filesystem::perms());
  std::filesystem::rename(LogFile(), Path("moved"));
  std::filesystem::create_symlink("moved", LogFile());
  EXPECT_LT(Log("WARN", "never through a link"), 0);
}

TEST_F(LogTest, NoMessageForgesALine) {
  const std::string many(8192, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"a\n2026-01-01 00:00:00.000 [1] MEDIA ERR forged", "a?2026-01-01 00:00:00.000 [1] MEDIA ERR forged"},
      {"\x1b[2Jtab\tbell\a\x7f", "?[2Jtab?bell??"},
      {"\xC2\x9B[2J \xC2\x85 \xE2\x80\xA8 \xE2\x80\xA9", "?[2J ? ? ?"},
      {"Kamera K\xC3\xBC\xC2\xA0\xE2\x80\xA6 \xE9\x96\x80", "Kamera K\xC3\xBC\xC2\xA0\xE2\x80\xA6 \xE9\x96\x80"},
      {"Cookie: id=abc\nHost: x", "Cookie: ***?Host: x"},
      {many + "\r\n\n", many},
      {many + "y", many + "..."},
      {many.substr(3) + "\xF0\x9F\x98\x80", many.substr(3) + "..."},
      {many.substr(3) + "\xE9\x96\x80z", many.substr(3) + "\xE9\x96\x80..."},
      {std::string(100000, 'x'), many + "..."},
      {many.substr(6) + "_sid=abcdef", many.substr(6) + "_sid=***..."}};
  for (const auto& [message, expected] : cases) {
    std::filesystem::remove(LogFile());
    Log("WARN", "%s", message.c_str());
    const std::string file = ReadFile(LogFile());
    EXPECT_EQ(file.substr(file.find("Decode: ") + 8), expected + "\n");
  }
}

TEST_F(LogTest, RecordInTheFile) {
  ASSERT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 6), 0);
  EXPECT_EQ(ReadFile(Record()).size(), 4096u);
  for (std::size_t categ = 0; categ < 512; ++categ) EXPECT_EQ(Word(4 + 4 * categ), categ == 75 ? 6 : 3);
  EXPECT_EQ(Word(304), 6);
  EXPECT_EQ(Word(2052), 0);
  ASSERT_EQ(SetDbgLogPids({11, 12, 13}), 0);
  ASSERT_EQ(SetDbgLogPids({21, 22}), 0);
  const std::pair<std::size_t, int> words[] = {{0, 0}, {304, 6}, {2052, 2}, {2056, 21}, {2060, 22}, {2064, 0}};
  for (const auto& [offset, value] : words) EXPECT_EQ(Word(offset), value) << offset;
  ASSERT_EQ(SetDbgLogPids(std::vector<int>(510, 9)), 0);
  EXPECT_EQ(Word(4092), 9);

  const std::string before = ReadFile(Record());
  const std::pair<int, int> levels[] = {{75, 8}, {75, -1}, {512, 3}, {-1, 3}};
  for (const auto& [categ, level] : levels) EXPECT_EQ(SetDbgLogLevel(static_cast<LOG_CATEG>(categ), level), -1);
  EXPECT_EQ(SetDbgLogPids({1, 0}), -1);
  EXPECT_EQ(SetDbgLogPids(std::vector<int>(511, 9)), -1);
  EXPECT_EQ(ReadFile(Record()), before);
  setenv("MEDIAUTIL_STATE_DIR", "", 1);
  EXPECT_EQ(SetDbgLogPids({1}), -1);
}

TEST_F(LogTest, MappedRecordFollowsAnotherProcess) {
  ASSERT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 5), 0);
  ReinitDbgLogCfg();
  const DbgLogCfg* const mapped = g_pDbgLogCfg;
  ASSERT_NE(mapped, nullptr);
  EXPECT_EQ(mapped->categLevel[LOG_CATEG_MEDIA], 5);
  ASSERT_EQ(WaitFor(StartProcess([] { return SetDbgLogLevel(LOG_CATEG_MEDIA, 7) + SetDbgLogPids({1234}); })), 0);
  EXPECT_EQ(mapped->categLevel[LOG_CATEG_MEDIA], 7);
  EXPECT_EQ(mapped->pidCount * 10000 + mapped->pids[0], 11234);
  ReinitDbgLogCfg();
  EXPECT_EQ(g_pDbgLogCfg, mapped);
}

TEST_F(LogTest, WhatIsNoRecordIsNotMapped) {
  const auto stays = [](const char* what) {
    errno = EPIPE;
    ReinitDbgLogCfg();
    EXPECT_TRUE(g_pDbgLogCfg == nullptr && errno == EPIPE) << what;
  };
  stays("absent");
  std::filesystem::create_directory(StateDir());
  WriteFile(Record(), std::string(4095, '\3'));
  stays("short");
  EXPECT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 4), 0) << "a short file is replaced";
  std::filesystem::rename(Record(), Path("real"));
  std::filesystem::create_symlink(Path("real"), Record());
  stays("link");
  EXPECT_EQ(SetDbgLogLevel(LOG_CATEG_MEDIA, 6), -1);
}

TEST_F(LogTest, ThreadsWriteWholeLines) {
  std::vector<std::thread> threads;
  for (const char mark : {'a', 'b', 'c', 'd'}) {
    threads.emplace_back([mark] {
      ReinitDbgLogCfg();
      for (int i = 0; i < 50; ++i) Log("WARN", "%s", std::string(2000, mark).c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::ifstream in(LogFile());
  int count = 0;
  for (std::string line; std::getline(in, line); ++count) {
    EXPECT_EQ(line.substr(line.find("Decode: ") + 8), std::string(2000, line.back()));
  }
  EXPECT_EQ(count, 200);
}

}  // namespace
