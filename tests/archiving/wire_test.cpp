// What a receiver sees of a sender.
#include "platform/file.h"
#include "tests/archiving/archiving_fixture.h"
#include "tests/support/testserver/testserver.h"

using testserver::Call;

namespace {

class Wire : public ArchivingTest {
 protected:
  Wire() {
    testserver::Options options;
    options.storeDir = Path("store");
    server = std::make_unique<testserver::Server>(options);
    port = server->Port();
    at = "[127.0.0.1:" + std::to_string(port) + "]";
  }
  int LoginWith(const char* account, const char* password) {
    return Login("127.0.0.1", port, account, password, "", false);
  }
  void WriteSettings(const std::string& paired, int cmsPort) {
    Make("state/settings.json", "{" + paired + R"("cmsHostIp":"127.0.0.1","cmsHostPort":)" + std::to_string(cmsPort) +
                                    R"(,"cmsCookie":"c=1","cmsTimestamp":"1763","serialNumber":"SN7"})");
  }
  Call Last() const { return server->Calls().back(); }

  std::unique_ptr<testserver::Server> server;
  int port = 0;
  std::string at;
};

}  // namespace

TEST_F(Wire, AccountSession) {
  EXPECT_EQ(LoginWith("admin", "secret"), 0);
  EXPECT_EQ(Said(), (Lines{"4|Login|Login " + at + " success.\n"}));
  ArchFile file = File(Make("a&b.bin", std::string("\0\r\n12", 5)));
  file.SetDestDir("cam 7/day");
  file.SetCamId(7);
  file.SetFileTypeId(-9);
  EXPECT_EQ(SendFile(file, true), 0);
  EXPECT_TRUE(LastFileDelivered());
  const Call call = Last();
  const std::string sid = "_sid=" + call.Param("_sid") + "&api=ZELK.";
  const std::string params = sid +
                             "Korvane.Archiving.Push&camId=7&destDir=cam%207%2Fday&extraDataSize=0&fileName=a%26b.bin"
                             "&fileSize=5&fileType=4&fileTypeId=-9&method=SyncFiles&overwrite=true&version=1";
  EXPECT_EQ(call.verb + " " + call.target, "POST /webapi/entry.cgi?" + params);
  EXPECT_EQ(call.Header("Content-Length"), "137438953472");
  EXPECT_EQ(call.Header("Content-Type"), "multipart/form-data; boundary=-----------ZELKMULTIPART_BOUNDARY-----------");
  EXPECT_EQ(call.Header("Cookie"), "");
  EXPECT_EQ(call.body, std::string("\0\r\n12", 5));
  EXPECT_EQ(GetFileSize(Path("store/cam 7/day/a&b.bin")), 5);
  EXPECT_EQ(Said(), (Lines{"6|SendFile|strMsg = " + params + "\n"}));

  server->SetFault("reply-first", 105);
  std::filesystem::resize_file(Make("big", ""), 64 << 20);
  onSent = [](long long sent, long long) { EXPECT_LT(sent, 64 << 20) << "sending ends with the refusal"; };
  EXPECT_EQ(SendFile(File(Path("big")), true), 3);
  EXPECT_EQ(LastErrorCode() + LastFileDelivered(), 105);
  Said();

  EXPECT_EQ(Logout() + Logout(), 0);
  EXPECT_EQ(Last().verb + Last().target + Last().rawParams,
            "POST/webapi/entry.cgi" + sid + "API.Auth&method=logout&session=Korvane&version=3");
  EXPECT_EQ(SendFile(file, true), 3);
  EXPECT_EQ(LoginWith("admin", "wrong"), -1);
  EXPECT_EQ(Said(), (Lines{"1|SendFile|Auth error Dst[127.0.0.1]\n", "1|Login|Login " + at + " failed.\n"}));
  EXPECT_EQ(WebapiSender().Login("127.0.0.1", port, "admin", "secret", "", false), 0);
  EXPECT_EQ(Last().Param("method"), "logout");
  EXPECT_EQ(server->Calls().size(), 7U);
}

