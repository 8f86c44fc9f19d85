#include "archiving/archivesender.h"

#include <json/value.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "archiving/internal/plainfile.h"
#include "platform/db.h"
#include "platform/file.h"
#include "platform/http.h"
#include "platform/json.h"
#include "platform/reclog.h"
#include "platform/settings.h"
#include "platform/text.h"
#include "platform/webapi.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/log.h"
#include "utils/mpeg4util.h"

static_assert(sizeof(off_t) == 8, "recordings are larger than 2 GiB");

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_ARCHPUSH;

constexpr const char* kCgiPath = "webapi/entry.cgi";
constexpr const char* kPushApi = "ZELK.Korvane.Archiving.Push";
constexpr const char* kUploadType = "multipart/form-data; boundary=-----------ZELKMULTIPART_BOUNDARY-----------";
constexpr unsigned long long kAnnouncedLength = 137438953472;  // for every upload, whatever its length
constexpr std::size_t kChunk = 1048576;
constexpr unsigned int kMaxTriggerEntries = 16384;

// Seconds that the remote has.
constexpr int kSessionTimeout = 20;
constexpr int kDirTimeout = 40;
constexpr int kUploadTimeout = 20;
constexpr int kFinalReplyTimeout = 20;

// Results of sending a file.
constexpr int kSent = 0;
constexpr int kFailed = 1;
constexpr int kNotLoggedIn = 3;
constexpr int kRejected = 4;

// Web API error codes of the remote.
constexpr int kUnreadableCode = 100;  // ours, for an error without a code
constexpr int kSessionCode = 105;     // not logged in
constexpr int kRejectedCode = 487;
constexpr int kExistsCode = 518;
constexpr int kKeptCode = 539;

int ResultOfCode(int code) {
  if (code == kExistsCode || code == kKeptCode) {
    return kSent;
  }
  return code == kRejectedCode ? kRejected : code == kSessionCode ? kNotLoggedIn : kFailed;
}

// What the remote says to a request.
struct Answer {
  int code = 0;               // of the web API's error; 0 without one
  bool acknowledged = false;  // all is well; a reply that is no JSON object does not say so
  bool hasError = false;
};

Answer ReadAnswer(const std::string& text) {
  Json::Value reply;
  Answer answer;
  if (JsonParse(text, reply, false, true) != 0 || !reply.isObject()) {
    return answer;
  }
  answer.hasError = reply.isMember("error");
  answer.acknowledged = !answer.hasError && reply.get("success", true) != Json::Value(false);
  if (answer.hasError) {
    const bool isReadable =
        VyJson::Validate("{type: object, required: {error: {type: object, required: {code: int}}}}", reply) == 0 &&
        reply["error"]["code"].isInt();
    answer.code = isReadable ? reply["error"]["code"].asInt() : kUnreadableCode;
  }
  return answer;
}

// Reads the client's reply and gives its error code.
int ReadErrorCode(VyNet::VyHttpClient& client, bool& acknowledged) {
  const std::string text = client.GetResp();
  const Answer answer = ReadAnswer(text);
  acknowledged = answer.acknowledged;
  if (answer.hasError) {
    VY_LOG(LOG_LEVEL_NOTE, "Get error message[%s]\n", text.c_str());
  }
  return answer.code;
}

// The recording method of the event whose path contains fileName; 1 when there is none to be found.
int GetEventCause(const std::string& dbPath, const std::string& fileName) {
  constexpr int kUnknown = 1;
  if (dbPath.empty() || fileName.empty()) {
    return kUnknown;
  }
  const std::string sql = "SELECT cause FROM event WHERE (path LIKE " +
                          VyDB::QuoteEscape("%" + VyDB::EscapeSpecialChars(fileName) + "%") + " ESCAPE '\\');";
  DBResult_tag* found = nullptr;
  if (VyDB::Executep(dbPath, sql, &found, false, true, true, true, {}) != 0) {
    return kUnknown;
  }
  const std::unique_ptr<DBResult_tag, void (*)(DBResult_tag*)> result(found, VyDBFreeResult);
  unsigned int row = 0;
  if (VyDBFetchRow(found, &row) != 0) {
    return kUnknown;
  }
  const char* cause = VyDBFetchField(found, row, "cause");
  return cause == nullptr ? 0 : static_cast<int>(std::strtol(cause, nullptr, 10));
}

