// The HTTP client and the web API on top of it, against servers that misbehave.
#include "platform/http.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "platform/local/httpreply.h"
#include "platform/text.h"
#include "platform/webapi.h"
#include "tests/platform/platform_fixture.h"
#include "tests/support/testserver/testserver.h"

namespace {

constexpr int kTimeout = 1;
constexpr int kMiB = 1 << 20;
constexpr const char* kSuccess = R"({"success":true})";
constexpr const char* kRefused = R"({"error":{"code":105},"success":false})";

// Every test runs under a proxy that leads nowhere, with the messages of connections switched on.
class NetTest : public PlatformTest {
 protected:
  NetTest() {
    signal(SIGPIPE, SIG_DFL);  // the test runner may ignore it
    setenv("all_proxy", "http://127.0.0.1:1", 1);
    SetDbgLogLevel(LOG_CATEG_ARCHPUSH, LOG_LEVEL_NOTE);
  }
  ~NetTest() override { unsetenv("all_proxy"); }

  std::string Log() const { return ReadFile(LogFile()); }
  void Settings(const std::string& text) const { WriteFile(StateDir() + "/settings.json", text); }
  void TrustServer() const { Settings(R"({"tlsCaFile":")" + Path("server.crt") + "\"}"); }
  testserver::Options Https(const char* host = "127.0.0.1", int startDays = -1, int endDays = 1) const {
    testserver::Options options;
    options.certFile = Path("server.crt");
    options.certHost = host;
    options.certStart = startDays;
    options.certEnd = endDays;
    return options;
  }
};

struct Target {
  int port;
  bool https = false;
  std::string host = "127.0.0.1";
  std::string path = "/webapi/entry.cgi?method=SyncFiles";
  std::string cookie = "timestamp=1";
  std::string user = "";
  HTTP_VERSION version = HTTP_VERSION_DEFAULT;
  std::string type = "multipart/form-data; boundary=x";
};

int Open(VyNet::VyHttpClient& client, const Target& to) {
  client.Init(to.path, to.host, to.port, to.user, "secret", kTimeout, true, true, true, to.version, "", to.https, true,
              false, "", Json::Value(Json::objectValue), TLS_VERSION_DEFAULT);
  client.SetCookie(to.cookie);
  return client.OpenRawDataUpload(1ULL << 37, to.type);
}

int Post(const Target& to, std::string& reply, const std::string& body = "") {
  WriteText writer(reply);
  return SendHttpPostAndGetResult<WriteText>(to.host, to.port, "webapi/entry.cgi", body, to.cookie, writer, to.https,
                                             kTimeout, true, to.version);
}

