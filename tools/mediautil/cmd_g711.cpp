// mediautil g711: sound as a mu-law WAV file.
#include <sys/resource.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <future>
#include <memory>

#include "tools/mediautil/args.h"
#include "tools/mediautil/soundjob.h"
#include "tools/mediautil/stopsignals.h"
#include "utils/audioutil.h"

namespace {

constexpr int kHeaderSize = 44;
constexpr double kBytesPerSecond = 16000;

// Makes every write to a file fail while it lives: the way to end the library's work early.
class NoWriting {
 public:
  NoWriting() {
    getrlimit(RLIMIT_FSIZE, &m_before);
    const rlimit none = {0, m_before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
  }
  ~NoWriting() { setrlimit(RLIMIT_FSIZE, &m_before); }
  NoWriting(const NoWriting&) = delete;
  NoWriting& operator=(const NoWriting&) = delete;

 private:
  rlimit m_before = {};
};

double SecondsIn(const std::string& path) {
  struct stat file = {};
  const bool hasSound = stat(path.c_str(), &file) == 0 && file.st_size > kHeaderSize;
  return hasSound ? static_cast<double>(file.st_size - kHeaderSize) / kBytesPerSecond : 0;
}

// The library's header counts what had reached the file when it was written.
bool CompleteHeader(const std::string& path) {
  struct stat status = {};
  FILE* file = std::fopen(path.c_str(), "r+be");
  if (file == nullptr) {
    return false;
  }
  const bool fits = fstat(fileno(file), &status) == 0 && status.st_size <= INT_MAX;
  if (fits) {
    UpdateWavMetaSize(file, static_cast<int>(status.st_size) - kHeaderSize);
  }
  const bool isWritten = std::ferror(file) == 0;
  return std::fclose(file) == 0 && isWritten && fits;
}

struct Outcome {
  bool isDone;
  int error;  // errno
};

// The conversion is one call, which a thread of its own makes, so that this one can show progress and take Ctrl-C.
Outcome Convert(const std::string& input, SoundJob& job) {
  constexpr auto kPause = std::chrono::milliseconds(100);
  auto work = std::async(std::launch::async, [&]() -> Outcome {
    errno = 0;
    const bool isDone = TranscodeToG711(input, job.output.Path()) == 0 && CompleteHeader(job.output.Path());
    return {isDone, errno};
  });
  while (work.wait_for(kPause) == std::future_status::timeout) {
    if (StopSignals::Seen()) {
      const NoWriting end;
      work.wait();
    } else {
      job.Done(SecondsIn(job.output.Path()));
    }
  }
  return work.get();
}

int WriteG711(const SoundArgs& args, SoundJob& job) {
  const std::string input = InputPath(args.input);
  if (!IsFileNeedToTranscode(input)) {
    Note(args.input + ": needs no conversion, it has 16-bit samples, 16000 a second over all channels; converted all " +
         "the same");
  }
  const Outcome outcome = Convert(input, job);
  if (!outcome.isDone && !StopSignals::Seen() && !job.output.TakeError(outcome.error)) {
    return Fail(kFailed, args.input + ": cannot convert its sound of " + std::to_string(job.source.Rate()) + " Hz, " +
                             std::to_string(job.source.Channels()) + " channels; run again with -vv");
  }
  job.Done(SecondsIn(job.output.Path()));
  return kDone;
}

int G711(const SoundArgs& args) {
  if (args.output == "-") {
    return Fail(kUsage, "g711: DST is a file whose header is completed at the end, it cannot be stdout; name a file");
  }
  SoundJob job(args);
  return job.Run([&] { return WriteG711(args, job); });
}

}  // namespace

void AddG711(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("g711", "Write sound as a G.711 mu-law WAV file, 8000 Hz stereo.");
  const auto args = std::make_shared<SoundArgs>();
  command->add_option("SRC", args->input, "recording or sound file to read")->required()->type_name("");
  command->add_option("DST", args->output, "WAV file to write")->required()->type_name("");
  AddProgressOption(*command, args->progress);
  command->footer(
      "Examples:\n  mediautil g711 siren.mp3 siren.wav\n  mediautil g711 gate.mp4 gate.wav --progress=json");
  command->callback([args, &action] { action = [args] { return G711(*args); }; });
}