bool IsRecording(ARCH_FILE_TYPE type) {
  return type == ARCH_FILE_RECORDING || type == ARCH_FILE_TASK_RECORDING;
}

int GetRecMethod(const ArchFile& file) {
  const std::string name = GetBaseName(file.GetFilePath());
  if (file.GetFileType() == ARCH_FILE_RECORDING) {
    return GetEventCause(file.GetRecDbPath(), name);
  }
  ArchPushTask task;
  if (task.Load(file.GetTaskId()) != 0) {
    return 1;
  }
  const int id = file.GetFileTypeId();
  return GetEventCause(task.GetSrcDir() + "/" + std::to_string(id) + "/" + StringPrintf("task%d.db", id), name);
}

// A name such as "cam1:noon.mp4" looks like a URL.
std::string AsFile(const std::string& path) {
  return path.empty() || path.front() == '/' ? path : "./" + path;
}

// What triggered a recording, an entry a second, as base64; empty when that is not known.
std::string GetTriggerMap(const std::string& path, int duration) {
  BitwiseEnum<REC_TRIG_META> map(static_cast<std::size_t>(duration));
  const long start = EventNameParser::GetRecStartTime(path, false);
  if (ReadRecLog2(GetDirPath(GetDirPath(path)), start, map) != 0) {
    return {};
  }
  return HttpBase64EncodeUnsigned(map.Data(), map.Size());
}

std::string Join(const std::list<std::string>& entries) {
  std::string joined;
  for (const std::string& entry : entries) {
    joined += (&entry == &entries.front() ? "" : ",") + entry;
  }
  return joined;
}

std::string Render(Json::Value request, const std::string& sid, const std::string& authContent) {
  if (!sid.empty()) {
    request["_sid"] = sid;
  }
  return JsonToStrPair(request, true, true) + authContent;
}

// Negative on failure; a refusal is none.
int Post(const std::string& host, int port, const std::string& body, const std::string& cookie, bool https,
         Answer& answer) {
  std::string text;
  WriteText writer(text);
  const int status = SendHttpPostAndGetResult<WriteText>(host, port, kCgiPath, body, cookie, writer, https, kDirTimeout,
                                                         true, HTTP_VERSION_DEFAULT);
  answer = ReadAnswer(text);
  return status;
}

// The bytes of a file on their way.
struct Body {
  enum class End { kComplete, kRefused, kReadFailed, kWriteFailed };

  VyNet::VyHttpClient& client;
  std::FILE* file;
  long long remaining;
  unsigned long long room = kAnnouncedLength;  // a file that grows as fast as it is sent ends there
  bool whole = true;  // everything up to here has gone out, and the remote has not answered before
  int code = 0;       // with kRefused: why

  // A result of 0 or less is a failure.
  int Write(const char* data, std::size_t size) {
    const int written = size > INT_MAX ? -1 : client.WriteData(data, static_cast<int>(size));
    whole = whole && written > 0 && static_cast<std::size_t>(written) == size;
    return written;
  }

  // onSent is called after each chunk.
  End Send(const std::function<void()>& onSent) {
    alignas(64) char buffer[kChunk];  // the kernel copies much slower to an odd address
    while (remaining != 0) {
      if (client.HasDataToRead(0)) {
        bool acknowledged = false;
        code = ReadErrorCode(client, acknowledged);
        if (code != 0) {
          return End::kRefused;
        }
        whole = false;
      }
      const std::size_t size =
          std::fread(buffer, 1, static_cast<std::size_t>(std::min<unsigned long long>(kChunk, room)), file);
      room -= size;
      if (size == 0) {
        return End::kReadFailed;
      }
      if (Write(buffer, size) <= 0) {
        return End::kWriteFailed;
      }
      remaining -= static_cast<long long>(size);
      onSent();
      usleep(1000);
    }
    return End::kComplete;
  }
};

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Session
// ---------------------------------------------------------------------------------------------------------------------

ArchiveSender::~ArchiveSender() = default;

ArchiveSender* ArchiveSenderFactory(ARCH_DEST_TYPE type) {
  return type == ARCH_DEST_WEBAPI ? new (std::nothrow) WebapiSender : nullptr;
}