double SecondsOf(const std::function<void()>& action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// A listener on the loopback address. Once told to, it takes one connection, says its text and keeps what it is told,
// until the peer ends or the most is there. As long as it is not, one connection succeeds and others get no answer.
class Peer {
 public:
  explicit Peer(bool ipv6 = false) : m_fd(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in6 v6 = {AF_INET6, 0, 0, in6addr_loopback, 0};
    sockaddr_in v4 = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    auto* address = ipv6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
    socklen_t size = ipv6 ? sizeof(v6) : sizeof(v4);
    if (bind(m_fd, address, size) != 0 || listen(m_fd, 0) != 0 || getsockname(m_fd, address, &size) != 0) return;
    m_port = ntohs(ipv6 ? v6.sin6_port : v4.sin_port);
  }
  ~Peer() {
    Received();
    close(m_fd);
  }

  int Port() const { return m_port; }  // 0 on a machine without the protocol
  void Answer(const std::string& text, std::size_t most = std::string::npos) {
    m_thread = std::thread([this, text, most] {
      const int fd = accept(m_fd, nullptr, nullptr);
      send(fd, text.data(), text.size(), MSG_NOSIGNAL);
      char buffer[4096];
      for (ssize_t n = 0; m_text.size() < most && (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
        m_text.append(buffer, std::size_t(n));
      }
      close(fd);
    });
  }
  const std::string& Received() {
    if (m_thread.joinable()) m_thread.join();
    return m_text;
  }

 private:
  int m_fd;
  int m_port = 0;
  std::thread m_thread;
  std::string m_text;
};

TEST(HttpReplyTest, Bodies) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string chunked = ok + "Transfer-Encoding: gzip, Chunked\r\n\r\n";
  const std::string mib(kMiB, 'x');
  const std::tuple<std::string, int, std::string> cases[] = {
      {ok + "Content-Length: 3\r\n\r\nabcd", 200, "abc"},
      {"HTTP/1.1 102 \r\nContent-Length: 9\r\n\r\nHTTP/1.0 404\ncontent-length:\t1 \n\nab", 404, "a"},
      {"HTTP/1.1 204 No Content\r\nContent-Length: 5\r\n\r\nhello", 204, ""},
      {chunked + "3;a=b\r\nabc\r\nA\r\n0123456789\r\n0\r\nX: y\r\n\r\nz", 200, "abc0123456789"},
      {chunked + "3\r\nabcd\r\n0\r\n\r\n", 200, "abc"},
      {chunked + "10000000000000003\r\nabc", 200, ""},
      {chunked + "3;" + std::string(2000, 'x'), 200, ""},
      {chunked + "100000\r\n" + mib + "\r\n1\r\ny\r\n0\r\n\r\n", 200, mib},
      {ok + "\r\n" + mib + mib, 200, mib},
      {ok + "Content-Length: 3\r\nContent-Length: 4\r\n\r\nabcd", 200, ""},
      {ok + "Content-Length: 18446744073709551619\r\n\r\nabcd", 200, ""},
      {ok + "X: " + std::string(70000, 'x'), 200, ""},
      {"HTTP/1.1 2x0 OK\r\n\r\n", 0, ""},
      {std::string(70000, 'x'), 0, ""}};
  for (const auto& [text, status, body] : cases) {
    local::HttpReply whole;
    local::HttpReply inBytes;
    whole.Feed(text);
    for (const char& byte : text) inBytes.Feed({&byte, 1});
    for (const local::HttpReply& reply : {whole, inBytes}) {
      EXPECT_TRUE(reply.IsOver() && reply.Status() == status && reply.Body() == body) << text.substr(0, 80);
    }
  }
  local::HttpReply interim;
  interim.Feed("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 2");
  EXPECT_FALSE(interim.HasBegun());
  interim.Feed("00 OK\r\n");
  EXPECT_TRUE(interim.HasBegun() && !interim.IsOver());
}

std::string UploadPath(long long size) {
  return "/webapi/entry.cgi?api=ZELK.Korvane.Archiving.Push&method=SyncFiles&version=1&client=REC_SERVER&cookie=c&"
         "recSerialNum=1&fileName=f&destDir=d&extraDataSize=0&fileSize=" +
         std::to_string(size);
}

std::size_t ResidentBytes() {
  std::ifstream in("/proc/self/statm");
  std::size_t pages = 0;
  in >> pages >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Connections that a program started now would inherit.
int InheritableSockets() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in peer = {};
    socklen_t size = sizeof(peer);
    const bool isTcp = getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && peer.sin_family == AF_INET;
    count += isTcp && fcntl(fd, F_GETFD) == 0 ? 1 : 0;
  }
  return count;
}

// Faults of the server and what comes of an upload. Marks: e early, the reply comes or writing fails before the body's
// end; m mute, neither a reply nor the connection's end comes; p any part of a body will do.
constexpr struct {
  const char* faults;
  const char* marks;
  const char* body;
} kFaults[] = {{"none wrong-length", "", kSuccess},
               {"none", "", kRefused},
               {"reply-first", "e", kRefused},
               {"half-header redirect no-content", "", ""},
               {"close reset", "e", ""},
               {"half-body not-json big-reply slow-reply", "p", ""},
               {"silent", "m", ""},
               {"stop-reading", "em", ""}};

class FaultTest : public NetTest, public testing::WithParamInterface<std::tuple<std::size_t, bool>> {};

