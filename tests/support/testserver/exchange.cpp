#include "tests/support/testserver/exchange.h"

#include <openssl/rand.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "tests/support/testserver/store.h"

namespace testserver {
namespace {

constexpr std::size_t kMaxHead = 1 << 18;
constexpr std::size_t kMaxForm = 1 << 24;
constexpr std::size_t kMaxKept = 1 << 24;
constexpr long long kMaxExtra = 1 << 20;
constexpr long long kMiB = 1 << 20;
constexpr long long kForEver = std::numeric_limits<long long>::max();
constexpr std::size_t kSlowReply = 1 << 16;
constexpr std::size_t kBigReply = 10000000;
constexpr std::size_t kSlowPiece = 102;  // ten times a second
constexpr int kSlowPause = 100;
constexpr const char* kPath = "/webapi/entry.cgi";

int HexDigit(char c) {
  return c >= '0' && c <= '9'   ? c - '0'
         : c >= 'a' && c <= 'f' ? c - 'a' + 10
         : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                : -1;
}

std::string Decode(const std::string& text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
    if (low >= 0) {
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      decoded += text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

// The pieces of a text between separators; an empty text has none.
std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find(separator, begin), text.size());
    pieces.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return pieces;
}

// -1 for anything but a count.
long long Count(const std::string& text) {
  const bool isNumber = !text.empty() && text.size() < 18 && text.find_first_not_of("0123456789") == std::string::npos;
  return isNumber ? std::strtoll(text.c_str(), nullptr, 10) : -1;
}

// The text of a value, which may stand in JSON's quotes.
std::string Bare(const std::string& value) {
  return value.size() > 1 && value.front() == '"' && value.back() == '"' ? value.substr(1, value.size() - 2) : value;
}

std::string HeadOf(const std::string& status, const std::string& fields) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: application/json\r\nConnection: close\r\n" + fields + "\r\n";
}

std::string LengthField(std::size_t length) {
  return "Content-Length: " + std::to_string(length) + "\r\n";
}

std::string JsonText(int code, const std::string& data, std::size_t padding) {
  return std::string("{") +
         (code != 0      ? "\"error\":{\"code\":" + std::to_string(code) + "},"
          : data.empty() ? ""
                         : "\"data\":" + data + ",") +
         (padding > 0 ? "\"padding\":\"" + std::string(padding, 'x') + "\"," : "") +
         "\"success\":" + (code == 0 ? "true" : "false") + "}";
}

std::string InChunks(const std::string& body) {
  constexpr std::size_t kChunk = 7;
  std::string chunks;
  for (std::size_t i = 0; i < body.size(); i += kChunk) {
    const std::string chunk = body.substr(i, kChunk);
    chunks += std::to_string(chunk.size()) + "\r\n" + chunk + "\r\n";
  }
  return chunks + "0\r\n\r\n";
}

}  // namespace

void Exchange::Run() {
  if (!m_stream.Open() || !ReadHead()) {
    return;
  }
  Handle();
  if (m_shared.options.onDone) {
    m_shared.options.onDone(*m_call);
    const std::lock_guard<std::mutex> lock(m_shared.mutex);
    m_shared.calls.erase(m_call);
  }
}

// ---------------------------------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------------------------------

bool Exchange::ReadHead() {
  char buffer[16384];
  std::size_t end = std::string::npos;
  while (end == std::string::npos) {
    const long count = m_pending.size() < kMaxHead ? m_stream.Read(buffer, sizeof(buffer)) : 0;
    if (count <= 0) {
      return false;
    }
    m_pending.append(buffer, static_cast<std::size_t>(count));
    end = m_pending.find("\r\n\r\n");
  }
  Call call;
  call.head = m_pending.substr(0, end + 2);
  m_pending.erase(0, end + 4);
  std::vector<std::string> lines = Split(call.head, '\n');
  const std::vector<std::string> words = Split(lines.front(), ' ');
  if (words.size() != 3 || words[2].rfind("HTTP/1.", 0) != 0) {
    return false;
  }
  call.verb = words[0];
  call.target = words[1];
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const std::string line = lines[i].substr(0, lines[i].find('\r'));
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::size_t value = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
    call.headers.emplace_back(line.substr(0, colon), line.substr(value));
  }
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  m_call = m_shared.calls.insert(m_shared.calls.end(), std::move(call));
  return true;
}