TEST_F(Wire, PairedHostSession) {
  WriteSettings(R"("cmsPaired":true,)", port);
  EXPECT_EQ(LoginWith("", ""), 0);
  const std::string auth = R"(&client=REC_SERVER&cookie="c=1"&recSerialNum="SN7")";
  EXPECT_EQ(Said(), (Lines{"4|LoginCmsHost|m_strHostAuthContent=[" + auth + "], m_strHostCookie=[timestamp=1763]\n"}));
  EXPECT_EQ(SendFile(File(Make("f", "1")), false), 0);
  EXPECT_TRUE(LastFileDelivered());
  EXPECT_EQ(Last().target,
            "/webapi/entry.cgi?api=ZELK.Korvane.Archiving.Push&camId=0&destDir=&extraDataSize=0&fileName=f&fileSize=1"
            "&fileType=4&fileTypeId=0&method=SyncFiles&overwrite=false&version=1" +
                auth);
  EXPECT_EQ(Last().Header("Cookie"), "timestamp=1763");
  EXPECT_EQ(CreateRemoteDir({"r/a", "r/a/b"}, "r", false), 0);
  EXPECT_EQ(Last().rawParams,
            "api=ZELK.Korvane.Archiving.Push&dirList=r%2Fa%2Cr%2Fa%2Fb&method=CreateDirs&overwrite=false&rootDir=r"
            "&version=1" +
                auth);
  EXPECT_EQ(Last().Header("Cookie"), "timestamp=1763");
  EXPECT_EQ(Logout(), 0);
  EXPECT_EQ(server->Calls().size(), 2U);

  // Anything else is no pairing, and empty credentials are tried.
  Said();
  WriteSettings(R"("cmsPaired":true,)", port + 1);
  EXPECT_EQ(LoginWith("", ""), -1);
  EXPECT_EQ(Last().Param("method"), "login");
  WriteSettings("", port);
  EXPECT_FALSE(LoginCmsHost("127.0.0.1", port));
  Make("state/settings.json", "not json");
  EXPECT_FALSE(LoginCmsHost("127.0.0.1", port));
  WriteSettings(R"("cmsPaired":true,)", port);
  EXPECT_FALSE(LoginCmsHost("localhost", port));
  const std::string refused = "|LoginCmsHost|Not login CMS host, ";
  const std::string own = " 127.0.0.1 " + std::to_string(port) + "\n";
  EXPECT_EQ(Said(), (Lines{"5" + refused + "1" + own, "1|Login|Login " + at + " failed.\n", "5" + refused + "0" + own,
                           "5" + refused + "0" + own, "5" + refused + "1 localhost " + std::to_string(port) + "\n"}));
}

TEST_F(Wire, NamesOfAnyBytes) {
  ASSERT_EQ(LoginWith("admin", "secret"), 0);
  const std::string name = "a&b=c#d%e+f \"g'\r\nX-Injected: 1\r\n\\ü?,.bin";
  const std::string dir = std::string("n\0l\r\n\r\n", 7) + std::string(4096, '%');
  ArchFile file = File(Make(name, "1"));
  file.SetDestDir(dir);
  EXPECT_EQ(SendFile(file, false), 1);  // this receiver wants no NUL
  EXPECT_EQ(Last().Param("fileName"), name);
  EXPECT_EQ(Last().Param("destDir"), dir);
  EXPECT_EQ(Last().params.size(), 12U);
  EXPECT_EQ(Last().headers.size(), 5U);
  EXPECT_EQ(MoveRemoteDir(name, dir), 0);
  EXPECT_EQ(Last().Param("fromDir"), name);
  EXPECT_EQ(Last().Param("toDir"), dir);
  EXPECT_EQ(server->Calls().size(), 3U);
}