#ifdef __SANITIZE_ADDRESS__
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

TEST_P(FaultTest, UploadEndsInTime) {
  const auto& [faults, marks, wanted] = kFaults[std::get<0>(GetParam())];
  const auto has = [text = std::string(marks)](char mark) { return text.find(mark) != std::string::npos; };
  const bool https = std::get<1>(GetParam());
  testserver::Server server(https ? Https() : testserver::Options());
  TrustServer();
  constexpr int kMiBs = 80;  // more than what the sockets of both sides hold, even by half
  const std::string mib(kMiB, 'x');
  for (const std::string& name : String2StrVector(faults, " ")) {
    server.SetFault(name, std::string(wanted) == kRefused ? 105 : 0);
    VyNet::VyHttpClient client;
    int written = 0;
    std::size_t resident = 0;
    std::string body;
    const double seconds = SecondsOf([&] {
      ASSERT_EQ(Open(client, {server.Port(), https, "127.0.0.1", UploadPath(1LL * kMiBs * kMiB)}), 0);
      EXPECT_EQ(InheritableSockets(), 0);
      while (written < kMiBs && !client.HasDataToRead(0) && client.WriteData(mib.data(), kMiB) == kMiB) {
        if (++written == kMiBs / 2) resident = ResidentBytes();  // the server keeps the first 16 MiB
      }
      // With a sanitizer, more so with TLS, what is freed is held back.
      EXPECT_TRUE(kIsSanitized || https || written < kMiBs || ResidentBytes() < resident + 4 * kMiB);
      EXPECT_EQ(client.HasDataToRead(has('e') ? 0 : kTimeout), !has('m')) << name;
      body = client.GetResp();
    });
    EXPECT_EQ(written < kMiBs, has('e')) << name << " " << written;
    EXPECT_TRUE(has('p') ? !body.empty() && body.size() <= kMiB : body == wanted) << name << " " << body.substr(0, 80);
    EXPECT_LT(seconds, 3 * kTimeout + 2) << name;
    EXPECT_LT(SecondsOf([&] { EXPECT_EQ(client.GetResp(), body); }), 0.5) << name;
    for (int i = 0; i < 3; ++i) client.WriteData(mib.data(), kMiB);  // no signal, whatever became of the connection
  }
  EXPECT_EQ(server.Calls().size(), String2StrVector(faults, " ").size());
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultTest,
                         testing::Combine(testing::Range<std::size_t>(0, std::size(kFaults)), testing::Bool()));

TEST_F(NetTest, ReplyOutlivesTheConnection) {
  Peer peer;
  peer.Answer(std::string("HTTP/1.1 200 OK\r\n\r\n") + kRefused, 100000);
  const std::string mib(kMiB, 'x');
  VyNet::VyHttpClient client;
  ASSERT_EQ(Open(client, {peer.Port()}), 0);
  while (client.WriteData(mib.data(), kMiB) > 0) continue;
  EXPECT_TRUE(client.HasDataToRead(0));
  EXPECT_EQ(client.GetResp(), kRefused);
}

TEST_F(NetTest, Posts) {
  testserver::Options options;
  options.faultMethod = "login";
  testserver::Server server(options);
  const std::pair<const char*, int> cases[] = {
      {"none", 200},     {"silent", -1},     {"half-header", -1}, {"half-body", -1}, {"reset", -1},
      {"big-reply", -1}, {"slow-reply", -1}, {"close", -1},       {"redirect", 302}, {"no-content", 204}};
  const std::string body = "api=ZELK.API.Auth&method=login&version=3&x=" + std::string(2 * kMiB, 'x');
  for (const auto& [name, status] : cases) {
    server.SetFault(name);
    std::string reply;
    int result = 0;
    EXPECT_LT(SecondsOf([&] { result = Post({server.Port()}, reply, body); }), kTimeout + 2) << name;
    EXPECT_EQ(result, status) << name;
  }
  EXPECT_EQ(server.Calls().size(), std::size(cases));
  const testserver::Call call = server.Calls().at(0);
  EXPECT_EQ(call.target + " " + call.Header("Content-Type"), "/webapi/entry.cgi application/x-www-form-urlencoded");
  EXPECT_EQ(call.Header("Host"), "127.0.0.1:" + std::to_string(server.Port()));
  EXPECT_EQ(call.Header("Cookie") + call.Header("Expect"), "timestamp=1");
  EXPECT_TRUE(call.rawParams == body);
}