WebapiSender::WebapiSender() = default;

WebapiSender::~WebapiSender() {
  WebapiSender::Logout();
}

void WebapiSender::Init(bool useHttps) {
  m_strHostCookie.clear();
  m_strHostAuthContent.clear();
  m_strSid.clear();
  m_strHost.clear();
  m_iPort = 0;
  m_blHttps = useHttps;
  ForgetAnswer();
}

void WebapiSender::ForgetAnswer() {
  m_blDelivered = false;
  m_blAcknowledged = false;
  m_iErrorCode = 0;
}

int WebapiSender::Login(const std::string& host, int port, const std::string& account, const std::string& password,
                        const std::string& extra, bool useHttps) try {
  Init(useHttps);
  if (account.empty() && password.empty() && LoginCmsHost(host, port)) {
    m_strHost = host;
    m_iPort = port;
    return 0;
  }
  std::string sid;
  std::string text;
  int code = 0;
  const int ret = LoginNh(host, port, account, password, extra, "", useHttps, kSessionTimeout, sid, text, code);
  VY_FAIL_IF(ret != 0, -1, LOG_LEVEL_ERR, "Login [%s:%d] failed.\n", host.c_str(), port);
  m_strHost = host;
  m_iPort = port;
  m_strSid = std::move(sid);
  VY_LOG(LOG_LEVEL_NOTE, "Login [%s:%d] success.\n", host.c_str(), port);
  return 0;
} catch (const std::exception&) {
  Init(useHttps);
  return -1;
}

bool WebapiSender::LoginCmsHost(const std::string& host, int port) try {
  VyGeneric settings(false);
  if (settings.Reload() != 0 || !settings.IsCmsPaired() || settings.GetCmsHostIp() != host ||
      settings.GetCmsHostPort() != port) {
    VY_LOG(LOG_LEVEL_INFO, "Not login CMS host, %d %s %d\n", settings.IsCmsPaired() ? 1 : 0, host.c_str(), port);
    return false;
  }
  std::string cookie;
  std::string timestamp;
  GetTimeAndCookieForHost(cookie, timestamp);
  timestamp.insert(0, "timestamp=");
  m_strHostAuthContent += "&client=REC_SERVER&cookie=\"" + cookie + "\"&recSerialNum=\"" + GetNHSerialNumber() + "\"";
  m_strHostCookie = std::move(timestamp);
  VY_LOG(LOG_LEVEL_NOTE, "m_strHostAuthContent=[%s], m_strHostCookie=[%s]\n", m_strHostAuthContent.c_str(),
         m_strHostCookie.c_str());
  return true;
} catch (const std::exception&) {
  return false;
}

