#include "tests/support/testserver/exchange.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <random>

#include "tests/support/testserver/store.h"

namespace testserver {
namespace {

constexpr std::size_t kMaxHead = 1 << 18;
constexpr std::size_t kMaxKept = 1 << 24;
constexpr long long kMiB = 1 << 20;
constexpr std::size_t kSlowPiece = 102;  // ten times a second
constexpr int kSlowPause = 100;

std::string Decode(const std::string& text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto isHex = [&text](std::size_t at) { return at < text.size() && std::isxdigit(text[at] & 255) != 0; };
    if (text[i] == '%' && isHex(i + 1) && isHex(i + 2)) {
      decoded += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
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
  return isNumber ? std::stoll(text) : -1;
}

std::string HeadOf(const std::string& status, const std::string& fields) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: application/json\r\nConnection: close\r\n" + fields + "\r\n";
}

std::string LengthField(std::size_t length) {
  return "Content-Length: " + std::to_string(length) + "\r\n";
}

}  // namespace

void Exchange::Run() {
  if (!ReadHead()) return;
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
    if (count <= 0) return false;
    m_pending.append(buffer, static_cast<std::size_t>(count));
    end = m_pending.find("\r\n\r\n");
  }
  const std::vector<std::string> lines = Split(m_pending.substr(0, end + 2), '\n');
  m_pending.erase(0, end + 4);
  const std::vector<std::string> words = Split(lines.front(), ' ');
  if (words.size() != 3 || words[2].rfind("HTTP/1.", 0) != 0) return false;
  Call call;
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
  m_call->rawParams += text;
  for (const std::string& pair : Split(text, '&')) {
    const std::size_t equals = std::min(pair.find('='), pair.size());
    m_call->params.emplace_back(Decode(pair.substr(0, equals)), Decode(pair.substr(std::min(equals + 1, pair.size()))));
  }
}

// Hands the next bytes of the body to the sink. False when the connection ends before.
bool Exchange::ReadBody(long long size, const Sink& sink) {
  std::string buffer(HasFault({"slow-read"}) ? kSlowPiece : 1 << 18, '\0');
  while (size > 0) {
    const auto most = static_cast<std::size_t>(std::min(size, static_cast<long long>(buffer.size())));
    long count = static_cast<long>(m_pending.copy(buffer.data(), most));
    m_pending.erase(0, most);
    if (count == 0) count = m_stream.Read(buffer.data(), most);
    if (count <= 0) return false;
    const std::size_t bytes = static_cast<std::size_t>(count);
    if (sink) sink(buffer.data(), bytes);
    size -= count;
    if (HasFault({"slow-read"})) m_stream.WaitForEnd(kSlowPause);
    const std::lock_guard<std::mutex> lock(m_shared.mutex);
    m_call->bodyBytes += count;
    m_call->body.append(buffer, 0, std::min(bytes, kMaxKept - m_call->body.size()));
  }
  return true;
}

// ---------------------------------------------------------------------------------------------------------------------
// Requests
// ---------------------------------------------------------------------------------------------------------------------

void Exchange::Note(const std::string& outcome) {
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  m_call->outcome = outcome;
}

bool Exchange::HasFault(std::initializer_list<const char*> faults) const {
  return std::find(faults.begin(), faults.end(), m_fault) != faults.end();
}

void Exchange::Handle() {
  const std::size_t question = m_call->target.find('?');
  if (question != std::string::npos) AddParams(m_call->target.substr(question + 1));
  const bool isUpload = Param("method") == "SyncFiles";
  if (!isUpload) {
    const long long length = Count(m_call->Header("Content-Length"));
    if (length > static_cast<long long>(kMaxKept) || !ReadBody(length)) return Note("the body ended early");
    AddParams(m_call->body);
  }
  if (Param("method") == m_shared.options.faultMethod) {
    const std::lock_guard<std::mutex> lock(m_shared.mutex);
    m_fault = m_shared.options.fault;
    m_code = m_shared.options.code;
  }
  const int code = CheckRequest();
  if (isUpload) return HandleUpload(code);
  Answer(code != 0 ? code : m_code != 0 ? m_code : HandleRequest());
}

int Exchange::CheckRequest() const {
  const std::string method = Param("method");
  const bool isAuth = method == "login" || method == "logout";
  if (!isAuth && method != "SyncFiles" && method != "CreateDirs" && method != "MoveDir") return kNoMethod;
  const bool isPath = m_call->target.substr(0, m_call->target.find('?')) == "/webapi/entry.cgi";
  if (!isPath || Param("api") != (isAuth ? "ZELK.API.Auth" : "ZELK.Korvane.Archiving.Push")) return kNoApi;
  if (Param("version") != (isAuth ? "3" : "1")) return kNoVersion;
  const bool isPaired = Param("client") == "REC_SERVER" && !Param("cookie").empty() && !Param("recSerialNum").empty();
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  return method == "login" || isPaired || m_shared.sessions.count(Param("_sid")) > 0 ? 0 : kNotLoggedIn;
}