void Exchange::AddParams(const std::string& text) {
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  m_call->rawParams += (m_call->rawParams.empty() || text.empty() ? "" : "&") + text;
  for (const std::string& pair : Split(text, '&')) {
    const std::size_t equals = std::min(pair.find('='), pair.size());
    m_call->params.emplace_back(Decode(pair.substr(0, equals)),
                                equals < pair.size() ? Decode(pair.substr(equals + 1)) : "");
  }
}

// Of the body: what came with the head, then what comes.
long Exchange::Read(char* data, std::size_t size) {
  long count = 0;
  if (!m_pending.empty()) {
    count = static_cast<long>(m_pending.copy(data, size));
    m_pending.erase(0, static_cast<std::size_t>(count));
  } else {
    count = m_stream.Read(data, size);
  }
  if (count > 0) {
    const std::lock_guard<std::mutex> lock(m_shared.mutex);
    m_call->bodyBytes += count;
    if (m_call->body.size() < kMaxKept) {
      m_call->body.append(data, std::min(static_cast<std::size_t>(count), kMaxKept - m_call->body.size()));
    }
  }
  return count;
}

// Hands the next bytes of the body to sink(data, count). False when the connection ends before.
template <typename Sink>
bool Exchange::ReadBody(long long size, Sink sink) {
  std::string buffer(1 << 18, '\0');
  const bool isSlow = m_fault == Fault::kSlowRead;
  while (size > 0) {
    const std::size_t most = isSlow ? kSlowPiece : buffer.size();
    const long count =
        Read(buffer.data(), static_cast<std::size_t>(std::min<long long>(size, static_cast<long long>(most))));
    if (count <= 0) {
      return false;
    }
    sink(buffer.data(), static_cast<std::size_t>(count));
    size -= count;
    if (isSlow) {
      m_stream.WaitForEnd(kSlowPause);
    }
  }
  return true;
}

void Exchange::Drain() {
  ReadBody(kForEver, [](const char*, std::size_t) {});
}

// ---------------------------------------------------------------------------------------------------------------------
// Requests
// ---------------------------------------------------------------------------------------------------------------------

void Exchange::Note(const std::string& outcome) {
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  m_call->outcome = outcome;
}

void Exchange::TakeFault() {
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  if (Param("method") == m_shared.options.faultMethod) {
    m_fault = m_shared.options.fault;
    m_code = m_shared.options.code;
  }
}

void Exchange::Handle() {
  const std::size_t question = std::min(m_call->target.find('?'), m_call->target.size());
  if (question < m_call->target.size()) {
    AddParams(m_call->target.substr(question + 1));
  }
  if (m_call->target.substr(0, question) != kPath) {
    Note("no such path");
    AnswerText("404 Not Found", "{}");
    return;
  }
  if (strcasecmp(m_call->Header("Expect").c_str(), "100-continue") == 0) {
    m_stream.Write("HTTP/1.1 100 Continue\r\n\r\n");
  }
  if (Param("method") == "SyncFiles") {
    HandleUpload();
    return;
  }
  std::string form;
  const long long length = std::max(Count(m_call->Header("Content-Length")), 0LL);
  if (length > static_cast<long long>(kMaxForm) ||
      !ReadBody(length, [&form](const char* data, std::size_t size) { form.append(data, size); })) {
    Note("the body ended early");
    return;
  }
  AddParams(form);
  TakeFault();
  Answer(HandleRequest());
}