int WebapiSender::Logout() try {
  if (m_strSid.empty()) {
    return 0;
  }
  Json::Value request = GetJsonAPIInfo("ZELK.API.Auth", "logout", 3);
  request["session"] = "Korvane";
  Json::Value reply;
  if (SendWebAPIWithEncrypt(m_strHost, m_iPort, m_strSid, request, reply, m_blHttps, true, kSessionTimeout, kCgiPath) <
      0) {
    VY_LOG(LOG_LEVEL_ERR, "Logout [%s:%d] failed.\n", m_strHost.c_str(), m_iPort);
  }
  m_strSid.clear();
  return 0;
} catch (const std::exception&) {
  m_strSid.clear();
  return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Files and directories
// ---------------------------------------------------------------------------------------------------------------------

int WebapiSender::SendFile(const ArchFile& file, bool overwrite) try {
  ForgetAnswer();
  const ARCH_FILE_TYPE type = file.GetFileType();
  const std::string path = file.GetFilePath();
  const long long size = GetFileSize(path);
  VY_FAIL_IF(size < 0, kSent, LOG_LEVEL_WARN, "File[%s] size is not valid.\n", path.c_str());
  VY_FAIL_IF(!IsLoggedIn(), kNotLoggedIn, LOG_LEVEL_ERR, "Auth error Dst[%s]\n", m_strHost.c_str());

  Json::Value request = GetJsonAPIInfo(kPushApi, "SyncFiles", 1);
  request["fileSize"] = static_cast<Json::Int64>(size);
  request["fileType"] = static_cast<int>(type);
  request["fileTypeId"] = file.GetFileTypeId();
  request["camId"] = file.GetCamId();
  request["fileName"] = GetBaseName(path);
  request["destDir"] = file.GetDestDir();
  request["overwrite"] = overwrite;
  std::string extraData;
  if (IsRecording(type)) {
    const auto recMethod = static_cast<std::int8_t>(GetRecMethod(file));  // 8 bits is what remotes know
    const auto duration = static_cast<int>(std::min(DoFFMpegGetDuration(AsFile(path)), kMaxTriggerEntries));
    extraData = GetTriggerMap(path, duration);
    request["duration"] = duration;
    request["recMethod"] = int{recMethod};
  }
  request["extraDataSize"] = static_cast<int>(extraData.size());
  const std::string params = Render(std::move(request), m_strSid, m_strHostAuthContent);
  VY_LOG(LOG_LEVEL_DEBUG, "strMsg = %s\n", params.c_str());
  return FileUpload(params, path, static_cast<unsigned long long>(size), extraData);
} catch (const std::exception&) {
  return kFailed;
}

int WebapiSender::SendDir(const std::string& srcDir, bool flag, const std::string& dstDir, bool useTmpDir) try {
  ForgetAnswer();
  VY_FAIL_IF(!IsLoggedIn(), kNotLoggedIn, LOG_LEVEL_ERR, "Auth error Dst[%s]\n", m_strHost.c_str());
  m_strSendingDir = srcDir;
  const mediautil::ScopeExit sent([this] { m_strSendingDir.clear(); });
  std::string root = dstDir;
  if (!root.empty() && root.back() == '/') {
    root.pop_back();
  }
  if (useTmpDir) {
    root += ".arch";
  }
  const auto remotePath = [&](const std::string& path) { return StringReplaceSymbol(path, srcDir, root + "/", false); };

  std::list<std::string> dirs;
  VY_FAIL_IF(GetDirsInDir(srcDir, dirs, true, flag, "") != 0, kFailed, LOG_LEVEL_ERR, "Failed to list dir [%s]\n",
             srcDir.c_str());
  std::transform(dirs.begin(), dirs.end(), dirs.begin(), remotePath);
  VY_FAIL_IF(CreateRemoteDir(dirs, root, useTmpDir) != 0, kFailed, LOG_LEVEL_ERR, "Failed to create remote dir\n");

  std::list<std::string> files;
  VY_FAIL_IF(GetFilesInDir(srcDir, files, true, flag, "") != 0, kFailed, LOG_LEVEL_ERR, "Failed to list dir [%s]\n",
             srcDir.c_str());
  for (const std::string& path : files) {
    ArchFile file;
    file.SetDestDir(GetDirPath(remotePath(path)));
    file.SetFilePath(path);
    file.SetFileType(ARCH_FILE_PLAIN);
    VY_FAIL_IF(SendFile(file, useTmpDir) != 0, kFailed, LOG_LEVEL_ERR, "Send file %s failed\n", path.c_str());
  }

  VY_FAIL_IF(useTmpDir && MoveRemoteDir(root, dstDir) != 0, kFailed, LOG_LEVEL_ERR, "Failed to move remote dir\n");
  return 0;
} catch (const std::exception&) {
  return kFailed;
}

// ---------------------------------------------------------------------------------------------------------------------
// Directories of the remote
// ---------------------------------------------------------------------------------------------------------------------

int WebapiSender::PostAboutDirs(const std::string& body) {
  Answer answer;
  const int status = Post(m_strHost, m_iPort, body, m_strHostCookie, m_blHttps, answer);
  m_iErrorCode = answer.code;
  m_blAcknowledged = status >= 0 && answer.acknowledged;
  return status;
}

int WebapiSender::CreateRemoteDir(const std::list<std::string>& dirs, const std::string& rootDir, bool overwrite) try {
  Json::Value request = GetJsonAPIInfo(kPushApi, "CreateDirs", 1);
  request["dirList"] = Join(dirs);
  request["rootDir"] = rootDir;
  request["overwrite"] = overwrite;
  const std::string body = Render(std::move(request), m_strSid, m_strHostAuthContent);
  VY_LOG(LOG_LEVEL_INFO, "Msg = %s\n", body.c_str());
  VY_FAIL_IF(PostAboutDirs(body) < 0, -1, LOG_LEVEL_ERR, "CreateRemoteDir failed [%s][%d][%s][%s]\n", m_strHost.c_str(),
             m_iPort, body.c_str(), m_strHostCookie.c_str());
  return 0;
} catch (const std::exception&) {
  return -1;
}

int WebapiSender::MoveRemoteDir(const std::string& fromDir, const std::string& toDir) try {
  Json::Value request = GetJsonAPIInfo(kPushApi, "MoveDir", 1);
  request["fromDir"] = fromDir;
  request["toDir"] = toDir;
  const std::string body = Render(std::move(request), m_strSid, m_strHostAuthContent);
  VY_LOG(LOG_LEVEL_INFO, "Msg = %s\n", body.c_str());
  VY_FAIL_IF(PostAboutDirs(body) < 0, -1, LOG_LEVEL_ERR, "MoveRemoteDir failed [%s][%d][%s][%s]\n", m_strHost.c_str(),
             m_iPort, body.c_str(), m_strHostCookie.c_str());
  return 0;
} catch (const std::exception&) {
  return -1;
}

// ---------------------------------------------------------------------------------------------------------------------
// Upload
// ---------------------------------------------------------------------------------------------------------------------

int WebapiSender::FileUpload(const std::string& params, const std::string& filePath, unsigned long long fileSize,
                             const std::string& extraData) try {
  ForgetAnswer();
  VyNet::VyHttpClient client;
  client.Init(std::string("/") + kCgiPath + "?" + params, m_strHost, m_iPort, "", "", kUploadTimeout, true, true, true,
              HTTP_VERSION_DEFAULT, "", m_blHttps, true, false, "", Json::Value(Json::objectValue),
              TLS_VERSION_DEFAULT);
  client.SetCookie(m_strHostCookie);
  VY_FAIL_IF(client.OpenRawDataUpload(kAnnouncedLength, kUploadType) != 0, kSent, LOG_LEVEL_ERR,
             "Failed to upload of file %s\n", filePath.c_str());

  mediautil::FilePtr file = mediautil::OpenPlainFile(filePath, m_strSendingDir);
  if (file == nullptr) {
    if (mediautil::TakeOwnership(filePath, m_strSendingDir) != 0) {
      VY_LOG(LOG_LEVEL_ERR, "change owner of file %s failed\n", filePath.c_str());
    }
    file = mediautil::OpenPlainFile(filePath, m_strSendingDir);
  }
  VY_FAIL_IF(file == nullptr, kSent, LOG_LEVEL_NOTE, "Open file [%s] failed.\n", filePath.c_str());

  const auto total = static_cast<long long>(std::min<unsigned long long>(fileSize, LLONG_MAX));
  Body body{client, file.get(), total};
  if (!extraData.empty() && body.Write(extraData.data(), extraData.size()) <= 0) {
    VY_LOG(LOG_LEVEL_WARN, "Socket write data failed.\n");
  }
  switch (body.Send([&] { OnFileSent(total - body.remaining, total); })) {
    case Body::End::kRefused:
      m_iErrorCode = body.code;
      return ResultOfCode(body.code);
    case Body::End::kReadFailed:
      VY_LOG(LOG_LEVEL_WARN, "Read file [%s] failed.\n", filePath.c_str());
      break;
    case Body::End::kWriteFailed:
      VY_LOG(LOG_LEVEL_WARN, "Socket write data failed.\n");
      break;
    case Body::End::kComplete:
      break;
  }

  VY_FAIL_IF(!client.HasDataToRead(kFinalReplyTimeout), kSent, LOG_LEVEL_INFO, "Send failed since no response\n");
  m_iErrorCode = ReadErrorCode(client, m_blAcknowledged);
  VY_FAIL_IF(m_iErrorCode != 0, ResultOfCode(m_iErrorCode), LOG_LEVEL_INFO, "Send failed since get webapi error [%d]\n",
             m_iErrorCode);
  VY_FAIL_IF(body.remaining != 0, kSent, LOG_LEVEL_INFO, "Send failed remain datas [%lld]\n", body.remaining);
  m_blDelivered = m_blAcknowledged && body.whole;
  return kSent;
} catch (const std::exception&) {
  return kFailed;
}

void WebapiSender::OnFileSent(long long, long long) {}
