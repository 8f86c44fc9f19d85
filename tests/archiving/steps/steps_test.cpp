// The sender's steps, with the platform's HTTP topic as a script.
#include <linux/capability.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "platform/db.h"
#include "platform/http.h"
#include "platform/webapi.h"
#include "tests/archiving/archiving_fixture.h"

namespace {

struct Net {
  int openResult = 0;
  int badWrite = -1;  // its number, from 0
  int badWriteResult = 0;
  int replyAtPoll = -1;  // the poll, from 0, from which on a reply is there
  bool replies = true;   // to the final wait
  int badPost = -1;
  std::string reply = R"({"data":{"sid":"S1"},"success":true})";

  Lines calls = {};  // "post20 https://nvr:5001/webapi/entry.cgi COOKIE PARAMS"
  int posts = 0;
  std::string steps = {};  // of the last upload
  std::string body = {};   // its first part
  long long bytes = 0;
  int writes = 0;
  int polls = 0;
};
Net g_net;

void Step(const std::string& step) {
  g_net.steps += (g_net.steps.empty() ? "" : " ") + step;
}

void Ask(const std::string& what, int timeout, bool https, const std::string& host, int port, const std::string& rest) {
  g_net.calls.push_back(what + std::to_string(timeout) + (https ? " https://" : " http://") + host + ":" +
                        std::to_string(port) + rest);
}

}  // namespace

int usleep(useconds_t pause) {
  Step(pause == 1000 ? "sleep" : std::to_string(pause) + "us");
  return 0;
}

class VyNet::VyHttpClient::Impl {};
VyNet::VyHttpClient::VyHttpClient() = default;
VyNet::VyHttpClient::~VyHttpClient() = default;

void VyNet::VyHttpClient::Init(const std::string& path, const std::string& host, int port, const std::string&,
                               const std::string&, int timeout, bool, bool, bool, HTTP_VERSION, const std::string&,
                               bool https, bool, bool, const std::string&, const Json::Value&, TLS_VERSION) {
  Ask("upload", timeout, https, host, port, path);
  g_net.steps.clear();
  g_net.body.clear();
  g_net.writes = g_net.polls = 0;
}

void VyNet::VyHttpClient::SetCookie(const std::string&) {}

int VyNet::VyHttpClient::OpenRawDataUpload(unsigned long long, const std::string&) {
  Step("open");
  return g_net.openResult;
}

int VyNet::VyHttpClient::WriteData(const char* data, int length) {
  Step(std::to_string(length));
  g_net.bytes += length;
  if (g_net.body.size() < 1 << 18) g_net.body.append(data, static_cast<std::size_t>(length));
  return g_net.writes++ == g_net.badWrite ? g_net.badWriteResult : length;
}

bool VyNet::VyHttpClient::HasDataToRead(int timeout) {
  Step(timeout == 0 ? "look" : "wait" + std::to_string(timeout));
  return timeout == 0 ? g_net.replyAtPoll >= 0 && g_net.polls++ >= g_net.replyAtPoll : g_net.replies;
}

std::string VyNet::VyHttpClient::GetResp() {
  Step("reply");
  return g_net.reply;
}

bool WriteText::operator()(const char* data, std::size_t size) {
  m_sink.append(data, size);
  return true;
}

template <>
int SendHttpPostAndGetResult<WriteText>(const std::string& host, int port, const std::string& cgiPath,
                                        const std::string& body, const std::string&, WriteText& writer, bool https,
                                        int timeout, bool, HTTP_VERSION) {
  writer(g_net.reply.data(), g_net.reply.size());
  Ask("post", timeout, https, host, port, "/" + cgiPath + "?" + body);
  return g_net.posts++ == g_net.badPost ? -1 : 200;
}