TEST_F(NetTest, NoConnection) {
  Peer full;
  Peer silent;
  silent.Answer("");
  const int closed = Peer().Port();
  VyNet::VyHttpClient filler;
  ASSERT_EQ(Open(filler, {full.Port()}), 0);
  const Target targets[] = {{closed}, {full.Port()}, {silent.Port(), true}, {80, false, "no-such-host.invalid"}};
  for (const Target& target : targets) {
    std::filesystem::remove(LogFile());
    VyNet::VyHttpClient client;
    EXPECT_LT(SecondsOf([&, &to = target] { EXPECT_NE(Open(client, to), 0); }), kTimeout + 2);
    EXPECT_NE(Log().find("[" + target.host + ":" + std::to_string(target.port) + "] failed: "), std::string::npos);
    EXPECT_LE(client.WriteData("x", 1), 0);
    EXPECT_FALSE(client.HasDataToRead(0));
    EXPECT_EQ(client.GetResp(), "");
  }
}

TEST_F(NetTest, ServersAreVerified) {
  const char* off = R"({"tlsVerify":false})";
  // Host and days of the certificate, the settings (empty: it is the authority), TLS 1.1, passes, a word of the log.
  const std::tuple<const char*, int, int, std::string, bool, bool, const char*> cases[] = {
      {"127.0.0.1", -1, 1, "", false, true, ""},
      {"127.0.0.1", -1, 1, "{}", false, false, "certificate"},
      {"127.0.0.1", -1, 1, R"({"tlsVerify":"no"})", false, false, "certificate"},
      {"elsewhere.example", -1, 1, "", false, false, "certificate"},
      {"127.0.0.1", -2, -1, "", false, false, "expired"},
      {"127.0.0.1", -1, 1, off, true, false, "protocol version"},
      {"elsewhere.example", -2, -1, off, false, true, "WARN"}};
  for (const auto& [host, startDays, endDays, settings, tls11, passes, log] : cases) {
    testserver::Options options = Https(host, startDays, endDays);
    options.tls11 = tls11;
    const testserver::Server server(options);
    settings.empty() ? TrustServer() : Settings(settings);
    std::filesystem::remove(LogFile());
    VyNet::VyHttpClient client;
    std::string reply;
    EXPECT_EQ(Open(client, {server.Port(), true, "127.0.0.1", UploadPath(0)}) == 0, passes) << log;
    EXPECT_EQ(client.HasDataToRead(kTimeout), passes) << log;
    EXPECT_EQ(Post({server.Port(), true}, reply) >= 0, passes) << log;
    EXPECT_EQ(server.Calls().size(), passes ? 2u : 0u) << log;
    EXPECT_NE(Log().find(log), std::string::npos) << Log();
  }
}

TEST_F(NetTest, NoRequestForPlainHttpOnTheTlsPort) {
  Settings(R"({"tlsVerify":false})");
  for (const bool upload : {true, false}) {
    Peer peer;
    peer.Answer("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n");
    VyNet::VyHttpClient client;
    std::string reply;
    EXPECT_LT(upload ? Open(client, {peer.Port(), true}) : Post({peer.Port(), true}, reply, "a=SyncFiles"), 0);
    EXPECT_FALSE(peer.Received().empty());
    for (const char* part : {"POST", "timestamp", "SyncFiles"})
      EXPECT_EQ(peer.Received().find(part), std::string::npos);
  }
}

