#include "tools/mediautil/args.h"

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <CLI/CLI.hpp>

#include "platform/file.h"
#include "platform/text.h"

namespace {

bool g_quiet = false;

constexpr std::size_t kCornerLength = 8;
constexpr std::size_t kMinCorners = 3;

// Edits (insert, delete, replace a character) between two words.
std::size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) {
    row[j] = j;
  }
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
}

// Keeps Ctrl-C and its like waiting, so that no temporary file is left behind.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&held, signal);
    }
    sigprocmask(SIG_BLOCK, &held, &m_before);
  }
  ~SignalsHeld() { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
  sigset_t m_before;
};

int WriteStdout(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(STDOUT_FILENO, data, size);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return Fail(kFailed, std::string("stdout: cannot write the result: ") + std::strerror(errno) +
                               "; check where the output goes");
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return kDone;
}

// As one line: no file name moves the cursor, or looks like a second message.
void PrintMessage(std::string text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : '\0');
    const bool isLong = byte == 0xC2 && next >= 0x80 && next <= 0x9F;  // U+0080 to U+009F
    if (byte < 0x20 || byte == 0x7F || isLong) {
      text.replace(i, isLong ? 2 : 1, "?");
    }
  }
  std::fprintf(stderr, "mediautil: %s\n", text.c_str());
}

}  // namespace

int Fail(int code, const std::string& text) {
  PrintMessage(text);
  return code;
}

void Note(const std::string& text) {
  if (!g_quiet) {
    PrintMessage(text);
  }
}

void SetQuiet(bool quiet) {
  g_quiet = quiet;
}

bool IsQuiet() {
  return g_quiet;
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string NearestName(const std::string& word, const std::vector<std::string>& candidates) {
  constexpr std::size_t kLongestWord = 64;
  std::string nearest;
  // Two slips, or one in three letters; never a wholly different word.
  std::size_t best = std::min(std::max<std::size_t>(word.size() / 3, 2) + 1, word.size());
  for (const std::string& candidate : candidates) {
    const std::size_t distance =
        word.size() > kLongestWord ? best : EditDistance(LowerCase(word), LowerCase(candidate));
    if (distance < best) {
      best = distance;
      nearest = candidate;
    }
  }
  return nearest;
}

std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates, const std::string& hint) {
  const std::string nearest = NearestName(word, candidates);
  return nearest.empty() ? "; " + hint : "; did you mean " + nearest + "?";
}

int FindStateDir(const std::string& what, std::string& directory) {
  const char* value = std::getenv("MEDIAUTIL_STATE_DIR");
  directory = value == nullptr ? "" : value;
  return directory.empty()
             ? Fail(kFailed, "cannot reach " + what +
                                 ": MEDIAUTIL_STATE_DIR is not set; set it to the state directory of the server")
             : kDone;
}

int CheckInput(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
    return Fail(kBadInput,
                path + ": cannot read the recording: " + std::strerror(errno) + "; check the path and the permissions");
  }
  if (S_ISDIR(status.st_mode)) {
    return Fail(kBadInput, path + ": cannot read the recording: it is a directory; name a file in it");
  }
  return kDone;
}

int FailNotMedia(const std::string& path) {
  return Fail(kBadInput, path + ": cannot open the recording: not media, or damaged; check that it was copied whole");
}

std::string InputPath(const std::string& path) {
  return !path.empty() && path[0] == '/' ? path : "./" + path;
}

int CheckOutput(const std::string& output, const std::string& input, const std::string& what) {
  if (output == "-") {
    return isatty(STDOUT_FILENO) != 0
               ? Fail(kUsage, "stdout: a terminal shows no " + what + "; name a file or redirect the output")
               : kDone;
  }
  struct stat out = {};
  if (stat(output.c_str(), &out) != 0) {
    return kDone;
  }
  struct stat in = {};
  if (stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
    return Fail(kUsage, output + ": the " + what + " would replace the recording; name another file");
  }
  if (!S_ISREG(out.st_mode)) {
    return Fail(kFailed, output + ": cannot write the " + what + ": not a regular file; name another file");
  }
  return kDone;
}

std::string OutputName(const std::string& output) {
  return output == "-" ? "stdout" : output;
}

int WritePicture(const std::string& output, const void* data, unsigned int size) {
  const char* bytes = static_cast<const char*>(data);
  if (output == "-") {
    return WriteStdout(bytes, size);
  }
  int result = 0;
  int error = 0;
  {
    const SignalsHeld held;
    result = WriteContentFromBufToFile(bytes, size, true, output);
    error = errno;
  }
  return result == 0 ? kDone
                     : Fail(kFailed, output + ": cannot write the picture: " + std::strerror(error) +
                                         "; check the directory, its permissions and the free space");
}

int PrintResult(const std::string& text) {
  return WriteStdout(text.data(), text.size());
}

std::string JsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value) + "\n";
}

bool IsPrivacyText(const std::string& text) {
  const std::vector<std::string> regions = String2StrVector(text, ";");
  return std::all_of(regions.begin(), regions.end(), [](const std::string& region) {
    return region.empty() || (region.size() % kCornerLength == 0 && region.size() >= kMinCorners * kCornerLength &&
                              region.find_first_not_of("0123456789") == std::string::npos);
  });
}

void AddPictureOptions(CLI::App& command, PictureArgs& args) {
  command.add_option("FILE", args.input, "recording to read")->required()->type_name("");
  command.add_option("-o,--output", args.output, "JPEG file to write, - for stdout")->required()->type_name("OUT");
  command.add_option("--at", args.at, "time from the start of the stream; first key frame without it")
      ->type_name("SECONDS")
      ->check([](const std::string& text) {
        double seconds = 0;
        return CLI::detail::lexical_cast(text, seconds) && !std::isfinite(seconds) ? "not a time: " + text : "";
      });
  command.add_option("--privacy", args.privacy, "regions to paint black: XXXXYYYY a corner, ; between regions")
      ->type_name("TEXT");
}

int CheckPictureArgs(const PictureArgs& args) {
  if (const int code = CheckInput(args.input); code != kDone) {
    return code;
  }
  if (!IsPrivacyText(args.privacy)) {
    return Fail(kFailed, args.input + ": cannot paint the privacy regions: \"" + args.privacy +
                             "\" is no region text; " + kPrivacyForm);
  }
  return CheckOutput(args.output, args.input, "picture");
}