namespace {

constexpr long long kMiB = 1 << 20;
const Lines kNotOpened = {"1|FileUpload|change owner of file PATH failed\n", "4|FileUpload|Open file [PATH] failed.\n"};

class Steps : public ArchivingTest {
 protected:
  Steps() {
    g_net = {};
    Login("nvr", 5001, "ann", "pw", "123456", true);
    Said();
  }
  ~Steps() override { std::filesystem::current_path("/"); }
};

// A parameter of the last call, as sent; "-" without it.
std::string Param(const std::string& name) {
  const std::string call = g_net.calls.back() + "&";
  const std::size_t at = call.find("&" + name + "=");
  const std::size_t begin = at + name.size() + 2;
  return at == std::string::npos ? "-" : call.substr(begin, call.find('&', begin) - begin);
}

}  // namespace

TEST_F(Steps, Upload) {
  const std::string error = R"({"error":{"code":105}})";
  const std::string writeFailed = "3|FileUpload|Socket write data failed.\n";
  const std::string readFailed = "3|FileUpload|Read file [PATH] failed.\n";
  const std::string gotError = "4|ReadErrorCode|Get error message[" + error + "]\n";
  // growth: of the file, after the first chunk
  const auto expect = [this](const char* name, const Net& net, long long size, long long growth, const char* map,
                             int code, bool delivered, const char* steps, const Lines& said) {
    SCOPED_TRACE(name);
    g_net = net;
    const std::string path = Make("f", std::string(static_cast<std::size_t>(size), 'x'));
    onSent = [&](long long sent, long long total) {
      EXPECT_EQ(total, size);
      if (sent == kMiB) std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size + growth));
    };
    EXPECT_EQ(FileUpload("", path, static_cast<unsigned long long>(size), map), code == 105 ? 3 : 0);
    EXPECT_EQ(g_net.steps, steps);
    EXPECT_EQ(LastFileDelivered(), delivered);
    EXPECT_EQ(LastErrorCode(), code);
    EXPECT_EQ(Said(path), said);
  };
  expect("empty", {}, 0, 0, "", 0, true, "open wait20 reply", {});
  expect("map first", {}, kMiB + 9, 0, "MAPS", 0, true, "open 4 look 1048576 sleep look 9 sleep wait20 reply", {});
  expect("not open", {-1}, 5, 0, "MAPS", 0, false, "open", {"1|FileUpload|Failed to upload of file PATH\n"});
  expect("refused before", {0, -1, 0, 0, true, -1, error}, 5, 0, "", 105, false, "open look reply", {gotError});
  expect("refused after a chunk", {0, -1, 0, 1, true, -1, error}, 9 * kMiB, 0, "", 105, false,
         "open look 1048576 sleep look reply", {gotError});
  expect("accepted before the end", {0, -1, 0, 1}, kMiB + 1, 0, "", 0, false,
         "open look 1048576 sleep look reply 1 sleep wait20 reply", {});
  expect("map lost", {0, 0, -1}, 5, 0, "MAPS", 0, false, "open 4 look 5 sleep wait20 reply", {writeFailed});
  expect("chunk lost", {0, 1, 0, -1, true, -1, error}, 3 * kMiB, 0, "", 105, false,
         "open look 1048576 sleep look 1048576 wait20 reply",
         {writeFailed, gotError, "5|FileUpload|Send failed since get webapi error [105]\n"});
  expect("chunk sent in part", {0, 0, 4}, 5, 0, "", 0, false, "open look 5 sleep wait20 reply", {});
  expect("no reply", {0, -1, 0, -1, false}, 5, 0, "", 0, false, "open look 5 sleep wait20",
         {"5|FileUpload|Send failed since no response\n"});
  expect("grows", {}, kMiB + 9, 5, "", 0, false, "open look 1048576 sleep look 14 sleep look wait20 reply",
         {readFailed, "5|FileUpload|Send failed remain datas [-5]\n"});
  expect("shrinks", {}, 2 * kMiB, -kMiB, "", 0, false, "open look 1048576 sleep look wait20 reply",
         {readFailed, "5|FileUpload|Send failed remain datas [1048576]\n"});
}

