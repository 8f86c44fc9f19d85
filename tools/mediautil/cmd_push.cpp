// mediautil push: a file or a directory to another recorder.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "archiving/archivesender.h"
#include "platform/file.h"
#include "platform/webapi.h"
#include "tools/mediautil/args.h"
#include "tools/mediautil/password.h"
#include "tools/mediautil/progress.h"
#include "tools/mediautil/stopsignals.h"

namespace {

constexpr int kHttpPort = 5000;
constexpr int kHttpsPort = 5001;
constexpr const char* kCgiPath = "webapi/entry.cgi";  // of every request to the web API
constexpr int kAuthVersion = 3;

constexpr unsigned int kGrace = 2;     // seconds for the library to come back after Ctrl-C
constexpr int kReachTimeout = 5;       // seconds
constexpr int kNotLoggedInResult = 3;  // of the library
constexpr int kNotLoggedInCode = 105;  // error codes of the web API
constexpr int kExistsCode = 518;
constexpr int kNoSpaceCode = 487;

struct PushArgs {
  std::string source;
  std::string host;
  int port = 0;  // 0: by the protocol
  std::string account;
  std::string dest;
  std::string passwordFile;
  std::string otp;
  std::string progress;  // empty: as fits
  std::string eventDb;
  int camera = 0;
  bool https = false;
  bool overwrite = false;
  bool tmpDir = false;
  bool recording = false;

  int Port() const { return port > 0 ? port : https ? kHttpsPort : kHttpPort; }
  std::string TmpDir() const { return dest + ".arch"; }  // where a directory goes until it is complete
  std::string Remote() const { return host + ":" + std::to_string(Port()); }
};

// What is to be sent.
struct Source {
  std::string path;  // as the library gets it; of a directory with a "/" at its end
  bool isDir = false;
  std::size_t files = 0;
  long long bytes = 0;
};

// ---------------------------------------------------------------------------------------------------------------------
// Why something did not arrive
// ---------------------------------------------------------------------------------------------------------------------

std::string WhatToTry(int code) {
  switch (code) {
    case kExistsCode:
      return "a file of that name is there; for a single file add --overwrite, for a directory --tmp-dir";
    case kNoSpaceCode:
      return "free space there, then push again";
    default:
      return "check the destination and the rights of the account; the remote's log tells more";
  }
}

int FailRefused(const std::string& what, int code, const std::string& whatToTry) {
  return code == kNotLoggedInCode
             ? Fail(kNotLoggedIn, what + "the remote ended the session (code " + std::to_string(code) + "); push again")
             : Fail(kRefused, what + "the remote refused it with code " + std::to_string(code) + "; " + whatToTry);
}

// What became of a file here that had size bytes before it was read; empty: nothing.
std::string LocalFault(const std::string& path, long long size) {
  if (access(path.c_str(), R_OK) != 0) {
    return std::string(std::strerror(errno)) + "; check the path and the permissions";
  }
  return size < 0 || GetFileSize(path) != size ? "it changed while it was read; push it again when it is finished" : "";
}

// result and code: the library's of a file that was not delivered.
int FailFile(const std::string& path, const std::string& localFault, int result, int code) {
  const std::string what = path + ": not sent: ";
  if (code != 0) {
    return FailRefused(what, code, WhatToTry(code));
  }
  if (result == kNotLoggedInResult) {
    return Fail(kNotLoggedIn, what + "no session; push again");
  }
  if (result != 0) {
    return Fail(kFailed, what + "the library failed; see its messages with -vv");
  }
  if (!localFault.empty()) {
    return Fail(access(path.c_str(), R_OK) != 0 ? kBadInput : kFailed, what + localFault);
  }
  return Fail(kFailed, what +
                           "the remote did not acknowledge it: the connection broke, or its answer did not come or " +
                           "could not be read; try again with -vv");
}

// Login tells no reason, so another request tells whether there is anybody to ask.
int FailLogin(const PushArgs& args) {
  const std::string what = args.Remote() + ": not logged in: ";
  Json::Value reply;
  const Json::Value request = GetJsonAPIInfo("ZELK.API.Auth", "logout", kAuthVersion);
  const int reached =
      SendWebAPIWithEncrypt(args.host, args.Port(), "", request, reply, args.https, true, kReachTimeout, kCgiPath);
  if (reached < 0) {
    return Fail(kNotLoggedIn, what + "no recorder answers there" +
                                  (args.https ? ", or its certificate is not trusted" : "") +
                                  "; check --host, --port and --https, and see the reason with -v");
  }
  return Fail(kNotLoggedIn,
              what + (args.account.empty() ? "it is not the paired central-management host; give --account"
                                           : "the account or the password is wrong, or a one-time code is needed " +
                                                 std::string("(--otp)")));
}

// ---------------------------------------------------------------------------------------------------------------------
// Sending
// ---------------------------------------------------------------------------------------------------------------------

// The library's result 0 includes files that did not arrive; this sender asks after each one and tells.
class PushSender : public WebapiSender {
 public:
  PushSender(Progress& progress, const PushArgs& args, const Source& source)
      : m_progress(progress), m_args(args), m_source(source) {}