int Exchange::HandleRequest() {
  const std::string method = Param("method");
  const std::string& root = m_shared.options.storeDir;
  if (method == "login") return Login();
  if (method == "MoveDir") return MoveDir(root, Param("fromDir"), Param("toDir"));
  if (method == "CreateDirs") {
    std::vector<std::string> dirs = Split(Param("dirList"), ',');
    dirs.insert(dirs.begin(), Param("rootDir"));
    return MakeDirs(root, dirs);
  }
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  m_shared.sessions.erase(Param("_sid"));
  return 0;
}

int Exchange::Login() {
  if (Param("account") != "admin" || Param("passwd") != m_shared.options.password) return kWrongLogin;
  std::random_device random;
  std::string sid;
  while (sid.size() < 32) sid += "0123456789abcdef"[random() % 16];
  m_data = "\"data\":{\"sid\":\"" + sid + "\"},";
  const std::lock_guard<std::mutex> lock(m_shared.mutex);
  m_shared.sessions.insert(sid);
  return 0;
}

void Exchange::HandleUpload(int code) {
  const long long extraSize = Count(Param("extraDataSize"));
  const long long fileSize = Count(Param("fileSize"));
  if (code == 0 && (extraSize < 0 || fileSize < 0)) code = kBadParameter;
  StoredFile file;
  StoredFile extra;
  if (code == 0 && m_code == 0) {
    const bool overwrite = Param("overwrite") == "true";
    const auto open = [&](StoredFile& stored, const std::string& name, bool replace) {
      return stored.Open(m_shared.options.storeDir, Param("destDir"), name, replace);
    };
    code = open(file, Param("fileName"), overwrite);
    if (code == 0 && extraSize > 0) code = open(extra, Param("fileName") + ".extra", true);
  }
  // What stands in the way is told at once, as is what a fault says.
  if (code != 0 || HasFault({"reply-first"})) return Answer(code != 0 ? code : m_code);
  const auto into = [&code](const StoredFile& stored) {
    return [&](const char* data, std::size_t size) { code = code != 0 ? code : stored.Write(data, size); };
  };
  const bool isCut = HasFault({"close", "reset", "stop-reading"}) && fileSize > kMiB;
  if (!ReadBody(extraSize, into(extra)) || !ReadBody(isCut ? kMiB : fileSize, into(file))) {
    const std::string all = std::to_string(extraSize + fileSize);
    return Note("ended after " + std::to_string(m_call->bodyBytes) + " of " + all + " bytes");
  }
  if (code == 0 && !isCut) code = file.Commit();
  if (code == 0 && !isCut) code = extra.Commit();
  Answer(code != 0 ? code : m_code);
}

// ---------------------------------------------------------------------------------------------------------------------
// Replies
// ---------------------------------------------------------------------------------------------------------------------

// As the fault has it.
std::string Exchange::ReplyText(int code) const {
  std::string body = "{" + m_data + "\"success\":true}";
  if (code != 0) body = "{\"error\":{\"code\":" + std::to_string(code) + "},\"success\":false}";
  if (HasFault({"not-json"})) body = "<html>not JSON</html>";
  if (HasFault({"slow-reply"})) body.insert(1, "\"padding\":\"" + std::string(1 << 16, 'x') + "\",");
  if (HasFault({"big-reply"})) body.insert(1, "\"padding\":\"" + std::string(10000000, 'x') + "\",");
  if (HasFault({"redirect"})) return HeadOf("302 Found", "Location: /redirected\r\n" + LengthField(0));
  if (HasFault({"no-content"})) return HeadOf("204 No Content", "");
  const std::string text = HeadOf("200 OK", LengthField(body.size() + (HasFault({"wrong-length"}) ? 1000 : 0))) + body;
  const std::size_t missing = HasFault({"half-body"}) ? body.size() / 2 : 0;
  return text.substr(0, HasFault({"half-header"}) ? 30 : text.size() - missing);
}

void Exchange::Answer(int code) {
  Note(code == 0 ? "done" : "code " + std::to_string(code));
  if (HasFault({"reset"})) return m_stream.Reset();
  if (HasFault({"stop-reading"})) return m_stream.WaitForEnd(-1);
  const std::string text = HasFault({"silent", "close"}) ? "" : ReplyText(code);
  const std::size_t pieceSize = HasFault({"slow-reply"}) ? kSlowPiece : text.size();
  for (std::size_t i = 0; i < text.size() && m_stream.Write(text.substr(i, pieceSize)); i += pieceSize) {
    if (pieceSize < text.size()) m_stream.WaitForEnd(kSlowPause);
  }
  if (HasFault({"half-header", "half-body", "slow-reply"})) return;
  // The peer learns that nothing more comes; what it still sends is read.
  if (!HasFault({"silent", "reply-first", "wrong-length"})) m_stream.Finish();
  if (!HasFault({"close"})) ReadBody(std::numeric_limits<long long>::max());
}

}  // namespace testserver