TEST_F(Steps, Replies) {
  const auto expect = [this](const std::string& reply, int result, int code, bool delivered) {
    g_net.reply = reply;
    EXPECT_EQ(FileUpload("", Make("f", "12345"), 5, ""), result) << reply;
    EXPECT_EQ(LastErrorCode(), code) << reply;
    EXPECT_EQ(LastFileDelivered(), delivered) << reply;
  };
  for (const char* reply : {"{}", R"({"success":true,"data":{}})"}) expect(reply, 0, 0, true);
  for (const char* reply : {"", "[{}]", R"({"success":false})", "{\"success\":true"}) expect(reply, 0, 0, false);
  for (const char* error : {"{}", "null", R"({"code":"105"})", R"({"code":4294967401})", R"({"code":100})"}) {
    expect("{\"error\":" + std::string(error) + "}", 1, 100, false);
  }
  for (const int code : {0, 539, 518}) expect("{\"error\":{\"code\":" + std::to_string(code) + "}}", 0, code, false);
  expect(R"({"error":{"code":487}})", 4, 487, false);
  expect(R"({"error":{"code":105}})", 3, 105, false);
  expect(R"({"error":{"code":-1}})", 1, -1, false);
}

TEST_F(Steps, HugeFile) {
  const int memory = memfd_create("huge", MFD_CLOEXEC);  // a disk's holes would go through the page cache
  ASSERT_EQ(ftruncate(memory, 5LL << 30), 0);
  EXPECT_EQ(SendFile(File("/proc/self/fd/" + std::to_string(memory)), false), 0);
  close(memory);
  EXPECT_TRUE(LastFileDelivered());
  EXPECT_EQ(g_net.bytes, 5LL << 30);
  EXPECT_EQ(Param("fileSize"), "5368709120");
  EXPECT_EQ(FileUpload("", Make("f", "12345"), ~0ULL, ""), 0);
  EXPECT_EQ(Said().back(), "5|FileUpload|Send failed remain datas [9223372036854775802]\n");
}

TEST_F(Steps, OnlyRegularFiles) {
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  for (const char* name : {"fifo", "none", "."}) {
    ASSERT_EQ(FileUpload("", Make("f", "1"), 1, ""), 0);
    ASSERT_TRUE(LastFileDelivered());
    g_net.calls.clear();
    EXPECT_EQ(SendFile(File(Path(name)), false), 0);
    EXPECT_EQ(g_net.calls, Lines());
    EXPECT_FALSE(LastFileDelivered());
    EXPECT_EQ(Said(Path(name)), (Lines{"3|SendFile|File[PATH] size is not valid.\n"}));
    EXPECT_EQ(FileUpload("", Path(name), 5, ""), 0);
    EXPECT_EQ(Said(Path(name)).back(), kNotOpened.back());
    EXPECT_EQ(g_net.steps, "open");
  }
}