  int SendFile(const ArchFile& file, bool overwrite) override {
    if (StopSignals::Seen() || (m_source.isDir && IsMakingFailed())) {
      return kStop;
    }
    const std::string path = file.GetFilePath();
    const long long size = GetFileSize(path);
    const int result = WebapiSender::SendFile(file, overwrite);
    if (StopSignals::Seen()) {
      return kStop;
    }
    m_passed += std::max(size, 0LL);
    if (result == 0 && LastFileDelivered()) {
      m_bytes += size;
      ++m_files;
      return 0;
    }
    const int code = LastErrorCode();
    const std::string localFault = LocalFault(path, size);
    // The other files of a directory may still arrive, unless it is to be put together as a whole.
    const bool isOfFile = code != 0 ? code != kNotLoggedInCode : result == 0 && !localFault.empty();
    const bool goesOn = isOfFile && !m_args.tmpDir;
    m_progress.Hide();
    if (++m_failed <= kMostTold || !goesOn) {
      m_exitCode = FailFile(m_source.isDir ? path : m_args.source, localFault, result, code);
    } else if (m_failed == kMostTold + 1) {
      Fail(m_exitCode, "more files did not arrive");
    }
    return goesOn ? 0 : kStop;
  }

  // Whether the last request about directories failed, which the library does not tell; prints so.
  bool IsMakingFailed() {
    const std::string what = m_args.source + ": cannot make the directories in " + m_args.dest + ": ";
    return IsRequestFailed(what, WhatToTry(LastErrorCode()),
                           what + "the remote did not acknowledge it; try again with -vv");
  }
  bool IsRenamingFailed() {
    const std::string what = m_args.source + (m_files > 0 ? ": sent as " + m_args.TmpDir() : ": no files") + ", ";
    return IsRequestFailed(what + "not renamed: ", "move what has that name there, then push again",
                           what + "the rename was not acknowledged; look which name it has there, then push again");
  }

  int ExitCode() const { return m_exitCode; }  // kDone, or that of the last failure that was told
  std::size_t Files() const { return m_files; }
  long long Bytes() const { return m_bytes; }

 protected:
  void OnFileSent(long long sent, long long) override {
    if (StopSignals::Seen()) {
      throw std::runtime_error("interrupted");  // the library ends the upload and fails
    }
    m_progress.Update(static_cast<double>(m_passed + sent));
  }

 private:
  static constexpr int kStop = 1;
  static constexpr int kMostTold = 10;

  bool IsRequestFailed(const std::string& ifRefused, const std::string& whatToTry, const std::string& ifUnknown) {
    const bool isFailed = m_exitCode == kDone && !LastRequestAcknowledged();
    if (isFailed) {
      m_progress.Hide();
      m_exitCode = LastErrorCode() != 0 ? FailRefused(ifRefused, LastErrorCode(), whatToTry) : Fail(kFailed, ifUnknown);
    }
    return isFailed;
  }