TEST_F(NetTest, NothingIsSmuggledIn) {
  const testserver::Server server({});
  std::vector<std::pair<std::string Target::*, std::string>> cases;
  for (const char bad : {'\r', '\n', '\0', '\x01', '\t', '\x7f'}) {
    for (const auto field : {&Target::path, &Target::type, &Target::user, &Target::cookie, &Target::host}) {
      cases.emplace_back(field, Target().*field + bad + "b");
    }
  }
  for (const char* path : {"", "a", "/a b", "http://127.0.0.1/"}) cases.emplace_back(&Target::path, path);
  for (const char* host : {"", " ", "127.0.0.1 ", "a@127.0.0.1", "127.0.0.1/x/..", "127.0.0.1?x", "127.0.0.1#", "[]",
                           "127.0.0.1:80", "[127.0.0.1]", "[::1", "::1%", "::1%a/b", "1::2::3", "127.0.0.1\\"}) {
    cases.emplace_back(&Target::host, host);
  }
  const auto expectRefused = [](const Target& target, bool alsoPost) {
    VyNet::VyHttpClient client;
    std::string reply;
    EXPECT_NE(Open(client, target), 0) << target.host << target.path << target.cookie << target.type;
    EXPECT_LE(client.WriteData("x", 1), 0);
    EXPECT_TRUE(!alsoPost || Post(target, reply) < 0) << target.host << target.cookie;
  };
  for (const auto& [field, value] : cases) {
    Target target = {server.Port()};
    target.*field = value;
    expectRefused(target, field == &Target::host || field == &Target::cookie);
  }
  for (const int port : {0, -1, 65536}) expectRefused({port}, true);
  EXPECT_TRUE(server.Calls().empty());
}

TEST_F(NetTest, HeadAsSent) {
  const std::tuple<const char*, HTTP_VERSION, const char*, const char*, const char*> cases[] = {
      {"127.0.0.1", HTTP_VERSION_DEFAULT, "", "", "HTTP/1.1\r\nHost: 127.0.0.1:PORT\r\n"},
      {"127.0.0.1", HTTP_VERSION_1_0, "a=b; c", "me",
       "HTTP/1.0\r\nHost: 127.0.0.1:PORT\r\nAuthorization: Basic bWU6c2VjcmV0\r\nCookie: a=b; c\r\n"},
      {"::1", HTTP_VERSION_1_1, "", "", "HTTP/1.1\r\nHost: [::1]:PORT\r\n"},
      {"[::1]", HTTP_VERSION_1_1, "", "", "HTTP/1.1\r\nHost: [::1]:PORT\r\n"}};
  for (const auto& [host, version, cookie, user, expected] : cases) {
    Peer peer(std::string(host).find(':') != std::string::npos);
    if (peer.Port() == 0) continue;
    peer.Answer("");
    const std::string path = "/%20?c=\"\xC3\xBC\"&d=../#e";
    VyNet::VyHttpClient client;
    ASSERT_EQ(Open(client, {peer.Port(), false, host, path, cookie, user, version}), 0);
    EXPECT_EQ(client.WriteData("body", 4), 4);
    EXPECT_LE(client.WriteData("body", 0), 0);
    for (int i = 0; i < 2; ++i) client.Close();
    EXPECT_LE(client.WriteData("x", 1), 0);
    const std::string head = StringReplaceSymbol(expected, "PORT", std::to_string(peer.Port()), false);
    EXPECT_EQ(peer.Received(), "POST " + path + " " + head +
                                   "Content-Type: multipart/form-data; boundary=x\r\nContent-Length: 137438953472\r\n"
                                   "Accept: */*\r\nConnection: close\r\n\r\nbody");
  }
}

TEST(WebApiTest, JsonToStrPair) {
  Json::Value value(Json::objectValue);
  value["b"] = "a \"b\"&\xC3\xBC/~";
  value["a"] = true;
  value["c"] = Json::Int64{1} << 40;
  value["d"]["x"].append(-1.5);
  value["d"]["y"] = "\xFF\n";
  value["e="];
  EXPECT_EQ(JsonToStrPair("text", true, true) + JsonToStrPair(Json::arrayValue, true, true), "");
  EXPECT_EQ(JsonToStrPair(value, true, true),
            "a=true&b=a%20%22b%22%26%C3%BC%2F~&c=1099511627776&d=%7B%22x%22%3A%5B-1.5%5D%2C%22y%22%3A%22%FF%5Cn%22%7D"
            "&e%3D=null");
  EXPECT_EQ(JsonToStrPair(value, false, false),
            "a=true&b=\"a \\\"b\\\"&\xC3\xBC/~\"&c=1099511627776&d={\"x\":[-1.5],\"y\":\"\xFF\\n\"}&e==null");
}