// Root without the right to read everything, but with that to change owners.
TEST_F(Steps, FileOfAnotherUser) {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct all[2] = {};
  syscall(SYS_capget, &header, all);
  if (geteuid() != 0 || (all[0].effective & 1U << CAP_CHOWN) == 0) GTEST_SKIP() << "needs the right to change owners";
  for (const char* name : {"f", "behind"}) {
    ASSERT_EQ(chown(Make(name, "12345").c_str(), 65534, 65534) + chmod(Path(name).c_str(), 0600), 0);
  }
  std::filesystem::create_symlink("behind", Path("link"));
  __user_cap_data_struct less[2] = {all[0], all[1]};
  less[0].effective &= ~(1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH);
  ASSERT_EQ(syscall(SYS_capset, &header, less), 0);
  EXPECT_EQ(FileUpload("", Path("f"), 5, "") + FileUpload("", Path("link"), 5, ""), 0);
  ASSERT_EQ(syscall(SYS_capset, &header, all), 0);
  EXPECT_EQ(Said(Path("link")), kNotOpened);
  EXPECT_EQ(g_net.bytes, 5);
  struct stat info = {};
  EXPECT_EQ(stat(Path("behind").c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 65534U);
}

TEST_F(Steps, HowItIsAsked) {
  SendFile(File(Make("f", "1")), false);
  EXPECT_EQ(CreateRemoteDir({}, "r", true), 0);
  EXPECT_EQ(MoveRemoteDir("a", "b/"), 0);
  g_net.badPost = 3;
  EXPECT_EQ(Logout(), 0);
  const std::string to = " https://nvr:5001/webapi/entry.cgi?";
  const std::string push = "_sid=S1&api=ZELK.Korvane.Archiving.Push&";
  const Lines asked = {
      "account=ann&api=ZELK.API.Auth&format=sid&method=login&otp_code=123456&passwd=pw&session=Korvane&version=3",
      push +
          "camId=0&destDir=&extraDataSize=0&fileName=f&fileSize=1&fileType=4&fileTypeId=0&method=SyncFiles"
          "&overwrite=false&version=1",
      push + "dirList=&method=CreateDirs&overwrite=true&rootDir=r&version=1",
      push + "fromDir=a&method=MoveDir&toDir=b%2F&version=1",
      "_sid=S1&api=ZELK.API.Auth&method=logout&session=Korvane&version=3"};
  EXPECT_EQ(g_net.calls, (Lines{"post20" + to + asked[0], "upload20" + to + asked[1], "post40" + to + asked[2],
                                "post40" + to + asked[3], "post20" + to + asked[4]}));
  EXPECT_EQ(Said(), (Lines{"6|SendFile|strMsg = " + asked[1] + "\n", "5|CreateRemoteDir|Msg = " + asked[2] + "\n",
                           "5|MoveRemoteDir|Msg = " + asked[3] + "\n", "1|Logout|Logout [nvr:5001] failed.\n"}));
  EXPECT_EQ(ArchiveSenderFactory(static_cast<ARCH_DEST_TYPE>(1)), nullptr);
  EXPECT_EQ(std::unique_ptr<ArchiveSender>(ArchiveSenderFactory(ARCH_DEST_WEBAPI))->Logout(), 0);
  EXPECT_EQ(g_net.calls.size(), 5U);
}

namespace {

// Adds a recording to a database, which it makes.
void AddEvent(const std::string& db, const std::string& path, const std::string& cause) {
  sqlite3* handle = nullptr;
  EXPECT_EQ(sqlite3_open(db.c_str(), &handle), SQLITE_OK);
  const std::string sql = "CREATE TABLE IF NOT EXISTS event (path TEXT, cause INTEGER); INSERT INTO event VALUES (" +
                          VyDB::QuoteEscape(path) + ", " + cause + ")";
  EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(handle);
  sqlite3_close(handle);
}

}  // namespace

TEST_F(Steps, ReasonOfARecording) {
  const struct {
    const char* name;
    const char* alike;  // would match without escaping, or in part
    const char* cause;
    const char* recMethod;
  } cases[] = {{"a_b", "axb", "2", "2"},
               {"100%", "100 of", "0", "0"},
               {"it's", "it''s", "127", "127"},
               {"back\\slash", "back_slash", "200", "-56"},
               {"x'); drop table event;--", "x", "256", "0"},
               {"\\", "\\\\_", "-1", "-1"},
               {"%", "x%_", "NULL", "0"},
               {"_", "__", "'7 x'", "7"}};
  const std::string db = Path("events.db");
  ArchFile file;
  const auto recMethod = [&](const std::string& name, const std::string& path) {
    file.SetFilePath(Make("rec/" + name, ""));
    file.SetRecDbPath(path);
    EXPECT_EQ(SendFile(file, false), 0);
    return Param("recMethod");
  };
  for (const auto& c : cases) AddEvent(db, "/d/<" + std::string(c.alike) + ">.mp4", "99");
  for (const auto& c : cases) AddEvent(db, "/d/<" + std::string(c.name) + ">.mp4", c.cause);
  for (const auto& c : cases) EXPECT_EQ(recMethod("<" + std::string(c.name) + ">.mp4", db), c.recMethod) << c.name;
  for (const std::string& path : {db, std::string(), Path("none"), Make("broken", "no database")}) {
    EXPECT_EQ(recMethod("unknown", path), "1") << path;
  }

  ArchPushTask task;
  task.SetId(4);
  task.SetSrcDir(Path("task"));
  ASSERT_EQ(task.Save(), 0);
  std::filesystem::create_directories(Path("task/9"));
  AddEvent(Path("task/9/task9.db"), "/d/f.mp4", "6");
  file.SetFileType(ARCH_FILE_TASK_RECORDING);
  file.SetFileTypeId(9);
  file.SetTaskId(4);
  EXPECT_EQ(recMethod("f.mp4", db), "6");
  EXPECT_EQ(Param("fileType"), "5");
  file.SetTaskId(5);
  EXPECT_EQ(recMethod("f.mp4", db), "1");
}

TEST_F(Steps, TriggerMap) {
  const struct {
    unsigned int seconds;
    bool hasLog;
    const char* duration;
    std::size_t mapBytes;
  } cases[] = {{0, true, "0", 0},
               {3, false, "3", 0},
               {3, true, "3", 18},
               {16383, true, "16383", 98298},
               {16384, true, "16384", 98304},
               {20000, true, "16384", 98304}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.seconds);
    std::string sound = ".snd";  // a header alone, of 8 samples a second
    for (const unsigned int word : {24U, c.seconds * 8, 1U, 8U, 1U}) {
      for (const int shift : {24, 16, 8, 0}) sound += static_cast<char>(word >> shift & 255);
    }
    const std::string path = Make("cam/day/x-1763849760.mp4", sound);
    const std::string triggers = "\1\2\3\4\5\6abcdef";
    std::filesystem::remove_all(Path("cam/triggers"));
    if (c.hasLog) Make("cam/triggers/1763849760.trig", triggers);
    std::vector<unsigned char> map(c.mapBytes);
    if (!map.empty()) std::copy(triggers.begin(), triggers.end(), map.begin());
    const std::string extra = HttpBase64EncodeUnsigned(map.data(), map.size());
    EXPECT_EQ(SendFile(File(path, ARCH_FILE_RECORDING), false), 0);
    EXPECT_EQ(Param("duration"), c.duration);
    EXPECT_EQ(Param("extraDataSize"), std::to_string(extra.size()));
    EXPECT_EQ(g_net.body, extra + sound);
    EXPECT_EQ(SendFile(File(path), false), 0);
    EXPECT_EQ(Param("duration") + Param("recMethod") + Param("extraDataSize"), "--0");
  }
}

