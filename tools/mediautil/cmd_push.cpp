// mediautil push: a file or a directory to another recorder.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
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
  // Where a directory goes until it is complete.
  std::string TmpDir() const { return (dest.back() == '/' ? dest.substr(0, dest.size() - 1) : dest) + ".arch"; }
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
             ? Fail(kNotLoggedIn, what + "the remote ended the session (code 105); push again")
             : Fail(kRefused, what + "the remote refused it with code " + std::to_string(code) + "; " + whatToTry);
}

// result and code: the library's of a file that had size bytes before; it was not delivered.
int FailFile(const std::string& path, long long size, int result, int code) {
  const std::string what = path + ": not sent: ";
  if (code != 0) {
    return FailRefused(what, code, WhatToTry(code));
  }
  if (result == kNotLoggedInResult) {
    return Fail(kNotLoggedIn, what + "no session; push again");
  }
  if (result != 0) {
    return Fail(kFailed, what + "the library failed; see its messages with -v");
  }
  if (access(path.c_str(), R_OK) != 0) {
    return Fail(kBadInput, what + std::strerror(errno) + "; check the path and the permissions");
  }
  if (GetFileSize(path) != size) {
    return Fail(kFailed, what + "it changed while it was read; push it again when it is finished");
  }
  return Fail(kFailed, what +
                           "the remote did not acknowledge it: the connection broke, or its answer did not come or " +
                           "could not be read; try again with -v");
}

// Login tells no reason, so another request tells whether there is anybody to ask.
int FailLogin(const PushArgs& args) {
  const std::string what = args.Remote() + ": not logged in: ";
  Json::Value reply;
  const Json::Value request = GetJsonAPIInfo("ZELK.API.Auth", "logout", 3);
  if (SendWebAPIWithEncrypt(args.host, args.Port(), "", request, reply, args.https, true, kReachTimeout,
                            "webapi/entry.cgi") < 0) {
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
    if (StopSignals::Seen() || IsMakingRefused()) {
      return kStop;
    }
    const std::string path = file.GetFilePath();
    const long long size = GetFileSize(path);
    const int result = WebapiSender::SendFile(file, overwrite);
    if (result == 0 && LastFileDelivered()) {
      m_bytes += size;
      ++m_files;
      return 0;
    }
    if (!StopSignals::Seen()) {
      Tell(m_source.isDir ? path : m_args.source, size, result);
    }
    // One of that name is there: a directory goes on, unless it is to be put together as a whole.
    const bool goesOn = result == 0 && LastErrorCode() != 0 && !m_args.tmpDir;
    return goesOn ? 0 : kStop;
  }

  // Whether the last request about directories was, which the library does not look at; prints so.
  bool IsRefused(const std::string& what, const std::string& whatToTry) {
    const bool isRefused = m_exitCode == kDone && LastErrorCode() != 0;
    if (isRefused) {
      m_progress.Hide();
      m_exitCode = FailRefused(m_args.source + ": " + what + ": ", LastErrorCode(), whatToTry);
    }
    return isRefused;
  }
  bool IsMakingRefused() {
    return IsRefused("cannot make the directories in " + m_args.dest, WhatToTry(LastErrorCode()));
  }
  bool IsRenamingRefused() {
    return IsRefused("sent as " + m_args.TmpDir() + ", not renamed", "move what has that name there, then push again");
  }

  int ExitCode() const { return m_exitCode; }  // kDone, or that of the last failure
  std::size_t Files() const { return m_files; }
  long long Bytes() const { return m_bytes; }

 protected:
  void OnFileSent(long long sent, long long) override {
    if (StopSignals::Seen()) {
      throw std::runtime_error("interrupted");  // the library ends the upload and fails
    }
    m_progress.Update(static_cast<double>(m_bytes + sent));
  }

 private:
  static constexpr int kStop = 1;
  static constexpr int kMostTold = 10;

  void Tell(const std::string& path, long long size, int result) {
    m_progress.Hide();
    if (++m_told <= kMostTold) {
      m_exitCode = FailFile(path, size, result, LastErrorCode());
    } else if (m_told == kMostTold + 1) {
      Fail(m_exitCode, "more files did not arrive");
    }
  }

  Progress& m_progress;
  const PushArgs& m_args;
  const Source& m_source;
  int m_exitCode = kDone;
  int m_told = 0;
  std::size_t m_files = 0;
  long long m_bytes = 0;
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
  const int result = sender.SendDir(source.path, true, args.dest, args.tmpDir);
  if (StopSignals::Seen()) {
    return kDone;
  }
  const std::string arrived =
      args.source + ": " + std::to_string(sender.Files()) + " of " + std::to_string(source.files) + " files arrived";
  if (sender.ExitCode() != kDone) {
    return Fail(sender.ExitCode(), arrived + (args.tmpDir ? "; nothing was renamed" : ""));
  }
  if (result != 0) {
    const bool isSent = sender.Files() > 0;
    return Fail(kFailed, arrived + (isSent ? "; cannot rename " + args.TmpDir() : "; cannot make the directories") +
                             " on the remote: it gives no answer; check it, then push again with -v");
  }
  static_cast<void>(args.tmpDir ? sender.IsRenamingRefused() : sender.IsMakingRefused());
  return sender.ExitCode();
}

int Send(const PushArgs& args, const Source& source, const std::string& password) {
  Progress progress(ChooseProgress(args.progress), static_cast<double>(source.bytes), ProgressUnit::Bytes);
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
    std::error_code ignored;
    source.path =
        (std::filesystem::canonical(given.has_parent_path() ? given.parent_path() : ".", ignored) / given.filename())
            .string();
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

int CheckArgs(const PushArgs& args, const Source& source) {
  if (args.dest.find_first_not_of('/') == std::string::npos) {
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

int Push(const PushArgs& args) {
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
    const std::string prompt = "Password of " + args.account + " on " + args.Remote() + ": ";
    if (const int code = ReadPassword(args.passwordFile, prompt, password); code != kDone) {
      return code;
    }
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
  command->add_option("SOURCE", args->source, "file or directory to send")->required()->type_name("");
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