  Progress& m_progress;
  const PushArgs& m_args;
  const Source& m_source;
  int m_exitCode = kDone;
  int m_failed = 0;
  std::size_t m_files = 0;
  long long m_bytes = 0;   // that arrived
  long long m_passed = 0;  // of the files that are done with
};

int SendOneFile(const PushArgs& args, const Source& source, PushSender& sender) {
  ArchFile file;
  file.SetFileType(args.recording ? ARCH_FILE_RECORDING : ARCH_FILE_PLAIN);
  file.SetFilePath(source.path);
  file.SetDestDir(args.dest);
  file.SetCamId(args.camera);
  file.SetRecDbPath(args.eventDb);
  sender.SendFile(file, args.overwrite);
  return sender.ExitCode();
}

int SendDirectory(const PushArgs& args, const Source& source, PushSender& sender) {
  if (args.tmpDir && source.files == 0) {
    // Without a file nothing tells later that the making was refused.
    std::list<std::string> dirs;
    GetDirsInDir(source.path, dirs, true, true, "");
    for (std::string& dir : dirs) {
      dir = args.TmpDir() + "/" + dir.substr(source.path.size());
    }
    sender.CreateRemoteDir(dirs, args.TmpDir(), true);
    if (StopSignals::Seen() || sender.IsMakingFailed()) {
      return sender.ExitCode();
    }
  }
  const int result = sender.SendDir(source.path, true, args.dest, args.tmpDir);
  if (StopSignals::Seen()) {
    return kDone;
  }
  const std::string arrived =
      args.source + ": " + std::to_string(sender.Files()) + " of " + std::to_string(source.files) + " files arrived";
  if (sender.ExitCode() != kDone) {
    return Fail(sender.ExitCode(), arrived + (args.tmpDir ? "; nothing was renamed" : ""));
  }
  std::list<std::string> ignored;
  if (result != 0 && GetFilesInDir(source.path, ignored, true, true, "") != 0) {
    return Fail(kBadInput, arrived + "; cannot read it any more: " + std::strerror(errno) + "; check the permissions");
  }
  const bool isRenamed = args.tmpDir && (result == 0 || sender.Files() > 0 || source.files == 0);
  if (!(isRenamed ? sender.IsRenamingFailed() : sender.IsMakingFailed()) && result != 0) {
    return Fail(kFailed, arrived + "; the library failed; see its messages with -vv");
  }
  return sender.ExitCode();
}

int Send(const PushArgs& args, const Source& source, const std::string& password) {
  Progress progress(ChooseProgress(args.progress), static_cast<double>(source.bytes), ProgressUnit::kBytes);
  PushSender sender(progress, args, source);
  if (sender.Login(args.host, args.Port(), args.account, password, args.otp, args.https) != 0) {
    return StopSignals::Seen() ? kDone : FailLogin(args);
  }
  const int code = source.isDir ? SendDirectory(args, source, sender) : SendOneFile(args, source, sender);
  if (code == kDone && !StopSignals::Seen()) {
    progress.Finish(static_cast<double>(sender.Bytes()));
    Note(args.source + ": " + (source.isDir ? std::to_string(sender.Files()) + " files, " : "") +
         std::to_string(sender.Bytes()) + " bytes sent to " + args.Remote() + ", " + args.dest);
  }
  return code;
}

// ---------------------------------------------------------------------------------------------------------------------
// Before anything is sent
// ---------------------------------------------------------------------------------------------------------------------

void NoteLeftOut(const Source& source) {
  std::size_t count = 0;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator entry(source.path, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code ignored;
    const std::filesystem::file_status status = entry->symlink_status(ignored);
    count += exists(status) && !is_regular_file(status) && !is_directory(status) ? 1U : 0U;
  }
  if (count > 0) {
    Note(source.path + ": " + std::to_string(count) + " entries that are no regular files were left out");
  }
}

int Measure(const std::string& path, Source& source) {
  struct stat status = {};
  const std::string what = path + ": cannot read it: ";
  const auto fail = [&what] {
    return Fail(kBadInput, what + std::strerror(errno) + "; check the path and the permissions");
  };
  if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
    return fail();
  }
  source.isDir = S_ISDIR(status.st_mode);
  if (!source.isDir && !S_ISREG(status.st_mode)) {
    return Fail(kBadInput, what + "neither a file nor a directory; name one of these");
  }
  if (!source.isDir) {
    // The trigger log lies two directories up, which a relative path may not tell.
    const std::filesystem::path given(path);
    std::error_code error;
    const auto directory = std::filesystem::canonical(given.has_parent_path() ? given.parent_path() : ".", error);
    if (error) {
      return Fail(kBadInput, what + error.message() + "; check the path and the permissions");
    }
    source.path = (directory / given.filename()).string();
    source.files = 1;
    source.bytes = status.st_size;
    return kDone;
  }
  source.path = path.substr(0, path.find_last_not_of('/') + 1) + "/";
  std::list<std::string> files;
  if (GetFilesInDir(source.path, files, true, true, "") != 0) {
    return fail();
  }
  source.files = files.size();
  for (const std::string& file : files) {
    source.bytes += std::max(GetFileSize(file), 0LL);
  }
  return kDone;
}

