// mediautil gif: key frames of recordings and JPEGs as an animated GIF.
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>

#include "platform/file.h"
#include "tools/mediautil/args.h"
#include "tools/mediautil/keyframe.h"
#include "tools/mediautil/outputfile.h"
#include "tools/mediautil/progress.h"
#include "tools/mediautil/recording.h"
#include "tools/mediautil/stopsignals.h"
#include "utils/gifprocess.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace {

constexpr long long kMaxJpegSize = 1 << 26;
constexpr double kShortestPause = 0.001;  // seconds
// 655 of the largest take 1 GiB, and as much again at the end: what the addresses of 32 bit have room for.
constexpr int kMaxFrames = sizeof(void*) < 8 ? 655 : 10000;

struct GifArgs {
  std::vector<std::string> inputs;
  std::string output;
  std::string progress;  // empty: as fits
  std::optional<double> every;
  int delay = 1000;  // ms
  int maxFrames = 100;
};

// "1 frame", "2 frames"
std::string Count(int number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

bool IsJpegName(const std::string& path) {
  const std::string name = LowerCase(path);
  const auto endsWith = [&name](const std::string& end) {
    return name.size() > end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
  };
  return endsWith(".jpg") || endsWith(".jpeg");
}

// ---------------------------------------------------------------------------------------------------------------------
// Which key frames
// ---------------------------------------------------------------------------------------------------------------------

struct CodedPicture {
  double seconds;
  std::vector<unsigned char> data;
};

// Of the key frames that come along, passes on those that are nearest to 0, every, 2 x every ... seconds.
class Spacing {
 public:
  explicit Spacing(double every) : m_every(every) {}

  template <typename Take>
  void Look(CodedPicture picture, Take take) {
    bool isTaken = false;
    if (picture.seconds >= m_wanted) {
      const double lastWanted = std::max(m_every * std::floor(picture.seconds / m_every), m_wanted);
      if (IsBeforeNearer(m_wanted, picture) && !m_isTaken) {
        take(*m_before);
      }
      isTaken = !IsBeforeNearer(lastWanted, picture);
      if (isTaken) {
        take(picture);
      }
      m_wanted = m_every * (std::floor(lastWanted / m_every + 0.5) + 1);
    }
    m_before = std::move(picture);
    m_isTaken = isTaken;
  }

  // The last one, when no later one could be nearer.
  template <typename Take>
  void End(Take take) {
    if (m_before && !m_isTaken && m_wanted - m_before->seconds <= m_every / 2) {
      take(*m_before);
    }
  }

 private:
  bool IsBeforeNearer(double wanted, const CodedPicture& picture) const {
    return m_before && wanted - m_before->seconds <= picture.seconds - wanted;
  }

  double m_every;
  double m_wanted = 0;  // above the time of the picture before
  std::optional<CodedPicture> m_before;
  bool m_isTaken = false;  // the picture before was passed on
};

// ---------------------------------------------------------------------------------------------------------------------
// Collecting the frames
// ---------------------------------------------------------------------------------------------------------------------

class Collector {
 public:
  Collector(const GifArgs& args, GifProcess& gif, Progress& progress)
      : m_args(args), m_gif(gif), m_progress(progress) {}

  // kDone, or prints the error.
  int Run() {
    for (const std::string& input : m_args.inputs) {
      if (const int code = IsJpegName(input) ? TakeJpeg(input) : TakeRecording(input); code != kDone) {
        return code;
      }
      m_done += static_cast<double>(GetFileSize(input));
      m_progress.Update(m_done);
      if (m_isCut) {
        m_progress.Hide();
        Note(input + ": the GIF ends here with " + Count(m_frames, "frame") +
             "; --max-frames N takes more of them, --every S fewer of the same time");
        break;
      }
    }
    return kDone;
  }

  int Frames() const { return m_frames; }

 private:
  // Fail on a line of its own.
  int Refuse(int code, const std::string& text) {
    m_progress.Hide();
    return Fail(code, text);
  }

  bool IsFull() {
    m_isCut = m_isCut || m_frames >= m_args.maxFrames;
    return m_isCut;
  }

  int TakeJpeg(const std::string& path) {
    if (IsFull()) {
      return kDone;
    }
    const long long size = GetFileSize(path);
    if (size < 1 || size > kMaxJpegSize) {
      return Refuse(kBadInput, path + ": cannot read the JPEG: " +
                                   (size < 0    ? "it is no regular file; name one"
                                    : size == 0 ? "it is empty; check that it was copied whole"
                                                : "it is larger than 64 MB; make a smaller one of it"));
    }
    std::vector<unsigned char> jpeg(static_cast<std::size_t>(size));
    std::ifstream(path, std::ios::binary)
        .read(reinterpret_cast<char*>(jpeg.data()), static_cast<std::streamsize>(jpeg.size()));
    if (m_gif.AddFrameFromJpeg(jpeg.data(), static_cast<int>(jpeg.size())) != 0) {
      return Refuse(
          kBadInput,
          path + ": cannot decode the JPEG: damaged, or more than 64 megapixels; check that it was copied whole");
    }
    ++m_frames;
    return kDone;
  }

  int TakeRecording(const std::string& path) {
    Recording recording;
    m_progress.Hide();
    if (const int code = OpenVideo(path, recording); code != kDone) {
      return code;
    }
    m_recording = &recording;
    m_spacing = m_args.every ? std::make_optional<Spacing>(*m_args.every) : std::nullopt;
    m_refused = 0;
    m_hasTimes = true;
    const int before = m_frames;
    recording.demux.GetVdoStream()->discard = AVDISCARD_NONKEY;  // containers with an index skip the rest
    recording.demux.Demux(recording.video, recording.audio, this, Fetch);
    if (m_spacing) {
      m_spacing->End(
          [this](CodedPicture& picture) { Add(picture.data.data(), static_cast<int>(picture.data.size())); });
    }
    if (!m_hasTimes) {
      return Refuse(kFailed,
                    path + ": cannot choose key frames by time: its video carries no times; leave --every out");
    }
    if (m_frames == before && m_refused == 0 && !m_isCut) {  // nothing is marked as a key frame
      KeyFrame first;
      m_progress.Hide();
      if (const int code = FindKeyFrame(path, std::nullopt, first); code != kDone) {
        return code;
      }
      Add(first.data.data(), static_cast<int>(first.data.size()));
    }
    if (m_frames == before && !m_isCut) {
      return Refuse(kFailed,
                    path + ": cannot take a picture from it: no key frame could be decoded; run again with -v");
    }
    if (m_refused > 0) {
      m_progress.Hide();
      Note(path + ": " + "left out " + Count(m_refused, "key frame") + " that could not be decoded");
    }
    return kDone;
  }

  static FETCH_CONN Fetch(void* self, ESFormat& fmt, AVPacket& packet, AVStream* st) {
    return fmt.i_cat == ES_VIDEO ? static_cast<Collector*>(self)->Look(packet, *st) : FETCH_CONN_NEXT;
  }

  FETCH_CONN Look(const AVPacket& packet, const AVStream& st) {
    m_progress.Update(m_done + static_cast<double>(std::max<std::int64_t>(packet.pos, 0)));
    if ((packet.flags & AV_PKT_FLAG_KEY) == 0 || packet.size < 1) {
      return FETCH_CONN_NEXT;
    }
    if (!m_spacing) {
      Add(packet.data, packet.size);
      return m_isCut ? FETCH_CONN_STOP : FETCH_CONN_NEXT;
    }
    const std::int64_t time = StreamTime(ShownAt(packet), st);
    m_hasTimes = time != AV_NOPTS_VALUE;
    if (m_hasTimes) {
      m_spacing->Look({static_cast<double>(time) / kMicro, {packet.data, packet.data + packet.size}},
                      [this](CodedPicture& p) { Add(p.data.data(), static_cast<int>(p.data.size())); });
    }
    return m_isCut || !m_hasTimes ? FETCH_CONN_STOP : FETCH_CONN_NEXT;
  }

  void Add(unsigned char* data, int size) {
    if (IsFull()) {
      return;
    }
    const ESFormat& video = m_recording->video;
    const bool isAdded = m_gif.AddFrame(data, size, video.p_extra, video.i_extra, VideoType(video)) == 0;
    ++(isAdded ? m_frames : m_refused);
  }

  const GifArgs& m_args;
  GifProcess& m_gif;
  Progress& m_progress;
  int m_frames = 0;
  bool m_isCut = false;
  double m_done = 0;  // bytes of the inputs that are read
  // of the recording being read
  Recording* m_recording = nullptr;
  std::optional<Spacing> m_spacing;
  int m_refused = 0;
  bool m_hasTimes = true;
};

// ---------------------------------------------------------------------------------------------------------------------
// Writing the GIF
// ---------------------------------------------------------------------------------------------------------------------

// A file in memory. The output keeps its old contents until the GIF is whole, and nothing is left behind when a signal
// ends the long work before.
class MemoryFile {
 public:
  MemoryFile() : m_fd(memfd_create("gif", MFD_CLOEXEC)) {}
  ~MemoryFile() {
    if (m_fd >= 0) {
      close(m_fd);
    }
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string Url() const { return "pipe:" + std::to_string(m_fd); }

  // Bytes from a place on, at most size; the number.
  int Read(unsigned char* data, std::size_t size, std::int64_t from) const {
    return static_cast<int>(std::max<ssize_t>(pread(m_fd, data, size, static_cast<off_t>(from)), 0));
  }

 private:
  int m_fd;
};

// "640x360, 12 frames of 1.000 s"
std::string Describe(const MemoryFile& made, const GifArgs& args, int frames, double& pixels) {
  unsigned char header[10] = {};
  made.Read(header, sizeof(header), 0);
  const int width = header[6] | header[7] << 8;
  const int height = header[8] | header[9] << 8;
  pixels = static_cast<double>(width) * height * frames;
  return std::to_string(width) + "x" + std::to_string(height) + ", " + Count(frames, "frame") + " of " +
         SecondsText(std::int64_t{args.delay} / 10 * 10 * (kMicro / 1000));
}

int WriteGif(const GifArgs& args, const MemoryFile& made, int frames) {
  const StopSignals signals;
  OutputFile output(args.output, "GIF");
  if (const int code = output.Open(); code != kDone) {
    return code;
  }
  std::vector<unsigned char> piece(1 << 20);
  while (const int size = made.Read(piece.data(), piece.size(), output.Size())) {
    if (OutputFile::Write(&output, piece.data(), size) != size) {
      break;
    }
  }
  const int result = output.Commit();
  if (result == kDone) {
    double pixels = 0;
    const std::string text = Describe(made, args, frames, pixels);
    char rest[96];
    std::snprintf(rest, sizeof(rest), ", %lld bytes; its frames took %.1f MB of memory, about twice that in all",
                  static_cast<long long>(output.Size()), pixels * 4 / 1e6);
    Note(OutputName(args.output) + ": " + text + rest);
  }
  return result;
}

// Tests all files before the long work.
int CheckFiles(const GifArgs& args) {
  for (const std::string& input : args.inputs) {
    if (const int code = CheckInput(input); code != kDone) {
      return code;
    }
    if (const int code = CheckOutput(args.output, input, "GIF"); code != kDone) {
      return code;
    }
  }
  const StopSignals signals;
  OutputFile trial(args.output, "GIF");
  return trial.Open();
}

double TotalSize(const std::vector<std::string>& paths) {
  double total = 0;
  for (const std::string& path : paths) {
    total += static_cast<double>(std::max(GetFileSize(path), 0LL));
  }
  return total;
}

int MakeGif(const GifArgs& args) {
  if (const int code = CheckFiles(args); code != kDone) {
    return code;
  }
  const std::string outputName = OutputName(args.output);
  const ProgressForm form = ChooseProgress(args.progress);
  const double total = TotalSize(args.inputs);
  Progress progress(form, total, ProgressUnit::kBytes);
  GifProcess gif;
  Collector collector(args, gif, progress);
  if (const int code = collector.Run(); code != kDone) {
    return code;
  }
  progress.Hide();
  if (form == ProgressForm::kText) {
    Note(outputName + ": choosing the colours of " + Count(collector.Frames(), "frame"));
  }
  const MemoryFile made;
  gif.SetGifPath(made.Url());
  gif.SetGifDelay(args.delay);
  if (gif.Process() != 0) {
    return Fail(kFailed, outputName + ": cannot make the GIF: out of memory? Try a lower --max-frames, or -v");
  }
  const int result = WriteGif(args, made, collector.Frames());
  if (result == kDone) {
    progress.Finish(total);
  }
  return result;
}

}  // namespace

void AddGif(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("gif", "Write key frames of recordings, and JPEGs, as an animated GIF.");
  const auto args = std::make_shared<GifArgs>();
  command->add_option("FILE", args->inputs, "recordings and JPEGs (.jpg, .jpeg), in order")->required()->type_name("");
  command->add_option("-o,--output", args->output, "GIF file to write, - for stdout")->required()->type_name("OUT");
  command->add_option("--delay", args->delay, "how long a frame is shown, in steps of 10; 1000 without it")
      ->type_name("MS")
      ->check(CLI::Range(0, 655350).description(""));
  command->add_option("--every", args->every, "only the key frames nearest to 0, S, 2 x S ... seconds")
      ->type_name("S")
      ->check([](const std::string& text) {
        double seconds = 0;
        const bool isNumber = CLI::detail::lexical_cast(text, seconds);
        const bool isPause = std::isfinite(seconds) && seconds >= kShortestPause;
        return isNumber && !isPause ? "not a pause: " + text + "; 0.001 at least" : "";
      });
  command
      ->add_option("--max-frames", args->maxFrames,
                   "end after so many, at most " + std::to_string(kMaxFrames) + "; 100 without it")
      ->type_name("N")
      ->check(CLI::Range(1, kMaxFrames).description(""));
  AddProgressOption(*command, args->progress);
  command->footer(
      "Examples:\n  mediautil gif gate.mp4 -o gate.gif --every 10 --delay 500\n"
      "  mediautil gif before.jpg gate.mp4 after.jpg -o event.gif");
  command->callback([args, &action] { action = [args] { return MakeGif(*args); }; });
}