int Exchange::CheckRequest() const {
  const bool isAuth = Param("api") == "ZELK.API.Auth";
  const std::string method = Param("method");
  if (!isAuth && Param("api") != "ZELK.Korvane.Archiving.Push") {
    return kNoApi;
  }
  if (isAuth ? method != "login" && method != "logout"
             : method != "SyncFiles" && method != "CreateDirs" && method != "MoveDir") {
    return kNoMethod;
  }
  if (Param("version") != (isAuth ? "3" : "1")) {
    return kNoVersion;
  }
  return method == "login" || IsLoggedIn() ? 0 : kNotLoggedIn;
}

bool Exchange::IsLoggedIn() const {
  const std::string sid = Bare(Param("_sid"));
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  return m_shared.sessions.count(sid) > 0 ||
         (Param("client") == "REC_SERVER" && !Bare(Param("cookie")).empty() && !Bare(Param("recSerialNum")).empty());
}

Exchange::Reply Exchange::HandleRequest() {
  const std::string method = Param("method");
  const std::string& root = m_shared.options.storeDir;
  if (const int code = CheckRequest(); code != 0) {
    return {code};
  }
  if (m_code != 0) {
    return {m_code};
  }
  if (method == "login") {
    return Login();
  }
  if (method == "logout") {
    const std::lock_guard<std::mutex> lock(m_shared.mutex);
    m_shared.sessions.erase(Bare(Param("_sid")));
    return {};
  }
  if (method == "CreateDirs") {
    std::vector<std::string> dirs = Split(Param("dirList"), ',');
    dirs.insert(dirs.begin(), Param("rootDir"));
    return {MakeDirs(root, dirs)};
  }
  return {MoveDir(root, Param("fromDir"), Param("toDir"))};
}

Exchange::Reply Exchange::Login() {
  const Options& options = m_shared.options;
  const auto matches = [this](const char* name, const std::string& wanted) {
    return Param(name) == wanted || Bare(Param(name)) == wanted;
  };
  if (!matches("account", options.account) || !matches("passwd", options.password)) {
    return {kWrongLogin};
  }
  unsigned char bytes[16] = {};
  RAND_bytes(bytes, sizeof(bytes));
  std::string sid;
  for (const unsigned int byte : bytes) {
    sid += "0123456789abcdef"[byte >> 4U];
    sid += "0123456789abcdef"[byte & 15U];
  }
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  m_shared.sessions.insert(sid);
  return {0, "{\"sid\":\"" + sid + "\"}"};
}

void Exchange::HandleUpload() {
  TakeFault();
  const long long extraSize = Count(Param("extraDataSize"));
  const long long fileSize = Count(Param("fileSize"));
  int code = CheckRequest();
  if (code == 0 && (extraSize < 0 || extraSize > kMaxExtra || fileSize < 0)) {
    code = kBadParameter;
  }
  StoredFile file;
  StoredFile extraFile;
  const bool isStored = code == 0 && m_code == 0;
  const std::string root = isStored ? m_shared.options.storeDir : "";
  const std::string name = Param("fileName");
  if (isStored) {
    code = file.Open(root, Param("destDir"), name, Param("overwrite") == "true");
  }
  if (code == 0 && isStored && extraSize > 0) {
    code = extraFile.Open(root, Param("destDir"), name + ".extra", true);
  }
  // What stands in the way is told at once, as is what a fault says.
  if (code != 0 || m_fault == Fault::kReplyFirst) {
    Answer({code != 0 ? code : m_code});
    return;
  }
  long long left = extraSize;
  const auto store = [&](const char* data, std::size_t size) {
    const std::size_t extra = static_cast<std::size_t>(std::min(left, static_cast<long long>(size)));
    left -= static_cast<long long>(extra);
    code = code != 0 ? code : extraFile.Write(data, extra);
    code = code != 0 ? code : file.Write(data + extra, size - extra);
  };
  const long long all = extraSize + fileSize;
  const bool isCut = m_fault == Fault::kReplyAfterMiB || m_fault == Fault::kClose || m_fault == Fault::kReset ||
                     m_fault == Fault::kStopReading;
  const long long wanted = isCut ? std::min(all, kMiB) : all;
  if (!ReadBody(wanted, store)) {
    Note("ended after " + std::to_string(m_call->bodyBytes) + " of " + std::to_string(all) + " bytes");
    return;
  }
  if (code == 0 && wanted == all) {
    code = file.Commit();
    code = code != 0 || extraSize == 0 ? code : extraFile.Commit();
  }
  Answer({code != 0 ? code : m_code});
}