TEST(WebApiTest, Base64) {
  const auto encoded = [](const std::string& text) {
    return HttpBase64EncodeUnsigned(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  };
  EXPECT_EQ(encoded("f") + encoded("fo") + encoded("\xFF\xFE\xFB") + encoded(""), "Zg==Zm8=//77");
  EXPECT_TRUE(encoded(std::string(12 * kMiB + 1, '\0')) == std::string(16 * kMiB, 'A') + "AA==");
  EXPECT_EQ(HttpBase64EncodeUnsigned(nullptr, 0), "");
}

TEST_F(NetTest, LoginAndRequests) {
  testserver::Options options;
  options.faultMethod = "logout";
  for (int byte = 0; byte < 256; ++byte) options.password += static_cast<char>(byte);
  testserver::Server server(options);
  std::string sid;
  std::string text = "old";
  int code = -1;
  const auto login = [&](int port, const std::string& password) {
    return LoginNh("127.0.0.1", port, "admin", password, "12&3", "dev ice", false, kTimeout, sid, text, code);
  };
  EXPECT_EQ(login(server.Port(), options.password), 0);
  EXPECT_EQ(text + std::to_string(sid.size()) + std::to_string(code), "320");
  const testserver::Call asked = server.Calls().at(0);
  EXPECT_EQ(asked.Param("otp_code") + asked.Param("device_id") + asked.Param("passwd"),
            "12&3dev ice" + options.password);

  Json::Value reply;
  const auto request = [&](const Json::Value& object) {
    return SendWebAPIWithEncrypt("127.0.0.1", server.Port(), sid, object, reply, false, true, kTimeout,
                                 "webapi/entry.cgi");
  };
  EXPECT_EQ(request(GetJsonAPIInfo("ZELK.API.Auth", "logout", 3)), 0);
  EXPECT_EQ(reply["success"], true);
  EXPECT_EQ(server.Calls().at(1).Param("_sid"), sid);
  EXPECT_NE(request("text"), 0);
  server.SetFault("not-json");
  EXPECT_NE(request(GetJsonAPIInfo("ZELK.API.Auth", "logout", 3)), 0);
  EXPECT_TRUE(reply.isNull());

  EXPECT_NE(login(server.Port(), "wrong"), 0);
  EXPECT_NE((sid + text).find("{\"code\":" + std::to_string(code) + "}"), std::string::npos) << text;
  for (const char* body : {"[]", "null", "{}", R"({"success":true})", R"({"success":1,"data":{"sid":"a"}})",
                           R"({"success":true,"data":["sid"]})", R"({"success":true,"data":{"sid":7}})",
                           R"({"error":[{"code":7}]})", R"({"error":{"code":"7"}})", R"({"error":{"code":1e99}})"}) {
    Peer peer;
    peer.Answer("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(std::string(body).size()) + "\r\n\r\n" + body);
    EXPECT_NE(login(peer.Port(), "secret"), 0) << body;
    EXPECT_EQ(sid + text + std::to_string(code), std::string(body) + "0");
  }
}

TEST_F(NetTest, PairingData) {
  std::string cookie = "old";
  std::string timestamp = "old";
  for (const char* expected : {"c|123|SN1", "||"}) {
    Settings(*expected == 'c' ? R"({"cmsCookie":"c","cmsTimestamp":"123","serialNumber":"SN1"})" : "not JSON");
    GetTimeAndCookieForHost(cookie, timestamp);
    EXPECT_EQ(cookie + "|" + timestamp + "|" + GetNHSerialNumber(), expected);
  }
}

}  // namespace
