// What the commands share: exit codes, messages, input and output files, picture options.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}
namespace Json {
class Value;
}

constexpr int kDone = 0;
constexpr int kFailed = 1;         // for any other reason
constexpr int kUsage = 2;          // wrong usage
constexpr int kBadInput = 3;       // unreadable or not media
constexpr int kRefused = 4;        // by the remote
constexpr int kNotLoggedIn = 5;    // on the remote
constexpr int kInterrupted = 130;  // by a signal

// What a command line asks for; returns the exit code.
using Action = std::function<int()>;

// Each adds one command to the program; a command line that names it sets action.
void AddProbe(CLI::App& app, Action& action);
void AddSnapshot(CLI::App& app, Action& action);
void AddThumbnail(CLI::App& app, Action& action);
void AddJpeg(CLI::App& app, Action& action);
void AddCrop(CLI::App& app, Action& action);
void AddLiveThumb(CLI::App& app, Action& action);
void AddGif(CLI::App& app, Action& action);
void AddExport(CLI::App& app, Action& action);
void AddMix(CLI::App& app, Action& action);
void AddG711(CLI::App& app, Action& action);
void AddMp3(CLI::App& app, Action& action);
void AddSpeak(CLI::App& app, Action& action);
void AddPlay(CLI::App& app, Action& action);
void AddPush(CLI::App& app, Action& action);
void AddLogLevel(CLI::App& app, Action& action);
void AddCamera(CLI::App& app, Action& action);
void AddFeed(CLI::App& app, Action& action);

// ---------------------------------------------------------------------------------------------------------------------
// Messages, all to stderr; control characters in them become "?"
// ---------------------------------------------------------------------------------------------------------------------

// Prints an error as one line and returns code.
int Fail(int code, const std::string& text);

// Prints a remark, unless the program was asked to be quiet.
void Note(const std::string& text);
void SetQuiet(bool quiet);
bool IsQuiet();

// The candidate that word was most likely meant to be, letter case ignored; empty when none is near.
std::string NearestName(const std::string& word, const std::vector<std::string>& candidates);

// "; did you mean NAME?" or, without a near candidate, "; HINT".
std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates, const std::string& hint);

std::string LowerCase(std::string text);

// ---------------------------------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------------------------------

// Finds the directory of the server's state. kDone, or prints that what, such as "the cameras", cannot be reached.
int FindStateDir(const std::string& what, std::string& directory);

// kDone when the file can be read; otherwise prints why not.
int CheckInput(const std::string& path);

// Prints that a file is no recording. kBadInput.
int FailNotMedia(const std::string& path);

// The path as the library shall open it: always a file, although a name such as "cam1:noon.mp4" looks like a URL.
std::string InputPath(const std::string& path);

// Tests before the work whether output, such as a "picture", may be written: not to a terminal, not over the input
// itself, not to a device.
int CheckOutput(const std::string& output, const std::string& input, const std::string& what);

// What messages call an output: "stdout" for "-", else as named.
std::string OutputName(const std::string& output);

// Writes a picture to the file as a whole or, for "-", to stdout. kDone or kFailed.
int WritePicture(const std::string& output, const void* data, unsigned int size);

// Writes a result to stdout. kDone or kFailed.
int PrintResult(const std::string& text);

// The value as one line of JSON in ASCII.
std::string JsonLine(const Json::Value& value);

// ---------------------------------------------------------------------------------------------------------------------
// Options of the commands that make a picture
// ---------------------------------------------------------------------------------------------------------------------

struct PictureArgs {
  std::string input;
  std::string output;
  std::optional<double> at;  // seconds from the start of the stream
  std::string privacy;       // empty: nothing is hidden
};

// Whether a text describes regions to hide, or none. Only whole corners made of digits pass: a slip in the text must
// not leave a region unpainted.
bool IsPrivacyText(const std::string& text);

// What a text of regions looks like, for messages.
constexpr const char* kPrivacyForm =
    "write 8 digits a corner, XXXXYYYY in 1/10000 of the picture, 3 corners or more a region, ; between regions";

void AddPictureOptions(CLI::App& command, PictureArgs& args);

// The tests that need no decoding: input, output and the form of the privacy text. kDone, or prints the error.
int CheckPictureArgs(const PictureArgs& args);