TEST_F(Steps, LinksThatAppearMeanwhile) {
  for (const char* name : {"d/a", "d/b", "d/s/c"}) Make(name, "1");
  const std::string secret = Make("other/c", "secret");
  const bool isOther = chown(secret.c_str(), 65534, 65534) == 0;
  onSent = [&](long long, long long) {
    std::filesystem::remove_all(Path("d/b"));
    std::filesystem::remove_all(Path("d/s"));
    std::filesystem::create_symlink(secret, Path("d/b"));
    std::filesystem::create_directory_symlink(Path("other"), Path("d/s"));
  };
  EXPECT_EQ(SendDir(Path("d"), true, "r", false), 0);
  Lines refused;
  for (const std::string& line : Said(Path("d"))) {
    if (line.find("Open file") != std::string::npos) refused.push_back(line);
  }
  EXPECT_EQ(refused,
            (Lines{"4|FileUpload|Open file [PATH/b] failed.\n", "4|FileUpload|Open file [PATH/s/c] failed.\n"}));
  EXPECT_EQ(g_net.body, "");
  EXPECT_FALSE(LastFileDelivered());
  struct stat info = {};
  EXPECT_EQ(stat(secret.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid == 65534, isOther) << "its owner changed";
}

// The text of the source directory stands in the names below it once more.
TEST_F(Steps, Directory) {
  for (const char* name : {"d/ad/d.txt", "d/b,c/e", "d/.hidden/x"}) Make(name, "1");
  std::filesystem::create_directory_symlink("..", Path("d/ad/up"));
  std::filesystem::create_directory(Path("empty"));
  std::filesystem::current_path(Path());
  const auto calls = [this](const char* src, bool hidden, const char* dst, bool temporary) {
    g_net.calls.clear();
    EXPECT_EQ(SendDir(src, hidden, dst, temporary), 0);
    Lines seen;
    for (const std::string& call : g_net.calls) seen.push_back(call.substr(call.find("Push&") + 5));
    return seen;
  };
  const auto expected = [](const std::string& root, const std::string& overwrite) {
    const std::string end =
        "&fileSize=1&fileType=4&fileTypeId=0&method=SyncFiles&overwrite=" + overwrite + "&version=1";
    const std::string begin = "camId=0&destDir=" + root + "%2F%2F";
    return Lines{"dirList=" + root + "%2F%2Fad%2C" + root + "%2F%2Fb%2Cc&method=CreateDirs&overwrite=" + overwrite +
                     "&rootDir=" + root + "&version=1",
                 begin + "ad&extraDataSize=0&fileName=d.txt" + end, begin + "b%2Cc&extraDataSize=0&fileName=e" + end};
  };
  EXPECT_EQ(calls("d", false, "a/b/", false), expected("a%2Fb", "false"));
  Lines moved = expected("a%2Fb.arch", "true");
  moved.push_back("fromDir=a%2Fb.arch&method=MoveDir&toDir=a%2Fb%2F&version=1");
  EXPECT_EQ(calls("d", false, "a/b/", true), moved);
  EXPECT_EQ(calls("empty", false, "r", true),
            (Lines{"dirList=&method=CreateDirs&overwrite=true&rootDir=r.arch&version=1",
                   "fromDir=r.arch&method=MoveDir&toDir=r&version=1"}));
  EXPECT_EQ(calls("d", true, "r", false).size(), 4U);

  // The first failure ends it.
  const auto expectFailure = [this](const char* src, int badPost, const char* reply, std::size_t count,
                                    const Lines& last) {
    SCOPED_TRACE(src + std::to_string(badPost));
    g_net = {0, -1, 0, -1, true, badPost, reply};
    Said();
    EXPECT_EQ(SendDir(src, false, "r", true), 1);
    EXPECT_EQ(g_net.calls.size(), count);
    const Lines said = Said();
    ASSERT_GE(said.size(), last.size());
    for (std::size_t i = 1; i <= last.size(); ++i) {
      EXPECT_EQ(said[said.size() - i].rfind(last[last.size() - i], 0), 0U) << said[said.size() - i];
    }
  };
  expectFailure(
      "d", 0, "{}", 1,
      {"1|CreateRemoteDir|CreateRemoteDir failed [nvr][5001][_sid=S1&", "1|SendDir|Failed to create remote dir\n"});
  expectFailure("d", -1, R"({"error":{}})", 2, {"1|SendDir|Send file d/ad/d.txt failed\n"});
  expectFailure("d", 1, "{}", 4,
                {"1|MoveRemoteDir|MoveRemoteDir failed [nvr][5001][_sid=S1&", "1|SendDir|Failed to move remote dir\n"});
  for (const char* src : {"none", ""}) {
    expectFailure(src, -1, "{}", 0, {"1|SendDir|Failed to list dir [" + std::string(src) + "]\n"});
  }
  Init(false);
  EXPECT_EQ(SendDir("d", false, "r", true), 3);
  EXPECT_EQ(Said(), (Lines{"1|SendDir|Auth error Dst[]\n"}));
}