// A name, or an address of either kind, IPv6 also in brackets.
bool IsHost(const std::string& host) {
  const auto colons = std::count(host.begin(), host.end(), ':');
  return !host.empty() && host.find('/') == std::string::npos && colons != 1 &&
         (host.front() != '[' || host.back() == ']');
}

int CheckArgs(const PushArgs& args, const Source& source) {
  if (!IsHost(args.host)) {
    return Fail(kUsage, "--host takes a name or address, the port goes to --port");
  }
  if (args.dest.empty()) {
    return Fail(kUsage, "--dest names no directory of the remote; give one such as archive/gate");
  }
  if (args.account.empty() && !args.passwordFile.empty()) {
    return Fail(kUsage, "--password-file without --account; give both, or neither for the paired host");
  }
  if (source.isDir && args.overwrite) {
    return Fail(kUsage, "--overwrite is for a file; of a directory, files that are there stay as they are, unless " +
                            std::string("--tmp-dir puts a new directory together"));
  }
  if (source.isDir && args.recording) {
    return Fail(kUsage, args.source + ": --recording is for a file, and this is a directory; leave it out");
  }
  if (!source.isDir && args.tmpDir) {
    return Fail(kUsage, args.source + ": --tmp-dir is for a directory, and this is a file; leave it out");
  }
  return kDone;
}

int Push(PushArgs args) {
  args.dest.erase(args.dest.find_last_not_of('/') + 1);
  Source source;
  if (const int code = Measure(args.source, source); code != kDone) {
    return code;
  }
  if (const int code = CheckArgs(args, source); code != kDone) {
    return code;
  }
  const StopSignals signals(kGrace);
  std::string password;
  if (!args.account.empty()) {
    if (!args.https) {
      Note(args.Remote() + ": the password goes over plain HTTP, where others can read it; add --https");
    }
    const std::string prompt = "Password of " + args.account + " on " + args.Remote() + ": ";
    if (const int code = ReadPassword(args.passwordFile, prompt, password); code != kDone) {
      return code;
    }
  }
  if (source.isDir) {
    NoteLeftOut(source);
  }
  const int code = Send(args, source, password);
  return StopSignals::Seen()
             ? Fail(kInterrupted, args.source + ": interrupted; files that had arrived stay on the remote")
             : code;
}

}  // namespace

void AddPush(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("push", "Send a file, or a directory with all below it, to another recorder.");
  const auto args = std::make_shared<PushArgs>();
  command->add_option("SOURCE", args->source, "file, or directory without its links, FIFOs, sockets and devices")
      ->required()
      ->type_name("");
  command->add_option("--host", args->host, "name or address of the remote")->required()->type_name("H");
  command->add_option("--port", args->port, "its port; 5000, with --https 5001, without it")
      ->type_name("P")
      ->check(CLI::Range(1, 65535).description(""));
  command->add_option("--account", args->account, "account there; without it the pairing is used")->type_name("A");
  command
      ->add_option("--password-file", args->passwordFile,
                   "first line: the password, - for stdin; else MEDIAUTIL_PASSWORD, else a prompt")
      ->type_name("F");
  command->add_option("--otp", args->otp, "one-time code, for accounts that ask for one")->type_name("CODE");
  command->add_option("--dest", args->dest, "directory on the remote")->required()->type_name("D");
  command->add_flag("--https", args->https, "encrypt; the remote's certificate is verified");
  command->add_flag("--overwrite", args->overwrite, "file: replace one of that name; without it that one stays");
  command->add_flag("--tmp-dir", args->tmpDir, "directory: send to D.arch, rename to D at the end");
  CLI::Option* recording =
      command->add_flag("--recording", args->recording, "file: with its triggers and why it was made");
  command->add_option("--camera", args->camera, "recording: number of its camera")->type_name("N")->needs(recording);
  command->add_option("--event-db", args->eventDb, "recording: database of its events")
      ->type_name("F")
      ->needs(recording);
  AddProgressOption(*command, args->progress);
  command->footer(
      "Examples:\n  mediautil push gate.mp4 --host nvr2 --account admin --dest archive/gate\n"
      "  mediautil push day1/ --host nvr2 --https --account admin --dest archive/day1 --tmp-dir");
  command->callback([args, &action] { action = [args] { return Push(*args); }; });
}