// ---------------------------------------------------------------------------------------------------------------------
// Replies
// ---------------------------------------------------------------------------------------------------------------------

// The peer learns that nothing more comes, unless isOpen; what it still sends is read.
void Exchange::AnswerText(const std::string& status, const std::string& body, bool isOpen) {
  m_stream.Write(HeadOf(status, LengthField(body.size())) + body);
  if (!isOpen) {
    m_stream.Finish();
  }
  Drain();
}

void Exchange::AnswerSlowly(const std::string& text) {
  for (std::size_t i = 0; i < text.size() && m_stream.Write(text.substr(i, kSlowPiece)); i += kSlowPiece) {
    m_stream.WaitForEnd(kSlowPause);
  }
}

void Exchange::Answer(const Reply& reply) {
  constexpr const char* kOk = "200 OK";
  const std::string body = JsonText(reply.code, reply.data, 0);
  Note(reply.code == 0 ? "done" : "code " + std::to_string(reply.code));
  switch (m_fault) {
    case Fault::kNone:
    case Fault::kSlowRead:
      AnswerText(kOk, body);
      break;
    case Fault::kReplyFirst:
    case Fault::kReplyAfterMiB:
      AnswerText(kOk, body, true);
      break;
    case Fault::kSilent:
      Drain();
      break;
    case Fault::kHalfHeader:
      m_stream.Write(HeadOf(kOk, "").substr(0, 30));
      break;
    case Fault::kHalfBody:
      m_stream.Write(HeadOf(kOk, LengthField(body.size())) + body.substr(0, body.size() / 2));
      break;
    case Fault::kClose:
      m_stream.Finish();
      break;
    case Fault::kReset:
      m_stream.Reset();
      break;
    case Fault::kSlowReply: {
      const std::string slow = JsonText(reply.code, reply.data, kSlowReply);
      AnswerSlowly(HeadOf(kOk, LengthField(slow.size())) + slow);
      break;
    }
    case Fault::kBigReply:
      AnswerText(kOk, JsonText(reply.code, reply.data, kBigReply));
      break;
    case Fault::kNotJson:
      AnswerText(kOk, "<html>not JSON</html>");
      break;
    case Fault::kChunked:
      m_stream.Write(HeadOf(kOk, "Transfer-Encoding: chunked\r\n") + InChunks(body));
      m_stream.Finish();
      Drain();
      break;
    case Fault::kRedirect: {
      const Options& options = m_shared.options;
      const std::string own = std::string(options.certFile.empty() ? "http" : "https") + "://" + options.host + ":" +
                              std::to_string(m_shared.port) + "/redirected";
      m_stream.Write(HeadOf("302 Found", "Location: " + (options.redirectTo.empty() ? own : options.redirectTo) +
                                             "\r\nContent-Length: 0\r\n"));
      m_stream.Finish();
      Drain();
      break;
    }
    case Fault::kNoContent:
      m_stream.Write(HeadOf("204 No Content", ""));
      m_stream.Finish();
      Drain();
      break;
    case Fault::kWrongLength:
      m_stream.Write(HeadOf(kOk, LengthField(body.size() + 1000)) + body);
      Drain();
      break;
    case Fault::kStopReading:
      m_stream.WaitForEnd(-1);
      break;
  }
}

}  // namespace testserver
